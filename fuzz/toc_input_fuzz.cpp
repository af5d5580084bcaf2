// Feeds arbitrary bytes to the user-given disc descriptions: cue sheets and
// disc-id lines ("discid tracks offsets... seconds").
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "dischive/cddb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string error;
  uint32_t stated = 0;
  if (auto toc = dischive::ParseDiscIdLine(text, &error, &stated))
    (void)dischive::FormatDiscIdLine(*toc);
  for (uint32_t seconds : {0u, 2837u, 0xffffffffu})
    (void)dischive::ParseCueSheet(text, seconds, &error);
  return 0;
}
