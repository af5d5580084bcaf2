// ID3v2 tags of every version and encoding, and the MPEG frame header behind them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scan/bytes.h"
#include "scan/tag_readers.h"

namespace dischive {
namespace {

using namespace test;

// One frame of `major` version; 2.4 sizes are syncsafe unless `plain_size`.
std::string Frame(int major, const std::string& id, const std::string& data, uint16_t flags = 0,
                  bool plain_size = false) {
  const auto size = static_cast<uint32_t>(data.size());
  if (major == 2) return id + Be24(size) + data;
  const std::string length = major == 4 && !plain_size ? Syncsafe(size) : Be32(size);
  return id + length + std::string{static_cast<char>(flags >> 8), static_cast<char>(flags)} + data;
}

std::string Tag(int major, const std::string& frames, uint8_t flags = 0, size_t padding = 8) {
  const std::string body = frames + std::string(padding, '\0');
  return std::string("ID3") + static_cast<char>(major) + '\0' + static_cast<char>(flags) +
         Syncsafe(static_cast<uint32_t>(body.size())) + body;
}

std::string Latin1(const std::string& text) {
  return '\0' + text;
}
std::string Utf8(const std::string& text) {
  return '\x03' + text;
}

// MPEG-1 layer III, 128 kbit/s, 44.1 kHz, stereo: 417 bytes a frame.
const std::string kFrameHeader("\xFF\xFB\x90\x00", 4);

MediaFileTags ReadTag(const std::string& bytes, CoverPicture* picture = nullptr) {
  MemorySource source(bytes);
  MediaFileTags tags;
  ReadMp3Info(source, tags, picture);
  return tags;
}

TEST(Id3v2, ReadsEachVersionAndEncoding) {
  // major, data, title
  const char* const kAe = "A\xC3\xA9";
  const std::tuple<int, std::string, const char*> cases[] = {
      {2, Latin1("A\xE9"), kAe},
      {2, std::string("\x01\xFF\xFE\x41\0\xE9\0", 7), kAe},
      {3, Latin1("A\xE9"), kAe},
      {3, std::string("\x01\xFF\xFE\x41\0\xE9\0", 7), kAe},
      {3, std::string("\x01\xFE\xFF\0A\0\xE9", 7), kAe},
      {4, std::string("\x02\0A\0\xE9\0\0", 7), kAe},
      {4, Utf8(kAe), kAe},
      {4, Latin1("A\xE9") + '\0', kAe},
      {4, std::string("\x00OK", 3), "OK"},
      {4, std::string("\x01\xFF\xFEO\0K\0", 7), "OK"},
      {4, std::string("\x01\xFE\xFF\0O\0K", 7), "OK"},
      {4, std::string("\x02\0O\0K", 5), "OK"},
      {4, std::string("\x03OK\0", 4), "OK"},
  };
  for (const auto& [major, data, title] : cases) {
    EXPECT_EQ(ReadTag(Tag(major, Frame(major, major == 2 ? "TT2" : "TIT2", data))).title, title)
        << major << " " << static_cast<int>(data[0]);
  }
}

TEST(Id3v2, MapsTheFramesOfVersions22And23) {
  const std::string v22 = Frame(2, "TP1", Latin1("Art")) + Frame(2, "TAL", Latin1("Alb")) +
                          Frame(2, "TYE", Latin1("1999")) + Frame(2, "TRK", Latin1("5/9")) +
                          Frame(2, "TPA", Latin1("2/2")) + Frame(2, "TCO", Latin1("(17)")) +
                          Frame(2, "TCM", Latin1("Comp")) + Frame(2, "TP3", Latin1("Cond")) +
                          Frame(2, "TXT", Latin1("Lyr")) + Frame(2, "TBP", Latin1("-3")) +
                          Frame(2, "ULT", Latin1(std::string("eng\0la la", 9)));
  EXPECT_EQ(ReadTag(Tag(2, v22)), With([&](MediaFileTags& t) {
              t.artist = "Art", t.album = "Alb", t.year = "1999", t.lyrics = "la la",
              t.composer = "Comp", t.conductor = "Cond", t.lyricist = "Lyr", t.genre = "Rock",
              t.trackNumber = 5, t.discNumber = 2, t.formatName = "MP3";
            }));

  const std::string v23 = Frame(3, "TYER", Latin1("2003")) + Frame(3, "TDAT", Latin1("2512")) +
                          Frame(3, "TPUB", Latin1("Label")) + Frame(3, "TBPM", Latin1("120")) +
                          Frame(3, "TRCK", Latin1("0")) + Frame(3, "TPOS", Latin1("0")) +
                          Frame(3, "TPE3", Latin1("Cond")) + Frame(3, "TEXT", Latin1("Words"));
  EXPECT_EQ(ReadTag(Tag(3, v23)), With([&](MediaFileTags& t) {
              t.year = "2003-12-25", t.conductor = "Cond", t.lyricist = "Words", t.label = "Label",
              t.bpm = 120, t.formatName = "MP3";
            }));

  // 2.4: the recording time, and several artists in one frame.
  const MediaFileTags t =
      ReadTag(Tag(4, Frame(4, "TDRC", Utf8("2010-05-06")) + Frame(4, "TPE1", Utf8({"A\0B\0", 4}))));
  EXPECT_EQ(t.year, "2010-05-06");
  EXPECT_EQ(t.artist, "A, B");
}

TEST(Id3v2, AddsEveryCommentFrame) {
  const std::string frames = Frame(3, "COMM", Latin1(std::string("eng\0first", 9))) +
                             Frame(3, "COMM", Latin1(std::string("engNote\0second", 14))) +
                             Frame(3, "COMM", {"\1eng\xFF\xFE\x44\0\0\0\xFF\xFE\x33\0", 14});
  EXPECT_EQ(ReadTag(Tag(3, frames)).comment, "first\r\n\r\nNote:\r\nsecond\r\n\r\nD:\r\n3");
}

TEST(Id3v2, ParsesGenreTexts) {
  // clang-format off
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"(17)", "Rock"}, {"17", "Rock"}, {"(17)Rock & Roll", "Rock & Roll"},
      {"Synthpop", "Synthpop"}, {"(147)", "Synthpop"}, {"(148)", ""}, {"148", ""},
      {"(200)", "(200)"}, {"((Wrapped)", "(Wrapped)"}, {"(RX)", "Remix"}, {"(CR)", "Cover"},
      {"(", "("}, {"0", "Blues"}, {"  (67)  ", "Psychadelic"}};
  // clang-format on
  for (const auto& [text, name] : cases)
    EXPECT_EQ(ParseId3Genre(text), name) << text;
  EXPECT_EQ(GenreNameFromIndex(123), "A capella");
  EXPECT_EQ(GenreNameFromIndex(133), "Negerunk");
  EXPECT_EQ(GenreNameFromIndex(148), "");
  EXPECT_EQ(GenreNameFromIndex(-1), "");
  EXPECT_EQ(ReadTag(Tag(4, Frame(4, "TCON", Utf8({"13\0Rock", 7})))).genre, "Pop");
}

