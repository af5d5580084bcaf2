// Feeds arbitrary bytes to every tag reader through the dispatcher, once per
// extension so that the extension fallbacks are reached too.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "scan/tag_readers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  for (const char* extension : {"flac", "ogg", "mp3", "wma", "wav"}) {
    dischive::MemorySource source(bytes);
    dischive::MediaFileInfo info;
    dischive::ReadMediaSource(source, extension, info);
  }
  return 0;
}
