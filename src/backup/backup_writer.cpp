// Writing backup files.
#include <fmt/format.h>

#include <algorithm>
#include <system_error>

#include "backup/archive.h"
#include "backup/backup_internal.h"
#include "dischive/backup.h"
#include "dischive/catalog.h"
#include "dischive/text.h"
#include "platform/file.h"

namespace dischive {
namespace {

constexpr uint64_t kMaxEmbeddedSize = 0xFFFFFFFFu;

struct CoverFile {
  std::string name;
  std::filesystem::path path;
};

// The "*.jpg" files of a folder (any letter case), regular files only (links
// to regular files count), sorted by name so that backups are reproducible.
// Sizes are checked when each file is opened. A missing folder has none.
std::vector<CoverFile> ListCovers(const std::filesystem::path& folder) {
  std::vector<CoverFile> covers;
  std::error_code ec;
  for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
       it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (!EndsWithIgnoreCase(name, ".jpg")) continue;
    std::error_code type_ec;
    if (!it->is_regular_file(type_ec)) continue;
    covers.push_back({name, it->path()});
  }
  std::sort(covers.begin(), covers.end(),
            [](const CoverFile& a, const CoverFile& b) { return a.name < b.name; });
  return covers;
}

// Holds the database still while it is copied: suspends the caller's engine,
// or takes the write lock of a database nobody here has open.
class DatabaseHold {
 public:
  DatabaseHold() = default;
  DatabaseHold(const DatabaseHold&) = delete;
  DatabaseHold& operator=(const DatabaseHold&) = delete;
  ~DatabaseHold() {
    if (suspended_ != nullptr) suspended_->ResumeWriting();
  }

  HResult Take(const BackupRequest& request, const std::filesystem::path& database,
               std::string* message) {
    if (request.catalog != nullptr) {
      if (const HResult r = request.catalog->SuspendWriting()) {
        const std::string why = request.catalog->LastErrorText();
        *message = fmt::format("cannot suspend writing to {}: {}", database.string(),
                               why.empty() ? FormatErrorMessage(r) : why);
        return r;
      }
      suspended_ = request.catalog;
      return kOk;
    }
    if (const HResult r = backup::LockDatabase(database, &lock_, message)) return r;
    return backup::CheckNoPendingLog(database, message);
  }

 private:
  CatalogEngine* suspended_ = nullptr;
  platform::FileLock lock_;
};

HResult Fail(HResult code, std::string text, std::string* message) {
  if (message != nullptr) *message = std::move(text);
  return code;
}

// Copies the database and the covers into the open backup file.
HResult WriteStream(const BackupRequest& request, const std::filesystem::path& database,
                    const platform::File& db, uint64_t db_size,
                    const std::vector<CoverFile>& covers, platform::File& out, std::string* message,
                    BackupSummary* summary) {
  // Open every cover first so that the total for the progress display is known
  // and a cover that went away is simply left out.
  struct OpenCover {
    const CoverFile* cover;
    platform::File file;
    uint32_t size;
  };
  std::vector<OpenCover> open_covers;
  uint64_t total = db_size;
  for (const CoverFile& cover : covers) {
    platform::File file;
    uint64_t size = 0;
    if (platform::File::OpenRead(cover.path, &file) != kOk || file.Size(&size) != kOk ||
        size > kMaxEmbeddedSize) {
      continue;
    }
    total += size;
    open_covers.push_back({&cover, std::move(file), static_cast<uint32_t>(size)});
    // Keep the number of descriptors small: reopen later when there are many.
    if (open_covers.size() > 64) open_covers.back().file.Close();
  }

  uint64_t done = 0;
  bool cancelled = false;
  const auto step = [&](uint64_t copied) {
    if (!request.progress || request.progress(done + copied, total)) return true;
    cancelled = true;
    return false;
  };

  backup::FileSink sink(out);
  backup::ArchiveWriter writer(sink);
  writer.WriteBytes(kBackupHeader.data(), kBackupHeader.size());
  writer.WriteEmbedded(db, 0, static_cast<uint32_t>(db_size), step);
  if (writer.status() == platform::kErrorHandleEof) {
    return Fail(writer.status(),
                fmt::format("{} became shorter while it was copied", database.string()), message);
  }
  done += db_size;

  uint64_t cover_bytes = 0;
  uint32_t cover_count = 0;
  if (request.include_covers && !request.covers_folder.empty()) {
    for (OpenCover& cover : open_covers) {
      if (writer.status() != kOk) break;
      if (!cover.file.is_open()) {
        uint64_t size = 0;
        if (platform::File::OpenRead(cover.cover->path, &cover.file) != kOk ||
            cover.file.Size(&size) != kOk || size != cover.size) {
          total -= cover.size;  // went away or changed since it was listed
          continue;
        }
      }
      writer.WriteString("#FILE");
      writer.WriteString(cover.cover->name);
      writer.WriteEmbedded(cover.file, 0, cover.size, step);
      if (writer.status() == platform::kErrorHandleEof) {
        return Fail(
            writer.status(),
            fmt::format("{} became shorter while it was copied", cover.cover->path.string()),
            message);
      }
      cover.file.Close();
      done += cover.size;
      cover_bytes += cover.size;
      ++cover_count;
    }
    writer.WriteString("#END");
  } else {
    writer.WriteString("#INCR");
  }

  writer.WriteString("#META");
  writer.WriteDword(kBackupMetadataVersion);
  writer.WriteString(database.filename().string());
  for (int i = 0; i < 6; ++i)
    writer.WriteString("");
  for (int i = 0; i < 6; ++i)
    writer.WriteDword(0);
  if (const HResult r = writer.Flush()) {
    if (cancelled) return Fail(kAborted, "backup cancelled", message);
    return Fail(r,
                fmt::format("cannot write {}: {}", request.backup.string(), FormatErrorMessage(r)),
                message);
  }
  if (summary != nullptr) {
    summary->database_bytes = db_size;
    summary->covers = cover_count;
    summary->cover_bytes = cover_bytes;
    summary->backup_bytes = writer.position();
  }
  if (request.progress) request.progress(total, total);
  return kOk;
}

}  // namespace