TEST(Id3v2, UndoesUnsynchronisation) {
  // 2.3: the whole tag, unsynchronised (0x00 after every 0xFF); the frame's size
  // is that of the title 0xFF 0xFF x 0xFF in Latin-1.
  const std::string unsynced = "TIT2" + Be32(5) + std::string("\0\0\0\xFF\0\xFF\0x\xFF\0", 10);
  EXPECT_EQ(ReadTag(Tag(3, unsynced, 0x80)).title, "\xC3\xBF\xC3\xBFx\xC3\xBF");
  // 2.4: per frame, the size counting the unsynchronised bytes.
  const std::string data = Latin1(std::string("\xFF\x00z", 3));
  EXPECT_EQ(ReadTag(Tag(4, Frame(4, "TIT2", data, 0x0002))).title, "\xC3\xBFz");
  EXPECT_EQ(ReadTag(Tag(4, Frame(4, "TIT2", data, 0x0000))).title, "\xC3\xBF");
}

TEST(Id3v2, HandlesFrameFlagsAndSizes) {
  const std::string big(200, 'b');  // 200 as a plain size is not a syncsafe 200
  // 2.4 with plain sizes, as some taggers write them.
  EXPECT_EQ(ReadTag(Tag(4, Frame(4, "TIT2", Latin1(big), 0, true) +
                               Frame(4, "TALB", Latin1("Alb"), 0, true))),
            With([&](MediaFileTags& t) { t.title = big, t.album = "Alb", t.formatName = "MP3"; }));
  // Data length indicator and group id are skipped; compressed frames are not read.
  EXPECT_EQ(
      ReadTag(Tag(4, Frame(4, "TIT2", Be32(4) + Latin1("Dli"), 0x0001) +
                         Frame(4, "TALB", "G" + Latin1("Grp"), 0x0040) +
                         Frame(4, "TPE1", Latin1("zip"), 0x0008))),
      With([&](MediaFileTags& t) { t.title = "Dli", t.album = "Grp", t.formatName = "MP3"; }));
  EXPECT_EQ(ReadTag(Tag(3, Frame(3, "TIT2", Latin1("zip"), 0x0080))).title, "");
  // A frame larger than the tag ends the frames; earlier ones count.
  std::string broken = Frame(3, "TALB", Latin1("ok")) + Frame(3, "TIT2", Latin1("x"));
  broken.replace(broken.size() - 8, 4, Be32(0x7FFFFFFF));
  EXPECT_EQ(ReadTag(Tag(3, broken, 0, 0)),
            With([&](MediaFileTags& t) { t.album = "ok", t.formatName = "MP3"; }));
}

