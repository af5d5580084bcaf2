// Byte and number helpers shared by the tag readers.
#include "scan/tag_util.h"

#include <algorithm>
#include <cstring>

#include "dischive/text.h"

namespace dischive::detail {

int32_t ParseLeadingInt(std::string_view text) {
  size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t' || text[i] == '\r' ||
                             text[i] == '\n' || text[i] == '\v' || text[i] == '\f')) {
    ++i;
  }
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  int64_t value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > INT32_MAX) value = static_cast<int64_t>(INT32_MAX) + 1;  // saturate
  }
  if (negative) value = -value;
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

bool IsUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const uint8_t*>(text.data());
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    // Runs of ASCII, the bulk of most tags, eight bytes at a time.
    while (n - i >= 8) {
      uint64_t word;
      std::memcpy(&word, p + i, 8);
      if ((word & 0x8080808080808080u) != 0) break;
      i += 8;
    }
    if (i == n) break;
    const uint8_t c = p[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    // Lead byte: length and the range of the second byte that excludes
    // overlong forms, surrogates and code points above U+10FFFF.
    size_t length;
    uint8_t low = 0x80, high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
      length = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      length = 3;
      if (c == 0xE0) low = 0xA0;
      if (c == 0xED) high = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
      length = 4;
      if (c == 0xF0) low = 0x90;
      if (c == 0xF4) high = 0x8F;
    } else {
      return false;
    }
    if (n - i < length || p[i + 1] < low || p[i + 1] > high) return false;
    for (size_t k = 2; k < length; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return false;
    }
    i += length;
  }
  return true;
}

std::string Latin1Text(std::span<const uint8_t> bytes) {
  for (uint8_t c : bytes) {
    if (c >= 0x80) return Latin1ToUtf8(AsText(bytes));
  }
  return std::string(AsText(bytes));
}

std::string Utf16Text(std::span<const uint8_t> bytes, ByteOrder order) {
  // Most tag texts are ASCII: narrow them without the general conversion.
  size_t start = 0;
  if (bytes.size() >= 2 &&
      ((bytes[0] == 0xFF && bytes[1] == 0xFE) || (bytes[0] == 0xFE && bytes[1] == 0xFF))) {
    order = bytes[0] == 0xFF ? ByteOrder::kLittleEndian : ByteOrder::kBigEndian;
    start = 2;
  }
  if ((bytes.size() - start) % 2 == 0) {
    const size_t low = order == ByteOrder::kLittleEndian ? 0 : 1;
    std::string out((bytes.size() - start) / 2, '\0');
    bool ascii = true;
    for (size_t i = 0; i < out.size() && ascii; ++i) {
      const uint8_t a = bytes[start + 2 * i + low];
      const uint8_t b = bytes[start + 2 * i + (1 - low)];
      ascii = b == 0 && a < 0x80;
      out[i] = static_cast<char>(a);
    }
    if (ascii) return out;
  }
  return Utf16BytesToUtf8(bytes, order);
}

std::string TagTextToUtf8(std::string_view text, bool strict) {
  if (IsUtf8(text)) return std::string(text);
  return strict ? SanitizeUtf8(text) : Cp1252ToUtf8(text);
}

PictureKind PictureKindFromMime(std::string_view mime) {
  if (mime == "image/jpeg" || mime == "image/jpg") return PictureKind::kJpeg;
  if (mime == "image/png") return PictureKind::kPng;
  return PictureKind::kNone;
}

PictureKind PictureKindFromBytes(std::span<const uint8_t> data) {
  if (data.size() >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) {
    return PictureKind::kJpeg;
  }
  static constexpr uint8_t kPng[] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  if (data.size() >= sizeof kPng && std::equal(kPng, kPng + sizeof kPng, data.begin())) {
    return PictureKind::kPng;
  }
  return PictureKind::kNone;
}

int32_t DurationFrames(uint64_t units, uint64_t per_second) {
  if (per_second == 0) return 0;
  // Split so that units * 75 cannot wrap.
  const uint64_t whole = units / per_second;
  const uint64_t part = units % per_second;
  if (whole > 0x7FFFFFFFu / 75) return 0x7FFFFFFF;
  if (per_second > UINT64_MAX / 75) return ClampToInt32(whole * 75);
  return ClampToInt32(whole * 75 + part * 75 / per_second);
}

}  // namespace dischive::detail
