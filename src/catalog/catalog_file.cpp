// Catalogue files: the header check, the schema and creation, the write lock
// beside the file, and opening one.
#include "catalog/catalog_file.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "catalog/sqlite_db.h"
#include "dischive/sqlite_catalog.h"

namespace dischive {
namespace catalog {
namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE albums(
  aid INTEGER PRIMARY KEY,
  id TEXT NOT NULL UNIQUE,
  modified INTEGER NOT NULL DEFAULT 0,
  record BLOB NOT NULL);
CREATE TABLE volumes(
  record_id INTEGER PRIMARY KEY,
  aid INTEGER NOT NULL,
  track_count INTEGER NOT NULL DEFAULT 0,
  scan_folder TEXT,
  scan_stamp INTEGER,
  scan_flags INTEGER,
  scan_value3 INTEGER);
CREATE TABLE covers(
  record_id INTEGER PRIMARY KEY REFERENCES volumes(record_id) ON DELETE CASCADE,
  bytes BLOB NOT NULL);
CREATE TABLE artists(
  name TEXT PRIMARY KEY,
  is_band INTEGER NOT NULL DEFAULT 0,
  sort_name TEXT NOT NULL DEFAULT '',
  country TEXT NOT NULL DEFAULT '',
  formed INTEGER NOT NULL DEFAULT 0,
  disbanded INTEGER NOT NULL DEFAULT 0);
CREATE TABLE artist_alt_names(
  name TEXT NOT NULL REFERENCES artists(name) ON DELETE CASCADE,
  pos INTEGER NOT NULL,
  alt_name TEXT NOT NULL,
  PRIMARY KEY(name, pos)) WITHOUT ROWID;
CREATE TABLE artist_links(
  name TEXT NOT NULL REFERENCES artists(name) ON DELETE CASCADE,
  pos INTEGER NOT NULL,
  link TEXT NOT NULL,
  description TEXT NOT NULL DEFAULT '',
  PRIMARY KEY(name, pos)) WITHOUT ROWID;
CREATE TABLE db_props(
  grp TEXT NOT NULL COLLATE NOCASE,
  key TEXT NOT NULL COLLATE NOCASE,
  value TEXT NOT NULL,
  PRIMARY KEY(grp, key)) WITHOUT ROWID;
CREATE TABLE meta(
  key TEXT PRIMARY KEY,
  value) WITHOUT ROWID;
)sql";

uint32_t ReadBigEndian(const unsigned char* p, size_t n) {
  uint32_t v = 0;
  for (size_t i = 0; i < n; ++i)
    v = v << 8 | p[i];
  return v;
}

}  // namespace

std::string CheckDatabaseHeader(const std::filesystem::path& path) {
  std::error_code ec;
  const uintmax_t size = std::filesystem::file_size(path, ec);
  if (ec) return "cannot read " + path.string() + ": " + ec.message();
  if (size == 0) return path.string() + " is empty, not a catalogue";
  std::ifstream in(path, std::ios::binary);
  unsigned char header[100] = {};
  in.read(reinterpret_cast<char*>(header), sizeof header);
  const std::streamsize got = in.gcount();
  if (got < 16 || std::memcmp(header, "SQLite format 3", 16) != 0) {
    return path.string() + " is not a catalogue (not a database file)";
  }
  if (got < static_cast<std::streamsize>(sizeof header)) {
    return path.string() + " is not a catalogue (too short for a database file)";
  }
  uint32_t page_size = ReadBigEndian(header + 16, 2);
  if (page_size == 1) page_size = 65536;
  if (page_size < 512 || page_size > 65536 || (page_size & (page_size - 1)) != 0) {
    return path.string() + " is damaged (invalid page size in its header)";
  }
  const uint32_t change_counter = ReadBigEndian(header + 24, 4);
  const uint32_t page_count = ReadBigEndian(header + 28, 4);
  const uint32_t valid_for = ReadBigEndian(header + 92, 4);
  // The page count in the header is reliable only when it was written with
  // the current change counter.
  if (page_count != 0 && valid_for == change_counter) {
    const uintmax_t expected = static_cast<uintmax_t>(page_count) * page_size;
    if (size < expected) {
      return fmt::format("{} is truncated ({} of {} bytes)", path.string(), size, expected);
    }
  }
  if (static_cast<int32_t>(ReadBigEndian(header + 68, 4)) != kApplicationId) {
    return path.string() + " is a database, but not a DiscHive catalogue";
  }
  return {};
}

