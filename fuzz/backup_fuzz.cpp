// Structural check and metadata reading of backup files on arbitrary bytes.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "backup/backup_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  dischive::backup::SpanSource source(bytes);
  dischive::BackupContents contents;
  std::string reason;
  dischive::backup::ParseBackup(source, &contents, &reason);
  return 0;
}
