// Feeds arbitrary bytes to the INI reader behind settings, per-folder
// dischive.ini files and language files, and checks that what it parsed
// survives being written back and read again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "dischive/ini.h"
#include "dischive/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  dischive::IniDocument document = dischive::IniDocument::Parse(text);
  for (const std::string& section : document.Sections())
    for (const auto& [key, value] : document.Entries(section)) {
      if (document.Get(section, key) == std::nullopt) std::abort();
      (void)dischive::ParseSettingsInt(value);
    }
  document.Set("Fuzz", "key", "value");
  const std::string written = document.Serialize();
  if (dischive::IniDocument::Parse(written).Get("Fuzz", "key") != "value") std::abort();
  return 0;
}
