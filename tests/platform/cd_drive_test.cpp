#include "dischive/cd_drive.h"

#include <gtest/gtest.h>

#include "support/disc_image.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

// The id as cd-discid computes it from the drive's table of contents: the sum
// of the digit sums of each track's start second, modulo 255; the seconds from
// the first track to the lead-out; the track count.
uint32_t CdDiscidFormula(const std::vector<uint32_t>& starts, uint32_t lead_out) {
  uint32_t n = 0;
  for (const uint32_t start : starts) {
    for (uint32_t s = start / 75; s > 0; s /= 10)
      n += s % 10;
  }
  const uint32_t t = lead_out / 75 - starts.front() / 75;
  return (n % 255) << 24 | t << 8 | static_cast<uint32_t>(starts.size());
}

struct ImageCase {
  const char* name;
  bool toc_file;  // a cdrdao .toc instead of a cue sheet
  DiscLayout layout;
  std::vector<uint32_t> starts;  // expected, with the lead-in
  std::vector<bool> audio;
  uint32_t lead_out;
  uint32_t disc_id;  // worked out by hand
};

TEST(CdDriveTest, ImagesGiveTheirTocIdsAndCdText) {
  const ImageCase cases[] = {
      {"cue with CD-Text",
       false,
       {{{0, true, "One", "P\xe9rez", "USABC1234567"},
         {400, true, "Tw\xf6", "", ""},
         {900, true, "", "", ""}},
        1200,
        "Cue Album",
        "Cue Artist",
        "0731454068624"},
       {150, 550, 1050},
       {true, true, true},
       1350,
       // digit sums 2 + 7 + (1+4) = 14; 18 - 2 = 16 s; 3 tracks
       0x0e001003},
      {"cdrdao toc with CD-Text",
       true,
       {{{0, true, "First", "A1", "GBXYZ0000001"}, {750, true, "Sec\xe4nd", "A2", ""}},
        3000,
        "Toc Album",
        "Toc Artist",
        "4006381333931"},
       {150, 900},
       {true, true},
       3150,
       // digit sums 2 + (1+2) = 5; 42 - 2 = 40 s; 2 tracks
       0x05002802},
      {"enhanced CD, cue",
       false,
       {{{0, true, "", "", ""}, {1500, true, "", "", ""}, {3000, false, "", "", ""}},
        3600,
        "",
        "",
        ""},
       {150, 1650, 3150},
       {true, true, false},
       3750,
       // the data track counts: 2 + 2+2 + 4+2 = 12; 50 - 2 = 48 s; 3 tracks
       0x0c003003},
      {"enhanced CD, toc",
       true,
       {{{0, true, "", "", ""}, {1500, true, "", "", ""}, {3000, false, "", "", ""}},
        3600,
        "",
        "",
        ""},
       {150, 1650, 3150},
       {true, true, false},
       3750,
       0x0c003003},
  };
  for (const ImageCase& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    const auto path = c.toc_file ? WriteTocImage(dir.path(), "disc", c.layout)
                                 : WriteCueImage(dir.path(), "disc", c.layout);
    const CdReadResult read = ReadCdDisc(path.string());
    ASSERT_EQ(read.error, CdError::kNone) << read.message;
    const CdDisc& disc = read.disc;
    EXPECT_TRUE(disc.image);
    ASSERT_EQ(disc.tracks.size(), c.starts.size());
    for (size_t i = 0; i < c.starts.size(); ++i) {
      EXPECT_EQ(disc.tracks[i].number, i + 1);
      EXPECT_EQ(disc.tracks[i].start_frame, c.starts[i]) << "track " << i + 1;
      EXPECT_EQ(disc.tracks[i].audio, c.audio[i]) << "track " << i + 1;
      EXPECT_EQ(disc.tracks[i].isrc, c.layout.tracks[i].isrc);
    }
    EXPECT_EQ(disc.lead_out_frame, c.lead_out);
    EXPECT_EQ(disc.mcn, c.layout.mcn);

    std::string error;
    const auto toc = DiscTocFromCd(disc, &error);
    ASSERT_TRUE(toc) << error;
    EXPECT_EQ(toc->disc_id, c.disc_id) << std::hex << toc->disc_id;
    EXPECT_EQ(toc->disc_id, CdDiscidFormula(c.starts, c.lead_out));
    // The same offsets typed by the user give the same id.
    const auto typed = MakeDiscToc(c.starts, c.lead_out / 75, &error);
    ASSERT_TRUE(typed) << error;
    EXPECT_EQ(typed->disc_id, toc->disc_id);
  }
}

