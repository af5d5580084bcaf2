// MP3: an ID3v2 tag, then MPEG audio frames. The frame header (4 bytes):
//   11 sync bits, version (2: 00 MPEG-2.5, 10 MPEG-2, 11 MPEG-1), layer (2),
//   protection (1), bit-rate index (4), sample-rate index (2), padding (1),
//   private (1), channel mode (2), ...
// The first frame may carry a Xing/Info header (behind the side information)
// or a VBRI header (32 bytes behind the frame header) with the frame count.
#include <cstring>

#include "scan/tag_readers.h"
#include "scan/tag_util.h"

namespace dischive {
namespace {

struct MpegFrame {
  bool mpeg1 = false;
  int layer = 0;  // 1..3
  uint32_t bitrate_kbps = 0;
  uint32_t sample_rate = 0;
  uint32_t samples = 0;  // per frame
  bool mono = false;
};

constexpr uint16_t kBitrates[5][16] = {
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 0},  // MPEG-1 layer I
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 0},     // MPEG-1 layer II
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 0},      // MPEG-1 layer III
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256, 0},  // MPEG-2/2.5 layer I
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160, 0},       // MPEG-2/2.5 II, III
};
constexpr uint32_t kSampleRates[3][3] = {
    {44100, 48000, 32000},  // MPEG-1
    {22050, 24000, 16000},  // MPEG-2
    {11025, 12000, 8000},   // MPEG-2.5
};

bool ParseFrameHeader(const uint8_t* h, MpegFrame& frame) {
  const int version = (h[1] >> 3) & 3;  // 0 MPEG-2.5, 1 reserved, 2 MPEG-2, 3 MPEG-1
  const int layer_bits = (h[1] >> 1) & 3;
  const int bitrate_index = h[2] >> 4;
  const int rate_index = (h[2] >> 2) & 3;
  if (version == 1 || layer_bits == 0 || bitrate_index == 0 || bitrate_index == 15 ||
      rate_index == 3) {
    return false;  // reserved values, or a free-format stream we cannot time
  }
  frame.mpeg1 = version == 3;
  frame.layer = 4 - layer_bits;
  const int table = frame.mpeg1 ? frame.layer - 1 : (frame.layer == 1 ? 3 : 4);
  frame.bitrate_kbps = kBitrates[table][bitrate_index];
  frame.sample_rate = kSampleRates[version == 3 ? 0 : version == 2 ? 1 : 2][rate_index];
  // Layer III of MPEG-2 and 2.5 has half as many samples per frame.
  frame.samples = frame.layer == 1 ? 384 : (frame.layer == 3 && !frame.mpeg1) ? 576 : 1152;
  frame.mono = (h[3] >> 6) == 3;
  return true;
}

// Reads the first frame's Xing/Info or VBRI header; frames and bytes stay 0
// when the header or the field is absent.
void ReadVbrHeader(const uint8_t* data, size_t length, const MpegFrame& frame, uint32_t& frames,
                   uint32_t& bytes) {
  const size_t side_info = frame.mpeg1 ? (frame.mono ? 17 : 32) : (frame.mono ? 9 : 17);
  const size_t xing = 4 + side_info;
  if (frame.layer == 3 && length >= xing + 8 &&
      (std::memcmp(data + xing, "Xing", 4) == 0 || std::memcmp(data + xing, "Info", 4) == 0)) {
    const uint32_t flags = detail::Be32(data + xing + 4);
    size_t pos = xing + 8;
    if ((flags & 1) != 0 && length - pos >= 4) {
      frames = detail::Be32(data + pos);
      pos += 4;
    }
    if ((flags & 2) != 0 && length - pos >= 4) bytes = detail::Be32(data + pos);
    return;
  }
  // VBRI: "VBRI", version, delay, quality (2 bytes each), bytes, frames.
  constexpr size_t kVbri = 4 + 32;
  if (length >= kVbri + 18 && std::memcmp(data + kVbri, "VBRI", 4) == 0) {
    bytes = detail::Be32(data + kVbri + 10);
    frames = detail::Be32(data + kVbri + 14);
  }
}

}  // namespace

bool ReadMp3Info(ByteSource& file, MediaFileTags& tags, CoverPicture* picture) {
  const int64_t start = file.Tell();
  MediaFileTags result = tags;
  int64_t tag_end = start;
  const Id3v2Result tag = ReadId3v2Tag(file, result, picture, &tag_end);
  const int64_t audio_start = tag == Id3v2Result::kNoTag ? start : tag_end;

  // The frame header right behind the tag: an 0xFF byte followed by a byte
  // with its top three bits set.
  uint8_t data[192];
  size_t length = 0;
  if (file.Seek(audio_start, SeekFrom::kStart)) length = file.Read(data, sizeof data);
  const bool accepted = length >= 4 && data[0] == 0xFF && (data[1] & 0xE0) == 0xE0;
  if (tag == Id3v2Result::kNoTag && !accepted) return false;

  MpegFrame frame;
  if (accepted && ParseFrameHeader(data, frame)) {
    uint32_t frames = 0, bytes = 0;
    ReadVbrHeader(data, length, frame, frames, bytes);
    const int64_t size = file.Size();
    const uint64_t audio_bytes = size > audio_start ? static_cast<uint64_t>(size - audio_start) : 0;
    if (frames > 0) {
      const uint64_t samples = uint64_t{frames} * frame.samples;
      result.durationFrames = detail::DurationFrames(samples, frame.sample_rate);
      const uint64_t stream_bytes = bytes > 0 ? bytes : audio_bytes;
      const uint64_t ms = samples * 1000 / frame.sample_rate;
      if (ms > 0 && stream_bytes > 0) {
        result.bitrateKbps = detail::ClampToInt32(stream_bytes * 8 / ms);
      }
    } else {
      // Constant bit rate: the audio's size at the first frame's rate.
      result.bitrateKbps = static_cast<int32_t>(frame.bitrate_kbps);
      result.durationFrames = detail::DurationFrames(audio_bytes * 8, frame.bitrate_kbps * 1000);
    }
  }
  result.formatName = "MP3";
  tags = std::move(result);
  return true;
}

}  // namespace dischive