HResult WriteBackupFile(const BackupRequest& request, std::string* message,
                        BackupSummary* summary) {
  std::string ignored;
  if (message == nullptr) message = &ignored;
  const std::filesystem::path database = request.database.empty() && request.catalog != nullptr
                                             ? request.catalog->path()
                                             : request.database;
  if (database.empty()) return Fail(kInvalidArgument, "no database file given", message);
  if (request.catalog != nullptr && database != request.catalog->path()) {
    std::error_code ec;
    if (!std::filesystem::equivalent(database, request.catalog->path(), ec)) {
      return Fail(kInvalidArgument,
                  fmt::format("{} is not the open catalogue {}", database.string(),
                              request.catalog->path().string()),
                  message);
    }
  }
  if (request.backup.empty()) return Fail(kInvalidArgument, "no backup file given", message);

  DatabaseHold hold;
  if (const HResult r = hold.Take(request, database, message)) return r;

  platform::File db;
  uint64_t db_size = 0;
  if (HResult r = platform::File::OpenRead(database, &db); r != kOk || (r = db.Size(&db_size))) {
    return Fail(r, fmt::format("cannot read {}: {}", database.string(), FormatErrorMessage(r)),
                message);
  }
  if (db_size > kMaxEmbeddedSize) {
    return Fail(kInvalidArgument,
                fmt::format("{} is {} bytes; a backup file holds at most 4 GiB - 1",
                            database.string(), db_size),
                message);
  }

  std::vector<CoverFile> covers;
  if (request.include_covers && !request.covers_folder.empty()) {
    covers = ListCovers(request.covers_folder);
  }

  platform::File out;
  if (const HResult r = platform::File::CreateExclusive(request.backup, &out)) {
    return Fail(r,
                r == kErrorFileExists ? fmt::format("{} already exists", request.backup.string())
                                      : fmt::format("cannot create {}: {}", request.backup.string(),
                                                    FormatErrorMessage(r)),
                message);
  }
  HResult result = WriteStream(request, database, db, db_size, covers, out, message, summary);
  if (const HResult closed = out.Close(); result == kOk && closed != kOk) {
    result = Fail(
        closed,
        fmt::format("cannot write {}: {}", request.backup.string(), FormatErrorMessage(closed)),
        message);
  }
  if (result != kOk) {
    // The file was created above by this call, so removing it loses nothing.
    std::error_code ec;
    std::filesystem::remove(request.backup, ec);
  }
  return result;
}

}  // namespace dischive
