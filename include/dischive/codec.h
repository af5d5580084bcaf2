// Byte encodings and digests: percent-encoding, Base64, hexadecimal, MD5 and
// HMAC-SHA256.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace dischive {

/// Percent-encodes every byte except the unreserved characters
/// A-Z a-z 0-9 '-' '.' '_' '~', with upper-case hexadecimal digits.
std::string PercentEncode(std::string_view text);
/// Decodes %XX sequences (and '+' as a blank when `plus_is_space`); a malformed
/// escape is kept as it stands.
std::string PercentDecode(std::string_view text, bool plus_is_space = false);

/// Standard Base64 with padding.
std::string Base64Encode(std::span<const uint8_t> bytes);
std::string Base64Encode(std::string_view bytes);
/// Decodes standard Base64; white space is skipped; nullopt on other garbage.
std::optional<std::string> Base64Decode(std::string_view text);

enum class HexCase { kUpper, kLower };
/// Two hexadecimal digits per byte, high nibble first.
std::string HexEncode(std::span<const uint8_t> bytes, HexCase hex_case = HexCase::kUpper);

/// MD5 of the bytes as 32 hexadecimal digits.
std::string Md5Hex(std::span<const uint8_t> bytes, HexCase hex_case = HexCase::kUpper);
std::string Md5Hex(std::string_view bytes, HexCase hex_case = HexCase::kUpper);

using Sha256Digest = std::array<uint8_t, 32>;
/// HMAC-SHA256 of `message` under `key`.
Sha256Digest HmacSha256(std::string_view key, std::string_view message);

}  // namespace dischive
