// Backup files: one catalogue database file and, optionally, the cover images of
// its covers folder in a single stream, followed by a metadata section that can
// be found again from the end of the file.
//
// Layout: the 24 header bytes "DiscHive 6.0 Backup File"; the database as an
// embedded file (DWORD byte count, bytes); then either, for every cover,
// "#FILE", its bare name and the embedded file, closed by "#END", or "#INCR"
// alone when covers were left out; then "#META", DWORD 256, the database's file
// name, six empty texts and six DWORDs 0. Texts carry a 1-, 3- or 7-byte
// length prefix; numbers are little-endian.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/result.h"

namespace dischive {

class CatalogEngine;

/// The first 24 bytes of every backup file.
inline constexpr std::string_view kBackupHeader = "DiscHive 6.0 Backup File";
/// The version number written in the metadata section.
inline constexpr uint32_t kBackupMetadataVersion = 256;

/// The metadata section at the end of a backup.
struct BackupMetadata {
  uint32_t version = 0;
  std::string database_name;          ///< file name of the database backed up
  std::string reserved_texts[6];      ///< empty in this version
  uint32_t reserved_numbers[6] = {};  ///< 0 in this version
};

/// Called with the bytes done and the bytes in all; returning false cancels
/// (the operation then fails with kAborted and leaves nothing behind).
using BackupProgress = std::function<bool(uint64_t done, uint64_t total)>;

struct BackupRequest {
  /// The database file. May be left empty when `catalog` is given (and must
  /// then be the same file); an empty path is refused otherwise.
  std::filesystem::path database;
  /// The open engine of `database`, if the caller has one: its writing is
  /// suspended (write-ahead log checkpointed, writers held off) during the copy.
  /// Without it the backup takes the database's write lock itself and refuses
  /// to run while another process writes to the database.
  CatalogEngine* catalog = nullptr;
  /// The folder whose "*.jpg" files (any letter case) are included when
  /// `include_covers` is set. A missing folder counts as empty.
  std::filesystem::path covers_folder;
  bool include_covers = false;
  /// The backup file to create; an existing file is never overwritten.
  std::filesystem::path backup;
  BackupProgress progress;
};

/// What a backup or restore did.
struct BackupSummary {
  uint64_t database_bytes = 0;
  uint32_t covers = 0;  ///< cover files written or restored
  uint64_t cover_bytes = 0;
  uint64_t backup_bytes = 0;                ///< length of the backup file
  std::filesystem::path previous_database;  ///< restore: where the replaced database went
};

/// Writes a backup file. Returns 0 or a failure code with a one-line reason in
/// *message. On failure no backup file is left behind.
HResult WriteBackupFile(const BackupRequest& request, std::string* message = nullptr,
                        BackupSummary* summary = nullptr);

/// Checks a backup's header and, when `metadata` is given, looks for the
/// metadata section in the last 8196 bytes. Returns true when the header
/// matches. *metadata is filled only when the section is found; then
/// *metadata_found (if given) is set to true. A section that is found but
/// cannot be read makes the result false.
bool ReadBackupInfo(const std::filesystem::path& path, BackupMetadata* metadata = nullptr,
                    bool* metadata_found = nullptr);

/// One cover file inside a backup.
struct BackupEntry {
  std::string name;     ///< bare file name
  uint64_t offset = 0;  ///< position of its bytes in the backup file
  uint32_t size = 0;
};

/// The structure of a whole backup, as checked by InspectBackup.
struct BackupContents {
  uint64_t file_size = 0;
  uint64_t database_offset = 0;
  uint32_t database_size = 0;
  bool covers_included = false;  ///< "#FILE"…"#END" rather than "#INCR"
  std::vector<BackupEntry> covers;
  BackupMetadata metadata;
};

/// Reads a whole backup without copying its contents and checks every part:
/// header, lengths, cover names (bare file names only, no duplicates), the
/// metadata section and that nothing follows it. Returns 0 or a failure code
/// with a one-line reason in *message.
HResult InspectBackup(const std::filesystem::path& path, BackupContents* contents,
                      std::string* message = nullptr);

/// True for a cover name that can be restored: a bare file name without path
/// separators, control characters (NUL included), "." or "..".
bool IsBareFileName(std::string_view name);

struct RestoreRequest {
  std::filesystem::path backup;
  /// Where the database goes.
  std::filesystem::path database;
  /// Where the covers go; empty: DefaultCoversFolder(database). Created when
  /// missing. Covers of the same name are replaced, others are kept.
  std::filesystem::path covers_folder;
  /// An existing database is replaced only when this is set.
  bool replace_existing = false;
  /// Keep the replaced database as "<name>.bak".
  bool keep_previous = true;
  BackupProgress progress;
};

/// Restores a backup: checks the whole file first (InspectBackup) and refuses a
/// truncated or corrupt one before anything is written; takes the target
/// database's write lock; writes the database and covers into temporary files
/// beside their targets, checks their lengths and only then renames them into
/// place. Returns 0 or a failure code with a one-line reason in *message.
HResult RestoreBackupFile(const RestoreRequest& request, std::string* message = nullptr,
                          BackupSummary* summary = nullptr);

/// The covers folder that belongs to a database: "<stem>_covers" beside it
/// ("Music.dab" -> "Music_covers").
std::filesystem::path DefaultCoversFolder(const std::filesystem::path& database);

}  // namespace dischive
