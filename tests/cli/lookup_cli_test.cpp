#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "dischive/sqlite_catalog.h"
#include "support/fake_freedb.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

// The ids are the ones the program computes from the tables of contents.
constexpr uint32_t kFirstId = 0x0c025803, kSecondId = 0x06019002;
const char* kFirstDisc = "0a0b0c03 3 150 15150 30150 602";
const char* kSecondDisc = "0 2 150 15150 402";

class LookupCliTest : public ::testing::Test {
 protected:
  LookupCliTest() {
    db->Add({"rock", kFirstId, 0, true, "The Band / First Album",
             MakeXmcd(kFirstId, "The Band / First Album", 1999, "Rock", {"One", "Two", "Three"})});
    db->Add({"misc", kSecondId, 0, false, "Zoë / Cantar",
             MakeXmcd(kSecondId, "Zoë / Cantar", 2001, "Folk", {"Ä", "B"})});
    db->Add({"folk", 0x1000a0ff, kSecondId, false, "Other / Thing",
             MakeXmcd(0x1000a0ff, "Other / Thing", 2002, "Folk", {"X", "Y"})});
  }

  // The servers come from the settings file; --set overrides them for one run.
  ProcessResult Lookup(const std::vector<std::string>& args, std::vector<std::string> set = {}) {
    WriteFile(home / "config" / "dischive" / "dischive.ini",
              "[internet2]\npreconfig_http_proxy=0\nacquire_url=" + http.url() +
                  "\ncddb_server=127.0.0.1\ncddb_port=" + std::to_string(cddbp.port()) +
                  "\nemail_address=me@example.org\n");
    set.push_back("lookup");
    set.insert(set.end(), args.begin(), args.end());
    return RunCli(set, home.path());
  }

  std::shared_ptr<FakeFreedbDatabase> db = std::make_shared<FakeFreedbDatabase>();
  FakeFreedbHttpServer http{db};
  FakeCddbpServer cddbp{db};
  TempDir home;
};

TEST_F(LookupCliTest, ProtocolsChoicesCueSheetSaveAndFailures) {
  ProcessResult r = Lookup({"--offsets", "150,15150,30150", "--length", "602"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  for (const char* line :
       {"Artist:   The Band\n", "Year:     1999\n", "Category: rock\n", "   3. Three  (3:20)\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
  }
  const ProcessResult socket = Lookup({"--disc", kFirstDisc, "--protocol", "cddbp"});
  EXPECT_EQ(socket.exit_code, 0) << socket.err;
  EXPECT_EQ(socket.out, r.out);
  EXPECT_EQ(http.requests().size(), 2u);  // the same answer came over the socket

  // The second disc has two matches and no terminal: it fails with the list, and
  // the exit code (usage) asks for --choose or --first.
  r = Lookup({"--json", "--disc", kFirstDisc, "--disc", kSecondDisc, "--disc", "0 1 150 60"});
  EXPECT_EQ(r.exit_code, 2) << r.err;
  nlohmann::json j = nlohmann::json::parse(r.out);
  ASSERT_EQ(j["discs"].size(), 3u);
  EXPECT_EQ(j["discs"][0]["tracks"][2]["title"], "Three");
  EXPECT_EQ(j["discs"][1]["result"], "0x80004004");
  EXPECT_NE(j["discs"][1]["note"].get<std::string>().find("2. Other / Thing"), std::string::npos);
  EXPECT_EQ(j["discs"][2]["result"], "0x81110001");

  r = Lookup({"--json", "--choose", "2", "--disc", kSecondDisc});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(nlohmann::json::parse(r.out)["discs"][0]["category"], "folk");
  r = Lookup({"--first", "--disc", kSecondDisc, "--protocol", "cddbp"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("   1. Ä  (3:20)\n"), std::string::npos) << r.out;

  // A cue sheet, saved to a catalogue.
  WriteFile(home / "disc.cue",
            "FILE \"disc.flac\" WAVE\n  TRACK 01 AUDIO\n    INDEX 01 00:00:00\n"
            "  TRACK 02 AUDIO\n    INDEX 01 03:20:00\n  TRACK 03 AUDIO\n    INDEX 01 06:40:00\n");
  r = Lookup({"--cue", (home / "disc.cue").string(), "--length", "602", "--save"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("Saved as album "), std::string::npos);
  const auto catalog =
      OpenSqliteCatalog(home / "data" / "dischive" / "Catalogue.dab", CatalogOpenMode::kReadOnly);
  ASSERT_TRUE(catalog);
  const auto volume = catalog->ReadVolume(kFirstId);
  ASSERT_TRUE(volume);
  EXPECT_EQ(volume->tracks[1].properties.Text(field::kTrackTitle), "Two");

  r = Lookup({"--offsets", "150,15150"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("--length"), std::string::npos) << r.err;

  r = Lookup({"--disc", kFirstDisc}, {"--set", "internet2.acquire_url=http://127.0.0.1:1/x"});
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_NE(r.err.find("lookup failed: The attempt to connect"), std::string::npos) << r.err;
  r = Lookup({"--disc", kFirstDisc},
             {"--set", "internet2.cddb_port=1", "--set", "internet2.lookup_protocol=cddbp"});
  EXPECT_EQ(r.exit_code, 4);
  EXPECT_NE(r.out.find("(0x0000274D)"), std::string::npos) << r.out;
}

TEST_F(LookupCliTest, CueSheetsThatAreNotSmallRegularFilesAreRefused) {
  // Devices and FIFOs are never read (a FIFO without a writer would block the
  // open, /dev/zero never ends), nor anything beyond 1 MiB.
  const auto fifo = home / "pipe.cue";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  WriteFile(home / "huge.cue", std::string((size_t{1} << 20) + 1, ' '));
  const struct {
    std::string path;
    const char* message;
  } cases[] = {
      {"/dev/zero", "not a regular file"},
      {fifo.string(), "not a regular file"},
      {home.path().string(), "is a directory"},
      {(home / "huge.cue").string(), "larger than 1048576 bytes"},
      {(home / "missing.cue").string(), "cannot open: No such file or directory"},
  };
  for (const auto& c : cases) {
    const ProcessResult r = Lookup({"--cue", c.path, "--length", "602"});
    EXPECT_EQ(r.exit_code, 1) << c.path;
    EXPECT_NE(r.err.find(c.path + ": " + c.message), std::string::npos) << r.err;
  }
}

}  // namespace
}  // namespace dischive::test
