#include <gtest/gtest.h>

#include "dischive/cddb.h"

namespace dischive {
namespace {

TEST(TocInputTest, ReadsDiscIdLinesAndCueSheets) {
  std::string error;
  uint32_t stated = 0;
  const auto toc = ParseDiscIdLine(
      "a20b250d 13 15037 33615 47637 64202 80665 99150 112272 129287 150072 167990 187560 "
      "199785 218482 3053\n",
      &error, &stated);
  ASSERT_TRUE(toc) << error;
  EXPECT_EQ(toc->disc_id, 0xa20b250du);  // computed: cd-discid's documented sample
  EXPECT_EQ(stated, 0xa20b250du);
  EXPECT_EQ(toc->track_count, 13u);
  EXPECT_EQ(toc->frame_offsets[12], 218482u);
  EXPECT_EQ(toc->disc_length_seconds, 3053u);

  const char* cue =
      "REM GENRE Rock\nFILE \"disc.flac\" WAVE\n  TRACK 01 AUDIO\n    INDEX 01 00:00:00\n"
      "  TRACK 02 AUDIO\n    INDEX 00 03:10:00\n    INDEX 01 03:12:30\n";
  const auto from_cue = ParseCueSheet(cue, 400, &error);
  ASSERT_TRUE(from_cue) << error;
  EXPECT_EQ(from_cue->track_count, 2u);
  EXPECT_EQ(from_cue->frame_offsets[1], 150u + 192 * 75 + 30);
  EXPECT_EQ(from_cue->disc_id, ComputeFreedbDiscId(*from_cue));

  struct Bad {
    const char* line;
    const char* message;
  } const bad[] = {
      {"", "expected"},
      {"a20b250d 2 150 3000", "expected"},
      {"a20b250d 2 150 3000 60 99", "expected"},
      {"xyz 1 150 60", "not hexadecimal"},
      {"1234 2 3000 150 60", "not after track 1"},
      {"1234 1 150 1", "ends before"},
      {"1234 1 -150 60", "not a frame offset"},
  };
  for (const Bad& b : bad) {
    error.clear();
    EXPECT_FALSE(ParseDiscIdLine(b.line, &error)) << b.line;
    EXPECT_NE(error.find(b.message), std::string::npos) << b.line << ": " << error;
  }
  EXPECT_FALSE(ParseCueSheet("FILE a WAVE\nTRACK 01 AUDIO\nFILE b WAVE\n", 60, &error));
  EXPECT_NE(error.find("one file per track"), std::string::npos);
  EXPECT_FALSE(ParseCueSheet("FILE a WAVE\nTRACK 01 AUDIO\nINDEX 01 1:99:00\n", 600, &error));
  EXPECT_FALSE(ParseCueSheet("FILE a WAVE\nTRACK 01 AUDIO\nTRACK 02 AUDIO\n", 600, &error));
  EXPECT_FALSE(ParseCueSheet("nothing", 600, &error));
  EXPECT_FALSE(MakeDiscToc(std::vector<uint32_t>(101, 0), 60, &error));
}

}  // namespace
}  // namespace dischive
