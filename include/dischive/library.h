// The music library's configuration, kept in the catalogue's database
// properties ("medialib"): the library folders, the scan flags, the default
// character set, and the media extension list of the application settings.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/catalog.h"
#include "dischive/result.h"
#include "dischive/settings.h"

namespace dischive {

// Scan flags ---------------------------------------------------------------

namespace scan_flags {
inline constexpr uint32_t kUnderscoreToBlank = 0x04;  ///< "_" becomes a blank in names
inline constexpr uint32_t kTitleFromFileName = 0x08;  ///< untitled tracks take the file name
/// Never skip a folder because its existing record is unchanged.
inline constexpr uint32_t kNeverSkipUnchanged = 0x80000000;
/// Replace mode of a forced scan: the scanned album replaces the stored one.
inline constexpr uint32_t kReplaceMode = 0x40000000;
/// The default of the application setting the flags were first kept in.
inline constexpr uint32_t kDefault = 153;
}  // namespace scan_flags

/// The bits of the flags compared when deciding whether a folder is unchanged.
inline constexpr uint32_t kScanFlagsCompareMask = 0x0FFFFFFF;

/// The flags of the options page's nine check boxes (box 7 and 8 are inverted:
/// their bits are set when the box is not ticked). Bits outside the nine are
/// taken from `other_bits`.
uint32_t ScanFlagsFromCheckBoxes(const bool (&boxes)[9], uint32_t other_bits = 0);
/// The ticks of the nine check boxes for a flags word.
void CheckBoxesFromScanFlags(uint32_t flags, bool (&boxes)[9]);

// Library folders ------------------------------------------------------------

/// One folder of the library: "medialib" "f%d" and the number "l%d" beside it.
struct LibraryFolder {
  std::string path;
  int32_t number = 0;
  bool operator==(const LibraryFolder&) const = default;
};

/// The library folders, up to the first empty "f%d".
std::vector<LibraryFolder> LoadLibraryFolders(CatalogEngine& catalog);
/// Writes every folder back under "f%d"/"l%d" and removes the entries that
/// followed the old list's end.
HResult SaveLibraryFolders(CatalogEngine& catalog, const std::vector<LibraryFolder>& folders);

/// The scan flags ("medialib"/"flags"). When absent, the value is taken once
/// from the application setting "Settings"/"FileScanOpts_1" (default 153),
/// that setting is deleted and the value is stored in the database.
uint32_t LoadScanFlags(CatalogEngine& catalog, SettingsStore& settings);
HResult SaveScanFlags(CatalogEngine& catalog, uint32_t flags);
/// The selected default character set ("medialib"/"def_charset"), 0 when unset.
int32_t LoadDefaultCharset(CatalogEngine& catalog);
HResult SaveDefaultCharset(CatalogEngine& catalog, int32_t charset);

/// The default of "Settings"/"MediaFileExtensions".
inline constexpr std::string_view kDefaultMediaExtensions =
    "mp3;wma;wav;ogg;m4a;shn;flac;ape;aac;mp4;m4p";
/// Splits an extension list at every white-space or punctuation character,
/// dropping empty pieces.
std::vector<std::string> SplitExtensionList(std::string_view text);
/// The media extensions configured in "Settings"/"MediaFileExtensions".
std::vector<std::string> MediaFileExtensions(const SettingsStore& settings);

/// The key of a folder: its absolute path without "." and ".." parts or a
/// trailing separator. Library folders are kept, and scanned folders
/// remembered, under it, so that two spellings of a folder are one folder.
std::string FolderKey(const std::filesystem::path& folder);

/// Adds a folder to the library under its key. *added is false when the
/// library already held it (nothing is written then).
HResult AddLibraryFolder(CatalogEngine& catalog, const std::filesystem::path& folder,
                         bool* added = nullptr);
/// Removes a folder from the library, named by its key or as it was stored.
/// *removed is false when the library did not hold it.
HResult RemoveLibraryFolder(CatalogEngine& catalog, const std::filesystem::path& folder,
                            bool* removed = nullptr);

}  // namespace dischive
