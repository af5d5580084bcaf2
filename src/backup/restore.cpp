// Restoring a backup into a database path and a covers folder.
//
// Nothing is lost on the way: the whole backup is checked before anything is
// written, every file is first written to a temporary file beside its target
// and checked for its length, all of them are flushed to the disk, and only
// then are they renamed into place. The
// database that was there is kept as "<name>.bak" unless the caller says not
// to; its write-ahead log goes with it so that neither file is left with a log
// that belongs to the other.
#include <fmt/format.h>

#include <system_error>

#include "backup/backup_internal.h"
#include "dischive/backup.h"
#include "platform/file.h"
#include "platform/replace_file.h"

namespace dischive {
namespace {

HResult Fail(HResult code, std::string text, std::string* message) {
  if (message != nullptr) *message = std::move(text);
  return code;
}

std::filesystem::path WithSuffix(const std::filesystem::path& path, std::string_view suffix) {
  return std::filesystem::path(path.string() + std::string(suffix));
}

class Restorer {
 public:
  Restorer(const RestoreRequest& request, std::string* message)
      : request_(request), message_(message) {}

  HResult Run(BackupSummary* summary) {
    if (request_.database.empty()) {
      return Fail(kInvalidArgument, "no database file given", message_);
    }
    // A database reached through a link is restored where the link points,
    // and its previous copy and log are kept beside it there.
    std::filesystem::path database;
    std::string error;
    if (const HResult r = platform::ResolveLinks(request_.database, &database, &error)) {
      return Fail(r, "cannot follow " + error, message_);
    }
    BackupContents contents;
    if (const HResult r = InspectBackup(request_.backup, &contents, message_)) return r;

    std::error_code ec;
    const bool database_exists = std::filesystem::exists(database, ec);
    if (database_exists && !request_.replace_existing) {
      return Fail(kErrorFileExists,
                  fmt::format("{} already exists; replace it explicitly", database.string()),
                  message_);
    }
    if (std::filesystem::is_directory(database, ec)) {
      return Fail(kInvalidArgument, fmt::format("{} is a folder", database.string()), message_);
    }
    const std::filesystem::path db_folder =
        database.has_parent_path() ? database.parent_path() : std::filesystem::path(".");
    const std::filesystem::path covers_folder = request_.covers_folder.empty()
                                                    ? DefaultCoversFolder(request_.database)
                                                    : request_.covers_folder;
    if (!std::filesystem::is_directory(db_folder, ec)) {
      std::filesystem::create_directories(db_folder, ec);
      if (ec) {
        return Fail(kErrorAccessDenied,
                    fmt::format("cannot create {}: {}", db_folder.string(), ec.message()),
                    message_);
      }
    }

    platform::FileLock lock;
    if (const HResult r = backup::LockDatabase(request_.database, &lock, message_)) return r;

    platform::File source;
    if (const HResult r = platform::File::OpenRead(request_.backup, &source)) {
      return Fail(
          r, fmt::format("cannot read {}: {}", request_.backup.string(), FormatErrorMessage(r)),
          message_);
    }
    total_ = contents.database_size;
    for (const BackupEntry& cover : contents.covers)
      total_ += cover.size;

    // Stage everything.
    platform::FileReplacement staged_db;
    if (const HResult r =
            Stage(source, contents.database_offset, contents.database_size, database, &staged_db)) {
      return r;
    }
    bool created_covers_folder = false;
    std::vector<platform::FileReplacement> staged_covers;
    if (!contents.covers.empty()) {
      if (!std::filesystem::is_directory(covers_folder, ec)) {
        std::filesystem::create_directories(covers_folder, ec);
        if (ec) {
          return Fail(kErrorAccessDenied,
                      fmt::format("cannot create {}: {}", covers_folder.string(), ec.message()),
                      message_);
        }
        created_covers_folder = true;
      }
      staged_covers.reserve(contents.covers.size());
      for (const BackupEntry& cover : contents.covers) {
        staged_covers.emplace_back();
        if (const HResult r = Stage(source, cover.offset, cover.size, covers_folder / cover.name,
                                    &staged_covers.back())) {
          staged_covers.clear();
          if (created_covers_folder) std::filesystem::remove(covers_folder, ec);
          return r;
        }
      }
    }

    // Everything staged reaches the disk before any of it is renamed into place.
    if (const HResult r = platform::SyncFileSystem(db_folder)) {
      return Fail(r, fmt::format("cannot flush {}: {}", db_folder.string(), FormatErrorMessage(r)),
                  message_);
    }
    if (!staged_covers.empty()) {
      if (const HResult r = platform::SyncFileSystem(covers_folder)) {
        return Fail(
            r, fmt::format("cannot flush {}: {}", covers_folder.string(), FormatErrorMessage(r)),
            message_);
      }
    }

    // Move the old database aside, then everything into place.
    std::filesystem::path previous;
    if (database_exists) {
      if (const HResult r = MoveAside(database, &previous)) return r;
    }
    if (const HResult r = Commit(staged_db)) {
      if (!previous.empty()) std::filesystem::rename(previous, database, ec);
      return r;
    }
    for (platform::FileReplacement& cover : staged_covers) {
      if (const HResult r = Commit(cover)) return r;
    }
    platform::SyncFolder(db_folder);
    if (!staged_covers.empty()) platform::SyncFolder(covers_folder);

    if (summary != nullptr) {
      summary->database_bytes = contents.database_size;
      summary->covers = static_cast<uint32_t>(contents.covers.size());
      summary->cover_bytes = total_ - contents.database_size;
      summary->backup_bytes = contents.file_size;
      summary->previous_database = previous;
    }
    if (request_.progress) request_.progress(total_, total_);
    return kOk;
  }

