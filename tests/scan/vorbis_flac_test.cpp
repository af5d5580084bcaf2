// Vorbis comments, FLAC pictures and the FLAC stream reader; Ogg Vorbis: header
// packets over pages, the comment limits, the playing time.
#include <gtest/gtest.h>

#include <string>

#include "dischive/text.h"
#include "scan/bytes.h"
#include "scan/tag_readers.h"

namespace dischive {
namespace {

using namespace test;

std::string CommentBlock(const std::vector<std::string>& comments) {
  std::string block = Le32(6) + "vendor" + Le32(static_cast<uint32_t>(comments.size()));
  for (const std::string& c : comments)
    block += Le32(static_cast<uint32_t>(c.size())) + c;
  return block;
}

// STREAMINFO with 8000 Hz and `samples` samples, of `length` bytes (34 or more).
std::string StreamInfo(uint64_t samples, uint32_t length, bool last) {
  // 20-bit rate 0x01F40, then 36 bits of sample count.
  std::string data = std::string(10, '\0') + "\x01\xF4" + '\0' +
                     static_cast<char>((samples >> 32) & 0x0F) +
                     Be32(static_cast<uint32_t>(samples));
  data.resize(length, '\0');
  return std::string(1, static_cast<char>(last ? 0x80 : 0x00)) + Be24(length) + data;
}

std::string Block(int type, const std::string& data, bool last) {
  return std::string(1, static_cast<char>(type | (last ? 0x80 : 0))) +
         Be24(static_cast<uint32_t>(data.size())) + data;
}

TEST(VorbisComment, MapsEveryFieldOfTheTable) {
  // comments, expected
  const std::tuple<std::vector<std::string>, MediaFileTags> cases[] = {
      {{"TITLE=  Song  ", "album=Disc"}, With([](auto& t) { t.title = "Song", t.album = "Disc"; })},
      {{"TRACKNUMBER=7/12"}, With([](auto& t) { t.trackNumber = 7; })},
      {{"TRACKNUMBER=0"}, MediaFileTags{}},
      {{"TRACKNUMBER=1023"}, With([](auto& t) { t.trackNumber = 1023; })},
      {{"TRACKNUMBER=3", "TRACKNUMBER=1024"}, MediaFileTags{}},
      {{"DISCNUMBER=0"}, MediaFileTags{}},
      {{"DISCNUMBER=2000"}, With([](auto& t) { t.discNumber = 2000; })},
      {{"BPM=-5"}, MediaFileTags{}},
      {{"BPM=128"}, With([](auto& t) { t.bpm = 128; })},
      {{"ARTIST=A", "Artist=B"}, With([](auto& t) { t.artist = "A, B"; })},
      {{"ARTISTSORT=A"}, With([](auto& t) { t.artistSort = "A"; })},
      {{"ARTISTSORT=A", "ARTISTSORT=B"}, MediaFileTags{}},
      {{"ARTISTSORT=A", "ARTISTSORT=B", "ARTISTSORT=C"}, With([](auto& t) { t.artistSort = "C"; })},
      {{"DESCRIPTION=first", "COMMENT=second"}, With([](auto& t) { t.comment = "first"; })},
      {{"COMMENT=one", "DESCRIPTION=two"}, With([](auto& t) { t.comment = "one"; })},
      {{"PERFORMER=P", "GENRE=G", "DATE=2001-02", "COMPOSER=C", "CONDUCTOR=D", "LYRICIST=L",
        "LYRICS=la"},
       With([](auto& t) {
         t.performer = "P", t.genre = "G", t.year = "2001-02", t.composer = "C";
         t.conductor = "D", t.lyricist = "L", t.lyrics = "la";
       })},
      {{"LABEL=One", "ORGANIZATION=Two"}, With([](auto& t) { t.label = "Two"; })},
      {{"LOCATION=Hall", "UNKNOWN=x", "TITLE=", "TITLE=   ", "=value", "noequals"},
       MediaFileTags{}},
      {{"TITLE=a=b"}, With([](auto& t) { t.title = "a=b"; })},
  };
  for (const auto& [comments, expected] : cases) {
    MediaFileTags tags;
    const std::string block = CommentBlock(comments);
    EXPECT_TRUE(ParseVorbisComment(Bytes(block), tags, true));
    EXPECT_EQ(tags, expected) << comments.front();
  }
}

TEST(VorbisComment, ConvertsOrKeepsLegacyText) {
  MediaFileTags strict, lenient;
  MapVorbisField("TITLE=Caf\xE9", strict, true);
  MapVorbisField("TITLE=Caf\xE9", lenient, false);
  EXPECT_EQ(strict.title, "Caf\xEF\xBF\xBD");  // U+FFFD
  EXPECT_EQ(lenient.title, "Caf\xC3\xA9");     // read as Windows-1252
  // Leniently, the readers' fast UTF-8 check against the library's own validator.
  // clang-format off
  const std::vector<std::string> texts = {
      "plain ascii text longer than eight", "\xC3\xA9t\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x8E\xB5",
      "\xC0\xAF", "\xE0\x80\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xC3",
      "abcdefgh\xE2\x82", "\x80", "12345678\xFF", ""};
  // clang-format on
  for (const std::string& text : texts) {
    MediaFileTags tags;
    MapVorbisField("TITLE=x" + text, tags, false);
    EXPECT_EQ(tags.title, IsValidUtf8("x" + text) ? "x" + text : Cp1252ToUtf8("x" + text)) << text;
  }
}

TEST(VorbisComment, StopsAtLengthsOutsideTheBlock) {
  auto parse = [](const std::string& block, MediaFileTags& tags) {
    return ParseVorbisComment(Bytes(block), tags, true);
  };
  MediaFileTags tags;
  // The second comment claims more than the block holds; the first still counts.
  std::string block = CommentBlock({"TITLE=kept"}) + Le32(100) + "ALBUM=x";
  block.replace(10, 4, Le32(2));
  EXPECT_FALSE(parse(block, tags));
  EXPECT_EQ(tags.title, "kept");
  EXPECT_TRUE(tags.album.empty());
  // A vendor string of 1 MiB or more ends parsing before any comment.
  MediaFileTags none;
  EXPECT_FALSE(parse(Le32(1u << 20) + std::string(1u << 20, 'v') + Le32(0), none));
  // A huge count with few bytes behind it is capped, not looped over.
  MediaFileTags capped;
  EXPECT_FALSE(parse(Le32(0) + Le32(0xFFFFFFFF) + Le32(7) + "TITLE=t", capped));
  EXPECT_EQ(capped.title, "t");
}

TEST(FlacPicture, TakesOnlyFrontCoversInJpegOrPng) {
  auto block = [](uint32_t type, const std::string& mime, const std::string& data,
                  uint32_t data_length) {
    return Be32(type) + Be32(static_cast<uint32_t>(mime.size())) + mime + Be32(4) + "desc" +
           std::string(16, '\0') + Be32(data_length) + data;
  };
  // bytes, taken, kind
  const std::tuple<std::string, bool, PictureKind> cases[] = {
      {block(3, "image/jpeg", "JPEG", 4), true, PictureKind::kJpeg},
      {block(3, "image/jpg", "JPEG", 4), true, PictureKind::kJpeg},
      {block(3, "image/png", "PNG!", 4), true, PictureKind::kPng},
      {block(4, "image/jpeg", "JPEG", 4), false, PictureKind::kNone},  // back cover
      {block(3, "image/gif", "GIF8", 4), false, PictureKind::kNone},
      {block(3, "IMAGE/JPEG", "JPEG", 4), false, PictureKind::kNone},  // case counts
      {block(3, "", "JPEG", 4), false, PictureKind::kNone},
      {block(3, "image/png", "", 0), false, PictureKind::kNone},
      {block(3, "image/png", "PNG!", 5), false, PictureKind::kNone},  // beyond the block
      {block(3, "image/png", "PNG!", 0xFFFFFFFF), false, PictureKind::kNone},
      {Be32(3) + Be32(0xFFFFFFF0) + "image/png", false, PictureKind::kNone},
  };
  for (const auto& [bytes, taken, kind] : cases) {
    CoverPicture picture;
    EXPECT_EQ(ParseFlacPicture(Bytes(bytes), picture), taken) << bytes.size();
    EXPECT_EQ(picture.kind, kind);
    EXPECT_EQ(picture.data.empty(), !taken);
  }
}

TEST(FlacReader, ReadsStreamInfoTagsAndTheSkipRules) {
  const std::string comment = Block(4, CommentBlock({"TITLE=T", "ARTIST=A"}), true);
  // name, file, want_tags, result, title, frames
  const std::string id3 = std::string("ID3\x03\x00\x00\x00\x00\x00\x05", 10) + "pad!!";
  std::string extended = id3;
  extended[5] = 0x40;
  // A STREAMINFO of 40 bytes is followed by a skip of 40 - 38 = 2 bytes, so
  // the next header is read 4 bytes early: here a comment block placed there.
  const std::string long_info = "fLaC" + StreamInfo(16000, 40, false).substr(0, 4 + 34) +
                                std::string(2, '\0') + comment + "zzzz";
  const std::string one = "fLaC" + StreamInfo(8000, 34, false),
                    two = "fLaC" + StreamInfo(16000, 34, false);
  using enum FlacResult;
  const std::tuple<const char*, std::string, bool, FlacResult, std::string, int32_t> cases[] = {
      {"plain", two + comment, true, kRead, "T", 150},
      {"no tags wanted", two + comment, false, kRead, "", 150},
      {"last block", "fLaC" + StreamInfo(8000, 34, true) + comment, true, kRead, "", 75},
      {"id3 in front", id3 + one + comment, true, kId3InFront, "T", 75},
      {"id3, no flac", id3 + "MPEG audio here, not FLAC at all, no no no no", true, kId3InFront, "",
       0},
      {"extended header", extended + one + comment, true, kNotFlac, "", 0},
      {"id3 version 5", std::string("ID3\x05", 4) + std::string(60, '\0'), true, kNotFlac, "", 0},
      {"short", one.substr(0, 24), true, kNotFlac, "", 0},
      {"not streaminfo first", "fLaC" + Block(4, std::string(34, '\0'), false), true, kNotFlac, "",
       0},
      {"length - 38 skip", long_info, true, kRead, "T", 150},
      {"short streaminfo", std::string(one).replace(5, 3, Be24(20)) + comment, true, kRead, "", 75},
      {"zero rate", "fLaC" + std::string(1, '\0') + Be24(34) + std::string(34, '\0'), true, kRead,
       "", 0},
      {"zero-length block ends", one + Block(1, "", false) + comment, true, kRead, "", 75},
      {"type 127 ends", one + Block(127, "xx", false) + comment, true, kRead, "", 75},
  };
  for (const auto& [name, file, want_tags, result, title, frames] : cases) {
    MemorySource source(file);
    MediaFileTags tags;
    EXPECT_EQ(ReadFlacInfo(source, tags, want_tags, true, nullptr), result) << name;
    EXPECT_EQ(tags.title, title) << name;
    EXPECT_EQ(tags.durationFrames, frames) << name;
    EXPECT_EQ(tags.formatName, frames > 0 || name == std::string("zero rate") ? "FLAC" : "")
        << name;
  }
}

TEST(FlacReader, TakesThePictureOnlyWhenWantedAndStillEmpty) {
  const std::string picture =
      Be32(3) + Be32(9) + "image/png" + Be32(0) + std::string(16, '\0') + Be32(4) + "PNG!";
  const std::string file = "fLaC" + StreamInfo(8000, 34, false) + Block(6, picture, true);
  MediaFileTags tags;
  CoverPicture taken;
  MemorySource a(file);
  ReadFlacInfo(a, tags, true, true, &taken);
  EXPECT_EQ(taken.data, "PNG!");
  EXPECT_EQ(taken.kind, PictureKind::kPng);
  CoverPicture held{"old", PictureKind::kJpeg};
  MemorySource b(file);
  ReadFlacInfo(b, tags, true, true, &held);
  EXPECT_EQ(held.data, "old");
}

// One page holding `data` as packet bytes; `ends` false leaves the last
// packet open (continued on the next page). CRCs are not checked by readers
// of tags and are left 0.
std::string Page(uint32_t serial, uint64_t granule, const std::string& data, bool ends = true) {
  std::string lacing(data.size() / 255, '\xFF');
  if (ends) lacing += static_cast<char>(data.size() % 255);
  return "OggS" + std::string(2, '\0') + Le64(granule) + Le32(serial) + Le32(0) + Le32(0) +
         static_cast<char>(lacing.size()) + lacing + data;
}

// Identification header: 8000 Hz, nominal 24 kbit/s.
const std::string kIdent = std::string("\x01vorbis", 7) + Le32(0) + '\x01' + Le32(8000) + Le32(0) +
                           Le32(24000) + Le32(0) + '\xB8' + '\x01';

std::string Comment(const std::vector<std::string>& comments, uint32_t vendor_length = 6) {
  std::string c = std::string("\x03vorbis", 7) + Le32(vendor_length) + "vendor" +
                  Le32(static_cast<uint32_t>(comments.size()));
  for (const std::string& text : comments)
    c += Le32(static_cast<uint32_t>(text.size())) + text;
  return c + '\x01';
}

TEST(OggVorbis, ReadsHeaderPacketsAndTheLastGranule) {
  const std::string audio = Page(7, 16000, std::string(300, 'a'));
  const std::string long_title = "TITLE=" + std::string(5000, 't');
  const std::string split = Comment({long_title});
  const std::string ident = Page(7, 0, kIdent), tagged = ident + Page(7, 0, Comment({"TITLE=T"}));
  // name, file, taken, title, frames
  const std::tuple<const char*, std::string, bool, const char*, int32_t> cases[] = {
      {"plain", tagged + audio, true, "T", 150},
      {"comment over three pages",
       ident + Page(7, 0, split.substr(0, 255 * 8), false) +
           Page(7, 0, split.substr(255 * 8, 255 * 8), false) + Page(7, 0, split.substr(255 * 16)) +
           audio,
       true, long_title.c_str() + 6, 150},
      {"another stream's page between",
       ident + Page(9, 0, "other") + Page(7, 0, Comment({"TITLE=T"})) + audio, true, "T", 150},
      {"zero vendor length discards the header",
       ident + Page(7, 0, Comment({"TITLE=T"}, 0)) + audio, true, "", 150},
      {"comment length beyond the file",
       ident + Page(7, 0, Comment({"TITLE=T"}).substr(0, 20) + Le32(1) + Le32(40000000)), true, "",
       0},
      {"no audio page: no time", tagged, true, "T", 0},
      {"opus, not vorbis", Page(7, 0, "OpusHead....") + Page(7, 0, "OpusTags....") + audio, false,
       "", 0},
      {"marker without pages", "junk" + Comment({"TITLE=Raw"}), true, "Raw", 0},
      {"nothing", std::string(100, 'x'), false, "", 0},
  };
  for (const auto& [name, file, taken, title, frames] : cases) {
    MemorySource source(file);
    MediaFileTags tags;
    EXPECT_EQ(ReadOggVorbisInfo(source, tags, true), taken) << name;
    EXPECT_EQ(tags.title, title) << name;
    EXPECT_EQ(tags.durationFrames, frames) << name;
    EXPECT_EQ(tags.formatName, taken ? "OGG" : "") << name;
  }
}

}  // namespace
}  // namespace dischive
