// Builders for the tag reader tests: little- and big-endian integers, ID3v2
// syncsafe sizes, a string viewed as bytes, and expected tag records.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "dischive/tags.h"

namespace dischive::test {

inline std::string Le16(uint32_t v) {
  return {static_cast<char>(v), static_cast<char>(v >> 8)};
}
inline std::string Le32(uint32_t v) {
  return Le16(v) + Le16(v >> 16);
}
inline std::string Le64(uint64_t v) {
  return Le32(static_cast<uint32_t>(v)) + Le32(static_cast<uint32_t>(v >> 32));
}
inline std::string Be24(uint32_t v) {
  return {static_cast<char>(v >> 16), static_cast<char>(v >> 8), static_cast<char>(v)};
}
inline std::string Be32(uint32_t v) {
  return static_cast<char>(v >> 24) + Be24(v);
}
inline std::string Syncsafe(uint32_t v) {
  return {static_cast<char>((v >> 21) & 0x7F), static_cast<char>((v >> 14) & 0x7F),
          static_cast<char>((v >> 7) & 0x7F), static_cast<char>(v & 0x7F)};
}
inline std::span<const uint8_t> Bytes(const std::string& s) {
  return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

// A default tag record with the changes `change` makes.
template <typename Change>
MediaFileTags With(Change change) {
  MediaFileTags tags;
  change(tags);
  return tags;
}

}  // namespace dischive::test