HResult CreateCatalogFile(const std::filesystem::path& path, std::string* message) {
  Connection db;
  if (db.Open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_EXCLUSIVE, message) !=
      SQLITE_OK) {
    *message = "cannot create " + path.string() + ": " + *message;
    return kFail;
  }
  try {
    db.Exec(fmt::format("PRAGMA application_id = {}; PRAGMA user_version = {};", kApplicationId,
                        kSchemaVersion)
                .c_str());
    db.Exec("BEGIN");
    db.Exec(kSchema);
    db.Exec("COMMIT");
    db.Exec("PRAGMA journal_mode = WAL");
    db.Close();
    return kOk;
  } catch (const std::exception& e) {
    *message = "cannot create " + path.string() + ": " + e.what();
  }
  db.Close();
  std::error_code ec;
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    std::filesystem::path p = path;
    p += suffix;
    std::filesystem::remove(p, ec);
  }
  return kFail;
}

}  // namespace catalog

std::filesystem::path CatalogLockPath(const std::filesystem::path& path) {
  std::filesystem::path lock = path;
  lock += ".lock";
  return lock;
}

bool CatalogBeingWritten(const std::filesystem::path& path) {
  std::error_code ec;
  if (!std::filesystem::exists(CatalogLockPath(path), ec)) return false;
  platform::FileLock probe;
  return probe.TryLock(CatalogLockPath(path)) == EWOULDBLOCK;
}

std::unique_ptr<CatalogEngine> OpenSqliteCatalog(const std::filesystem::path& path,
                                                 CatalogOpenMode mode, HResult* error,
                                                 std::string* message) {
  std::string text;
  auto fail = [&](HResult code, std::string why) -> std::unique_ptr<CatalogEngine> {
    if (error != nullptr) *error = code;
    if (message != nullptr) *message = std::move(why);
    return nullptr;
  };
  if (path.empty()) return fail(kInvalidArgument, "no catalogue file given");

  std::error_code ec;
  const std::filesystem::file_status status = std::filesystem::status(path, ec);
  bool exists = std::filesystem::exists(status);
  if (exists && !std::filesystem::is_regular_file(status)) {
    return fail(kCatalogInvalid, path.string() + " is not a file");
  }
  if (!exists && mode != CatalogOpenMode::kCreate) {
    return fail(kCatalogMissing, "no catalogue at " + path.string());
  }
  if (exists) {
    if (std::string why = catalog::CheckDatabaseHeader(path); !why.empty()) {
      return fail(kCatalogInvalid, why);
    }
  } else if (path.has_parent_path()) {
    std::filesystem::create_directories(path.parent_path(), ec);
    if (ec)
      return fail(kFail, "cannot create " + path.parent_path().string() + ": " + ec.message());
  }

  platform::FileLock lock;
  if (mode != CatalogOpenMode::kReadOnly) {
    const int e = lock.TryLock(CatalogLockPath(path));
    if (e == EWOULDBLOCK) {
      return fail(kCatalogLocked, "another process is writing to " + path.string());
    }
    if (e != 0) {
      return fail(e == EACCES || e == EROFS ? kCatalogReadOnly : kFail,
                  "cannot lock " + path.string() + ": " + std::strerror(e));
    }
    // Another process may have created the file before the lock was ours.
    exists = std::filesystem::exists(path, ec);
    if (!exists) {
      if (const HResult rc = catalog::CreateCatalogFile(path, &text); rc != kOk)
        return fail(rc, text);
    } else if (std::string why = catalog::CheckDatabaseHeader(path); !why.empty()) {
      return fail(kCatalogInvalid, why);
    }
  }

  HResult rc = kOk;
  auto engine =
      catalog::OpenEngine(path, mode != CatalogOpenMode::kReadOnly, std::move(lock), &rc, &text);
  if (!engine) return fail(rc, text);
  if (error != nullptr) *error = kOk;
  return engine;
}

}  // namespace dischive
