// Reading backup files: the header and metadata, and a full structural check.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <system_error>

#include "backup/archive.h"
#include "backup/backup_internal.h"
#include "dischive/backup.h"
#include "dischive/errors.h"
#include "dischive/sqlite_catalog.h"
#include "platform/file.h"
#include "platform/file_lock.h"

namespace dischive {
namespace {

// The metadata section is searched for in this many bytes at the end.
constexpr size_t kMetadataTail = 8196;
// Caps on what a backup may claim, far above anything a real one holds.
constexpr size_t kMaxNameLength = 4096;
constexpr size_t kMaxReservedText = 65536;
constexpr size_t kMaxCovers = 10'000'000;

constexpr std::string_view kMetaMarker{"\x05#META", 6};

HResult Fail(HResult code, std::string text, std::string* message) {
  if (message != nullptr) *message = std::move(text);
  return code;
}

// A name from a backup as it can be shown in a one-line message: control
// characters and quotes escaped as \xNN.
std::string Printable(std::string_view name) {
  std::string out;
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || c == '"') {
      out += fmt::format("\\x{:02X}", byte);
    } else {
      out += c;
    }
  }
  return out;
}

// Reads the metadata section from "#META" on.
bool ReadMetadata(backup::ArchiveReader& reader, BackupMetadata* metadata) {
  std::string tag;
  if (!reader.ReadString(&tag, 16)) return false;
  if (tag != "#META")
    return reader.Fail(fmt::format("\"{}\" where \"#META\" belongs", Printable(tag)));
  if (!reader.ReadDword(&metadata->version)) return false;
  if (!reader.ReadString(&metadata->database_name, kMaxNameLength)) return false;
  for (std::string& text : metadata->reserved_texts) {
    if (!reader.ReadString(&text, kMaxReservedText)) return false;
  }
  for (uint32_t& number : metadata->reserved_numbers) {
    if (!reader.ReadDword(&number)) return false;
  }
  return true;
}

bool HeaderMatches(const platform::File& file) {
  char header[kBackupHeader.size()];
  size_t got = 0;
  return file.ReadAt(0, header, sizeof(header), &got) == kOk && got == sizeof(header) &&
         std::string_view(header, got) == kBackupHeader;
}

}  // namespace

bool IsBareFileName(std::string_view name) {
  // Control characters are refused too: a name with a line end or an escape
  // sequence would garble listings and terminals that show it.
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos &&
         std::none_of(name.begin(), name.end(), [](char c) {
           const auto byte = static_cast<unsigned char>(c);
           return byte < 0x20 || byte == 0x7F;
         });
}

std::filesystem::path DefaultCoversFolder(const std::filesystem::path& database) {
  return database.parent_path() / (database.stem().string() + "_covers");
}

bool ReadBackupInfo(const std::filesystem::path& path, BackupMetadata* metadata,
                    bool* metadata_found) {
  if (metadata_found != nullptr) *metadata_found = false;
  platform::File file;
  uint64_t size = 0;
  if (platform::File::OpenRead(path, &file) != kOk || file.Size(&size) != kOk) return false;
  if (!HeaderMatches(file)) return false;
  if (metadata == nullptr) return true;

  const size_t tail_size = static_cast<size_t>(std::min<uint64_t>(size, kMetadataTail));
  const uint64_t tail_start = size - tail_size;
  std::string tail(tail_size, '\0');
  size_t got = 0;
  if (file.ReadAt(tail_start, tail.data(), tail.size(), &got) != kOk) return false;
  tail.resize(got);
  const size_t marker = tail.rfind(kMetaMarker);
  if (marker == std::string::npos) return true;

  backup::SpanSource source(std::string_view(tail).substr(marker), tail_start + marker);
  backup::ArchiveReader reader(source);
  BackupMetadata found;
  if (!ReadMetadata(reader, &found)) return false;
  *metadata = std::move(found);
  if (metadata_found != nullptr) *metadata_found = true;
  return true;
}

