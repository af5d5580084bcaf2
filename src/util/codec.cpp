#include "dischive/codec.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "util/parse.h"

namespace dischive {
namespace {

constexpr char kUpperHex[] = "0123456789ABCDEF";
constexpr char kLowerHex[] = "0123456789abcdef";
constexpr char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool IsUnreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_' || c == '~';
}

int Base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

std::span<const uint8_t> AsBytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace

std::string PercentEncode(std::string_view text) {
  std::string out;
  out.reserve(text.size() * 3);
  for (unsigned char c : text) {
    if (IsUnreserved(c)) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kUpperHex[c >> 4]);
      out.push_back(kUpperHex[c & 15]);
    }
  }
  return out;
}

std::string PercentDecode(std::string_view text, bool plus_is_space) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%' && text.size() - i > 2) {
      const int hi = HexDigitValue(text[i + 1]);
      const int lo = HexDigitValue(text[i + 2]);
      if (hi >= 0 && lo >= 0) {
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        continue;
      }
    }
    out.push_back(plus_is_space && c == '+' ? ' ' : c);
  }
  return out;
}

std::string Base64Encode(std::span<const uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; bytes.size() - i >= 3; i += 3) {
    const uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    out.push_back(kBase64[v >> 18]);
    out.push_back(kBase64[(v >> 12) & 63]);
    out.push_back(kBase64[(v >> 6) & 63]);
    out.push_back(kBase64[v & 63]);
  }
  if (const size_t rest = bytes.size() - i; rest > 0) {
    const uint32_t v = (bytes[i] << 16) | (rest == 2 ? bytes[i + 1] << 8 : 0);
    out.push_back(kBase64[v >> 18]);
    out.push_back(kBase64[(v >> 12) & 63]);
    out.push_back(rest == 2 ? kBase64[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

std::string Base64Encode(std::string_view bytes) {
  return Base64Encode(AsBytes(bytes));
}

std::optional<std::string> Base64Decode(std::string_view text) {
  std::string out;
  out.reserve(text.size() / 4 * 3);
  uint32_t acc = 0;
  int bits = 0;
  size_t padding = 0;
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int v = Base64Value(c);
    if (v < 0 || padding > 0) return std::nullopt;  // garbage, or data after padding
    acc = (acc << 6) | static_cast<uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((acc >> bits) & 0xFF));
    }
  }
  if (padding > 2 || bits >= 6) return std::nullopt;
  return out;
}

std::string HexEncode(std::span<const uint8_t> bytes, HexCase hex_case) {
  const char* digits = hex_case == HexCase::kUpper ? kUpperHex : kLowerHex;
  std::string out;
  out.reserve(bytes.size() * 2);
  for (uint8_t b : bytes) {
    out.push_back(digits[b >> 4]);
    out.push_back(digits[b & 15]);
  }
  return out;
}

std::string Md5Hex(std::span<const uint8_t> bytes, HexCase hex_case) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr) != 1) return {};
  return HexEncode({digest, length}, hex_case);
}

std::string Md5Hex(std::string_view bytes, HexCase hex_case) {
  return Md5Hex(AsBytes(bytes), hex_case);
}

Sha256Digest HmacSha256(std::string_view key, std::string_view message) {
  Sha256Digest digest{};
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest.data(),
       &length);
  return digest;
}

}  // namespace dischive
