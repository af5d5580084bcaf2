#include "dischive/backup.h"

#include <gtest/gtest.h>

#include <string>

#include "backup/archive.h"
#include "dischive/sqlite_catalog.h"
#include "platform/file_lock.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

std::string Dword(uint32_t v) {
  return {static_cast<char>(v & 0xFF), static_cast<char>((v >> 8) & 0xFF),
          static_cast<char>((v >> 16) & 0xFF), static_cast<char>(v >> 24)};
}

// The metadata section our writer produces for a database file name.
std::string Metadata(const std::string& name) {
  return "\x05#META" + Dword(256) + backup::EncodeArchiveString(name) + std::string(6, '\0') +
         std::string(24, '\0');
}

HResult Backup(const BackupRequest& request, std::string* message = nullptr) {
  return WriteBackupFile(request, message);
}

BackupRequest Request(const std::filesystem::path& database, const std::filesystem::path& backup,
                      const std::filesystem::path& covers = {}, bool include_covers = false) {
  BackupRequest request;
  request.database = database;
  request.backup = backup;
  request.covers_folder = covers;
  request.include_covers = include_covers;
  return request;
}

TEST(BackupWrite, ExactBytesWithoutCoversAndWithEmptyFolder) {
  TempDir dir;
  const std::string db_bytes = "SQLite format 3" + std::string(1, '\0') + "catalogue";
  WriteFile(dir / "Music.dab", db_bytes);
  std::filesystem::create_directory(dir / "covers");
  WriteFile(dir / "covers" / "ignored.jpg", "left out without the flag");

  BackupRequest request = Request(dir / "Music.dab", dir / "plain.dhb", dir / "covers");
  ASSERT_EQ(Backup(request), kOk);
  const std::string head = std::string(kBackupHeader) + Dword(25) + db_bytes;
  EXPECT_EQ(ReadFile(request.backup), head + "\x05#INCR" + Metadata("Music.dab"));

  std::filesystem::create_directory(dir / "empty");
  request.include_covers = true;
  request.covers_folder = dir / "empty";
  request.backup = dir / "empty.dhb";
  ASSERT_EQ(Backup(request), kOk);
  EXPECT_EQ(ReadFile(request.backup), head + "\x04#END" + Metadata("Music.dab"));

  // A missing covers folder counts as an empty one.
  request.covers_folder = dir / "missing";
  request.backup = dir / "missing.dhb";
  ASSERT_EQ(Backup(request), kOk);
  EXPECT_EQ(ReadFile(request.backup), head + "\x04#END" + Metadata("Music.dab"));
}

TEST(BackupWrite, CoversAreJpgFilesOfAnyCaseSortedByName) {
  TempDir dir;
  WriteFile(dir / "a.dab", "db");
  WriteFile(dir / "c" / "b.JPG", "BB");
  WriteFile(dir / "c" / "a.jpg", "A");
  WriteFile(dir / "c" / "c.png", "not a jpeg name");
  WriteFile(dir / "c" / "jpg", "no extension");
  std::filesystem::create_directories(dir / "c" / "folder.jpg");
  std::filesystem::create_symlink(dir / "c" / "a.jpg", dir / "c" / "link.jpg");
  WriteFile(dir / "c" / "huge.jpg", "");
  std::filesystem::resize_file(dir / "c" / "huge.jpg", 1ull << 32);  // sparse, too big to embed

  BackupRequest request = Request(dir / "a.dab", dir / "b.dhb", dir / "c", true);
  BackupSummary summary;
  ASSERT_EQ(WriteBackupFile(request, nullptr, &summary), kOk);
  EXPECT_EQ(ReadFile(request.backup),
            std::string(kBackupHeader) + Dword(2) + "db" + "\x05#FILE\x05" + "a.jpg" + Dword(1) +
                "A" + "\x05#FILE\x05" + "b.JPG" + Dword(2) + "BB" + "\x05#FILE\x08" + "link.jpg" +
                Dword(1) + "A" + "\x04#END" + Metadata("a.dab"));
  EXPECT_EQ(summary.covers, 3u);
  EXPECT_EQ(summary.cover_bytes, 4u);
  EXPECT_EQ(summary.backup_bytes, ReadFile(request.backup).size());
}

