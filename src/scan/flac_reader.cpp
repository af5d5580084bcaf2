// FLAC: "fLaC", then metadata blocks, each with a 4-byte header
//   bit 7 last-block flag, bits 6..0 block type, 24-bit big-endian length
// STREAMINFO (type 0, 34 bytes) comes first:
//   min/max block size (2+2), min/max frame size (3+3), sample rate (20 bits),
//   channels - 1 (3 bits), bits per sample - 1 (5 bits), total samples (36 bits),
//   MD5 of the audio (16)
// An ID3v2 tag written in front of the stream by some taggers is skipped.
#include <cstring>

#include "scan/tag_readers.h"
#include "scan/tag_util.h"

namespace dischive {
namespace {

constexpr int kStreamInfoType = 0;
constexpr int kVorbisCommentType = 4;
constexpr int kPictureType = 6;
constexpr int kInvalidType = 127;
// Far more blocks than any encoder or tagger writes; ends a hostile loop.
constexpr int kMaxMetadataBlocks = 1024;

// 4 bytes "fLaC", the STREAMINFO header and its 34 bytes.
constexpr size_t kHeadSize = 42;

bool IsFlacHead(const uint8_t* head) {
  return std::memcmp(head, "fLaC", 4) == 0 && (head[4] & 0x7F) == kStreamInfoType;
}

}  // namespace

bool ParseFlacPicture(std::span<const uint8_t> block, CoverPicture& picture) {
  // type, MIME length + MIME, description length + description, width,
  // height, depth, colours, data length + data; all numbers 32-bit big-endian.
  detail::ByteCursor in(block);
  uint32_t type = 0, mime_length = 0, description_length = 0, data_length = 0;
  std::span<const uint8_t> mime, data;
  if (!in.Be32(type) || type != 3) return false;  // front cover only
  if (!in.Be32(mime_length) || mime_length == 0 || !in.Bytes(mime_length, mime)) return false;
  const PictureKind kind = detail::PictureKindFromMime(detail::AsText(mime));
  if (kind == PictureKind::kNone) return false;
  if (!in.Be32(description_length) || !in.Skip(description_length) || !in.Skip(16)) return false;
  if (!in.Be32(data_length) || data_length == 0 || !in.Bytes(data_length, data)) return false;
  picture.data.assign(detail::AsText(data));
  picture.kind = kind;
  return true;
}

FlacResult ReadFlacInfo(ByteSource& file, MediaFileTags& tags, bool want_tags, bool convert,
                        CoverPicture* picture) {
  uint8_t head[kHeadSize];
  bool id3_skipped = false;
  if (file.Read(head, kHeadSize) != kHeadSize || !IsFlacHead(head)) {
    // ID3v2 header: "ID3", major, revision, flags, 4 syncsafe size bytes.
    uint8_t id3[10];
    if (!file.Seek(0, SeekFrom::kStart) || file.Read(id3, 4) != 4 ||
        std::memcmp(id3, "ID3", 3) != 0 || id3[3] > 4) {
      return FlacResult::kNotFlac;
    }
    if (file.Read(id3 + 4, 6) != 6 || (id3[5] & 0x40) != 0) return FlacResult::kNotFlac;
    const uint32_t size = detail::Syncsafe32(id3 + 6);
    if (!file.Seek(size, SeekFrom::kCurrent) || file.Read(head, kHeadSize) != kHeadSize ||
        !IsFlacHead(head)) {
      return FlacResult::kId3InFront;
    }
    id3_skipped = true;
  }
  const FlacResult found = id3_skipped ? FlacResult::kId3InFront : FlacResult::kRead;

  const uint8_t* info = head + 8;
  const uint32_t sample_rate =
      static_cast<uint32_t>(info[10]) << 12 | static_cast<uint32_t>(info[11]) << 4 | info[12] >> 4;
  const uint64_t total_samples =
      static_cast<uint64_t>(info[13] & 0x0F) << 32 | detail::Be32(info + 14);
  tags.durationFrames = detail::DurationFrames(total_samples, sample_rate);
  tags.formatName = "FLAC";
  const int64_t stream_start = file.Tell() - static_cast<int64_t>(kHeadSize);

  const bool want_picture = picture != nullptr && picture->data.empty();
  if (want_tags) {
    // The STREAMINFO length; 34 bytes of it are already read.
    const int64_t info_length = detail::Be24(head + 5);
    if (info_length < 34) return found;
    if (info_length > 34) {
      // Skips four bytes less than the rest of the block: kept as the
      // scanner has always read such files.
      if (!file.Seek(info_length - 38, SeekFrom::kCurrent)) return found;
    }
    bool last = (head[4] & 0x80) != 0;
    for (int blocks = 0; !last && blocks < kMaxMetadataBlocks; ++blocks) {
      uint8_t header[4];
      if (file.Read(header, 4) != 4) break;
      last = (header[0] & 0x80) != 0;
      const int type = header[0] & 0x7F;
      const uint32_t length = detail::Be24(header + 1);
      if (length == 0) break;
      if (type == kVorbisCommentType || (type == kPictureType && want_picture)) {
        const int64_t size = file.Size();
        if (size >= 0 && length > size - file.Tell()) break;  // cannot be read whole
        std::string block(length, '\0');
        if (file.Read(block.data(), length) != length) break;
        if (type == kVorbisCommentType) {
          ParseVorbisComment(detail::AsBytes(block), tags, convert);
        } else if (picture->data.empty()) {
          ParseFlacPicture(detail::AsBytes(block), *picture);
        }
      } else if (!file.Seek(length, SeekFrom::kCurrent)) {
        break;
      }
      if (type == kInvalidType) break;
    }
  }

  // Average bit rate over the whole stream, as the container gives no other.
  const int64_t size = file.Size();
  if (size > stream_start && total_samples > 0 && sample_rate > 0) {
    const uint64_t bits = static_cast<uint64_t>(size - stream_start) * 8;
    const uint64_t ms = total_samples * 1000 / sample_rate;
    if (ms > 0) tags.bitrateKbps = detail::ClampToInt32(bits / ms);
  }
  return found;
}

}  // namespace dischive
