// Parts of the folder scan shared between its source files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/folder_scan.h"

#include "platform/removable_media.h"

namespace dischive::detail {

/// The per-folder settings file, its name matched without regard to case.
inline constexpr std::string_view kSettingsFileName = "dischive.ini";

/// Orders names the way the Windows find calls return them on NTFS: without
/// regard to case, byte order breaking ties so that the order is total.
bool NameLess(std::string_view a, std::string_view b);

/// A file of a folder that a scan of it looks at, with its size and time.
struct ScanEntry {
  std::string name;
  uint64_t size = 0;
  int64_t mtime_ns = 0;
};

/// A folder read once: the files a scan of it looks at (media and side files,
/// its settings file) and its subfolders, both in name order. Hidden entries,
/// dot names and symbolic links to folders are left out. Only the files the
/// scan looks at get a status call.
struct FolderContents {
  uint32_t error = 0;  ///< Windows error number of reading the folder, 0 when read
  std::vector<ScanEntry> files;
  std::vector<std::string> subfolders;
};

FolderContents ReadFolderContents(const std::filesystem::path& folder,
                                  const std::vector<std::string>& extensions);

/// The listing EnumerateFolder makes, from contents already read. Without
/// `with_paths` the files' paths are left empty (they are the folder's path
/// and the file's name), which saves building them for a folder whose files
/// are not read.
bool ListingFromContents(const std::filesystem::path& folder,
                         const std::vector<std::string>& extensions, const FolderContents& contents,
                         FolderListing& listing, ScanLog* log, const FolderErrorCallback& on_error,
                         bool with_paths = true);

/// RemovableMediaLocation with a finder that keeps the mount table between
/// calls.
std::string RemovableMediaLocation(const std::filesystem::path& path,
                                   platform::RemovableVolumeFinder& finder);

}  // namespace dischive::detail
