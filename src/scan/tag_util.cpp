// Byte and number helpers shared by the tag readers.
#include "scan/tag_util.h"

#include <algorithm>

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

std::string TagTextToUtf8(std::string_view text, bool strict) {
  if (strict) return SanitizeUtf8(text);
  return IsValidUtf8(text) ? std::string(text) : Cp1252ToUtf8(text);
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
