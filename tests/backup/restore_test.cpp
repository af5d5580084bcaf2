#include <gtest/gtest.h>

#include <fmt/format.h>

#include <map>
#include <string>

#include "backup/archive.h"
#include "dischive/backup.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

// Every regular file under a folder by relative path, with its bytes.
std::map<std::string, std::string> Snapshot(const std::filesystem::path& folder) {
  std::map<std::string, std::string> files;
  if (!std::filesystem::exists(folder)) return files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    if (entry.is_regular_file()) {
      files[std::filesystem::relative(entry.path(), folder).string()] = ReadFile(entry.path());
    }
  }
  return files;
}

BackupRequest Request(const std::filesystem::path& database, const std::filesystem::path& backup,
                      const std::filesystem::path& covers) {
  BackupRequest request;
  request.database = database;
  request.backup = backup;
  request.covers_folder = covers;
  request.include_covers = true;
  return request;
}

RestoreRequest Restore(const std::filesystem::path& backup, const std::filesystem::path& database) {
  RestoreRequest request;
  request.backup = backup;
  request.database = database;
  return request;
}

// A backup put together by hand, for files our writer never produces.
std::string Craft(const std::vector<std::pair<std::string, std::string>>& covers,
                  const std::string& end = "#END") {
  backup::StringSink sink;
  backup::ArchiveWriter writer(sink);
  writer.WriteBytes(kBackupHeader.data(), kBackupHeader.size());
  writer.WriteDword(2);
  writer.WriteBytes("db", 2);
  for (const auto& [name, bytes] : covers) {
    writer.WriteString("#FILE");
    writer.WriteString(name);
    writer.WriteDword(static_cast<uint32_t>(bytes.size()));
    writer.WriteBytes(bytes.data(), bytes.size());
  }
  writer.WriteString(end);
  writer.WriteString("#META");
  writer.WriteDword(256);
  writer.WriteString("a.dab");
  for (int i = 0; i < 6; ++i)
    writer.WriteString("");
  for (int i = 0; i < 6; ++i)
    writer.WriteDword(0);
  writer.Flush();
  return sink.bytes();
}

TEST(BackupRestore, RefusesCutBackupsWithNothingWritten) {
  TempDir dir;
  WriteFile(dir / "src" / "a.dab", std::string(3000, 'd'));
  for (int i = 0; i < 20; ++i) {
    WriteFile(dir / "src" / "a_covers" / fmt::format("{:03}.jpg", i), std::string(97 + i, 'c'));
  }
  BackupRequest request =
      Request(dir / "src" / "a.dab", dir / "full.dhb", dir / "src" / "a_covers");
  ASSERT_EQ(WriteBackupFile(request), kOk);
  const std::string full = ReadFile(dir / "full.dhb");

  std::filesystem::create_directory(dir / "target");
  for (int cut = 0; cut < 100; ++cut) {
    SCOPED_TRACE(cut);
    WriteFile(dir / "cut.dhb", full.substr(0, full.size() * cut / 100));
    std::string message;
    EXPECT_NE(RestoreBackupFile(Restore(dir / "cut.dhb", dir / "target" / "a.dab"), &message), kOk);
    EXPECT_NE(message.find("cut.dhb is "), std::string::npos) << message;
    ASSERT_TRUE(std::filesystem::is_empty(dir / "target"));
  }
  EXPECT_EQ(RestoreBackupFile(Restore(dir / "full.dhb", dir / "target" / "a.dab")), kOk);
  EXPECT_EQ(Snapshot(dir / "target"), Snapshot(dir / "src"));
}

