// The catalogue database as a file: the default database and the sample
// database shipped with the program. The built-in user lists are in
// user_lists.h, beside the catalogue that offers them.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/settings.h"
#include "dischive/user_lists.h"

namespace dischive {

/// Catalogue files carry this extension.
inline constexpr const char* kDatabaseExtension = ".dab";
/// The sample database in the application folder.
inline constexpr const char* kSampleDatabaseName = "Sample Database.dab";
/// Settings group and key of the default database's full path.
inline constexpr const char* kDefaultDatabaseGroup = "Database";
inline constexpr const char* kDefaultDatabaseKey = "DefaultDatabase";
/// Settings group and key of a data folder that also holds a sample database
/// (beside the program's own folder).
inline constexpr const char* kDataFolderKey = "DataFolder";
/// Database option group of the user lists and their timestamps ("t_" + key).
inline constexpr const char* kDatabaseOptionsGroup = "db_opts";

/// The configured default database: "Database"/"DefaultDatabase" read from
/// `settings`; when that reading is empty, read a second time from
/// `alternative` (the system-wide scope), when given. Empty when neither is set.
std::string DefaultDatabase(const SettingsStore& settings, const SettingsStore* alternative);
/// The same with the process-wide settings and the system-wide settings file.
std::string DefaultDatabase();

/// The catalogue used when none is named: the default database configured in
/// `settings` (when given), else the one of the process-wide or system-wide
/// settings, else "Catalogue.dab" in the user's data folder
/// ($XDG_DATA_HOME/dischive, default ~/.local/share/dischive).
std::filesystem::path DefaultDatabasePath(const SettingsStore* settings);

/// True when `path` names the configured default database. The names are
/// compared without regard to case after removing "." and ".." parts, and as
/// resolved paths when both exist.
bool IsDefaultDatabase(const std::filesystem::path& path, const SettingsStore& settings,
                       const SettingsStore* alternative);
bool IsDefaultDatabase(const std::filesystem::path& path);

/// The folders where a sample database is looked for: the program's own folder
/// and the data folder configured under "Database"/"DataFolder" (when set).
std::vector<std::filesystem::path> ApplicationFolders(const SettingsStore& settings);

/// True when `path` names "Sample Database.dab" in one of `folders`. The path
/// is resolved first (symbolic links, "." and ".."); a path that cannot be
/// resolved (for example a missing file) is not the sample database. The
/// resolved names are compared without regard to case.
bool IsSampleDatabase(const std::filesystem::path& path,
                      const std::vector<std::filesystem::path>& folders);
/// The same with the program's folder and the process-wide settings.
bool IsSampleDatabase(const std::filesystem::path& path);

}  // namespace dischive