 private:
  // Copies `size` bytes of the backup into a new temporary file beside
  // `target` and checks its length (the caller flushes all staged files at
  // once, then commits them).
  HResult Stage(const platform::File& source, uint64_t offset, uint32_t size,
                const std::filesystem::path& target, platform::FileReplacement* staged) {
    std::error_code ec;
    if (std::filesystem::is_directory(target, ec)) {
      return Fail(kErrorFileExists, fmt::format("{} is a folder", target.string()), message_);
    }
    std::string error;
    if (const HResult r = platform::FileReplacement::Begin(target, staged, &error)) {
      return Fail(r, "cannot create a file for " + error, message_);
    }
    bool cancelled = false;
    HResult r = staged->file().CopyFrom(source, offset, size, [&](uint64_t copied) {
      if (!request_.progress || request_.progress(done_ + copied, total_)) return true;
      cancelled = true;
      return false;
    });
    uint64_t written = 0;
    if (r == kOk) r = staged->file().Size(&written);
    if (cancelled) return Fail(kAborted, "restore cancelled", message_);
    if (r != kOk) {
      return Fail(r, fmt::format("cannot write {}: {}", target.string(), FormatErrorMessage(r)),
                  message_);
    }
    if (written != size) {
      return Fail(
          kFail,
          fmt::format("{} came out {} bytes long instead of {}", target.string(), written, size),
          message_);
    }
    if (const HResult closed = staged->Finish(platform::FileReplacement::Flush::kNone, &error)) {
      return Fail(closed, "cannot write " + error, message_);
    }
    done_ += size;
    return kOk;
  }

  HResult Commit(platform::FileReplacement& staged) {
    std::string error;
    if (const HResult r = staged.Commit(platform::FileReplacement::Flush::kNone, &error)) {
      return Fail(r, "cannot move into place " + error, message_);
    }
    return kOk;
  }

  // Renames the current database (and its write-ahead log) to "<name>.bak", or
  // removes them when the caller does not want to keep them. The shared-memory
  // index of the log is rebuilt by SQLite and is simply removed.
  HResult MoveAside(const std::filesystem::path& database, std::filesystem::path* previous) {
    std::error_code ec;
    const std::filesystem::path wal = WithSuffix(database, "-wal");
    const std::filesystem::path shm = WithSuffix(database, "-shm");
    if (request_.keep_previous) {
      const std::filesystem::path bak = WithSuffix(database, ".bak");
      std::filesystem::rename(database, bak, ec);
      if (ec) {
        return Fail(kFail,
                    fmt::format("cannot rename {} to {}: {}", database.string(), bak.string(),
                                ec.message()),
                    message_);
      }
      *previous = bak;
      std::filesystem::remove(WithSuffix(bak, "-wal"), ec);
      std::filesystem::remove(WithSuffix(bak, "-shm"), ec);
      // A log with content belongs to the kept file; an empty one is dropped.
      if (std::filesystem::file_size(wal, ec) > 0 && !ec) {
        std::filesystem::rename(wal, WithSuffix(bak, "-wal"), ec);
      } else {
        std::filesystem::remove(wal, ec);
      }
    } else {
      std::filesystem::remove(database, ec);
      std::filesystem::remove(wal, ec);
    }
    std::filesystem::remove(shm, ec);
    return kOk;
  }

  const RestoreRequest& request_;
  std::string* message_;
  uint64_t total_ = 0;
  uint64_t done_ = 0;
};

}  // namespace

HResult RestoreBackupFile(const RestoreRequest& request, std::string* message,
                          BackupSummary* summary) {
  std::string ignored;
  return Restorer(request, message != nullptr ? message : &ignored).Run(summary);
}

}  // namespace dischive
