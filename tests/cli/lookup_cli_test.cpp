#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "dischive/cddb.h"
#include "dischive/sqlite_catalog.h"
#include "support/fake_freedb.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

const char* kFirstDisc = "0a0b0c03 3 150 15150 30150 602";  // id recomputed by the program

class LookupCliTest : public ::testing::Test {
 protected:
  LookupCliTest() {
    DiscToc toc;
    toc.track_count = 3;
    toc.frame_offsets = {150, 15150, 30150};
    toc.disc_length_seconds = 602;
    first_id = ComputeFreedbDiscId(toc);
    toc.track_count = 2;
    toc.disc_length_seconds = 402;
    second_id = ComputeFreedbDiscId(toc);
    db->Add({"rock", first_id, 0, true, "The Band / First Album",
             MakeXmcd(first_id, "The Band / First Album", 1999, "Rock", {"One", "Two", "Three"})});
    db->Add({"misc", second_id, 0, false, "Zoë / Cantar",
             MakeXmcd(second_id, "Zoë / Cantar", 2001, "Folk", {"Ä", "B"})});
    db->Add({"folk", 0x1000a0ff, second_id, false, "Other / Thing",
             MakeXmcd(0x1000a0ff, "Other / Thing", 2002, "Folk", {"X", "Y"})});
  }

  ProcessResult Lookup(std::vector<std::string> args) {
    std::vector<std::string> all = {"--set", "internet2.acquire_url=" + http.url(),
                                    "--set", "internet2.preconfig_http_proxy=0",
                                    "--set", "internet2.cddb_server=127.0.0.1",
                                    "--set", "internet2.cddb_port=" + std::to_string(cddbp.port()),
                                    "--set", "internet2.email_address=me@example.org",
                                    "lookup"};
    all.insert(all.end(), args.begin(), args.end());
    return RunCli(all, home.path());
  }

  uint32_t first_id = 0, second_id = 0;
  std::shared_ptr<FakeFreedbDatabase> db = std::make_shared<FakeFreedbDatabase>();
  FakeFreedbHttpServer http{db};
  FakeCddbpServer cddbp{db};
  TempDir home;
};

TEST_F(LookupCliTest, OneDiscAsTextOverBothProtocols) {
  ProcessResult r = Lookup({"--offsets", "150,15150,30150", "--length", "602"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  for (const char* line :
       {"Artist:   The Band\n", "Title:    First Album\n", "Year:     1999\n", "Genre:    Rock\n",
        "Category: rock\n", "   1. One  (3:20)\n", "   3. Three  (3:20)\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
  }
  const ProcessResult socket = Lookup({"--disc", kFirstDisc, "--protocol", "cddbp"});
  EXPECT_EQ(socket.exit_code, 0) << socket.err;
  EXPECT_EQ(socket.out, r.out);
  EXPECT_EQ(http.requests().size(), 2u);
  EXPECT_EQ(cddbp.connections(), 1);
}

TEST_F(LookupCliTest, SeveralDiscsAsJsonWithChoices) {
  // The second disc has two matches and no terminal: it fails with the list, and
  // the exit code (usage) asks for --choose or --first.
  ProcessResult r = Lookup(
      {"--json", "--disc", kFirstDisc, "--disc", "0 2 150 15150 402", "--disc", "0 1 150 60"});
  EXPECT_EQ(r.exit_code, 2) << r.err;
  nlohmann::json j = nlohmann::json::parse(r.out);
  ASSERT_EQ(j["discs"].size(), 3u);
  EXPECT_EQ(j["discs"][0]["artist"], "The Band");
  EXPECT_EQ(j["discs"][0]["year"], 1999);
  EXPECT_EQ(j["discs"][0]["tracks"][2]["title"], "Three");
  EXPECT_EQ(j["discs"][1]["result"], "0x80004004");
  EXPECT_NE(j["discs"][1]["note"].get<std::string>().find("2. Other / Thing"), std::string::npos);
  EXPECT_EQ(j["discs"][2]["result"], "0x81110001");
  EXPECT_FALSE(j["discs"][2]["message"].get<std::string>().empty());

  r = Lookup({"--json", "--choose", "2", "--disc", "0 2 150 15150 402"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  j = nlohmann::json::parse(r.out);
  EXPECT_EQ(j["discs"][0]["artist"], "Other");
  EXPECT_EQ(j["discs"][0]["category"], "folk");

  r = Lookup({"--first", "--disc", "0 2 150 15150 402", "--protocol", "cddbp"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("Artist:   Zoë\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("   1. Ä  (3:20)\n"), std::string::npos) << r.out;
}

TEST_F(LookupCliTest, CueSheetSaveAndFailures) {
  WriteFile(home / "disc.cue",
            "FILE \"disc.flac\" WAVE\n  TRACK 01 AUDIO\n    INDEX 01 00:00:00\n"
            "  TRACK 02 AUDIO\n    INDEX 01 03:20:00\n  TRACK 03 AUDIO\n    INDEX 01 06:40:00\n");
  ASSERT_TRUE(OpenSqliteCatalog(home / "music.dab", CatalogOpenMode::kCreate));
  ProcessResult r = Lookup({"--cue", (home / "disc.cue").string(), "--length", "602", "--save",
                            "--db", (home / "music.dab").string()});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("Saved as album "), std::string::npos);
  auto catalog = OpenSqliteCatalog(home / "music.dab", CatalogOpenMode::kReadOnly);
  ASSERT_TRUE(catalog);
  const auto volume = catalog->ReadVolume(first_id);
  ASSERT_TRUE(volume);
  EXPECT_EQ(volume->tracks.size(), 3u);
  EXPECT_EQ(volume->tracks[1].properties.Text(field::kTrackTitle), "Two");

  r = Lookup({"--offsets", "150,15150"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("--length"), std::string::npos) << r.err;

  r = RunCli({"--set", "internet2.acquire_url=http://127.0.0.1:1/~cddb/cddb.cgi", "lookup",
              "--disc", kFirstDisc},
             home.path());
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_NE(r.err.find("lookup failed: The attempt to connect to the server failed."),
            std::string::npos)
      << r.err;
  r = RunCli({"--set", "internet2.cddb_server=127.0.0.1", "--set", "internet2.cddb_port=1", "--set",
              "internet2.lookup_protocol=cddbp", "lookup", "--disc", kFirstDisc},
             home.path());
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_NE(r.out.find("(0x0000274D)"), std::string::npos) << r.out;
}

}  // namespace
}  // namespace dischive::test
