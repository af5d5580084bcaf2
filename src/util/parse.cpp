#include "util/parse.h"

namespace dischive {
namespace {

std::optional<uint64_t> ParseDigits(std::string_view text, uint64_t base, uint64_t max) {
  if (text.empty()) return std::nullopt;
  uint64_t value = 0;
  for (const char c : text) {
    const int digit = HexDigitValue(c);
    if (digit < 0 || static_cast<uint64_t>(digit) >= base) return std::nullopt;
    if (static_cast<uint64_t>(digit) > max) return std::nullopt;
    // Checked before multiplying: value * base + digit must not pass max.
    if (value > (max - static_cast<uint64_t>(digit)) / base) return std::nullopt;
    value = value * base + static_cast<uint64_t>(digit);
  }
  return value;
}

}  // namespace

int HexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::optional<uint64_t> ParseDecimal(std::string_view text, uint64_t max) {
  return ParseDigits(text, 10, max);
}

std::optional<uint64_t> ParseHex(std::string_view text, uint64_t max) {
  return ParseDigits(text, 16, max);
}

std::optional<uint16_t> ParsePort(std::string_view text) {
  const std::optional<uint64_t> value = ParseDecimal(text, 65535);
  if (!value || *value == 0) return std::nullopt;
  return static_cast<uint16_t>(*value);
}

}  // namespace dischive
