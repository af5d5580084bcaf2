// Parts of the folder scan shared between its source files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/folder_scan.h"

#include "platform/removable_media.h"

namespace dischive::detail {

/// Database properties that remember which record a folder became, so that a
/// folder whose files changed (and with them its computed id) updates its album.
inline constexpr std::string_view kFolderIdGroup = "scan_folders";
/// Cover pictures larger than this are not stored.
inline constexpr uint64_t kMaxCoverBytes = 16u << 20;

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

/// Reads "%08lx": optional blanks and "0x", then up to eight hexadecimal digits.
std::optional<uint32_t> ParseRecordId(std::string_view text);

/// The album artist of a folder and whether it is a compilation.
struct AlbumArtist {
  std::string artist;  ///< empty when neither the files nor the path name one
  bool compilation = false;
};

/// The album artist from the tracks' artists (empty where a file names none)
/// and the artist the folder's path gives: the path's when the files name no
/// artist, else the first track artist; a different track artist, or a path
/// that names a various-artists folder, makes a compilation.
AlbumArtist InferAlbumArtist(const std::vector<std::string>& track_artists,
                             std::string_view path_artist);

// The steps of scanning one folder ------------------------------------------

/// How a folder's scan starts: its settings file may end it at once.
struct FolderStart {
  std::optional<FolderScanResult> done;  ///< the result when the folder ends here
  std::optional<uint32_t> attached;      ///< the record its settings tie it to
};

/// The record a folder belongs to, and the scan state of that record when it
/// exists.
struct RecordChoice {
  uint32_t id = 0;
  std::optional<VolumeScanState> existing;
  std::optional<uint32_t> remembered;  ///< the record the folder became last time
};

/// Answers the questions that choose a folder's record.
class RecordLookup {
 public:
  virtual ~RecordLookup() = default;
  /// The record the folder with this key became last time.
  virtual std::optional<uint32_t> RememberedId(const std::string& key) = 0;
  /// The scan state of a volume; nullopt when there is no such volume.
  virtual std::optional<VolumeScanState> State(uint32_t id) = 0;
  virtual bool FolderExists(const std::string& path) = 0;
  /// The scan wrote the volume of the folder with this key.
  virtual void Written(const std::string& key, const VolumeScanState& state) = 0;
};

/// Asks the catalogue: for a scan of single folders.
class CatalogLookup final : public RecordLookup {
 public:
  explicit CatalogLookup(CatalogEngine& catalog) : catalog_(catalog) {}
  std::optional<uint32_t> RememberedId(const std::string& key) override;
  std::optional<VolumeScanState> State(uint32_t id) override;
  bool FolderExists(const std::string& path) override;
  void Written(const std::string&, const VolumeScanState&) override {}

 private:
  CatalogEngine& catalog_;
};

/// A track of a folder as its file gives it.
struct Track {
  MediaFileTags tags;
  std::string file_name;
  std::string path;
  uint64_t size = 0;
  int32_t number = -1;  ///< from the tags or from "Track N"
};

/// The files of a folder as read: a track for each, in the folder's order.
struct FolderFiles {
  std::vector<Track> tracks;
  std::string embedded_cover;  ///< the first picture the tags carry
  size_t unreadable = 0;       ///< files no reader took
};

/// A folder's album as its files give it, ready to be written: everything but
/// the record id, the location and what the catalogue already holds.
struct InferredAlbum {
  AlbumRecord scanned;  ///< album-level fields
  VolumeRecord volume;  ///< the folder's volume and its tracks
  std::string cover;    ///< the folder's picture
  size_t unreadable = 0;
};

/// The steps of scanning one folder. A scan of single folders runs them in
/// turn; a library scan runs the first ones (which read files but never the
/// catalogue) on reader threads and the decision and the write, in folder
/// order, on its own.
class FolderScanSteps {
 public:
  /// Per-folder settings: exclusion and attachment to a record entered by hand.
  static FolderStart Start(const FolderScanner& scanner, const std::filesystem::path& folder,
                           const FolderListing& listing, ScanLog* log);
  /// The record of a folder: the attached one, the one the folder became last
  /// time, or the one its files compute to.
  static RecordChoice Choose(const std::string& key, const FolderListing& listing,
                             std::optional<uint32_t> attached, RecordLookup& lookup);
  /// Whether the chosen record holds the folder as it is now.
  static bool Unchanged(const FolderScanner& scanner, const RecordChoice& choice,
                        const FolderListing& listing);
  /// Reads every file through the tag readers.
  static FolderFiles Read(const FolderScanner& scanner, const std::filesystem::path& folder,
                          const FolderListing& listing);
  /// Infers the album from the files read.
  static InferredAlbum Infer(const FolderScanner& scanner, const std::filesystem::path& folder,
                             const std::filesystem::path& root, const std::string& key,
                             const FolderListing& listing, FolderFiles files);
  /// Read and Infer in turn.
  static InferredAlbum Build(const FolderScanner& scanner, const std::filesystem::path& folder,
                             const std::filesystem::path& root, const std::string& key,
                             const FolderListing& listing) {
    return Infer(scanner, folder, root, key, listing, Read(scanner, folder, listing));
  }
  /// The one decision for a folder that did not end at its start: chooses its
  /// record, skips it when unchanged, else writes the album `album` gives
  /// (called only then) and tells `lookup`. A failure of the catalogue makes
  /// the folder fail.
  static FolderScanResult DecideAndWrite(FolderScanner& scanner,
                                         const std::filesystem::path& folder,
                                         const std::string& key, const FolderListing& listing,
                                         const FolderStart& start, RecordLookup& lookup,
                                         const std::function<InferredAlbum()>& album);

 private:
  /// Writes the album of a folder into its record. Returns the scan state of
  /// the volume written, or nullopt when nothing was written.
  static std::optional<VolumeScanState> Commit(FolderScanner& scanner,
                                               const std::filesystem::path& folder,
                                               const std::string& key, const FolderListing& listing,
                                               const RecordChoice& choice, InferredAlbum inferred,
                                               FolderScanResult& result);
};

}  // namespace dischive::detail
