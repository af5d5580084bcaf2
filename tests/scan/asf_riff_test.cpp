// ASF (WMA) header objects and RIFF/WAVE chunks.
#include <gtest/gtest.h>

#include <string>

#include "dischive/text.h"
#include "scan/bytes.h"
#include "scan/tag_readers.h"

namespace dischive {
namespace {

using namespace test;

std::string Guid(std::initializer_list<int> bytes) {
  std::string g;
  for (int b : bytes)
    g += static_cast<char>(b);
  return g;
}
const std::string kHeader = Guid({0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11, 0xA6, 0xD9, 0x00,
                                  0xAA, 0x00, 0x62, 0xCE, 0x6C});
const std::string kFileProperties = Guid({0xA1, 0xDC, 0xAB, 0x8C, 0x47, 0xA9, 0xCF, 0x11, 0x8E,
                                          0xE4, 0x00, 0xC0, 0x0C, 0x20, 0x53, 0x65});
const std::string kExtended = Guid({0x40, 0xA4, 0xD0, 0xD2, 0x07, 0xE3, 0xD2, 0x11, 0x97, 0xF0,
                                    0x00, 0xA0, 0xC9, 0x5E, 0xA8, 0x50});

std::string Object(const std::string& guid, const std::string& body) {
  return guid + Le64(24 + body.size()) + body;
}

std::string FileProperties(uint64_t play_duration, uint64_t preroll_ms, uint32_t bitrate) {
  return Object(kFileProperties, std::string(40, '\0') + Le64(play_duration) + Le64(0) +
                                     Le64(preroll_ms) + std::string(12, '\0') + Le32(bitrate));
}

std::string Wide(const std::string& text) {
  return Utf8ToUtf16Bytes(text, ByteOrder::kLittleEndian, false) + std::string(2, '\0');
}

std::string Attribute(const std::string& name, uint32_t type, const std::string& value) {
  const std::string n = Wide(name);
  return Le16(static_cast<uint32_t>(n.size())) + n + Le16(type) +
         Le16(static_cast<uint32_t>(value.size())) + value;
}

// Reads `file` into `tags`, which may hold values before.
bool Wma(const std::string& file, MediaFileTags& tags, CoverPicture* cover = nullptr) {
  MemorySource source(file);
  return ReadWmaInfo(source, tags, cover);
}

std::string Asf(const std::vector<std::string>& objects) {
  std::string body;
  for (const std::string& o : objects)
    body += o;
  return kHeader + Le64(30 + body.size()) + Le32(static_cast<uint32_t>(objects.size())) +
         std::string("\x01\x02", 2) + body;
}

TEST(Asf, TruncatesTheDurationToWholeTwentyFifths) {
  // duration, frames  // 100 ns units, without preroll
  const std::tuple<uint64_t, int32_t> cases[] = {
      {399999, 0}, {400000, 3}, {799999, 3}, {10240000, 75}, {0, 0}};
  for (const auto& [duration, frames] : cases) {
    // The preroll (3.1 s, as ffmpeg writes it) is not playing time.
    MediaFileTags tags;
    ASSERT_TRUE(Wma(Asf({FileProperties(duration + 31000000, 3100, 128000)}), tags));
    EXPECT_EQ(tags.durationFrames, frames) << duration;
    EXPECT_EQ(tags.bitrateKbps, 128);
    EXPECT_EQ(tags.formatName, "WMA");
  }
  // A preroll longer than the play duration gives 0, not a wrapped value.
  MediaFileTags tags;
  ASSERT_TRUE(Wma(Asf({FileProperties(1000, 5000, 0)}), tags));
  EXPECT_EQ(tags.durationFrames, 0);
}

TEST(Asf, MapsTheAttributes) {
  const std::string dword3 = Le32(3);
  const std::string picture =
      std::string(1, '\x03') + Le32(4) + Wide("image/png") + Wide("") + "PNG!";
  const std::string ext =
      Le16(8) + Attribute("WM/AlbumTitle", 0, Wide("Album")) +
      Attribute("WM/Year", 0, Wide("1998")) + Attribute("WM/Genre", 0, Wide("Jazz")) +
      Attribute("WM/Track", 3, dword3) + Attribute("Author", 0, Wide("Ärtist")) +
      Attribute("WM/Picture", 1, picture) + Attribute("WM/Unknown", 0, Wide("x")) +
      Attribute("WM/Composer", 0, Wide("Comp"));
  MediaFileTags tags;
  CoverPicture cover;
  ASSERT_TRUE(Wma(Asf({FileProperties(0, 0, 0), Object(kExtended, ext)}), tags, &cover));
  // The track number is stored zero-based.
  EXPECT_EQ(tags, With([&](MediaFileTags& t) {
              t.artist = "Ärtist", t.album = "Album", t.year = "1998", t.composer = "Comp",
              t.genre = "Jazz", t.trackNumber = 4, t.formatName = "WMA";
            }));
  EXPECT_EQ(cover.data, "PNG!");
  EXPECT_EQ(cover.kind, PictureKind::kPng);

  // A missing attribute leaves its field as it was; a broken list stops.
  MediaFileTags kept;
  kept.title = "before";
  std::string broken = Le16(2) + Attribute("WM/Genre", 0, Wide("Pop"));
  broken += Le16(200) + "short";
  ASSERT_TRUE(Wma(Asf({FileProperties(0, 0, 0), Object(kExtended, broken)}), kept));
  EXPECT_EQ(kept.title, "before");
  EXPECT_EQ(kept.genre, "Pop");

  // No file properties, or a header larger than the file: not taken.
  MediaFileTags none;
  EXPECT_FALSE(Wma(Asf({Object(kExtended, Le16(0))}), none));
  EXPECT_FALSE(Wma(Asf({FileProperties(0, 0, 0)}).replace(16, 8, Le64(1u << 24)), none));
  EXPECT_EQ(none, MediaFileTags{});
}

std::string Chunk(const std::string& id, const std::string& data) {
  std::string c = id + Le32(static_cast<uint32_t>(data.size())) + data;
  if (data.size() % 2 != 0) c += '\0';
  return c;
}

std::string Wave(const std::string& chunks) {
  return "RIFF" + Le32(static_cast<uint32_t>(4 + chunks.size())) + "WAVE" + chunks;
}

// 16-bit stereo at 44.1 kHz: 176,400 bytes a second.
const std::string kFmt =
    Chunk("fmt ", Le16(1) + Le16(2) + Le32(44100) + Le32(176400) + Le16(4) + Le16(16));

TEST(RiffWave, TimesTheDataChunk) {
  const std::string data = Chunk("data", std::string(176400, '\0'));  // one second
  const std::string info = Chunk("LIST", "INFO" + Chunk("INAM", "Odd") + Chunk("IART", "Art!"));
  // name, file, taken, frames, title
  const std::tuple<const char*, std::string, bool, int32_t, const char*> cases[] = {
      {"plain", Wave(kFmt + data), true, 75, ""},
      {"odd chunk before fmt", Wave(Chunk("junk", "abc") + kFmt + data), true, 75, ""},
      {"info with a pad byte", Wave(kFmt + info + data), true, 75, "Odd"},
      {"info after data", Wave(kFmt + data + info), true, 75, "Odd"},
      {"data size beyond the file",
       Wave(kFmt + "data" + Le32(0xFFFFFFFF) + std::string(176400, '\0')), true, 75, ""},
      {"no fmt", Wave(data), false, 0, ""},
      {"zero byte rate", Wave(Chunk("fmt ", std::string(16, '\0')) + data), true, 0, ""},
      {"not wave", "RIFF" + Le32(4) + "AVI " + kFmt, false, 0, ""},
  };
  for (const auto& [name, file, taken, frames, title] : cases) {
    MemorySource source(file);
    MediaFileTags tags;
    EXPECT_EQ(ReadRiffWaveInfo(source, tags), taken) << name;
    EXPECT_EQ(tags.durationFrames, frames) << name;
    EXPECT_EQ(tags.title, title) << name;
  }
}

}  // namespace
}  // namespace dischive