TEST(Id3v2, SkipsTagsItMustNotRead) {
  const std::string frames = Frame(3, "TIT2", Latin1("T"));
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"extended header", Tag(3, frames, 0x40)},
      {"version 5", Tag(5, frames)},
      {"too large", std::string("ID3\x03\x00\x00", 6) + Syncsafe(2097153) + frames},
  };
  for (const auto& [name, bytes] : cases) {
    EXPECT_EQ(ReadTag(bytes + kFrameHeader).title, "") << name;
  }
  // Exactly 2 MiB is still read.
  std::string large = Frame(3, "TIT2", Latin1("T"));
  large += std::string(2097152 - large.size(), '\0');
  EXPECT_EQ(ReadTag(std::string("ID3\x03\x00\x00", 6) + Syncsafe(2097152) + large).title, "T");
}

TEST(Id3v2, PrefersTheFrontCover) {
  auto apic = [](char type, const std::string& mime, const std::string& data) {
    return Frame(3, "APIC", std::string("\0", 1) + mime + '\0' + type + "desc" + '\0' + data);
  };
  const std::string jpeg("\xFF\xD8\xFF\xE0jpeg", 8);
  const std::string png("\x89PNG\r\n\x1A\nrest", 12);
  const std::string pic = Frame(2, "PIC", std::string("\0PNG\x03", 5) + "d" + '\0' + png);
  using enum PictureKind;
  // version, frames, data, kind
  const std::tuple<int, std::string, std::string, PictureKind> cases[] = {
      {3, apic(4, "image/png", png) + apic(3, "image/jpeg", jpeg), jpeg, kJpeg},
      {3, apic(3, "image/png", png) + apic(0, "image/jpeg", jpeg), png, kPng},
      {3, apic(0, "", jpeg), jpeg, kJpeg},
      {3, apic(3, "image/gif", "GIF89a"), "", kNone},
      {3, pic, "", kNone},  // a 2.2 frame in a 2.3 tag
      {2, pic, png, kPng},
  };
  for (const auto& [major, frames, data, kind] : cases) {
    CoverPicture picture;
    ReadTag(Tag(major, frames), &picture);
    EXPECT_EQ(picture.data, data);
    EXPECT_EQ(picture.kind, kind);
  }
}

TEST(Mp3, ChecksTheFrameHeaderBehindTheTag) {
  const std::string tag = Tag(3, Frame(3, "TIT2", Latin1("T")));
  std::string audio;
  for (int i = 0; i < 10; ++i)
    audio += kFrameHeader + std::string(413, '\0');
  // file, taken, frames, kbps
  // 4170 bytes at 128 kbit/s: 0.260625 s, 19 frames of 1/75 s.
  const std::tuple<std::string, bool, int32_t, int32_t> cases[] = {
      {tag + audio, true, 19, 128},
      {audio, true, 19, 128},
      {tag + "\xFF\x1B" + audio, true, 0, 0},  // not a frame header: the tag alone
      {"\xFF\x1B" + audio, false, 0, 0},
      {std::string("\xFF\xFF\xF0\x00", 4) + audio, true, 0, 0},  // reserved values: not timed
  };
  for (const auto& [file, taken, frames, kbps] : cases) {
    MemorySource source(file);
    MediaFileTags tags;
    EXPECT_EQ(ReadMp3Info(source, tags, nullptr), taken);
    EXPECT_EQ(tags.durationFrames, frames);
    EXPECT_EQ(tags.bitrateKbps, kbps);
    EXPECT_EQ(tags.formatName, taken ? "MP3" : "");
  }
}

TEST(Mp3, TimesVbrFromXingAndVbriHeaders) {
  // MPEG-1 layer III stereo: Xing behind 32 bytes of side information.
  std::string xing =
      kFrameHeader + std::string(32, '\0') + "Xing" + Be32(3) + Be32(1000) + Be32(3000000);
  xing.resize(417, '\0');
  // 1000 frames × 1152 samples at 44.1 kHz = 26.122 s = 1959 CD frames.
  const MediaFileTags t = ReadTag(xing);
  EXPECT_EQ(t.durationFrames, 1959);
  EXPECT_EQ(t.bitrateKbps, 918);  // 3,000,000 bytes in 26.122 s
  // VBRI 32 bytes behind the header: version, delay, quality, bytes, frames.
  std::string vbri = kFrameHeader + std::string(32, '\0') + "VBRI" + std::string(6, '\0') +
                     Be32(1000000) + Be32(500);
  vbri.resize(417, '\0');
  EXPECT_EQ(ReadTag(vbri).durationFrames, 979);  // 500 × 1152 / 44100 s
  // MPEG-2.5 layer III mono at 8 kHz: 576 samples a frame, Xing behind 9 bytes.
  const std::string low =
      std::string("\xFF\xE3\x18\xC0", 4) + std::string(9, '\0') + "Info" + Be32(1) + Be32(100);
  EXPECT_EQ(ReadTag(low).durationFrames, 540);  // 100 × 576 / 8000 s = 7.2 s
}

}  // namespace
}  // namespace dischive
