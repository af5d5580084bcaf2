// Restores arbitrary bytes as a whole backup into a fresh temporary folder:
// the structural check, the database and every cover written beside their
// targets. Whatever is restored must stay inside that folder.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "dischive/backup.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string pattern = (std::filesystem::temp_directory_path() / "restore_fuzz.XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) return 0;
  const std::filesystem::path folder(pattern);
  {
    std::ofstream out(folder / "in.dbk", std::ios::binary);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  dischive::RestoreRequest request;
  request.backup = folder / "in.dbk";
  request.database = folder / "out" / "Music.dab";
  request.replace_existing = true;
  std::filesystem::create_directory(folder / "out");
  std::string message;
  dischive::RestoreBackupFile(request, &message);
  dischive::BackupContents contents;
  dischive::InspectBackup(request.backup, &contents, &message);
  // Nothing may land beside the temporary folder.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    const auto relative = entry.path().lexically_relative(folder);
    if (relative.empty() || *relative.begin() == "..") std::abort();
  }
  std::error_code error;
  std::filesystem::remove_all(folder, error);
  return 0;
}
