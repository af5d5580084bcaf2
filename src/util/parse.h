// Bounded number parsing: every number read from a file, a server answer, a
// setting or the command line goes through these, so that each has a maximum
// and none can overflow.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace dischive {

// The value of one hexadecimal digit (either case), or -1.
int HexDigitValue(char c);

// A whole string of decimal digits (no sign, no blanks) whose value is at
// most `max`; nullopt when empty, when another character appears or when the
// value passes `max`.
std::optional<uint64_t> ParseDecimal(std::string_view text, uint64_t max = UINT64_MAX);

// A whole string of hexadecimal digits (either case, no "0x") whose value is
// at most `max`; nullopt otherwise, as for ParseDecimal.
std::optional<uint64_t> ParseHex(std::string_view text, uint64_t max = UINT64_MAX);

// A decimal number that fits an unsigned 32-bit value, at most `max`.
inline std::optional<uint32_t> ParseDecimal32(std::string_view text, uint32_t max = UINT32_MAX) {
  const std::optional<uint64_t> value = ParseDecimal(text, max);
  if (!value) return std::nullopt;
  return static_cast<uint32_t>(*value);
}

// A hexadecimal number of one to eight digits, as record and disc ids are
// written.
inline std::optional<uint32_t> ParseHex32(std::string_view text) {
  if (text.size() > 8) return std::nullopt;
  const std::optional<uint64_t> value = ParseHex(text, UINT32_MAX);
  if (!value) return std::nullopt;
  return static_cast<uint32_t>(*value);
}

// A TCP port: decimal, 1 to 65535.
std::optional<uint16_t> ParsePort(std::string_view text);

}  // namespace dischive
