// A catalogue as a file: what marks one, its schema, the checks made before
// SQLite sees it, and its creation.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "dischive/catalog.h"
#include "platform/file_lock.h"

namespace dischive::catalog {

// "DHAB" in the header's application-id field marks a DiscHive catalogue.
inline constexpr int32_t kApplicationId = 0x44484142;
// 2: the volume index keeps each volume's scan state (see ScannedVolumes).
inline constexpr int kSchemaVersion = 2;

// The columns the volume index gained in schema 2.
inline constexpr const char* kScanColumns[] = {"scan_folder TEXT", "scan_stamp INTEGER",
                                               "scan_flags INTEGER", "scan_value3 INTEGER"};

/// Checks the first bytes of an existing file before SQLite sees it, so that a
/// file that is not a catalogue, or a cut-off one, is refused without being
/// touched. Returns an empty text when the file looks like a catalogue.
std::string CheckDatabaseHeader(const std::filesystem::path& path);

/// Creates a new, empty catalogue file; removes what it made when that fails.
HResult CreateCatalogFile(const std::filesystem::path& path, std::string* message);

/// The engine on a file already checked (and, for a writer, locked): opens
/// the connection and prepares it. On failure returns nullptr with *error and
/// *message filled.
std::unique_ptr<CatalogEngine> OpenEngine(const std::filesystem::path& path, bool writable,
                                          platform::FileLock lock, HResult* error,
                                          std::string* message);

}  // namespace dischive::catalog
