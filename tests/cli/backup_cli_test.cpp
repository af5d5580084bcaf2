#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "dischive/sqlite_catalog.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

using Json = nlohmann::json;

TEST(BackupCliTest, BackupInfoAndRestore) {
  TempDir home;
  const std::filesystem::path db = home / "cat" / "Music.dab";
  {
    std::unique_ptr<CatalogEngine> engine = OpenSqliteCatalog(db, CatalogOpenMode::kCreate);
    ASSERT_NE(engine, nullptr);
    ASSERT_EQ(engine->SetDatabaseProperty("db_opts", "owner", "me"), kOk);
  }
  WriteFile(home / "cat" / "Music_covers" / "A.JPG", "front");
  WriteFile(home / "cat" / "Music_covers" / "b.jpg", "back");
  const std::string out = (home / "Music.dhb").string();

  ProcessResult r = RunCli({"--json", "backup", "--db", db.string(), "--covers", out}, home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  Json json = Json::parse(r.out);
  EXPECT_EQ(json["covers"], 2);
  EXPECT_EQ(json["cover_bytes"], 9);
  EXPECT_EQ(json["backup_bytes"], ReadFile(out).size());

  r = RunCli({"backup", "--db", db.string(), out}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: " + out + " already exists\n");

  r = RunCli({"--json", "backup-info", out}, home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  json = Json::parse(r.out);
  EXPECT_EQ(json["complete"], true);
  EXPECT_EQ(json["database_name"], "Music.dab");
  EXPECT_EQ(json["covers"], 2);

  const std::string full = ReadFile(out);
  WriteFile(home / "cut.dhb", full.substr(0, full.size() - 40));
  r = RunCli({"backup-info", (home / "cut.dhb").string()}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("Status: damaged\nProblem: "), std::string::npos) << r.out;
  r = RunCli({"restore", "--db", (home / "new" / "x.dab").string(), (home / "cut.dhb").string()},
             home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_FALSE(std::filesystem::exists(home / "new"));

  r = RunCli({"restore", "--db", db.string(), out}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("already exists; use --force"), std::string::npos) << r.err;

  WriteFile(home / "cat" / "Music_covers" / "b.jpg", "changed");
  r = RunCli({"restore", "--force", "--db", db.string(), out}, home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  // The size shown is the restored database's, in whole KiB.
  const std::string size = std::to_string(std::filesystem::file_size(db) / 1024);
  EXPECT_EQ(r.out, "Restored " + db.string() + " (" + size + " KiB) and 2 covers into " +
                       (home / "cat" / "Music_covers").string() +
                       "\nThe previous database is kept as " + db.string() + ".bak\n");
  EXPECT_EQ(ReadFile(home / "cat" / "Music_covers" / "b.jpg"), "back");
  std::unique_ptr<CatalogEngine> restored = OpenSqliteCatalog(db, CatalogOpenMode::kReadOnly);
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->GetDatabaseProperty("db_opts", "owner"), "me");

  WriteFile(home / "plain.txt", "not a backup at all, but long enough");
  r = RunCli({"backup-info", (home / "plain.txt").string()}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: " + (home / "plain.txt").string() + " is not a backup file\n");
}

}  // namespace
}  // namespace dischive::test
