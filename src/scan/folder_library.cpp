// The library's configuration: folder list, scan flags, character set and the
// media extension list.
#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "dischive/library.h"
#include "dischive/text.h"

namespace dischive {
namespace {

constexpr std::string_view kGroup = "medialib";

// Check box i of the options page and the bit it controls.
constexpr uint32_t kBoxBits[9] = {0x08, 0x01, 0x10, 0x80, 0x20, 0x40, 0x04, 0x100, 0x200};
// Boxes whose bit is set when they are not ticked.
constexpr bool kBoxInverted[9] = {false, false, false, false, false, false, false, true, true};

std::optional<int32_t> ReadInt(CatalogEngine& catalog, std::string_view key) {
  const std::optional<std::string> text = catalog.GetDatabaseProperty(kGroup, key);
  if (!text) return std::nullopt;
  return ParseSettingsInt(*text);
}

}  // namespace

uint32_t ScanFlagsFromCheckBoxes(const bool (&boxes)[9], uint32_t other_bits) {
  uint32_t flags = other_bits;
  for (int i = 0; i < 9; ++i) {
    flags &= ~kBoxBits[i];
    if (boxes[i] != kBoxInverted[i]) flags |= kBoxBits[i];
  }
  return flags;
}

void CheckBoxesFromScanFlags(uint32_t flags, bool (&boxes)[9]) {
  for (int i = 0; i < 9; ++i)
    boxes[i] = ((flags & kBoxBits[i]) != 0) != kBoxInverted[i];
}

std::vector<LibraryFolder> LoadLibraryFolders(CatalogEngine& catalog) {
  std::vector<LibraryFolder> folders;
  // The list ends at the first empty entry; the cap only guards a damaged table.
  for (int i = 0; i < 100000; ++i) {
    const std::optional<std::string> path =
        catalog.GetDatabaseProperty(kGroup, fmt::format("f{}", i));
    if (!path || path->empty()) break;
    LibraryFolder folder;
    folder.path = *path;
    folder.number = ReadInt(catalog, fmt::format("l{}", i)).value_or(0);
    folders.push_back(std::move(folder));
  }
  return folders;
}

HResult SaveLibraryFolders(CatalogEngine& catalog, const std::vector<LibraryFolder>& folders) {
  for (size_t i = 0; i < folders.size(); ++i) {
    if (HResult hr = catalog.SetDatabaseProperty(kGroup, fmt::format("f{}", i), folders[i].path))
      return hr;
    if (HResult hr = catalog.SetDatabaseProperty(kGroup, fmt::format("l{}", i),
                                                 std::to_string(folders[i].number)))
      return hr;
  }
  // Entries beyond the new end would otherwise come back on the next load.
  for (size_t i = folders.size(); i < folders.size() + 100000; ++i) {
    const std::string key = fmt::format("f{}", i);
    const std::optional<std::string> old = catalog.GetDatabaseProperty(kGroup, key);
    if (!old) break;
    if (HResult hr = catalog.RemoveDatabaseProperty(kGroup, key)) return hr;
    if (HResult hr = catalog.RemoveDatabaseProperty(kGroup, fmt::format("l{}", i))) return hr;
  }
  return kOk;
}

std::string FolderKey(const std::filesystem::path& folder) {
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(folder, ec);
  if (ec) absolute = folder;
  std::string key = absolute.lexically_normal().string();
  while (key.size() > 1 && key.back() == '/')
    key.pop_back();
  return key;
}

HResult AddLibraryFolder(CatalogEngine& catalog, const std::filesystem::path& folder, bool* added) {
  std::vector<LibraryFolder> folders = LoadLibraryFolders(catalog);
  const std::string key = FolderKey(folder);
  const bool known = std::any_of(folders.begin(), folders.end(),
                                 [&](const LibraryFolder& f) { return f.path == key; });
  if (added != nullptr) *added = !known;
  if (known) return kOk;
  folders.push_back(LibraryFolder{key, 0});
  return SaveLibraryFolders(catalog, folders);
}

HResult RemoveLibraryFolder(CatalogEngine& catalog, const std::filesystem::path& folder,
                            bool* removed) {
  std::vector<LibraryFolder> folders = LoadLibraryFolders(catalog);
  const std::string key = FolderKey(folder);
  const auto it = std::find_if(folders.begin(), folders.end(), [&](const LibraryFolder& f) {
    return f.path == key || f.path == folder.string();
  });
  if (removed != nullptr) *removed = it != folders.end();
  if (it == folders.end()) return kOk;
  folders.erase(it);
  return SaveLibraryFolders(catalog, folders);
}

uint32_t LoadScanFlags(CatalogEngine& catalog, SettingsStore& settings) {
  const int32_t stored = ReadInt(catalog, "flags").value_or(-1);
  if (stored != -1) return static_cast<uint32_t>(stored);
  // One-time move of the value from the application settings into the database.
  const int32_t old =
      settings.GetInt("Settings", "FileScanOpts_1", static_cast<int32_t>(scan_flags::kDefault));
  settings.Remove("Settings", "FileScanOpts_1");
  SaveScanFlags(catalog, static_cast<uint32_t>(old));
  return static_cast<uint32_t>(old);
}

HResult SaveScanFlags(CatalogEngine& catalog, uint32_t flags) {
  return catalog.SetDatabaseProperty(kGroup, "flags", std::to_string(static_cast<int32_t>(flags)));
}

int32_t LoadDefaultCharset(CatalogEngine& catalog) {
  return ReadInt(catalog, "def_charset").value_or(0);
}

HResult SaveDefaultCharset(CatalogEngine& catalog, int32_t charset) {
  return catalog.SetDatabaseProperty(kGroup, "def_charset", std::to_string(charset));
}

std::vector<std::string> SplitExtensionList(std::string_view text) {
  std::vector<std::string> out;
  std::string piece;
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x80 && (std::isspace(u) || std::ispunct(u))) {
      if (!piece.empty()) out.push_back(std::move(piece));
      piece.clear();
    } else {
      piece.push_back(c);
    }
  }
  if (!piece.empty()) out.push_back(std::move(piece));
  return out;
}

std::vector<std::string> MediaFileExtensions(const SettingsStore& settings) {
  return SplitExtensionList(
      settings.GetString("Settings", "MediaFileExtensions", kDefaultMediaExtensions));
}

}  // namespace dischive
