// The folder scan: every folder of music files becomes one album of the
// catalogue. A folder's files are found by extension, read through the tag
// readers, and the album's artist, title, track titles and numbers are inferred
// where the tags are silent. A "dischive.ini" in a folder can exclude it or tie
// it to a record entered by hand; unchanged folders are skipped on a rescan.
//
// Change detection. Every scanned volume stores three values beside its tracks:
//  - the scan stamp (field::kScanStamp): a 32-bit FNV-1a hash over every file
//    that counts for the folder (media files, then the text and image files), in
//    the order they were found, of its name, its size and its modification time
//    (seconds and nanoseconds). Any change to a file's name, size or time, and
//    any added or removed file, changes the stamp.
//  - the scan flags (field::kScanFlags) the folder was scanned with; only the
//    low 28 bits (kScanFlagsCompareMask) are compared.
//  - the scan profile (field::kScanProfile), the third value: the scanner's
//    format version in the top byte and a 24-bit hash of the media extension
//    list and the per-folder settings section below it, so that a newer scanner
//    or a different extension list rescans everything once.
// A folder whose stored values all equal the current ones is skipped.
//
// Folder record id. The id of a scanned folder is
//   (checksum mod 255) << 24 | (byte total << 8) | (min(file count, 99) + 0x65)
// (bits beyond 32 dropped). The byte total is that of the enumeration (media,
// text and image files). The checksum is the 32-bit wrapping sum, over the media
// files in order, of the running byte offset after each file, its high and low
// 32-bit halves added together. The low byte is therefore at least 0x66; ids
// with a lower low byte belong to records made in another way.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/catalog.h"
#include "dischive/library.h"
#include "dischive/result.h"
#include "dischive/settings.h"
#include "dischive/tags.h"

namespace dischive {

namespace platform {
class RemovableVolumeFinder;
}
namespace detail {
class FolderScanSteps;
}

// Scan log -------------------------------------------------------------------

/// The default name of the scan log, kept beside the database.
inline constexpr std::string_view kScanLogName = "rikranan.log";

/// A text log of the scan, one message a line. Lines are appended; a log that
/// cannot be opened writes nothing.
class ScanLog {
 public:
  /// Appends to a file.
  explicit ScanLog(const std::filesystem::path& path);
  /// Sends every line to `sink` (for tests and embedding hosts).
  explicit ScanLog(std::function<void(std::string_view)> sink);
  ~ScanLog();
  ScanLog(const ScanLog&) = delete;
  ScanLog& operator=(const ScanLog&) = delete;

  bool is_open() const;
  void Write(std::string_view line);
  /// Hands the lines written so far to the file.
  void Flush();

 private:
  struct File;
  std::unique_ptr<File> file_;
  std::function<void(std::string_view)> sink_;
};

// Enumeration of one folder --------------------------------------------------

/// A media file found in a folder.
struct FolderFile {
  std::filesystem::path path;
  std::string name;        ///< long name
  std::string short_name;  ///< 8.3 name; the long name where there is none
  uint64_t size = 0;
  int64_t mtime_sec = 0;
  int64_t mtime_nsec = 0;
};

struct FolderListing {
  std::vector<FolderFile> files;  ///< media files, by extension in list order, then by name
  uint64_t byte_total = 0;        ///< media, text and image files
  uint32_t stamp = 0;             ///< the scan stamp (see above)
  /// The folder's cover picture: the first "cover", "folder" or "front" file
  /// with the extension "jpg", "jpeg" or "png"; empty when there is none.
  std::filesystem::path cover_file;
  /// The folder's "dischive.ini" (its name matched without regard to case): an
  /// empty path when the folder has none; nullopt when not known, and then
  /// the scan looks for it.
  std::optional<std::filesystem::path> settings_file;
};

/// Called with a folder that held no media file and the first find error other
/// than "file not found" (a Windows error number: 3 path not found, 5 access
/// denied, 267 not a folder, ...).
using FolderErrorCallback = std::function<void(const std::filesystem::path&, uint32_t error)>;

/// Finds the media files of one folder (not its subfolders): patterns "*.EXT"
/// matched without regard to case; hidden entries, folders and names beginning
/// with "." are skipped. The sizes of "txt", "jpg", "jpeg", "png" and "bmp"
/// files count toward the byte total. Returns true when a media file was found.
bool EnumerateFolder(const std::filesystem::path& folder,
                     const std::vector<std::string>& extensions, FolderListing& listing,
                     ScanLog* log = nullptr, const FolderErrorCallback& on_error = {});

/// The folder record id of a listing (formula above).
uint32_t FolderRecordId(const FolderListing& listing);

// Album inference ------------------------------------------------------------

/// The artist and album title read from a folder's path.
struct PathInference {
  std::string artist;
  std::string title;
};

/// Infers artist and title from a folder path. The folder's own name in the
/// form "Artist - Album" gives both (the artist part at most `limit`
/// characters); otherwise the name is the title and the parent folder's name
/// is the artist when it has at most `limit` characters and is not `root`
/// itself (the library folder the scan started from). With `underscores`,
/// "_" counts as a blank.
PathInference InferFromPath(const std::filesystem::path& folder,
                            const std::filesystem::path& root = {}, size_t limit = 30,
                            bool underscores = false);

/// A file or folder name as text: as it stands when it is UTF-8, else read as
/// Windows-1252 (names written by older systems).
std::string NameText(std::string_view name);

/// The number N when `title` is "Track" (any case), an optional blank and
/// nothing but digits; nullopt otherwise.
std::optional<int32_t> TrackNumberFromTitle(std::string_view title);

/// Location text of a path on removable or optical media: "%LABEL%/path/below"
/// ("%" in the label replaced by a blank); empty for fixed disks.
std::string RemovableMediaLocation(const std::filesystem::path& path);

// Scanning ---------------------------------------------------------------------

/// What happened to one folder.
enum class FolderOutcome {
  kNoFiles,    ///< no media file: nothing written
  kExcluded,   ///< "Exclude" set in its dischive.ini
  kAttached,   ///< tied to a record entered by hand
  kUnchanged,  ///< its record is up to date
  kAdded,      ///< a new album was written
  kUpdated,    ///< an existing album was updated
  kFailed,     ///< reading or writing failed
};

/// A short word for an outcome ("added", "skipped", ...).
const char* FolderOutcomeName(FolderOutcome outcome);

struct FolderScanResult {
  FolderOutcome outcome = FolderOutcome::kNoFiles;
  int result = 0;               ///< 1 when the folder belongs to a record, else 0
  uint32_t record_id = 0;       ///< the record written or found
  std::string album_id;         ///< the album written (empty when nothing was written)
  size_t files = 0;             ///< media files found
  size_t unreadable_files = 0;  ///< files no reader took
  HResult error = kOk;
  std::string message;  ///< why it failed
};

struct FolderScanOptions {
  uint32_t flags = scan_flags::kDefault;
  /// A forced scan ignores "Exclude"; with scan_flags::kReplaceMode it replaces.
  bool forced = false;
  /// The owner's wish to ignore exclusions even on a normal scan.
  bool ignore_exclusions = false;
  /// The section of dischive.ini to read besides "ScanOptions" (empty: only it).
  std::string section;
  std::vector<std::string> extensions = SplitExtensionList(kDefaultMediaExtensions);
  /// Limit for the names taken from the path (see InferFromPath).
  size_t path_limit = 30;
  ScanLog* log = nullptr;
  /// Folders without media files and with a find error are reported here.
  FolderErrorCallback on_error;
};

/// Scans folders into a catalogue.
class FolderScanner {
 public:
  FolderScanner(CatalogEngine& catalog, FolderScanOptions options);
  ~FolderScanner();
  FolderScanner(const FolderScanner&) = delete;
  FolderScanner& operator=(const FolderScanner&) = delete;

