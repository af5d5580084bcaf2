// Helpers for handing text across the C interface.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace dischive::api {

/// A malloc'ed, NUL-terminated copy of text (the caller frees it); nullptr when
/// memory runs out.
inline char* DupString(std::string_view text) {
  auto* out = static_cast<char*>(std::malloc(text.size() + 1));
  if (out == nullptr) return nullptr;
  std::memcpy(out, text.data(), text.size());
  out[text.size()] = '\0';
  return out;
}

/// Copies text into a fixed-size C buffer, truncating and always terminating.
inline void CopyToBuffer(std::string_view text, char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return;
  const size_t n = text.size() < size - 1 ? text.size() : size - 1;
  std::memcpy(buffer, text.data(), n);
  buffer[n] = '\0';
}

}  // namespace dischive::api
