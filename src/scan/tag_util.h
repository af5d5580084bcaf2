// Byte and number helpers shared by the tag readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "dischive/text.h"
#include "scan/tag_readers.h"

namespace dischive::detail {

inline uint32_t Be16(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 8 | p[1];
}
inline uint32_t Be24(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 16 | static_cast<uint32_t>(p[1]) << 8 | p[2];
}
inline uint32_t Be32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 24 | Be24(p + 1);
}
inline uint32_t Le16(const uint8_t* p) {
  return static_cast<uint32_t>(p[1]) << 8 | p[0];
}
inline uint32_t Le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[3]) << 24 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[1]) << 8 | p[0];
}
inline uint64_t Le64(const uint8_t* p) {
  return static_cast<uint64_t>(Le32(p + 4)) << 32 | Le32(p);
}
/// The 28-bit integer of four 7-bit bytes, most significant first.
inline uint32_t Syncsafe32(const uint8_t* p) {
  return (p[0] & 0x7Fu) << 21 | (p[1] & 0x7Fu) << 14 | (p[2] & 0x7Fu) << 7 | (p[3] & 0x7Fu);
}

/// A cursor over bytes whose accessors never read past the end: a failed
/// access returns false and leaves the cursor where it was.
class ByteCursor {
 public:
  explicit ByteCursor(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  size_t remaining() const { return bytes_.size() - pos_; }
  size_t pos() const { return pos_; }
  bool Skip(size_t count) {
    if (count > remaining()) return false;
    pos_ += count;
    return true;
  }
  bool Le32(uint32_t& value) {
    if (remaining() < 4) return false;
    value = detail::Le32(bytes_.data() + pos_);
    pos_ += 4;
    return true;
  }
  bool Be32(uint32_t& value) {
    if (remaining() < 4) return false;
    value = detail::Be32(bytes_.data() + pos_);
    pos_ += 4;
    return true;
  }
  bool Le16(uint32_t& value) {
    if (remaining() < 2) return false;
    value = detail::Le16(bytes_.data() + pos_);
    pos_ += 2;
    return true;
  }
  bool Le64(uint64_t& value) {
    if (remaining() < 8) return false;
    value = detail::Le64(bytes_.data() + pos_);
    pos_ += 8;
    return true;
  }
  bool Bytes(size_t count, std::span<const uint8_t>& out) {
    if (count > remaining()) return false;
    out = bytes_.subspan(pos_, count);
    pos_ += count;
    return true;
  }

 private:
  std::span<const uint8_t> bytes_;
  size_t pos_ = 0;
};

inline std::string_view AsText(std::span<const uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}
inline std::span<const uint8_t> AsBytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

/// The leading integer of a text as the C library's atoi reads it (blanks,
/// an optional sign, digits; "4/12" gives 4), clamped to the int32 range; 0
/// when there are no digits.
int32_t ParseLeadingInt(std::string_view text);

/// True when the text is well-formed UTF-8 (a fast check for tag texts).
bool IsUtf8(std::string_view text);

/// ISO-8859-1 text to UTF-8, copying ASCII text as it stands.
std::string Latin1Text(std::span<const uint8_t> bytes);

/// UTF-16 text (a byte order mark decides the order, else `order`) to UTF-8,
/// narrowing text that is all ASCII directly.
std::string Utf16Text(std::span<const uint8_t> bytes, ByteOrder order);

/// Text of a tag that should be UTF-8: with `strict`, malformed sequences are
/// replaced; otherwise text that is not valid UTF-8 is taken as Windows-1252.
std::string TagTextToUtf8(std::string_view text, bool strict);

/// The picture kind for a MIME type ("image/jpeg", "image/jpg", "image/png";
/// case-sensitive), kNone for any other.
PictureKind PictureKindFromMime(std::string_view mime);

/// The picture kind from the first bytes of an image (JPEG or PNG signature).
PictureKind PictureKindFromBytes(std::span<const uint8_t> data);

/// Playing time in CD frames for `units` at `per_second` units a second, 0
/// when the rate is 0; clamped to the int32 range.
int32_t DurationFrames(uint64_t units, uint64_t per_second);

/// Clamps a 64-bit count into int32.
inline int32_t ClampToInt32(uint64_t value) {
  return value > 0x7FFFFFFFu ? 0x7FFFFFFF : static_cast<int32_t>(value);
}

}  // namespace dischive::detail
