// Listing a folder with the type, size and modification time of each entry:
// the stand-in for the find-first/find-next calls.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace dischive::platform {

struct FolderEntry {
  std::string name;
  bool is_directory = false;  ///< a folder (a symbolic link to one counts only with `follow`)
  bool is_regular = false;    ///< a regular file (also through a symbolic link)
  bool is_symlink = false;
  uint64_t size = 0;
  int64_t mtime_ns = 0;  ///< modification time, nanoseconds since 1970
};

/// Lists the entries of a folder except "." and "..", in the order the file
/// system returns them. Entries for which `wants_status` returns true get their
/// type, size and time from one status call relative to the open folder
/// (symbolic links followed); the others only their type, from the folder
/// listing where the file system provides it (a status call otherwise).
/// Entries that vanish meanwhile are left out. Returns 0 or the errno of
/// opening or reading the folder.
int ListFolder(const std::filesystem::path& folder, std::vector<FolderEntry>& entries,
               const std::function<bool(std::string_view name)>& wants_status = {});

}  // namespace dischive::platform
