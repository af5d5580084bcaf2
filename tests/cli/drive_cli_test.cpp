#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/disc_image.h"
#include "support/fake_freedb.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

// Track starts 150, 550, 1050 and lead-out 1350 (18 s): freedb id 0e001003.
constexpr uint32_t kKnownId = 0x0e001003;
const DiscLayout kKnown{{{0, true, "CD-Text One", "", "USABC1234567"},
                         {400, true, "", "", ""},
                         {900, true, "", "", ""}},
                        1200,
                        "CD-Text Album",
                        "CD-Text Artist",
                        ""};
// Not in the freedb database; its CD-Text is all there is.
const DiscLayout kUnknown{{{0, true, "First", "Toc Artist", ""}, {750, true, "Sec\xe4nd", "", ""}},
                          3000,
                          "Toc Album",
                          "Toc Artist",
                          ""};

class DriveCliTest : public ::testing::Test {
 protected:
  DriveCliTest() {
    db->Add({"rock", kKnownId, 0, true, "The Band / Image Album",
             MakeXmcd(kKnownId, "The Band / Image Album", 2003, "Rock", {"A", "B", "C"})});
    known = WriteCueImage(home.path(), "known", kKnown).string();
    unknown = WriteTocImage(home.path(), "unknown", kUnknown).string();
    WriteFile(home / "config" / "dischive" / "dischive.ini",
              "[internet2]\npreconfig_http_proxy=0\nacquire_url=" + http.url() +
                  "\nemail_address=me@example.org\n");
  }

  ProcessResult Run(std::vector<std::string> args) { return RunCli(args, home.path()); }

  std::shared_ptr<FakeFreedbDatabase> db = std::make_shared<FakeFreedbDatabase>();
  FakeFreedbHttpServer http{db};
  TempDir home;
  std::string known, unknown;
};

TEST_F(DriveCliTest, TocShowsTheImageAsADrive) {
  ProcessResult r = Run({"--json", "drive", "toc", "--device", known});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const nlohmann::json j = nlohmann::json::parse(r.out);
  EXPECT_EQ(j["disc_id"], "0e001003");
  EXPECT_EQ(j["cd_discid"], "0e001003 3 150 550 1050 18");
  EXPECT_EQ(j["lead_out"], 1350);
  EXPECT_EQ(j["cd_text"]["title"], "CD-Text Album");
  EXPECT_EQ(j["tracks"][0]["isrc"], "USABC1234567");
  EXPECT_EQ(j["tracks"][1]["frames"], 500);

  // A file name that is not UTF-8 still gives JSON.
  const auto odd = WriteCueImage(home.path(), "caf\xe9", PlainImage({0}, 300));
  r = Run({"--json", "drive", "toc", "--device", odd.string()});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(nlohmann::json::parse(r.out)["device"].get<std::string>().find("caf\ufffd.cue"),
            std::string::npos);

  r = Run({"drive", "toc", "--device", unknown});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  for (const char* line :
       {"cd-discid: 05002802 2 150 900 42\n", "CD-Text:   Toc Artist / Toc Album\n",
        "   2. audio     900    0:30  Sec\u00e4nd\n"}) {
    EXPECT_NE(r.out.find(line), std::string::npos) << line << r.out;
  }
}

TEST_F(DriveCliTest, LookupReadsDevicesAndFallsBackToCdText) {
  // The image finds the entry of its id, as the same offsets typed in do.
  ProcessResult r = Run({"lookup", "--device", known});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("Disc 0e001003\nArtist:   The Band\nTitle:    Image Album\n"),
            std::string::npos)
      << r.out;
  const ProcessResult typed = Run({"lookup", "--offsets", "150,550,1050", "--length", "18"});
  EXPECT_EQ(typed.out, r.out);

  // No disc named: the drive of the setting, here an image.
  r = Run({"--set", "Drive.Device=" + known, "lookup"});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("Title:    Image Album\n"), std::string::npos) << r.out;

  // freedb does not know the second disc: its CD-Text is the result, marked,
  // and it can be saved.
  r = Run({"--json", "lookup", "--device", known, "--device", unknown, "--save"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const nlohmann::json j = nlohmann::json::parse(r.out);
  ASSERT_EQ(j["discs"].size(), 2u);
  EXPECT_EQ(j["discs"][0]["title"], "Image Album");
  EXPECT_FALSE(j["discs"][0].contains("note"));
  EXPECT_EQ(j["discs"][1]["disc_id"], "05002802");
  EXPECT_EQ(j["discs"][1]["title"], "Toc Album");
  EXPECT_EQ(j["discs"][1]["tracks"][1]["title"], "Sec\u00e4nd");
  EXPECT_NE(j["discs"][1]["note"].get<std::string>().find("CD-Text"), std::string::npos);
  EXPECT_FALSE(j["discs"][1]["album_id"].get<std::string>().empty());
}

TEST_F(DriveCliTest, FailuresNameTheDriveOrImage) {
  WriteFile(home / "data.cue",
            "FILE \"data.bin\" BINARY\n TRACK 01 MODE1/2352\n INDEX 01 00:00:00\n");
  WriteFile(home / "data.bin", std::string(2352 * 300, '\0'));
  WriteFile(home / "broken.toc", "CD_DA\nTRACK AUDIO\nFILE \"gone.bin\" 0 00:10:00\n");
  const std::string data = (home / "data.cue").string(), broken = (home / "broken.toc").string();
  struct Case {
    std::vector<std::string> args;
    std::string message;
  };
  const Case cases[] = {
      {{"lookup", "--device", "/dev/dischive-none"},
       "dischive: /dev/dischive-none: No such file or directory\n"},
      {{"drive", "toc", "--device", data},
       "dischive: " + data + ": a data disc: it has no audio tracks to look up\n"},
      {{"lookup", "--device", broken}, "dischive: " + broken + ": damaged disc image"},
      {{"--set", "Drive.Device=/dev/dischive-none", "lookup"},
       "dischive: /dev/dischive-none: No such file or directory\n"},
  };
  for (const Case& c : cases) {
    const ProcessResult r = Run(c.args);
    EXPECT_EQ(r.exit_code, 1) << c.args.back() << r.err;
    EXPECT_EQ(r.err.rfind(c.message, 0), 0u) << r.err;
    EXPECT_TRUE(r.out.empty()) << r.out;
  }
  EXPECT_TRUE(http.requests().empty());
}

}  // namespace
}  // namespace dischive::test
