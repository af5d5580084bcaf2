// RIFF/WAVE: "RIFF", 32-bit size, "WAVE", then chunks of a four-character
// id, a 32-bit little-endian size and the data, padded to an even length.
//   "fmt ": format tag, channels, sample rate, average bytes per second,
//           block align, bits per sample
//   "data": the samples
//   "LIST" of type "INFO": text chunks (INAM title, IART artist, ...)
#include <cstring>

#include "scan/tag_readers.h"
#include "scan/tag_util.h"

namespace dischive {
namespace {

// More chunks than any writer puts in a WAVE file; ends a hostile loop.
constexpr int kMaxChunks = 256;
constexpr uint32_t kMaxInfoSize = 1u << 20;

struct InfoField {
  const char* id;
  std::string MediaFileTags::*field;
};

constexpr InfoField kInfoFields[] = {
    {"INAM", &MediaFileTags::title},    {"IART", &MediaFileTags::artist},
    {"IPRD", &MediaFileTags::album},    {"ICRD", &MediaFileTags::year},
    {"ICMT", &MediaFileTags::comment},  {"IGNR", &MediaFileTags::genre},
    {"IMUS", &MediaFileTags::composer}, {"IWRI", &MediaFileTags::lyricist},
    {"IPUB", &MediaFileTags::label},
};

void ReadInfo(std::span<const uint8_t> list, MediaFileTags& tags) {
  size_t pos = 4;  // behind "INFO"
  while (list.size() >= pos && list.size() - pos >= 8) {
    const uint8_t* h = list.data() + pos;
    const uint32_t size = detail::Le32(h + 4);
    pos += 8;
    if (size > list.size() - pos) return;
    std::string_view text = detail::AsText(list.subspan(pos, size));
    while (!text.empty() && text.back() == '\0')
      text.remove_suffix(1);
    // Writers differ: UTF-8 from current tools, Windows-1252 from older ones.
    std::string value = detail::TagTextToUtf8(text, false);
    if (!value.empty()) {
      for (const InfoField& f : kInfoFields) {
        if (std::memcmp(h, f.id, 4) == 0) tags.*(f.field) = value;
      }
      if (std::memcmp(h, "ITRK", 4) == 0 || std::memcmp(h, "IPRT", 4) == 0) {
        const int32_t n = detail::ParseLeadingInt(value);
        tags.trackNumber = n < 1 ? -1 : n;
      }
    }
    pos += size + (size & 1);  // pad byte
    if (pos > list.size()) return;
  }
}

}  // namespace

bool ReadRiffWaveInfo(ByteSource& file, MediaFileTags& tags) {
  uint8_t head[12];
  if (file.Read(head, sizeof head) != sizeof head || std::memcmp(head, "RIFF", 4) != 0 ||
      std::memcmp(head + 8, "WAVE", 4) != 0) {
    return false;
  }
  const int64_t file_size = file.Size();
  MediaFileTags result = tags;
  uint32_t bytes_per_second = 0;
  uint64_t data_size = 0;
  bool have_format = false, have_data = false;
  for (int chunk = 0; chunk < kMaxChunks; ++chunk) {
    uint8_t h[8];
    if (file.Read(h, sizeof h) != sizeof h) break;
    const uint32_t size = detail::Le32(h + 4);
    const int64_t body = file.Tell();
    const int64_t left = file_size >= 0 ? std::max<int64_t>(0, file_size - body) : INT64_MAX;
    if (std::memcmp(h, "fmt ", 4) == 0 && size >= 16) {
      uint8_t fmt[16];
      if (file.Read(fmt, sizeof fmt) != sizeof fmt) break;
      bytes_per_second = detail::Le32(fmt + 8);
      have_format = true;
    } else if (std::memcmp(h, "data", 4) == 0) {
      // Streaming writers leave the size at 0 or 0xFFFFFFFF: the rest of the file.
      data_size = size == 0 || size > left ? static_cast<uint64_t>(left) : size;
      have_data = true;
    } else if (std::memcmp(h, "LIST", 4) == 0 && size >= 4 && size <= kMaxInfoSize &&
               size <= left) {
      std::string list(size, '\0');
      if (file.Read(list.data(), size) != size) break;
      if (list.compare(0, 4, "INFO") == 0) ReadInfo(detail::AsBytes(list), result);
    }
    // The next chunk, behind this one's pad byte.
    if (!file.Seek(body + static_cast<int64_t>(size) + (size & 1), SeekFrom::kStart)) break;
    if (have_data && file_size >= 0 && file.Tell() >= file_size) break;
  }
  if (!have_format) return false;
  result.durationFrames = detail::DurationFrames(have_data ? data_size : 0, bytes_per_second);
  result.bitrateKbps = detail::ClampToInt32(uint64_t{bytes_per_second} * 8 / 1000);
  result.formatName = "WAV";
  tags = std::move(result);
  return true;
}

}  // namespace dischive
