// dischive catalog, export, backup, backup-info and restore on real catalogue
// files in a fresh home.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "dischive/cover.h"
#include "dischive/sqlite_catalog.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class CatalogCliTest : public ::testing::Test {
 protected:
  // A catalogue with one two-volume album, a stored location list and a cover.
  void Fill() {
    auto cat = OpenSqliteCatalog(db, CatalogOpenMode::kCreate);
    ASSERT_TRUE(cat);
    AlbumRecord album;
    album.properties.Set(field::kTitle, "Kind of Blue");
    album.properties.Set(field::kReleaseDate, static_cast<int32_t>(0x3B080100));
    album.properties.Set(field::kPrice, 1299);
    album.artists = {"Miles Davis"};
    for (uint32_t id : {0x6B0A2F05u, 0x6B0A2F06u}) {
      VolumeRecord& v = album.volumes.emplace_back();
      v.record_id = id;
      v.frames = 4500000;
      for (uint32_t n = 1; n <= 2; ++n) {
        TrackRecord& t = v.tracks.emplace_back();
        t.number = n;
        t.frames = 4500;
        t.properties.Set(field::kTrackTitle, "Track " + std::to_string(n));
      }
    }
    ASSERT_EQ(cat->WriteAlbum(album, WriteMode::kReplace), kOk);
    ASSERT_EQ(cat->SetUserList("user_locations", "Shelf\nBox"), kOk);
    ASSERT_EQ(cat->WriteCover(0x6B0A2F05, "stored cover bytes"), kOk);
    id = album.id;
  }
  // Runs dischive with --db pointing at the test catalogue.
  ProcessResult Run(std::vector<std::string> args) {
    args.insert(args.end(), {"--db", db});
    return RunCli(args, home.path());
  }

  TempDir home;
  const std::string db = (home / "cat" / "Music.dab").string();
  std::string id;
};

