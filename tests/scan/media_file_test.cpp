// ReadMediaFile on files made by real encoders and taggers
// (scripts/make-tag-fixtures.sh), and every fixture damaged.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "scan/tag_readers.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

const std::filesystem::path kData = std::filesystem::path(DISCHIVE_TEST_DATA_DIR) / "tags";

// The playing time of an MP3 counted the slow way: every frame header from
// the audio start to the end, in 1/75 s (the first frame is the Xing/Info
// frame when the file has one and is not counted).
int32_t CountMpegFrames(const std::string& bytes, size_t pos, bool skip_first) {
  static const int kBitrates[2][16] = {
      {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},
      {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0}};
  static const int kRates[4][3] = {
      {11025, 12000, 8000}, {0, 0, 0}, {22050, 24000, 16000}, {44100, 48000, 32000}};
  double seconds = 0;
  bool first = true;
  while (bytes.size() - pos >= 4) {
    const auto* h = reinterpret_cast<const uint8_t*>(bytes.data() + pos);
    if (h[0] != 0xFF || (h[1] & 0xE0) != 0xE0) break;
    const int version = (h[1] >> 3) & 3;
    const bool mpeg1 = version == 3;
    const int kbps = kBitrates[mpeg1 ? 0 : 1][h[2] >> 4];
    const int rate = kRates[version][(h[2] >> 2) & 3];
    const int samples = mpeg1 ? 1152 : 576;
    const int padding = (h[2] >> 1) & 1;
    if (kbps == 0 || rate == 0) break;
    if (!(first && skip_first)) seconds += static_cast<double>(samples) / rate;
    first = false;
    pos += static_cast<size_t>(samples / 8 * kbps * 1000 / rate + padding);
  }
  return static_cast<int32_t>(seconds * 75);
}

size_t Id3Size(const std::string& bytes) {
  if (bytes.compare(0, 3, "ID3") != 0) return 0;
  const auto* p = reinterpret_cast<const uint8_t*>(bytes.data()) + 6;
  return 10 + ((p[0] & 0x7Fu) << 21 | (p[1] & 0x7Fu) << 14 | (p[2] & 0x7Fu) << 7 | (p[3] & 0x7Fu));
}

TEST(MediaFile, ReadsTheFixtures) {
  // file, reader, format, title, artist, album, track, picture
  using enum PictureKind;
  const std::tuple<const char*, const char*, const char*, const char*, const char*, const char*,
                   int32_t, PictureKind>
      cases[] = {
          {"tagged.flac", "flac", "FLAC", "Blåa tonen", "Anna, Bert", "Test Album", 3, kJpeg},
          {"wrong-pictures.flac", "flac", "FLAC", "No Cover", "", "", -1, kNone},
          {"id3-front.flac", "flac", "FLAC", "Blåa tonen", "Anna, Bert", "Test Album", 3, kJpeg},
          {"tagged.ogg", "ogg", "OGG", "Ogg Title", "Ogg Artist", "Ogg Album", 7, kNone},
          {"long-comment.ogg", "ogg", "OGG", "Long", "After The Long One", "", -1, kNone},
          {"cbr-id3v23.mp3", "id3v2", "MP3", "CBR Song", "Lame Artist", "Lame Album", 4, kNone},
          {"cbr-noxing.mp3", "id3v2", "MP3", "", "", "", -1, kNone},
          {"vbr-id3v24.mp3", "id3v2", "MP3", "Vbr Tïtle", "Ärtist", "Vbr Album", 9, kPng},
          {"mpeg25-id3v23.mp3", "id3v2", "MP3", "Acht kHz", "Ωmega", "", -1, kNone},
          {"tagged.wma", "asf", "WMA", "Wma Title", "Wma Artist", "Wma Album", 5, kNone},
          {"tagged.wav", "riff", "WAV", "Wave Title", "Wave Artist", "", -1, kNone},
      };
  for (const auto& [file, reader, format, title, artist, album, track, picture] : cases) {
    SCOPED_TRACE(file);
    MediaFileInfo info;
    ASSERT_EQ(ReadMediaFile(kData / file, info), kOk);
    EXPECT_EQ(info.reader, reader);
    const MediaFileTags& t = info.tags;
    EXPECT_EQ(std::tie(t.formatName, t.title, t.artist, t.album, t.trackNumber),
              std::tie(format, title, artist, album, track));
    EXPECT_EQ(info.picture_kind, picture);
    EXPECT_EQ(info.picture.empty(), picture == kNone);
    EXPECT_GT(t.bitrateKbps, 0);
    // One second of audio; MP3 adds the encoder's delay and padding, checked below.
    if (std::string(format) != "MP3") {
      EXPECT_NEAR(t.durationFrames, 75, 1);
    }
  }
}

