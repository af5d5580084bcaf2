// The embedded catalogue engine: one ".dab" SQLite file.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "dischive/catalog.h"

namespace dischive {

enum class CatalogOpenMode {
  kReadOnly,   ///< no writes; never blocked by a writer
  kReadWrite,  ///< takes the database's write lock; fails when another process holds it
  kCreate,     ///< like kReadWrite, creating the file (and its folder) when missing
};

/// Opens (or creates) a catalogue file. On failure returns nullptr and fills
/// *error with a result code and *message with a one-line explanation (for
/// example that the file is not a catalogue, or that another process is
/// writing to it). The file is never modified when opening fails.
std::unique_ptr<CatalogEngine> OpenSqliteCatalog(const std::filesystem::path& path,
                                                 CatalogOpenMode mode, HResult* error = nullptr,
                                                 std::string* message = nullptr);

}  // namespace dischive