namespace backup {

bool ParseBackup(ByteSource& source, BackupContents* contents, std::string* reason) {
  BackupContents found;
  found.file_size = source.remaining();
  ArchiveReader reader(source);
  const auto fail = [&](const std::string& why) {
    if (!why.empty()) reader.Fail(why);
    *reason = reader.error();
    return false;
  };
  char header[kBackupHeader.size()];
  if (!reader.ReadBytes(header, sizeof(header)) ||
      std::string_view(header, sizeof(header)) != kBackupHeader) {
    *reason = "not a backup file";
    return false;
  }
  if (!reader.SkipEmbedded(&found.database_offset, &found.database_size)) return fail("");

  std::string tag;
  if (!reader.ReadString(&tag, 16)) return fail("");
  if (tag == "#FILE" || tag == "#END") {
    found.covers_included = true;
    std::set<std::string> names;
    while (tag == "#FILE") {
      if (found.covers.size() >= kMaxCovers)
        return fail(fmt::format("more than {} covers", kMaxCovers));
      BackupEntry entry;
      if (!reader.ReadString(&entry.name, kMaxNameLength)) return fail("");
      if (!IsBareFileName(entry.name)) {
        return fail(
            fmt::format("cover name \"{}\" is not a plain file name", Printable(entry.name)));
      }
      if (!names.insert(entry.name).second) {
        return fail(fmt::format("cover \"{}\" appears twice", Printable(entry.name)));
      }
      if (!reader.SkipEmbedded(&entry.offset, &entry.size)) return fail("");
      found.covers.push_back(std::move(entry));
      if (!reader.ReadString(&tag, 16)) return fail("");
    }
    if (tag != "#END") return fail(fmt::format("unexpected \"{}\" in the covers", Printable(tag)));
  } else if (tag != "#INCR") {
    return fail(fmt::format("unexpected \"{}\" after the database", Printable(tag)));
  }

  if (!ReadMetadata(reader, &found.metadata)) return fail("");
  if (reader.remaining() != 0) {
    return fail(fmt::format("{} unexpected bytes after the metadata", reader.remaining()));
  }
  if (contents != nullptr) *contents = std::move(found);
  return true;
}

}  // namespace backup

HResult InspectBackup(const std::filesystem::path& path, BackupContents* contents,
                      std::string* message) {
  platform::File file;
  uint64_t size = 0;
  if (HResult r = platform::File::OpenRead(path, &file); r != kOk || (r = file.Size(&size))) {
    return Fail(r, fmt::format("cannot read {}: {}", path.string(), FormatErrorMessage(r)),
                message);
  }
  if (size < kBackupHeader.size() || !HeaderMatches(file)) {
    return Fail(kInvalidArgument, fmt::format("{} is not a backup file", path.string()), message);
  }
  backup::FileSource source(file, size);
  std::string reason;
  if (!backup::ParseBackup(source, contents, &reason)) {
    return Fail(kInvalidArgument, fmt::format("{} is damaged: {}", path.string(), reason), message);
  }
  return kOk;
}

namespace backup {

HResult LockDatabase(const std::filesystem::path& database, platform::FileLock* lock,
                     std::string* message) {
  // The catalogue engine's writers hold the same lock file ("<database>.lock").
  const int error = lock->TryLock(database.string() + ".lock");
  if (error == EWOULDBLOCK) {
    return Fail(kCatalogLocked, fmt::format("another program is writing to {}", database.string()),
                message);
  }
  if (error != 0) {
    const HResult r = HResultFromErrno(error);
    return Fail(r, fmt::format("cannot lock {}: {}", database.string(), FormatErrorMessage(r)),
                message);
  }
  return kOk;
}

HResult CheckNoPendingLog(const std::filesystem::path& database, std::string* message) {
  std::error_code ec;
  const std::filesystem::path wal = database.string() + "-wal";
  const uintmax_t size = std::filesystem::file_size(wal, ec);
  if (!ec && size > 0) {
    return Fail(kFail,
                fmt::format("{} has changes not yet written into it ({}); open it with "
                            "dischive once, or back it up with its catalogue open",
                            database.string(), wal.string()),
                message);
  }
  return kOk;
}

}  // namespace backup
}  // namespace dischive
