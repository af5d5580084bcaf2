// The embedded catalogue engine: one ".dab" SQLite file.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "dischive/catalog.h"

namespace dischive {

/// Result codes of opening and writing a catalogue file (Windows numbers, so
/// that FormatErrorMessage explains them).
inline constexpr HResult kCatalogMissing = 2;      ///< ERROR_FILE_NOT_FOUND: no such file
inline constexpr HResult kCatalogReadOnly = 5;     ///< ERROR_ACCESS_DENIED: opened read-only
inline constexpr HResult kCatalogLocked = 33;      ///< ERROR_LOCK_VIOLATION: another writer
inline constexpr HResult kCatalogDiskFull = 112;   ///< ERROR_DISK_FULL
inline constexpr HResult kCatalogInvalid = 1392;   ///< ERROR_FILE_CORRUPT: not a catalogue
inline constexpr HResult kCatalogNotFound = 1168;  ///< ERROR_NOT_FOUND: no such record

/// The lock file that marks a writer of the catalogue `path`: path + ".lock".
std::filesystem::path CatalogLockPath(const std::filesystem::path& path);

/// True when a process holds the catalogue's write lock now.
bool CatalogBeingWritten(const std::filesystem::path& path);

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