TEST(MediaFile, ReadsTheFieldsTaggersWrite) {
  auto read = [](const char* file, std::string* picture = nullptr) {
    MediaFileInfo info;
    EXPECT_EQ(ReadMediaFile(kData / file, info), kOk) << file;
    if (picture) *picture = info.picture;
    return info.tags;
  };
  std::string picture;
  const MediaFileTags flac = read("tagged.flac", &picture);
  EXPECT_EQ(flac.artistSort, "");  // two ARTISTSORT comments
  EXPECT_EQ(flac.comment, "first words");
  EXPECT_EQ(flac.year, "2004-05-06");
  EXPECT_EQ(flac.discNumber, 2);
  EXPECT_EQ(flac.bpm, 0);
  EXPECT_EQ(flac.label, "Label Co");
  EXPECT_EQ(picture.substr(0, 2), "\xFF\xD8");
  // A packet over several pages.
  EXPECT_EQ(read("long-comment.ogg").lyrics, std::string(9000, 'x'));

  const MediaFileTags mp3 = read("cbr-id3v23.mp3");
  EXPECT_EQ(mp3.year, "2001");
  EXPECT_EQ(mp3.genre, "Rock");
  EXPECT_EQ(mp3.discNumber, 2);
  EXPECT_EQ(mp3.bpm, 120);
  EXPECT_EQ(mp3.composer, "Comp Oser");
  EXPECT_EQ(mp3.label, "Pub Label");
  // id3v2 gives its first comment the description "ID3v1 Comment".
  EXPECT_EQ(mp3.comment, "ID3v1 Comment:\r\nfirst note\r\n\r\nsecond note");

  const MediaFileTags wma = read("tagged.wma");
  EXPECT_EQ(wma.year, "2003");
  EXPECT_EQ(wma.genre, "Rock");
  EXPECT_EQ(wma.comment, "Wma comment");
  EXPECT_EQ(wma.discNumber, 1);
  EXPECT_EQ(wma.bitrateKbps, 32);

  const MediaFileTags v24 = read("vbr-id3v24.mp3");
  EXPECT_EQ(v24.genre, "Pop");  // "(13)"
  EXPECT_EQ(v24.year, "2010");
}

TEST(MediaFile, TimesMp3WithinOneFrame) {
  // CD frames in one MPEG frame: 1152 samples at 44.1 kHz, 576 at 16 and 8 kHz.
  const std::pair<const char*, double> cases[] = {
      {"cbr-id3v23.mp3", 1152 * 75.0 / 44100},
      {"cbr-noxing.mp3", 576 * 75.0 / 16000},
      {"vbr-id3v24.mp3", 576 * 75.0 / 16000},
      {"mpeg25-id3v23.mp3", 576 * 75.0 / 8000},
  };
  for (const auto& [file, frame] : cases) {
    const std::string bytes = test::ReadFile(kData / file);
    const size_t start = Id3Size(bytes);
    const bool xing =
        bytes.find("Xing", start) < start + 64 || bytes.find("Info", start) < start + 64;
    const int32_t truth = CountMpegFrames(bytes, start, xing);
    MediaFileInfo info;
    ASSERT_EQ(ReadMediaFile(kData / file, info), kOk);
    EXPECT_NEAR(info.tags.durationFrames, truth, frame + 1) << file;
    EXPECT_GT(truth, 70) << file;
  }
}

TEST(MediaFile, ReportsFilesItCannotRead) {
  test::TempDir dir;
  test::WriteFile(dir / "notes.txt", "just some text, no music");
  test::WriteFile(dir / "empty.mp3", "");
  MediaFileInfo info;
  EXPECT_EQ(ReadMediaFile(dir / "missing.flac", info), kErrorFileNotFound);
  EXPECT_EQ(ReadMediaFile(dir / "notes.txt", info), kNotMediaFile);
  EXPECT_EQ(ReadMediaFile(dir / "empty.mp3", info), kNotMediaFile);
  EXPECT_EQ(info.tags, MediaFileTags{});  // a file not taken leaves the record alone
  EXPECT_EQ(info.reader, "");
  // Extension fallback: an MP3 without tag or sync byte at 0 is still not taken,
  // but a FLAC renamed to .mp3 is found by its content.
  std::filesystem::copy_file(kData / "tagged.flac", dir / "renamed.mp3");
  ASSERT_EQ(ReadMediaFile(dir / "renamed.mp3", info), kOk);
  EXPECT_EQ(info.reader, "flac");
}

// Every fixture cut short and with bytes flipped: read without a crash,
// hang or sanitizer report. Lengths and flips are limited so that the loop
// stays quick under the sanitizers.
TEST(MediaFile, SurvivesDamagedFixtures) {
  std::mt19937 random(20261121);
  for (const auto& entry : std::filesystem::directory_iterator(kData)) {
    const std::string bytes = test::ReadFile(entry.path());
    const std::string ext = entry.path().extension().string().substr(1);
    SCOPED_TRACE(entry.path().filename().string());
    size_t step = 1;
    for (size_t length = 0; length < bytes.size(); length += step) {
      if (length >= 512) step = std::max<size_t>(7, bytes.size() / 300);
      MemorySource source(std::string_view(bytes).substr(0, length));
      MediaFileInfo info;
      ReadMediaSource(source, ext, info);
    }
    for (int round = 0; round < 300; ++round) {
      std::string damaged = bytes;
      // Flips in the first 4 KiB, where the headers are.
      const size_t span = std::min<size_t>(damaged.size(), 4096);
      for (int i = 0; i < 4; ++i) {
        damaged[random() % span] ^= static_cast<char>(1u << (random() % 8));
      }
      MemorySource source(damaged);
      MediaFileInfo info;
      ReadMediaSource(source, ext, info);
    }
  }
}

}  // namespace
}  // namespace dischive