TEST(CdDriveTest, CdTextIsUtf8AndBecomesMetadata) {
  TempDir dir;
  // CD-Text is ISO-8859-1 on the disc: the bytes written are Latin-1.
  DiscLayout layout{{{0, true, "Caf\xe9", "Disc Artist", ""}, {600, true, "Na\xefve", "Guest", ""}},
                    1200,
                    "\xc5ngstr\xf6m",
                    "Disc Artist",
                    ""};
  for (const bool toc_file : {false, true}) {
    SCOPED_TRACE(toc_file ? "toc" : "cue");
    const auto path = toc_file ? WriteTocImage(dir.path(), "text", layout)
                               : WriteCueImage(dir.path(), "text", layout);
    const CdReadResult read = ReadCdDisc(path.string());
    ASSERT_EQ(read.error, CdError::kNone) << read.message;
    EXPECT_TRUE(read.disc.has_cd_text);
    EXPECT_EQ(read.disc.title, "\u00c5ngstr\u00f6m");
    EXPECT_EQ(read.disc.tracks[0].title, "Caf\u00e9");
    EXPECT_EQ(read.disc.tracks[1].title, "Na\u00efve");

    const DiscMetadata m = MetadataFromCdText(read.disc);
    EXPECT_EQ(m.Text(field::kArtist, 0), "Disc Artist");
    EXPECT_EQ(m.Text(field::kTitle, 0), "\u00c5ngstr\u00f6m");
    EXPECT_EQ(m.Text(field::kTrackTitle, 2), "Na\u00efve");
    // Only a track performer that differs from the disc's becomes a track artist.
    EXPECT_EQ(m.Text(field::kArtist, 1), std::nullopt);
    EXPECT_EQ(m.Text(field::kArtist, 2), "Guest");
  }
  // A disc without CD-Text gives no metadata, so a lookup has nothing to offer.
  const auto plain = WriteCueImage(dir.path(), "plain", PlainImage({0, 300}, 600));
  const CdReadResult read = ReadCdDisc(plain.string());
  ASSERT_EQ(read.error, CdError::kNone) << read.message;
  EXPECT_FALSE(read.disc.has_cd_text);
  EXPECT_EQ(MetadataFromCdText(read.disc).size(), 0u);
}

TEST(CdDriveTest, BadDrivesAndDamagedImagesFailWithTheirReason) {
  TempDir dir;
  const auto good = WriteCueImage(dir.path(), "good", PlainImage({0, 300}, 600));
  const std::string good_cue = ReadFile(good);
  struct Case {
    const char* name;
    std::string file;      // written into the folder; empty: none
    std::string contents;  // of the file
    CdError error;
    const char* message;  // part of the message, after the path
  };
  const Case cases[] = {
      {"data-only disc", "data.cue",
       "FILE \"data.bin\" BINARY\n TRACK 01 MODE1/2352\n  INDEX 01 00:00:00\n", CdError::kDataOnly,
       "no audio tracks"},
      {"bin missing", "lost.cue", good_cue, CdError::kDamagedImage, "lost.bin"},
      {"garbage cue", "junk.cue", std::string("\x01\xff\x80TRACK\x00\x1b[2J\n", 14) + good_cue,
       CdError::kDamagedImage, "damaged disc image"},
      {"empty toc", "empty.toc", "", CdError::kDamagedImage, "damaged disc image"},
      {"cue without tracks", "none.cue", "FILE \"none.bin\" BINARY\n", CdError::kDamagedImage,
       "damaged disc image"},
      {"unknown type", "disc.iso", "", CdError::kNotAnImage, "not a CD drive or a disc image"},
      {"missing image", "", "", CdError::kCannotOpen, "No such file or directory"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::path path = dir / (std::string(c.name) + ".cue");
    if (!c.file.empty()) {
      path = dir / c.file;
      WriteFile(path, c.contents);
      // An image's data file is named after its cue sheet.
      const auto bin = std::filesystem::path(path).replace_extension(".bin");
      if (std::string(c.name) != "bin missing")
        std::filesystem::copy_file(good.parent_path() / "good.bin", bin);
    }
    const CdReadResult read = ReadCdDisc(path.string());
    EXPECT_EQ(read.error, c.error) << read.message;
    EXPECT_EQ(read.message.rfind(path.string() + ": ", 0), 0u) << read.message;
    EXPECT_NE(read.message.find(c.message), std::string::npos) << read.message;
    EXPECT_EQ(read.message.find('\x1b'), std::string::npos) << "control bytes reach the terminal";
  }
  // A drive that is not there.
  const CdReadResult absent = ReadCdDisc("/dev/dischive-no-such-drive");
  EXPECT_EQ(absent.error, CdError::kNoDrive);
  EXPECT_EQ(absent.message, "/dev/dischive-no-such-drive: No such file or directory");
  // A device that is no CD drive.
  const CdReadResult null = ReadCdDisc("/dev/null");
  EXPECT_EQ(null.error, CdError::kNoDrive);
  EXPECT_EQ(null.message, "/dev/null: not a CD drive");
}

}  // namespace
}  // namespace dischive::test