TEST(BackupWrite, RefusalsLeaveNothingBehind) {
  TempDir dir;
  WriteFile(dir / "a.dab", "database");
  WriteFile(dir / "taken.dhb", "someone's file");
  WriteFile(dir / "huge.dab", "");
  std::filesystem::resize_file(dir / "huge.dab", 1ull << 32);

  struct Case {
    const char* what;
    BackupRequest request;
    HResult code;
    std::string message;
  };
  const Case cases[] = {
      {"empty database path", Request({}, dir / "x.dhb"), kInvalidArgument,
       "no database file given"},
      {"existing backup", Request(dir / "a.dab", dir / "taken.dhb"), kErrorFileExists,
       (dir / "taken.dhb").string() + " already exists"},
      {"missing database", Request(dir / "none.dab", dir / "x.dhb"), HResult{0x80070002},
       "cannot read " + (dir / "none.dab").string() + ": "},
      {"database over 4 GiB", Request(dir / "huge.dab", dir / "x.dhb"), kInvalidArgument,
       (dir / "huge.dab").string() + " is 4294967296 bytes; a backup file holds at most 4 GiB - 1"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string message;
    EXPECT_EQ(Backup(c.request, &message), c.code);
    EXPECT_EQ(message.substr(0, c.message.size()), c.message);
    EXPECT_FALSE(std::filesystem::exists(dir / "x.dhb"));
  }
  EXPECT_EQ(ReadFile(dir / "taken.dhb"), "someone's file");

  // Another process writing (holding the lock) stops a backup by path.
  platform::FileLock writer;
  ASSERT_EQ(writer.TryLock(CatalogLockPath(dir / "a.dab")), 0);
  std::string message;
  EXPECT_EQ(Backup(Request(dir / "a.dab", dir / "x.dhb"), &message), kCatalogLocked);
  EXPECT_EQ(message, "another program is writing to " + (dir / "a.dab").string());
  EXPECT_FALSE(std::filesystem::exists(dir / "x.dhb"));
  writer.Release();

  // A write-ahead log with content means the file alone is not the database.
  WriteFile(dir / "a.dab-wal", "pending");
  EXPECT_EQ(Backup(Request(dir / "a.dab", dir / "x.dhb"), &message), kFail);
  EXPECT_FALSE(std::filesystem::exists(dir / "x.dhb"));
  std::filesystem::remove(dir / "a.dab-wal");

  // Cancelling from the progress callback removes the partial file.
  BackupRequest cancelled = Request(dir / "a.dab", dir / "x.dhb");
  cancelled.progress = [](uint64_t, uint64_t) { return false; };
  EXPECT_EQ(Backup(cancelled, &message), kAborted);
  EXPECT_EQ(message, "backup cancelled");
  EXPECT_FALSE(std::filesystem::exists(dir / "x.dhb"));
}

TEST(BackupInfo, HeaderAndMetadata) {
  TempDir dir;
  WriteFile(dir / "My Music.dab", "db");
  ASSERT_EQ(Backup(Request(dir / "My Music.dab", dir / "ok.dhb")), kOk);
  const std::string good = ReadFile(dir / "ok.dhb");

  struct Case {
    const char* what;
    std::string bytes;
    bool valid;
    bool metadata;
  };
  const std::string header(kBackupHeader);
  const Case cases[] = {
      {"backup", good, true, true},
      {"23 bytes", header.substr(0, 23), false, false},
      {"header only", header, true, false},
      {"header in other case", "DiscHive 6.0 backup File" + good.substr(24), false, false},
      {"cut inside metadata", good.substr(0, good.size() - 3), false, false},
      // Metadata far from the end is not looked for.
      {"padded", good + std::string(9000, 'x'), true, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    WriteFile(dir / "case.dhb", c.bytes);
    BackupMetadata metadata;
    metadata.database_name = "untouched";
    bool found = true;
    EXPECT_EQ(ReadBackupInfo(dir / "case.dhb", &metadata, &found), c.valid);
    EXPECT_EQ(found, c.metadata);
    if (c.metadata) {
      EXPECT_EQ(metadata.version, 256u);
      EXPECT_EQ(metadata.database_name, "My Music.dab");
    } else {
      EXPECT_EQ(metadata.database_name, "untouched");
    }
    const bool header_matches = c.bytes.size() >= 24 && c.bytes.substr(0, 24) == header;
    EXPECT_EQ(ReadBackupInfo(dir / "case.dhb"), header_matches);
  }
  EXPECT_FALSE(ReadBackupInfo(dir / "missing.dhb"));
}

}  // namespace
}  // namespace dischive
