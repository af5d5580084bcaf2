// dischive tags: text and JSON output, the cover picture, unreadable files.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/temp_dir.h"

namespace dischive {
namespace {

const std::string kData = std::string(DISCHIVE_TEST_DATA_DIR) + "/tags/";

TEST(TagsCli, PrintsFieldsAsTextAndJson) {
  test::TempDir home;
  const test::ProcessResult text = test::RunCli({"tags", kData + "cbr-id3v23.mp3"}, home.path());
  ASSERT_EQ(text.exit_code, 0) << text.err;
  EXPECT_NE(text.out.find("  format: MP3 (id3v2)\n"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("  title: CBR Song\n"), std::string::npos);
  EXPECT_NE(text.out.find("  comment: ID3v1 Comment:\n    first note\n"), std::string::npos);
  EXPECT_NE(text.out.find("  trackNumber: 4\n"), std::string::npos);

  const test::ProcessResult json =
      test::RunCli({"tags", "--json", kData + "tagged.flac", kData + "tagged.wma"}, home.path());
  ASSERT_EQ(json.exit_code, 0) << json.err;
  const auto parsed = nlohmann::json::parse(json.out);
  ASSERT_EQ(parsed.size(), 2u);
  EXPECT_EQ(parsed[0]["title"], "Blåa tonen");
  EXPECT_EQ(parsed[0]["artistSort"], "");
  EXPECT_EQ(parsed[0]["picture"]["kind"], "jpeg");
  EXPECT_EQ(parsed[1]["format"], "WMA");
  EXPECT_EQ(parsed[1]["trackNumber"], 5);
  EXPECT_EQ(parsed[1]["durationFrames"], 75);
  EXPECT_TRUE(parsed[1]["picture"].is_null());
}

TEST(TagsCli, SavesCoversAndReportsBadFiles) {
  test::TempDir home;
  const std::string out = (home / "cover.jpg").string();
  test::ProcessResult r =
      test::RunCli({"tags", "--picture", out, kData + "tagged.flac"}, home.path());
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(test::ReadFile(out).substr(0, 2), "\xFF\xD8");

  // Several files: one picture each, numbered; a missing file fails the run
  // but the others are still printed.
  r = test::RunCli({"tags", "--picture", (home / "c.img").string(), kData + "tagged.flac",
                    (home / "missing.ogg").string(), kData + "vbr-id3v24.mp3"},
                   home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("missing.ogg: no such file"), std::string::npos) << r.err;
  EXPECT_EQ(test::ReadFile(home / "c-1.img").substr(0, 2), "\xFF\xD8");
  EXPECT_EQ(test::ReadFile(home / "c-3.img").substr(1, 3), "PNG");
  EXPECT_NE(r.out.find("Vbr T"), std::string::npos);

  test::WriteFile(home / "notes.txt", "plain text");
  r = test::RunCli({"tags", (home / "notes.txt").string()}, home.path());
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("not a music file"), std::string::npos);
  EXPECT_NE(test::RunCli({"tags"}, home.path()).exit_code, 0);  // no file given
}

}  // namespace
}  // namespace dischive
