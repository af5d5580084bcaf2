#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "dischive/sqlite_catalog.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

using nlohmann::json;

// A catalogue with one two-volume album and a stored location list.
std::string FillCatalogue(const std::filesystem::path& path) {
  auto cat = OpenSqliteCatalog(path, CatalogOpenMode::kCreate);
  EXPECT_TRUE(cat);
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
  EXPECT_EQ(cat->WriteAlbum(album, WriteMode::kReplace), kOk);
  EXPECT_EQ(cat->SetUserList("user_locations", "Shelf\nBox"), kOk);
  return album.id;
}

TEST(CatalogCliTest, DefaultDatabaseIsCreatedOnFirstUse) {
  TempDir home;
  ProcessResult r = RunCli({"catalog", "info"}, home.path());
  EXPECT_EQ(r.exit_code, 0) << r.err;
  const auto made = home / "data" / "dischive" / "Catalogue.dab";
  EXPECT_NE(r.out.find("Catalogue: " + made.string() + "\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Albums:    0\n"), std::string::npos) << r.out;
  EXPECT_FALSE(std::filesystem::exists(made.string() + "-wal"));  // a reader leaves no log

  r = RunCli({"catalog", "create"}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: " + made.string() + " already exists\n");

  // The configured default database wins.
  const std::string configured = (home / "elsewhere" / "Mine.dab").string();
  r = RunCli({"--json", "--set", "Database.DefaultDatabase=" + configured, "catalog", "create"},
             home.path());
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(json::parse(r.out)["path"], configured);
  r = RunCli({"--json", "--set", "Database.DefaultDatabase=" + configured, "catalog", "info"},
             home.path());
  EXPECT_EQ(json::parse(r.out)["default"], true) << r.out;
}

TEST(CatalogCliTest, AlbumsShowListsAndBadFiles) {
  TempDir home;
  const std::string db = (home / "c.dab").string();
  const std::string id = FillCatalogue(db);
  const auto run = [&](std::vector<std::string> args) {
    args.insert(args.end(), {"--db", db});
    return RunCli(args, home.path());
  };

  ProcessResult r = run({"catalog", "albums"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, id + "  Miles Davis - Kind of Blue  (2 volumes, 4 tracks)\n");
  r = run({"catalog", "show", id});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  for (const char* line :
       {"  Title: Kind of Blue\n", "  ReleaseDate: 1959-08-01\n", "  Price: 12.99\n",
        "  Volume 6B0A2F06  16:40:00  2 tracks\n", "    02     1:00  Track 2\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
  }
  // By the id of one of its volumes, as JSON.
  r = run({"--json", "catalog", "show", "6b0a2f06"});
  const json album = json::parse(r.out);
  EXPECT_EQ(album["id"], id);
  EXPECT_EQ(album["volumes"][1]["tracks"][1]["properties"]["TrackTitle"], "Track 2");
  r = run({"catalog", "show", "FFFFFFFF"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: no album FFFFFFFF in the catalogue\n");

  EXPECT_EQ(run({"catalog", "lists", "user_locations"}).out, "Shelf\nBox\n");
  const json lists = json::parse(run({"--json", "catalog", "lists"}).out);
  EXPECT_EQ(lists["user_locations"]["default"], false);
  EXPECT_EQ(lists["user_genres"]["entries"].size(), 149u);
  EXPECT_EQ(run({"catalog", "lists", "user_nothing"}).exit_code, 1);

  {
    // Readers in other processes still read while this process writes.
    auto writer = OpenSqliteCatalog(db, CatalogOpenMode::kReadWrite);
    ASSERT_TRUE(writer);
    r = run({"--json", "catalog", "info"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    const json info = json::parse(r.out);
    EXPECT_EQ(info["tracks"], 4);
    EXPECT_EQ(info["being_written"], true);
  }
  EXPECT_EQ(json::parse(run({"--json", "catalog", "info"}).out)["being_written"], false);

  const std::string notes = (home / "notes.dab").string();
  WriteFile(notes, "just some notes\n");
  r = RunCli({"catalog", "albums", "--db", notes}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: " + notes + " is not a catalogue (not a database file)\n");
  r = RunCli({"catalog", "info", "--db", (home / "none.dab").string()}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_EQ(r.err, "dischive: no catalogue at " + (home / "none.dab").string() + "\n");
}

}  // namespace
}  // namespace dischive::test