TEST_F(CatalogCliTest, DefaultDatabaseAlbumsShowListsAndBadFiles) {
  ProcessResult r = RunCli({"catalog", "info"}, home.path());
  EXPECT_EQ(r.exit_code, 0) << r.err;
  const auto made = home / "data" / "dischive" / "Catalogue.dab";
  EXPECT_NE(r.out.find("Catalogue: " + made.string() + "\n"), std::string::npos) << r.out;
  EXPECT_FALSE(fs::exists(made.string() + "-wal"));  // a reader leaves no log

  r = RunCli({"catalog", "create"}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: " + made.string() + " already exists\n");

  // The configured default database wins.
  const std::string mine = (home / "elsewhere" / "Mine.dab").string();
  r = RunCli({"--json", "--set", "Database.DefaultDatabase=" + mine, "catalog", "create"},
             home.path());
  EXPECT_EQ(json::parse(r.out)["path"], mine) << r.err;
  r = RunCli({"--json", "--set", "Database.DefaultDatabase=" + mine, "catalog", "info"},
             home.path());
  EXPECT_EQ(json::parse(r.out)["default"], true) << r.out;

  Fill();
  r = Run({"catalog", "albums"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, id + "  Miles Davis - Kind of Blue  (2 volumes, 4 tracks)\n");
  r = Run({"catalog", "show", id});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  for (const char* line :
       {"  Title: Kind of Blue\n", "  ReleaseDate: 1959-08-01\n", "  Price: 12.99\n",
        "  Volume 6B0A2F06  16:40:00  2 tracks\n", "    02     1:00  Track 2\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
  }
  // By the id of one of its volumes, as JSON.
  const json album = json::parse(Run({"--json", "catalog", "show", "6b0a2f06"}).out);
  EXPECT_EQ(album["id"], id);
  EXPECT_EQ(album["volumes"][1]["tracks"][1]["properties"]["TrackTitle"], "Track 2");
  r = Run({"catalog", "show", "FFFFFFFF"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: no album FFFFFFFF in the catalogue\n");

  EXPECT_EQ(Run({"catalog", "lists", "user_locations"}).out, "Shelf\nBox\n");
  const json lists = json::parse(Run({"--json", "catalog", "lists"}).out);
  EXPECT_EQ(lists["user_locations"]["default"], false);
  EXPECT_EQ(lists["user_genres"]["entries"].size(), 149u);
  EXPECT_EQ(Run({"catalog", "lists", "user_nothing"}).exit_code, 1);
  {
    // Readers in other processes still read while this process writes.
    auto writer = OpenSqliteCatalog(db, CatalogOpenMode::kReadWrite);
    ASSERT_TRUE(writer);
    r = Run({"--json", "catalog", "info"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(json::parse(r.out)["being_written"], true);
  }
  EXPECT_EQ(json::parse(Run({"--json", "catalog", "info"}).out)["being_written"], false);

  const std::string notes = (home / "notes.dab").string();
  WriteFile(notes, "just some notes\n");
  r = RunCli({"catalog", "albums", "--db", notes}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: " + notes + " is not a catalogue (not a database file)\n");
  r = RunCli({"catalog", "info", "--db", (home / "none.dab").string()}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: no catalogue at " + (home / "none.dab").string() + "\n");
}

TEST_F(CatalogCliTest, ExportToAFileOrStandardOutputAndFailures) {
  Fill();
  ProcessResult r =
      Run({"export", "-o", (home / "out.xml").string(), "--covers", (home / "covers").string()});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("Exported 1 album ("), std::string::npos) << r.err;
  const std::string file = ReadFile(home / "out.xml");
  EXPECT_NE(file.find("<Album ID=\"" + id + "\""), std::string::npos) << file;
  // The undecodable cover is stored as it is, under its hash.
  const std::string hash = CoverHash("stored cover bytes");
  EXPECT_NE(file.find("<Artwork Hash=\"" + hash + "\"/>"), std::string::npos);
  EXPECT_EQ(ReadFile(home / "covers" / (hash + ".jpg")), "stored cover bytes");
  for (const auto& entry : fs::directory_iterator(home.path()))
    EXPECT_EQ(entry.path().filename().string().find(".tmp"), std::string::npos);  // none left

  // Standard output carries the same document; the default cover cache is
  // under the cache folder.
  r = Run({"export"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, file);
  EXPECT_TRUE(fs::exists(home / "cache" / "dischive" / "covers" / (hash + ".jpg")));
  r = Run({"--json", "export", "-o", (home / "out2.xml").string()});
  EXPECT_NE(r.out.find("\"albums\": 1,"), std::string::npos) << r.out;

  // Failures are one line and keep an earlier document.
  const std::string old = (home / "old.xml").string(), missing = (home / "missing.dab").string();
  WriteFile(old, "earlier document");
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"export", "--db", missing, "-o", old}, "missing.dab"},
      {{"--json", "export", "--db", missing}, "-o FILE"},
      {{"export", "-o", (home / "no" / "such" / "dir.xml").string()}, "cannot create"},
  };
  for (const auto& [args, message] : cases) {
    const ProcessResult failed = RunCli(args, home.path());
    EXPECT_EQ(failed.exit_code, args[0] == "--json" ? 2 : 1) << message << ": " << failed.err;
    EXPECT_NE(failed.err.find(message), std::string::npos) << failed.err;
    EXPECT_EQ(ReadFile(old), "earlier document");
  }
}

TEST_F(CatalogCliTest, BackupInfoAndRestore) {
  Fill();
  const fs::path covers = home / "cat" / "Music_covers";
  WriteFile(covers / "A.JPG", "front");
  WriteFile(covers / "b.jpg", "back");
  const std::string out = (home / "Music.dhb").string();
  ProcessResult r = Run({"--json", "backup", "--covers", out});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  json j = json::parse(r.out);
  EXPECT_EQ(j["covers"], 2);
  EXPECT_EQ(j["backup_bytes"], ReadFile(out).size());
  r = Run({"backup", out});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: " + out + " already exists\n");

  r = RunCli({"--json", "backup-info", out}, home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  j = json::parse(r.out);
  EXPECT_EQ(j["complete"], true);
  EXPECT_EQ(j["database_name"], "Music.dab");
  const std::string full = ReadFile(out), cut = (home / "cut.dhb").string();
  WriteFile(cut, full.substr(0, full.size() - 40));
  r = RunCli({"backup-info", cut}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("Status: damaged\nProblem: "), std::string::npos) << r.out;
  const std::string plain = (home / "plain.txt").string();
  WriteFile(plain, "not a backup at all, but long enough");
  r = RunCli({"backup-info", plain}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: " + plain + " is not a backup file\n");

  r = Run({"restore", out});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("already exists; use --force"), std::string::npos) << r.err;
  WriteFile(covers / "b.jpg", "changed");
  r = Run({"restore", "--force", out});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  // The size shown is the restored database's, in whole KiB.
  const std::string size = std::to_string(fs::file_size(db) / 1024);
  EXPECT_EQ(r.out, "Restored " + db + " (" + size + " KiB) and 2 covers into " + covers.string() +
                       "\nThe previous database is kept as " + db + ".bak\n");
  EXPECT_EQ(ReadFile(covers / "b.jpg"), "back");
  EXPECT_EQ(OpenSqliteCatalog(db, CatalogOpenMode::kReadOnly)->UserList("user_locations"),
            "Shelf\nBox");
}

}  // namespace
}  // namespace dischive::test