  /// Enumerates and scans one folder (not its subfolders). `root` is the
  /// library folder the scan started from (for the path inference).
  FolderScanResult ScanFolder(const std::filesystem::path& folder,
                              const std::filesystem::path& root = {});
  /// Scans a folder whose files are in hand.
  FolderScanResult ScanFiles(const std::filesystem::path& folder, const FolderListing& listing,
                             const std::filesystem::path& root = {});

  const FolderScanOptions& options() const { return options_; }
  CatalogEngine& catalog() { return catalog_; }

 private:
  friend class detail::FolderScanSteps;
  void Log(std::string_view line);

  CatalogEngine& catalog_;
  FolderScanOptions options_;
  uint32_t profile_ = 0;
  std::unique_ptr<platform::RemovableVolumeFinder> volumes_;
};

/// The scan profile of a set of options (see above).
uint32_t ScanProfile(const FolderScanOptions& options);

/// The folder and its subfolders, in name order, parents before children;
/// hidden and dot folders are left out and symbolic links to folders are not
/// followed.
std::vector<std::filesystem::path> CollectFolders(const std::filesystem::path& root);

/// Totals of a library scan.
struct LibraryScanSummary {
  size_t folders = 0;
  size_t files = 0;
  size_t added = 0;
  size_t updated = 0;
  size_t skipped = 0;  ///< unchanged or attached
  size_t excluded = 0;
  size_t empty = 0;  ///< folders without media files
  size_t failed = 0;
  std::vector<std::pair<std::filesystem::path, std::string>> failures;
};

/// Progress of a library scan: folders done, folders in all, files read so far.
using LibraryProgress = std::function<void(size_t done, size_t total, size_t files,
                                           const std::filesystem::path& folder)>;

/// Called after each folder with what happened to it.
using FolderDone = std::function<void(const std::filesystem::path&, const FolderScanResult&)>;

/// Scans every root and its subfolders. A failed folder is counted and the
/// scan goes on. The albums are committed in batches (every 100 albums
/// written, or after two seconds), so that a large library is not written one
/// transaction per folder and an interrupted scan keeps what it committed.
///
/// Each folder is read once. The catalogue's scan states are fetched once at
/// the start, so that the files of a folder that has not changed are never
/// opened; the scan itself is what changes them while it runs, so no other
/// writer may use the same engine meanwhile (other processes cannot: the scan
/// holds the catalogue's write lock). The folder walk and the reading of tags
/// run on threads of their own (as many readers as cores, up to four); the
/// catalogue is written, and `progress`, `on_folder`, the log and the error
/// callback are called, on the calling thread only, in folder order. While the
/// walk goes on, the `total` given to `progress` is the number of folders
/// found so far.
LibraryScanSummary ScanLibrary(FolderScanner& scanner,
                               const std::vector<std::filesystem::path>& roots,
                               const LibraryProgress& progress = {},
                               const FolderDone& on_folder = {});

}  // namespace dischive
