// Helpers shared by the backup writer and restore.
#pragma once

#include <filesystem>
#include <string>

#include "backup/archive.h"
#include "dischive/backup.h"
#include "dischive/result.h"
#include "platform/file.h"
#include "platform/file_lock.h"

namespace dischive::backup {

/// Reads a whole backup from `source` (positioned at its start) and checks its
/// structure: header, lengths, cover names, metadata, nothing after it. On
/// failure *reason says what is wrong and where.
bool ParseBackup(ByteSource& source, BackupContents* contents, std::string* reason);

/// Takes the write lock of a database (the lock file beside it) without
/// waiting. Fails with a clear message when another process is writing.
HResult LockDatabase(const std::filesystem::path& database, platform::FileLock* lock,
                     std::string* message);

/// Fails when the database has a non-empty write-ahead log beside it: its file
/// alone is then not the whole database.
HResult CheckNoPendingLog(const std::filesystem::path& database, std::string* message);

}  // namespace dischive::backup
