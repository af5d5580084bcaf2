// C entry points: backup files.
#include "api/c_string.h"
#include "dhvapi.h"
#include "dischive/backup.h"
#include "dischive/sqlite_catalog.h"

extern "C" int WriteBackupFile(const char* database_path, const char* covers_folder,
                               const char* backup_path, int include_covers) try {
  if (database_path == nullptr || backup_path == nullptr) return 0;
  dischive::BackupRequest request;
  request.database = database_path;
  request.covers_folder = covers_folder != nullptr ? covers_folder : "";
  request.include_covers = include_covers != 0;
  request.backup = backup_path;
  // A catalogue is opened for reading so that its engine can empty the
  // write-ahead log and hold writers off during the copy; any other file is
  // copied under the database's write lock alone.
  std::unique_ptr<dischive::CatalogEngine> engine;
  if (database_path[0] != '\0') {
    engine = dischive::OpenSqliteCatalog(database_path, dischive::CatalogOpenMode::kReadOnly);
  }
  request.catalog = engine.get();
  return dischive::WriteBackupFile(request) == dischive::kOk ? 1 : 0;
} catch (...) {
  // A fatal database failure or lack of memory: no exception crosses the C interface.
  return 0;
}

extern "C" int ReadBackupInfo(const char* backup_path, DHV_BACKUP_INFO* info) try {
  if (backup_path == nullptr) return 0;
  dischive::BackupMetadata metadata;
  bool found = false;
  if (!dischive::ReadBackupInfo(backup_path, info != nullptr ? &metadata : nullptr, &found)) {
    return 0;
  }
  if (info != nullptr && found) {
    info->version = metadata.version;
    dischive::api::CopyToBuffer(metadata.database_name, info->database_name,
                                sizeof(info->database_name));
    for (int i = 0; i < 6; ++i) {
      dischive::api::CopyToBuffer(metadata.reserved_texts[i], info->reserved_texts[i],
                                  sizeof(info->reserved_texts[i]));
      info->reserved_numbers[i] = metadata.reserved_numbers[i];
    }
  }
  return 1;
} catch (...) {
  return 0;
}
