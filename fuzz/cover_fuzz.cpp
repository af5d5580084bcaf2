// Feeds arbitrary bytes as a stored cover picture to the decode-and-scale
// step that prepares covers for upload.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "dischive/cover.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 1 << 20) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  (void)dischive::PrepareCover(bytes);
  (void)dischive::PrepareCover(bytes, 17);
  return 0;
}
