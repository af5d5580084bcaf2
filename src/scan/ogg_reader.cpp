// Ogg Vorbis. An Ogg page:
//   "OggS", version (1), header type (1), granule position (8, LE),
//   serial (4), page sequence (4), CRC (4), segment count (1), lacing values
// A packet is the concatenation of lacing segments up to one shorter than
// 255; it may continue on the next page. The first packet of a Vorbis stream
// is the identification header ("\x01vorbis": version, channels, sample rate,
// maximum, nominal and minimum bit rate), the second the comment header
// ("\x03vorbis" and a Vorbis comment).
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "scan/tag_readers.h"
#include "scan/tag_util.h"

namespace dischive {
namespace {

constexpr size_t kSearchSize = 4096;
constexpr uint32_t kMaxLength = 32u << 20;  // vendor and each comment: below 32 MiB
constexpr std::string_view kCommentMarker{"\x03vorbis", 7};
constexpr std::string_view kIdentMarker{"\x01vorbis", 7};
constexpr size_t kPageHeaderSize = 27;
// The comment packet ends long before this many pages in any real file.
constexpr int kMaxPages = 4096;

struct StreamInfo {
  uint32_t sample_rate = 0;
  int32_t nominal_bitrate = 0;
  uint32_t serial = 0;
};

// Collects the first two packets of the first logical stream by walking the
// pages from the start. False when the page structure is broken.
bool ReadHeaderPackets(ByteSource& file, std::string& ident, std::string& comment,
                       uint32_t& serial) {
  if (!file.Seek(0, SeekFrom::kStart)) return false;
  std::string* packets[2] = {&ident, &comment};
  size_t packet = 0;
  for (int page = 0; page < kMaxPages && packet < 2; ++page) {
    uint8_t header[kPageHeaderSize];
    if (file.Read(header, sizeof header) != sizeof header || std::memcmp(header, "OggS", 4) != 0) {
      return false;
    }
    const uint32_t page_serial = detail::Le32(header + 14);
    if (page == 0) serial = page_serial;
    uint8_t lacing[255];
    const size_t segments = header[26];
    if (file.Read(lacing, segments) != segments) return false;
    size_t body = 0;
    for (size_t i = 0; i < segments; ++i)
      body += lacing[i];
    if (page_serial != serial) {  // another stream's page: skip it
      if (!file.Seek(static_cast<int64_t>(body), SeekFrom::kCurrent)) return false;
      continue;
    }
    // Segments go straight into their packet; those of later packets are
    // skipped.
    size_t rest = body;
    for (size_t i = 0; i < segments && packet < 2; ++i) {
      std::string& out = *packets[packet];
      if (out.size() + lacing[i] > kMaxLength * 2u) return false;
      const size_t old_size = out.size();
      out.resize(old_size + lacing[i]);
      if (file.Read(out.data() + old_size, lacing[i]) != lacing[i]) return false;
      rest -= lacing[i];
      if (lacing[i] < 255) ++packet;  // the packet ends in this segment
    }
    if (rest > 0 && !file.Seek(static_cast<int64_t>(rest), SeekFrom::kCurrent)) return false;
  }
  return packet >= 2;
}

constexpr size_t kNotFound = static_cast<size_t>(-1);

// The last offset below `end` where "OggS" starts, or kNotFound. Looks at
// eight bytes at a time for an 'O': the tail of a file is mostly audio.
size_t FindCaptureBackwards(const uint8_t* bytes, size_t end) {
  constexpr uint64_t kOnes = 0x0101010101010101u;
  constexpr uint64_t kHighs = 0x8080808080808080u;
  while (end > 0) {
    if (end >= 8) {
      uint64_t word;
      std::memcpy(&word, bytes + end - 8, 8);
      const uint64_t x = word ^ (kOnes * 'O');
      if (((x - kOnes) & ~x & kHighs) == 0) {  // no 'O' in these eight bytes
        end -= 8;
        continue;
      }
    }
    const size_t stop = end >= 8 ? end - 8 : 0;
    for (size_t pos = end; pos-- > stop;) {
      if (bytes[pos] == 'O' && std::memcmp(bytes + pos, "OggS", 4) == 0) return pos;
    }
    end = stop;
  }
  return kNotFound;
}

// The granule position of the stream's last page, searched backwards in the
// file's tail; -1 when none is found.
int64_t LastGranule(ByteSource& file, uint32_t serial) {
  const int64_t size = file.Size();
  if (size < static_cast<int64_t>(kPageHeaderSize)) return -1;
  // A page is at most 27 + 255 + 255 * 255 bytes; start with a small tail.
  for (int64_t tail : {int64_t{4096}, int64_t{65536 + 512}}) {
    const int64_t length = std::min(size, tail);
    std::string buffer(static_cast<size_t>(length), '\0');
    if (!file.Seek(size - length, SeekFrom::kStart) ||
        file.Read(buffer.data(), buffer.size()) != buffer.size()) {
      return -1;
    }
    const auto* bytes = reinterpret_cast<const uint8_t*>(buffer.data());
    for (size_t pos = buffer.size() - kPageHeaderSize + 1;
         (pos = FindCaptureBackwards(bytes, pos)) != kNotFound;) {
      const uint8_t* p = bytes + pos;
      if (detail::Le32(p + 14) != serial) continue;
      const uint64_t granule = detail::Le64(p + 6);
      if (granule > static_cast<uint64_t>(INT64_MAX)) continue;  // -1: no packet ends here
      return static_cast<int64_t>(granule);
    }
    if (length == size) break;
  }
  return -1;
}

// Walks the comment header body (after its marker): vendor length and
// string, count, then each comment's length and text. Any length that is
// zero or not below 32 MiB, or that runs past the body, discards the whole
// header; `visit` sees the comments only once all are known good.
template <typename Visit>
bool WalkCommentBody(std::span<const uint8_t> body, Visit visit) {
  for (int pass = 0; pass < 2; ++pass) {
    detail::ByteCursor in(body);
    uint32_t vendor_length = 0, count = 0;
    if (!in.Le32(vendor_length) || vendor_length == 0 || vendor_length >= kMaxLength ||
        !in.Skip(vendor_length) || !in.Le32(count)) {
      return false;
    }
    // Each comment needs at least its 4-byte length.
    if (count > in.remaining() / 4) count = static_cast<uint32_t>(in.remaining() / 4);
    for (uint32_t i = 0; i < count; ++i) {
      uint32_t length = 0;
      std::span<const uint8_t> text;
      if (!in.Le32(length) || length == 0 || length >= kMaxLength || !in.Bytes(length, text)) {
        return false;
      }
      if (pass == 1) visit(detail::AsText(text));
    }
  }
  return true;
}

bool ParseCommentBody(std::span<const uint8_t> body, MediaFileTags& tags) {
  return WalkCommentBody(body, [&](std::string_view text) { MapVorbisField(text, tags, true); });
}

// Without a page structure the body is read on from the marker, as far as
// its lengths say (each below 32 MiB and within the file).
bool ReadRawCommentBody(ByteSource& in, MediaFileTags& tags) {
  const int64_t size = in.Size();
  std::string body;
  auto take = [&](uint64_t length) {
    if (length >= kMaxLength || (size >= 0 && static_cast<int64_t>(length) > size - in.Tell())) {
      return false;
    }
    const size_t old_size = body.size();
    body.resize(old_size + length);
    return in.Read(body.data() + old_size, length) == length;
  };
  if (!take(4)) return false;
  const uint32_t vendor_length = detail::Le32(reinterpret_cast<const uint8_t*>(body.data()));
  if (vendor_length == 0 || !take(vendor_length) || !take(4)) return false;
  uint32_t count = detail::Le32(reinterpret_cast<const uint8_t*>(body.data()) + body.size() - 4);
  if (size >= 0) {
    const int64_t left = std::max<int64_t>(0, size - in.Tell());
    if (count > left / 4) count = static_cast<uint32_t>(left / 4);
  }
  for (uint32_t i = 0; i < count; ++i) {
    if (!take(4)) return false;
    const uint32_t length =
        detail::Le32(reinterpret_cast<const uint8_t*>(body.data()) + body.size() - 4);
    if (length == 0 || !take(length)) return false;
  }
  return ParseCommentBody(detail::AsBytes(body), tags);
}

}  // namespace

bool ReadOggVorbisInfo(ByteSource& file, MediaFileTags& tags, bool want_tags) {
  // The header packets from the pages when the file is well formed; else
  // the comment marker searched in the first 4096 bytes, read on from there.
  char capture[4];
  if (!file.Seek(0, SeekFrom::kStart)) return false;
  const bool paged = file.Read(capture, 4) == 4 && std::memcmp(capture, "OggS", 4) == 0;
  std::string ident, comment;
  uint32_t serial = 0;
  const bool packets = paged && ReadHeaderPackets(file, ident, comment, serial);
  const bool vorbis = packets && ident.compare(0, kIdentMarker.size(), kIdentMarker) == 0 &&
                      comment.compare(0, kCommentMarker.size(), kCommentMarker) == 0;
  size_t marker = std::string::npos;
  if (!vorbis) {
    std::string head(kSearchSize, '\0');
    if (!file.Seek(0, SeekFrom::kStart)) return false;
    head.resize(file.Read(head.data(), head.size()));
    marker = head.find(kCommentMarker);
    if (marker == std::string::npos) return false;  // not Vorbis
  }

  MediaFileTags result = tags;
  result.formatName = "OGG";
  if (vorbis && ident.size() >= 7 + 4 + 1 + 4 + 4 + 4) {
    const auto* p = reinterpret_cast<const uint8_t*>(ident.data()) + 7;
    const uint32_t sample_rate = detail::Le32(p + 5);
    const auto nominal = static_cast<int32_t>(detail::Le32(p + 13));
    const int64_t granule = LastGranule(file, serial);
    if (granule > 0) {
      result.durationFrames = detail::DurationFrames(static_cast<uint64_t>(granule), sample_rate);
    }
    if (nominal > 0) {
      result.bitrateKbps = nominal / 1000;
    } else if (granule > 0 && sample_rate > 0 && file.Size() > 0) {
      const uint64_t ms = static_cast<uint64_t>(granule) * 1000 / sample_rate;
      if (ms > 0) {
        result.bitrateKbps = detail::ClampToInt32(static_cast<uint64_t>(file.Size()) * 8 / ms);
      }
    }
  }
  if (!want_tags) {
    tags = std::move(result);
    return true;
  }

  bool parsed = false;
  if (vorbis) {
    // The packet reassembled from its pages: page headers inside a long
    // comment packet are not part of it.
    parsed = ParseCommentBody(detail::AsBytes(comment).subspan(kCommentMarker.size()), result);
  } else {
    // No usable page structure: read on from the marker.
    parsed = file.Seek(static_cast<int64_t>(marker + kCommentMarker.size()), SeekFrom::kStart) &&
             ReadRawCommentBody(file, result);
  }
  if (!parsed) {
    // A discarded header still leaves a recognised Ogg Vorbis file.
    MediaFileTags info_only = tags;
    info_only.formatName = result.formatName;
    info_only.durationFrames = result.durationFrames;
    info_only.bitrateKbps = result.bitrateKbps;
    result = std::move(info_only);
  }
  tags = std::move(result);
  return true;
}

}  // namespace dischive
