// Random identifiers for records and multipart boundaries.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace dischive {

/// Eight random bytes from the system's cryptographic source (getrandom). When
/// that source fails, each byte is taken from the C library's rand() as
/// ((rand() mod 32768) << 8) / 32767, truncated to a byte.
std::array<uint8_t, 8> RandomIdentifierBytes();

/// A new identifier: the eight random bytes as 16 upper-case hexadecimal digits.
std::string NewRandomIdentifier();

/// Forces the rand() fallback (for tests of that path); returns the previous state.
bool ForceRandomFallback(bool force);

}  // namespace dischive
