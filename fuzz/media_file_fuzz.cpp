// Writes arbitrary bytes to a temporary file and reads its tags through the
// public file API (the file-backed source the folder scan uses), once per
// extension so that every reader sees the bytes.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "dischive/tags.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string pattern = (std::filesystem::temp_directory_path() / "media_fuzz.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) return 0;
  const std::filesystem::path folder(pattern);
  for (const char* name : {"a.flac", "a.ogg", "a.mp3", "a.wma", "a.wav"}) {
    const auto path = folder / name;
    {
      std::ofstream out(path, std::ios::binary);
      out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    dischive::MediaFileInfo info;
    (void)dischive::ReadMediaFile(path, info);
  }
  std::error_code error;
  std::filesystem::remove_all(folder, error);
  return 0;
}