TEST(BackupRestore, RefusesCorruptBackups) {
  TempDir dir;
  struct Case {
    const char* what;
    std::string bytes;
    std::string reason;
  };
  const Case cases[] = {
      {"parent folder", Craft({{"../x.jpg", "x"}}),
       "cover name \"../x.jpg\" is not a plain file name at offset 45"},
      {"dot dot", Craft({{"..", "x"}}), "cover name \"..\" is not a plain file name at offset 39"},
      {"absolute", Craft({{"/etc/x.jpg", "x"}}),
       "cover name \"/etc/x.jpg\" is not a plain file name at offset 47"},
      {"sub-folder", Craft({{"a/x.jpg", "x"}}),
       "cover name \"a/x.jpg\" is not a plain file name at offset 44"},
      {"backslash", Craft({{"..\\x.jpg", "x"}}),
       "cover name \"..\\x.jpg\" is not a plain file name at offset 45"},
      {"NUL byte", Craft({{std::string("x\0.jpg", 6), "x"}}),
       "cover name \"x\\x00.jpg\" is not a plain file name at offset 43"},
      {"empty name", Craft({{"", "x"}}), "cover name \"\" is not a plain file name at offset 37"},
      {"twice", Craft({{"a.jpg", "x"}, {"a.jpg", "y"}}),
       "cover \"a.jpg\" appears twice at offset 59"},
      {"unknown section", Craft({}, "#MORE"),
       "unexpected \"#MORE\" after the database at offset 36"},
      {"trailing bytes", Craft({}) + "zz", "2 unexpected bytes after the metadata at offset 81"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    WriteFile(dir / "bad.dhb", c.bytes);
    std::string message;
    EXPECT_EQ(RestoreBackupFile(Restore(dir / "bad.dhb", dir / "t" / "a.dab"), &message),
              kInvalidArgument);
    EXPECT_EQ(message, (dir / "bad.dhb").string() + " is damaged: " + c.reason);
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "t"));
  EXPECT_FALSE(std::filesystem::exists(dir / "x.jpg"));
}

TEST(BackupRestore, ReplacesOnlyWhenAskedAndKeepsThePrevious) {
  TempDir dir;
  WriteFile(dir / "bk" / "new.bin", Craft({{"one.jpg", "NEW"}}));
  WriteFile(dir / "a.dab", "old database");
  WriteFile(dir / "a.dab-wal", "old log");
  WriteFile(dir / "a_covers" / "one.jpg", "OLD");
  WriteFile(dir / "a_covers" / "other.jpg", "kept");

  RestoreRequest request = Restore(dir / "bk" / "new.bin", dir / "a.dab");
  std::string message;
  EXPECT_EQ(RestoreBackupFile(request, &message), kErrorFileExists);
  EXPECT_EQ(message, (dir / "a.dab").string() + " already exists; replace it explicitly");
  EXPECT_EQ(ReadFile(dir / "a.dab"), "old database");

  request.replace_existing = true;
  BackupSummary summary;
  ASSERT_EQ(RestoreBackupFile(request, &message, &summary), kOk) << message;
  EXPECT_EQ(summary.previous_database, dir / "a.dab.bak");
  EXPECT_EQ(summary.covers, 1u);
  const std::map<std::string, std::string> expected = {
      {"a.dab", "db"},
      {"a.dab.bak", "old database"},
      {"a.dab.bak-wal", "old log"},
      {"a.dab.lock", ""},
      {"a_covers/one.jpg", "NEW"},
      {"a_covers/other.jpg", "kept"},
      {"bk/new.bin", ReadFile(dir / "bk" / "new.bin")},
  };
  EXPECT_EQ(Snapshot(dir.path()), expected);

  // A folder in the way of a cover stops the restore before anything moves.
  std::filesystem::create_directories(dir / "blocked" / "one.jpg");
  request.covers_folder = dir / "blocked";
  EXPECT_EQ(RestoreBackupFile(request, &message), kErrorFileExists);
  EXPECT_EQ(message, (dir / "blocked" / "one.jpg").string() + " is a folder");
  std::filesystem::remove_all(dir / "blocked");
  EXPECT_EQ(Snapshot(dir.path()), expected);

  request.keep_previous = false;
  request.covers_folder = dir / "elsewhere";
  ASSERT_EQ(RestoreBackupFile(request, &message, &summary), kOk) << message;
  EXPECT_TRUE(summary.previous_database.empty());
  EXPECT_EQ(ReadFile(dir / "a.dab.bak"), "old database");  // the earlier one, untouched
  EXPECT_EQ(ReadFile(dir / "elsewhere" / "one.jpg"), "NEW");
}

}  // namespace
}  // namespace dischive
