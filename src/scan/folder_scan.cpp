// Scanning folders into the catalogue: one folder becomes one album.
#include "dischive/folder_scan.h"

#include <fmt/format.h>
#include <fmt/printf.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>

#include "dischive/date.h"
#include "dischive/ini.h"
#include "dischive/strings.h"
#include "dischive/tag_readers.h"
#include "dischive/text.h"
#include "platform/file.h"
#include "platform/file_find.h"
#include "scan/folder_scan_internal.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;

// Raised when the way folders are read changes, so that every folder is read
// again once.
constexpr uint32_t kScannerVersion = 1;

constexpr std::string_view kDefaultSection = "ScanOptions";
// Database properties that remember which record a folder became, so that a
// folder whose files changed (and with them its computed id) updates its album.
constexpr std::string_view kFolderIdGroup = "scan_folders";

constexpr std::string_view kPlaceholderAlbums[] = {"Unknown Album", "New Album", "Unknown Title",
                                                   "New Title", "Title"};
constexpr std::string_view kPlaceholderArtists[] = {"Unknown Artist", "New Artist", "Artist"};

// Per-folder settings files larger than this are ignored.
constexpr uintmax_t kMaxSettingsBytes = 1u << 20;
// Cover pictures larger than this are not stored.
constexpr uint64_t kMaxCoverBytes = 16u << 20;

template <size_t N>
bool IsOneOf(std::string_view text, const std::string_view (&list)[N]) {
  return std::any_of(std::begin(list), std::end(list),
                     [&](std::string_view p) { return EqualsIgnoreCase(text, p); });
}

// Reads "%08lx": optional blanks and "0x", then up to eight hexadecimal digits.
std::optional<uint32_t> ParseRecordId(std::string_view text) {
  text = text.substr(0, 31);
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
    text.remove_prefix(2);
  uint32_t value = 0;
  size_t digits = 0;
  for (; digits < text.size() && digits < 8; ++digits) {
    const char c = text[digits];
    int v;
    if (c >= '0' && c <= '9') {
      v = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      v = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      v = c - 'A' + 10;
    } else {
      break;
    }
    value = value << 4 | static_cast<uint32_t>(v);
  }
  if (digits == 0) return std::nullopt;
  return value;
}

std::string FolderKey(const fs::path& folder) {
  std::error_code ec;
  fs::path absolute = fs::absolute(folder, ec);
  if (ec) absolute = folder;
  absolute = absolute.lexically_normal();
  std::string key = absolute.string();
  while (key.size() > 1 && key.back() == '/')
    key.pop_back();
  return key;
}

// The title a file name gives: the name without its extension (cut at the last
// ".").
std::string TitleFromFileName(const std::string& name, bool underscores) {
  const size_t dot = name.rfind('.');
  std::string title = NameText(dot == std::string::npos || dot == 0 ? name : name.substr(0, dot));
  if (underscores) std::replace(title.begin(), title.end(), '_', ' ');
  return std::string(TrimBlanks(title));
}

std::optional<uint32_t> DateFromYear(std::string_view text) {
  text = TrimBlanks(text);
  for (size_t len : {size_t{10}, size_t{7}, size_t{4}}) {
    if (text.size() >= len) {
      if (auto date = ParseDate(text.substr(0, len))) return date;
    }
  }
  return std::nullopt;
}

// The bytes of the folder's cover picture file; empty when it has none or it
// cannot be read.
std::string ReadCoverFile(const fs::path& path) {
  if (path.empty()) return {};
  std::error_code ec;
  const uintmax_t size = fs::file_size(path, ec);
  if (ec || size == 0 || size > kMaxCoverBytes) return {};
  std::ifstream in(path, std::ios::binary);
  std::string bytes(static_cast<size_t>(size), '\0');
  if (!in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) return {};
  return bytes;
}

// Sets `id` to `text` when non-empty, else removes it (so that a rescan clears a
// value the files no longer carry).
void SetText(PropertySet& props, field::FieldId id, const std::string& text) {
  if (text.empty()) {
    props.Remove(id);
  } else {
    props.Set(id, text);
  }
}

struct Track {
  MediaFileTags tags;
  std::string file_name;
  std::string path;
  uint64_t size = 0;
  int32_t number = -1;  // from the tags or from "Track N"
};

// The files of a folder as read: a track for each, in the folder's order.
struct FolderFiles {
  std::vector<Track> tracks;
  std::string embedded_cover;  // the first picture the tags carry
  size_t unreadable = 0;       // files no reader took
};

// A folder's album as its files give it, ready to be written: everything but
// the record id, the location and what the catalogue already holds.
struct InferredAlbum {
  AlbumRecord scanned;  // album-level fields
  VolumeRecord volume;  // the folder's volume and its tracks
  std::string cover;    // the folder's picture
  size_t unreadable = 0;
};

// Everything the scan found out about one folder.
struct ScannedAlbum {
  std::string title;
  std::string artist;
  bool compilation = false;
  std::string comment;
  std::string genre;
  std::string label;
  std::optional<uint32_t> release_date;
  std::vector<Track> tracks;
  std::string cover;
};

}  // namespace

const char* FolderOutcomeName(FolderOutcome outcome) {
  switch (outcome) {
    case FolderOutcome::kNoFiles:
      return "empty";
    case FolderOutcome::kExcluded:
      return "excluded";
    case FolderOutcome::kAttached:
      return "attached";
    case FolderOutcome::kUnchanged:
      return "unchanged";
    case FolderOutcome::kAdded:
      return "added";
    case FolderOutcome::kUpdated:
      return "updated";
    case FolderOutcome::kFailed:
      return "failed";
  }
  return "unknown";
}

uint32_t ScanProfile(const FolderScanOptions& options) {
  uint32_t h = 2166136261u;
  auto add = [&h](std::string_view text) {
    for (char c : text)
      h = (h ^ static_cast<unsigned char>(ToLowerAscii(c))) * 16777619u;
    h = (h ^ 0u) * 16777619u;
  };
  for (const std::string& ext : options.extensions)
    add(ext);
  add("|");
  add(options.section);
  return kScannerVersion << 24 | (h & 0xFFFFFF);
}

FolderScanner::FolderScanner(CatalogEngine& catalog, FolderScanOptions options)
    : catalog_(catalog),
      options_(std::move(options)),
      profile_(ScanProfile(options_)),
      volumes_(std::make_unique<platform::RemovableVolumeFinder>()) {}

FolderScanner::~FolderScanner() = default;

void FolderScanner::Log(std::string_view line) {
  if (options_.log != nullptr) options_.log->Write(line);
}

namespace {

// How a folder's scan starts: its settings file may end it at once.
struct FolderStart {
  std::optional<FolderScanResult> done;  // the result when the folder ends here
  std::optional<uint32_t> attached;      // the record its settings tie it to
};

// The record a folder belongs to, and the scan state of that record when it
// exists.
struct RecordChoice {
  uint32_t id = 0;
  std::optional<VolumeScanState> existing;
  std::optional<uint32_t> remembered;  // the record the folder became last time
};

// Answers the questions that choose a folder's record.
class RecordLookup {
 public:
  virtual ~RecordLookup() = default;
  // The record the folder with this key became last time.
  virtual std::optional<uint32_t> RememberedId(const std::string& key) = 0;
  // The scan state of a volume; nullopt when there is no such volume.
  virtual std::optional<VolumeScanState> State(uint32_t id) = 0;
  virtual bool FolderExists(const std::string& path) = 0;
};

// Asks the catalogue: for a scan of single folders.
class CatalogLookup final : public RecordLookup {
 public:
  explicit CatalogLookup(CatalogEngine& catalog) : catalog_(catalog) {}
  std::optional<uint32_t> RememberedId(const std::string& key) override {
    const std::optional<std::string> value = catalog_.GetDatabaseProperty(kFolderIdGroup, key);
    return value ? ParseRecordId(*value) : std::nullopt;
  }
  std::optional<VolumeScanState> State(uint32_t id) override {
    return catalog_.ReadVolumeScanState(id);
  }
  bool FolderExists(const std::string& path) override {
    std::error_code ec;
    return fs::is_directory(path, ec);
  }

 private:
  CatalogEngine& catalog_;
};

// The catalogue's scan states as they stood when a library scan began, read in
// two queries. Folder keys are held in lower case, as the catalogue's property
// names compare without regard to (ASCII) case.
struct ScanSnapshot {
  std::unordered_map<std::string, uint32_t> remembered;
  std::unordered_map<uint32_t, VolumeScanState> states;

  explicit ScanSnapshot(CatalogEngine& catalog) {
    for (auto& [key, value] : catalog.DatabaseProperties(kFolderIdGroup)) {
      if (const auto id = ParseRecordId(value)) remembered.emplace(ToLowerAscii(key), *id);
    }
    for (VolumeScanState& state : catalog.ScannedVolumes()) {
      const uint32_t id = state.record_id;
      states.emplace(id, std::move(state));
    }
  }

  // The record a folder became, by its key in lower case.
  std::optional<uint32_t> Remembered(const std::string& lower_key) const {
    const auto it = remembered.find(lower_key);
    return it == remembered.end() ? std::nullopt : std::optional(it->second);
  }
  std::optional<VolumeScanState> State(uint32_t id) const {
    const auto it = states.find(id);
    return it == states.end() ? std::nullopt : std::optional(it->second);
  }
};

// The snapshot alone, never the catalogue: what the readers of a library scan
// use to predict which folders are unchanged, so that they do not read their
// files. A wrong prediction costs time only; the catalogue's answer decides.
class SnapshotLookup final : public RecordLookup {
 public:
  explicit SnapshotLookup(const ScanSnapshot& snapshot) : snapshot_(snapshot) {}
  std::optional<uint32_t> RememberedId(const std::string& key) override {
    return snapshot_.Remembered(ToLowerAscii(key));
  }
  std::optional<VolumeScanState> State(uint32_t id) override { return snapshot_.State(id); }
  bool FolderExists(const std::string&) override { return true; }

 private:
  const ScanSnapshot& snapshot_;
};

// The snapshot with the library scan's own writes laid over it. Only this scan
// writes scanned volumes while it runs (it holds the catalogue's write lock),
// so the two together are what the catalogue holds; a volume neither knows may
// still exist without a folder, and the catalogue is asked about it.
class LibraryLookup final : public RecordLookup {
 public:
  LibraryLookup(CatalogEngine& catalog, const ScanSnapshot& snapshot)
      : live_(catalog), snapshot_(snapshot) {}
  std::optional<uint32_t> RememberedId(const std::string& key) override {
    const std::string lower = ToLowerAscii(key);
    if (const auto it = remembered_.find(lower); it != remembered_.end()) return it->second;
    return snapshot_.Remembered(lower);
  }
  std::optional<VolumeScanState> State(uint32_t id) override {
    if (const auto it = states_.find(id); it != states_.end()) return it->second;
    if (auto state = snapshot_.State(id)) return state;
    return live_.State(id);
  }
  bool FolderExists(const std::string& path) override { return live_.FolderExists(path); }
  void Written(const std::string& key, const VolumeScanState& state) {
    remembered_[ToLowerAscii(key)] = state.record_id;
    states_[state.record_id] = state;
  }

 private:
  CatalogLookup live_;
  const ScanSnapshot& snapshot_;
  std::unordered_map<std::string, uint32_t> remembered_;
  std::unordered_map<uint32_t, VolumeScanState> states_;
};

}  // namespace

// The steps of scanning one folder. A scan of single folders runs them in
// turn; a library scan runs the first ones (which read files but never the
// catalogue) on reader threads and the rest, in folder order, on its own.
class detail::FolderScanSteps {
 public:
  // Per-folder settings: exclusion and attachment to a record entered by hand.
  static FolderStart Start(const FolderScanner& scanner, const fs::path& folder,
                           const FolderListing& listing, ScanLog* log) {
    const FolderScanOptions& options = scanner.options_;
    FolderStart start;
    auto write = [log](std::string_view line) {
      if (log != nullptr) log->Write(line);
    };
    FolderScanResult result;
    result.files = listing.files.size();
    if (listing.files.empty()) {
      start.done = result;
      return start;
    }
    if (log != nullptr) {
      log->Write(
          fmt::sprintf("Processing folder with %d files", static_cast<int>(listing.files.size())));
    }

    const std::string section =
        options.section.empty() ? std::string(kDefaultSection) : options.section;
    const fs::path settings_path =
        listing.settings_file ? *listing.settings_file : folder / detail::kSettingsFileName;
    IniDocument ini;
    if (!settings_path.empty()) {
      // A settings file holds a few lines; anything far larger is not one.
      std::error_code ec;
      const uintmax_t size = fs::file_size(settings_path, ec);
      if (!ec && size <= kMaxSettingsBytes) ini = IniDocument::Load(settings_path);
    }
    if (!options.forced && !options.ignore_exclusions) {
      auto excluded = [&ini](std::string_view s) {
        const std::optional<std::string> v = ini.Get(s, "Exclude");
        return v && ParseSettingsInt(*v).value_or(0) != 0;
      };
      if (excluded(kDefaultSection) || excluded(section)) {
        write("Folder excluded");
        result.outcome = FolderOutcome::kExcluded;
        start.done = result;
        return start;
      }
    }
    if (const std::optional<std::string> v = ini.Get(section, "ID"))
      start.attached = ParseRecordId(*v);
    if (start.attached && (*start.attached & 0xFF) < 0x66) {
      write("Folder skipped due to attached record");
      result.outcome = FolderOutcome::kAttached;
      result.result = 1;
      result.record_id = *start.attached;
      start.done = result;
    }
    return start;
  }

  // The record of a folder: the attached one, the one the folder became last
  // time, or the one its files compute to.
  static RecordChoice Choose(const std::string& key, const FolderListing& listing,
                             std::optional<uint32_t> attached, RecordLookup& lookup) {
    RecordChoice choice;
    if (attached) {
      choice.id = *attached;
      choice.existing = lookup.State(choice.id);
      return choice;
    }
    choice.remembered = lookup.RememberedId(key);
    if (choice.remembered) {
      // Only while the record still belongs to this folder: a deleted album's
      // id may since have gone to another folder.
      std::optional<VolumeScanState> state = lookup.State(*choice.remembered);
      if (state && state->folder == key) {
        choice.id = *choice.remembered;
        choice.existing = std::move(state);
        return choice;
      }
    }
    // Two folders whose files have the same sizes compute the same id; the
    // record stays with the folder that still exists, and this one takes the
    // next free checksum byte.
    choice.id = FolderRecordId(listing);
    for (int attempt = 0; attempt < 255; ++attempt) {
      std::optional<VolumeScanState> state = lookup.State(choice.id);
      if (!state) break;
      if (state->folder.empty() || state->folder == key || !lookup.FolderExists(state->folder)) {
        choice.existing = std::move(state);
        break;
      }
      choice.id = (((choice.id >> 24) + 1) % 255) << 24 | (choice.id & 0x00FFFFFF);
    }
    return choice;
  }

  static bool Unchanged(const FolderScanner& scanner, const RecordChoice& choice,
                        const FolderListing& listing) {
    const uint32_t flags = scanner.options_.flags;
    if (!choice.existing || (flags & scan_flags::kNeverSkipUnchanged) != 0) return false;
    const VolumeScanState& state = *choice.existing;
    return state.stamp == listing.stamp && state.flags &&
           (*state.flags & kScanFlagsCompareMask) == (flags & kScanFlagsCompareMask) &&
           state.value3 == scanner.profile_;
  }

  // Reads every file through the tag readers.
  static FolderFiles Read(const FolderScanner& scanner, const fs::path& folder,
                          const FolderListing& listing) {
    const uint32_t flags = scanner.options_.flags;
    const bool underscores = (flags & scan_flags::kUnderscoreToBlank) != 0;
    FolderFiles files;
    files.tracks.reserve(listing.files.size());
    // The folder's path is resolved once; its files are opened by name.
    platform::File handle;
    const bool by_name = platform::File::OpenFolder(folder, &handle) == kOk;
    for (const FolderFile& file : listing.files) {
      Track& track = files.tracks.emplace_back();
      track.file_name = file.name;
      if (file.path.empty()) {
        track.path = folder.native();
        if (!track.path.empty() && track.path.back() != '/') track.path += '/';
        track.path += file.name;
      } else {
        track.path = file.path.native();
      }
      track.size = file.size;
      MediaFileInfo info;
      const bool want_picture = files.embedded_cover.empty();
      const HResult read = by_name && file.path.empty()
                               ? ReadMediaFileAt(handle, file.name, info, want_picture)
                               : ReadMediaFile(file.path.empty() ? fs::path(track.path) : file.path,
                                               info, want_picture);
      if (read == kOk) {
        track.tags = std::move(info.tags);
        if (files.embedded_cover.empty() && !info.picture.empty() &&
            info.picture.size() <= kMaxCoverBytes) {
          files.embedded_cover = std::move(info.picture);
        }
      } else {
        ++files.unreadable;
      }
      MediaFileTags& tags = track.tags;
      if (IsOneOf(tags.album, kPlaceholderAlbums)) tags.album.clear();
      if (IsOneOf(tags.artist, kPlaceholderArtists)) tags.artist.clear();
      if (tags.title.empty() && (flags & scan_flags::kTitleFromFileName) != 0) {
        tags.title = TitleFromFileName(file.name, underscores);
      }
      track.number = tags.trackNumber;
    }
    return files;
  }

  // Infers the album from the files read.
  static InferredAlbum Infer(const FolderScanner& scanner, const fs::path& folder,
                             const fs::path& root, const std::string& key,
                             const FolderListing& listing, FolderFiles files);

  // Writes the album of a folder into its record. Returns the scan state of
  // the volume written, or nullopt when nothing was written.
  static std::optional<VolumeScanState> Commit(FolderScanner& scanner, const fs::path& folder,
                                               const std::string& key, const FolderListing& listing,
                                               const RecordChoice& choice, InferredAlbum inferred,
                                               FolderScanResult& result);
};

InferredAlbum detail::FolderScanSteps::Infer(const FolderScanner& scanner, const fs::path& folder,
                                             const fs::path& root, const std::string& key,
                                             const FolderListing& listing, FolderFiles files) {
  const FolderScanOptions& options = scanner.options_;
  const uint32_t flags = options.flags;
  const bool underscores = (flags & scan_flags::kUnderscoreToBlank) != 0;

  ScannedAlbum album;
  album.tracks = std::move(files.tracks);

  // "Track 1", "track2", "TRACK 03": numbers, not titles; one other title
  // anywhere keeps them all as they are.
  std::vector<int32_t> from_names;
  for (const Track& t : album.tracks) {
    const std::optional<int32_t> n = TrackNumberFromTitle(t.tags.title);
    if (!n) break;
    from_names.push_back(*n);
  }
  if (from_names.size() == album.tracks.size()) {
    for (size_t i = 0; i < album.tracks.size(); ++i) {
      album.tracks[i].number = from_names[i];
      album.tracks[i].tags.title.clear();
    }
  }
  // Track numbers: those of the tags (or names) when every track has its own
  // (the tracks are then put in that order), else the position in the folder.
  std::set<int32_t> numbers;
  for (const Track& t : album.tracks) {
    if (t.number >= 1 && t.number <= 999) numbers.insert(t.number);
  }
  if (numbers.size() == album.tracks.size()) {
    std::stable_sort(album.tracks.begin(), album.tracks.end(),
                     [](const Track& a, const Track& b) { return a.number < b.number; });
  } else {
    for (size_t i = 0; i < album.tracks.size(); ++i)
      album.tracks[i].number = static_cast<int32_t>(i + 1);
  }

  for (size_t i = 0; i < album.tracks.size(); ++i) {
    if (album.tracks[i].tags.title.empty())
      album.tracks[i].tags.title = fmt::sprintf("Track %02d", static_cast<int>(i + 1));
  }

  // Album artist: what the path says when the files name no artist (or when
  // the path says it is a various-artists folder), else the first track
  // artist; a different track artist makes a compilation.
  const PathInference inferred = InferFromPath(folder, root, options.path_limit, underscores);
  const bool any_track_artist = std::any_of(album.tracks.begin(), album.tracks.end(),
                                            [](const Track& t) { return !t.tags.artist.empty(); });
  const bool path_various = EqualsIgnoreCase(inferred.artist, "Various Artists") ||
                            EqualsIgnoreCase(inferred.artist, "Various");
  if (path_various) {
    album.compilation = true;
  } else if (!any_track_artist) {
    album.artist = inferred.artist;
  } else {
    for (const Track& t : album.tracks) {
      if (t.tags.artist.empty()) continue;
      if (album.artist.empty()) {
        album.artist = t.tags.artist;
      } else if (t.tags.artist != album.artist) {
        album.compilation = true;
      }
    }
  }

  // A comment every track shares is the album's.
  if (album.comment.empty() && !album.tracks.front().tags.comment.empty() &&
      std::all_of(album.tracks.begin(), album.tracks.end(), [&](const Track& t) {
        return t.tags.comment == album.tracks.front().tags.comment;
      })) {
    album.comment = album.tracks.front().tags.comment;
    for (Track& t : album.tracks)
      t.tags.comment.clear();
  }

  // Album fields the files carry: the first non-empty value of each.
  for (const Track& t : album.tracks) {
    if (album.title.empty()) album.title = t.tags.album;
    if (album.genre.empty()) album.genre = t.tags.genre;
    if (album.label.empty()) album.label = t.tags.label;
    if (!album.release_date && !t.tags.year.empty()) album.release_date = DateFromYear(t.tags.year);
  }
  if (album.title.empty()) album.title = inferred.title;
  if (album.compilation) {
    album.artist = LoadHostString(strings::kVariousArtists);
  } else if (album.artist.empty()) {
    album.artist = LoadHostString(strings::kUnknownArtist);
  }
  if (album.title.empty()) album.title = LoadHostString(strings::kUnknownAlbum);

  album.cover = ReadCoverFile(listing.cover_file);
  if (album.cover.empty()) album.cover = std::move(files.embedded_cover);

  // The records.
  AlbumRecord scanned;
  PropertySet& ap = scanned.properties;
  ap.Set(field::kTitle, album.title);
  ap.Set(field::kIsCompilation, album.compilation ? 1 : 0);
  SetText(ap, field::kComment, album.comment);
  SetText(ap, field::kGenre, album.genre);
  SetText(ap, field::kLabel, album.label);
  if (album.release_date) ap.Set(field::kReleaseDate, static_cast<int32_t>(*album.release_date));
  scanned.artists = {album.artist};
  scanned.various_artists = album.compilation;

  VolumeRecord volume;
  volume.properties.Set(field::kScanStamp, static_cast<int32_t>(listing.stamp));
  volume.properties.Set(field::kScanFlags, static_cast<int32_t>(flags));
  volume.properties.Set(field::kScanValue3, static_cast<int32_t>(scanner.profile_));
  volume.properties.Set(field::kScanFolder, key);
  uint64_t frames = 0;
  for (const Track& t : album.tracks) {
    TrackRecord tr;
    tr.number = static_cast<uint32_t>(t.number);
    tr.frames =
        t.tags.durationFrames > 0 ? static_cast<uint32_t>(t.tags.durationFrames) : kUnknownFrames;
    if (t.tags.durationFrames > 0) frames += static_cast<uint32_t>(t.tags.durationFrames);
    PropertySet& tp = tr.properties;
    tp.Set(field::kTrackTitle, t.tags.title);
    SetText(tp, field::kArtist,
            album.compilation || t.tags.artist != album.artist ? t.tags.artist : std::string());
    SetText(tp, field::kComment, t.tags.comment);
    SetText(tp, field::kLyrics, t.tags.lyrics);
    SetText(tp, field::kGenre, t.tags.genre != album.genre ? t.tags.genre : std::string());
    if (t.tags.bitrateKbps > 0) tp.Set(field::kBitrate, t.tags.bitrateKbps);
    tp.Set(field::kFilePath, t.path);
    tp.Set(field::kFileSize, std::to_string(t.size));
    SetText(tp, field::kComposer, t.tags.composer);
    if (t.tags.bpm > 0) tp.Set(field::kBpm, t.tags.bpm);
    volume.tracks.push_back(std::move(tr));
  }
  volume.frames = static_cast<uint32_t>(std::min<uint64_t>(frames, 0xFFFFFFFEu));
  return InferredAlbum{std::move(scanned), std::move(volume), std::move(album.cover),
                       files.unreadable};
}

std::optional<VolumeScanState> detail::FolderScanSteps::Commit(
    FolderScanner& scanner, const fs::path& folder, const std::string& key,
    const FolderListing& listing, const RecordChoice& choice, InferredAlbum inferred,
    FolderScanResult& result) {
  CatalogEngine& catalog = scanner.catalog_;
  const FolderScanOptions& options = scanner.options_;
  const uint32_t flags = options.flags;
  const uint32_t id = choice.id;
  result.unreadable_files = inferred.unreadable;
  std::optional<std::string> album_id;
  if (choice.existing) album_id = catalog.FindAlbumOfVolume(id);
  AlbumRecord scanned = std::move(inferred.scanned);
  VolumeRecord volume = std::move(inferred.volume);
  const std::string cover = std::move(inferred.cover);
  SetText(scanned.properties, field::kLocation,
          detail::RemovableMediaLocation(folder, *scanner.volumes_));
  volume.record_id = id;

  const bool replace = options.forced ? (flags & scan_flags::kReplaceMode) != 0
                                      : !album_id || (flags & scan_flags::kNeverSkipUnchanged) != 0;
  AlbumRecord record;
  std::optional<AlbumRecord> stored;
  if (album_id) stored = catalog.ReadAlbum(*album_id);
  // A volume new to the catalogue is created now; a rescanned one keeps its
  // creation and last-played times.
  const auto now = static_cast<uint32_t>(std::time(nullptr));
  volume.created = now;
  if (!stored) {
    record = std::move(scanned);
    record.volumes.push_back(std::move(volume));
  } else if (replace) {
    // The scanned album replaces the stored one; other volumes of the album
    // (entered by hand) stay.
    record = std::move(scanned);
    record.id = stored->id;
    record.volumes = std::move(stored->volumes);
    auto it = std::find_if(record.volumes.begin(), record.volumes.end(),
                           [id](const VolumeRecord& v) { return v.record_id == id; });
    if (it != record.volumes.end()) {
      if (it->created != 0) volume.created = it->created;
      volume.played = it->played;
      *it = std::move(volume);
    } else {
      record.volumes.push_back(std::move(volume));
    }
  } else {
    // Update: what the scan found is set, everything else the record holds
    // (ratings, notes, fields entered by hand) is kept; tracks whose files
    // are gone are dropped.
    record = std::move(*stored);
    for (const auto& [field_id, value] : scanned.properties.values())
      record.properties.Set(field_id, value);
    for (field::FieldId f : {field::kComment, field::kGenre, field::kLabel, field::kLocation}) {
      if (!scanned.properties.Has(f)) record.properties.Remove(f);
    }
    record.artists = scanned.artists;
    record.various_artists = scanned.various_artists;
    auto it = std::find_if(record.volumes.begin(), record.volumes.end(),
                           [id](const VolumeRecord& v) { return v.record_id == id; });
    if (it == record.volumes.end()) {
      record.volumes.push_back(std::move(volume));
    } else {
      for (const auto& [field_id, value] : volume.properties.values())
        it->properties.Set(field_id, value);
      it->frames = volume.frames;
      std::vector<TrackRecord> tracks;
      for (TrackRecord& tr : volume.tracks) {
        auto old = std::find_if(it->tracks.begin(), it->tracks.end(),
                                [&](const TrackRecord& o) { return o.number == tr.number; });
        if (old != it->tracks.end()) {
          PropertySet merged = old->properties;
          for (field::FieldId f :
               {field::kArtist, field::kComment, field::kLyrics, field::kGenre, field::kBitrate}) {
            merged.Remove(f);
          }
          for (const auto& [field_id, value] : tr.properties.values())
            merged.Set(field_id, value);
          tr.properties = std::move(merged);
        }
        tracks.push_back(std::move(tr));
      }
      it->tracks = std::move(tracks);
    }
  }

  if (HResult hr = catalog.WriteAlbum(record, WriteMode::kReplace)) {
    result.outcome = FolderOutcome::kFailed;
    result.error = hr;
    result.message = "cannot write the album: " + FormatErrorMessage(hr);
    scanner.Log("Folder failed: " + result.message);
    return std::nullopt;
  }
  if (!cover.empty()) {
    const std::optional<std::string> old_cover = catalog.ReadCover(id);
    if (!old_cover || *old_cover != cover) {
      if (HResult hr = catalog.WriteCover(id, cover)) {
        result.error = hr;
        result.message = "cannot store the cover: " + FormatErrorMessage(hr);
      }
    }
  }
  if (choice.remembered != id)
    catalog.SetDatabaseProperty(kFolderIdGroup, key, fmt::format("{:08x}", id));

  result.outcome = stored ? FolderOutcome::kUpdated : FolderOutcome::kAdded;
  result.album_id = record.id;
  result.result = 1;
  scanner.Log("Folder finished");
  return VolumeScanState{id, key, listing.stamp, flags, scanner.profile_};
}

FolderScanResult FolderScanner::ScanFolder(const fs::path& folder, const fs::path& root) {
  FolderListing listing;
  EnumerateFolder(folder, options_.extensions, listing, options_.log, options_.on_error);
  return ScanFiles(folder, listing, root);
}

FolderScanResult FolderScanner::ScanFiles(const fs::path& folder, const FolderListing& listing,
                                          const fs::path& root) {
  using Steps = detail::FolderScanSteps;
  FolderStart start = Steps::Start(*this, folder, listing, options_.log);
  if (start.done) return *start.done;
  FolderScanResult result;
  result.files = listing.files.size();
  try {
    const std::string key = FolderKey(folder);
    CatalogLookup lookup(catalog_);
    const RecordChoice choice = Steps::Choose(key, listing, start.attached, lookup);
    result.record_id = choice.id;
    if (Steps::Unchanged(*this, choice, listing)) {
      Log("Folder skipped due to existing record");
      result.outcome = FolderOutcome::kUnchanged;
      result.result = 1;
      return result;
    }
    Steps::Commit(
        *this, folder, key, listing, choice,
        Steps::Infer(*this, folder, root, key, listing, Steps::Read(*this, folder, listing)),
        result);
  } catch (const FatalDatabaseError& e) {
    result.outcome = FolderOutcome::kFailed;
    result.error = kFail;
    result.message = e.what();
    Log(std::string("Folder failed: ") + e.what());
  }
  return result;
}

namespace {

// Visits a folder and its subfolders, in name order, parents before children,
// reading each folder once; with each folder comes its key.
void WalkFolders(
    const fs::path& root, const std::vector<std::string>& extensions,
    const std::function<void(fs::path, std::string key, detail::FolderContents)>& visit) {
  std::vector<std::pair<fs::path, std::string>> stack;
  stack.emplace_back(root, FolderKey(root));
  while (!stack.empty()) {
    auto [folder, key] = std::move(stack.back());
    stack.pop_back();
    detail::FolderContents contents = detail::ReadFolderContents(folder, extensions);
    // The key of a subfolder is its parent's and its name: a folder's name is
    // never "." or "..", so the path stays normal.
    const std::string_view separator = key == "/" ? "" : "/";
    for (auto it = contents.subfolders.rbegin(); it != contents.subfolders.rend(); ++it)
      stack.emplace_back(folder / *it, fmt::format("{}{}{}", key, separator, *it));
    contents.subfolders.clear();
    visit(std::move(folder), std::move(key), std::move(contents));
  }
}

// One folder of a library scan: listed and judged by the walk, its files read
// by a reader thread when they must be, its album written in folder order.
struct PendingFolder {
  fs::path folder;
  const fs::path* root = nullptr;
  std::string key;
  FolderListing listing;
  std::vector<std::string> log_lines;  // kept for the scan log, in order
  std::optional<uint32_t> find_error;
  FolderStart start;
  bool read = false;                   // the readers read its files
  std::optional<InferredAlbum> album;  // the album its files give
  size_t held_bytes = 0;               // about what that takes in memory
  std::string failure;
};

// Reader threads that read the files of the folders a library scan hands
// them, in order, while the walk goes on and the writer writes. They stay at
// most kAheadFolders folders and about kAheadBytes of pictures ahead of the
// writer, so that a large library does not sit in memory.
class FolderReaders {
 public:
  using ReadFn = std::function<void(PendingFolder&)>;

  explicit FolderReaders(ReadFn read) : read_(std::move(read)) {
    const size_t count = std::clamp<size_t>(std::thread::hardware_concurrency(), 1, 4);
    for (size_t i = 0; i < count; ++i)
      threads_.emplace_back([this] { Run(); });
  }
  ~FolderReaders() {
    {
      std::lock_guard lock(mutex_);
      stop_ = true;
    }
    room_.notify_all();
    for (std::thread& t : threads_)
      t.join();
  }
  FolderReaders(const FolderReaders&) = delete;
  FolderReaders& operator=(const FolderReaders&) = delete;

  // Hands over folder number `index`; the folder must stay where it is until
  // Wait(index) returns.
  void Add(size_t index, PendingFolder* folder) {
    std::lock_guard lock(mutex_);
    queue_.emplace_back(index, folder);
    room_.notify_one();
  }
  // Waits until the files of folder `index` (handed over before) are read.
  void Wait(size_t index) {
    std::unique_lock lock(mutex_);
    awaited_ = index;
    ready_cv_.wait(lock, [&] { return done_.count(index) != 0; });
    awaited_.reset();
    done_.erase(index);
  }
  // The writer is done with the folders before `index`, which held `bytes`.
  void Consumed(size_t index, size_t bytes) {
    std::lock_guard lock(mutex_);
    consumed_ = index;
    held_bytes_ -= std::min(held_bytes_, bytes);
    room_.notify_all();
  }

 private:
  static constexpr size_t kAheadFolders = 256;
  static constexpr size_t kAheadBytes = 64u << 20;

  bool HasRoom() const {
    return !queue_.empty() && (queue_.front().first < consumed_ + kAheadFolders &&
                               (held_bytes_ < kAheadBytes || queue_.front().first <= consumed_));
  }

  void Run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      room_.wait(lock, [&] { return stop_ || HasRoom(); });
      if (stop_) return;
      const auto [index, folder] = queue_.front();
      queue_.pop_front();
      lock.unlock();
      read_(*folder);
      size_t bytes = 0;
      if (folder->album) {
        bytes = folder->album->cover.size();
        for (const TrackRecord& t : folder->album->volume.tracks)
          bytes += 512 + t.properties.Text(field::kLyrics).size();
      }
      folder->held_bytes = bytes;
      lock.lock();
      held_bytes_ += bytes;
      done_.insert(index);
      if (awaited_ == index) ready_cv_.notify_one();
    }
  }

  ReadFn read_;
  std::mutex mutex_;
  std::condition_variable room_, ready_cv_;
  std::deque<std::pair<size_t, PendingFolder*>> queue_;
  std::set<size_t> done_;
  std::optional<size_t> awaited_;
  size_t consumed_ = 0;
  size_t held_bytes_ = 0;
  bool stop_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace

std::vector<fs::path> CollectFolders(const fs::path& root) {
  std::vector<fs::path> out;
  WalkFolders(root, {}, [&out](fs::path folder, std::string, detail::FolderContents) {
    out.push_back(std::move(folder));
  });
  return out;
}

LibraryScanSummary ScanLibrary(FolderScanner& scanner, const std::vector<fs::path>& roots,
                               const LibraryProgress& progress, const FolderDone& on_folder) {
  using Steps = detail::FolderScanSteps;
  const FolderScanOptions& options = scanner.options();
  CatalogEngine& catalog = scanner.catalog();
  LibraryScanSummary summary;

  // The catalogue's scan states as they stand now, in two queries.
  std::optional<ScanSnapshot> snapshot;
  try {
    snapshot.emplace(catalog);
  } catch (const FatalDatabaseError& e) {
    summary.failures.emplace_back(fs::path(), e.what());
    ++summary.failed;
    return summary;
  }

  // The walk reads every folder once and judges it against the snapshot: the
  // files of an unchanged folder are never opened. It runs on a thread of its
  // own, the readers start on the files of the folders it hands them, and the
  // writer below follows in folder order, so that the three overlap.
  std::vector<std::unique_ptr<PendingFolder>> folders;  // filled by the walk
  std::mutex walk_mutex;
  std::condition_variable walked_cv;
  bool walk_done = false;
  size_t wanted = 0;  // the writer sleeps until the walk has this many folders
  std::string walk_failure;
  FolderReaders readers([&](PendingFolder& f) {
    try {
      f.album = Steps::Infer(scanner, f.folder, *f.root, f.key, f.listing,
                             Steps::Read(scanner, f.folder, f.listing));
    } catch (const std::exception& e) {  // a failed folder never stops the scan
      f.failure = e.what();
    }
  });
  auto judge = [&](PendingFolder& f, const detail::FolderContents& contents) {
    try {
      std::optional<ScanLog> log;
      if (options.log != nullptr)
        log.emplace([&f](std::string_view line) { f.log_lines.emplace_back(line); });
      detail::ListingFromContents(
          f.folder, options.extensions, contents, f.listing, log ? &*log : nullptr,
          [&f](const fs::path&, uint32_t error) { f.find_error = error; }, false);
      f.start = Steps::Start(scanner, f.folder, f.listing, log ? &*log : nullptr);
      if (!f.start.done) {
        SnapshotLookup lookup(*snapshot);
        f.read = !Steps::Unchanged(
            scanner, Steps::Choose(f.key, f.listing, f.start.attached, lookup), f.listing);
      }
    } catch (const std::exception& e) {  // a failed folder never stops the scan
      f.failure = e.what();
      f.read = false;
    }
  };
  std::thread walker([&] {
    try {
      for (const fs::path& root : roots) {
        WalkFolders(root, options.extensions,
                    [&](fs::path folder, std::string key, detail::FolderContents contents) {
                      auto f = std::make_unique<PendingFolder>();
                      f->folder = std::move(folder);
                      f->root = &root;
                      f->key = std::move(key);
                      judge(*f, contents);
                      std::lock_guard lock(walk_mutex);
                      if (f->read) readers.Add(folders.size(), f.get());
                      folders.push_back(std::move(f));
                      if (folders.size() >= wanted) walked_cv.notify_one();
                    });
      }
    } catch (const std::exception& e) {
      std::lock_guard lock(walk_mutex);
      walk_failure = e.what();
    }
    std::lock_guard lock(walk_mutex);
    walk_done = true;
    walked_cv.notify_one();
  });
  struct JoinWalker {
    std::thread& thread;
    ~JoinWalker() { thread.join(); }
  } join_walker{walker};
  // The next folder the walk has handed over, and the number walked so far;
  // nullptr when the walk is over and every folder was taken.
  auto next_folder = [&](size_t index, size_t* walked) -> PendingFolder* {
    std::unique_lock lock(walk_mutex);
    if (index >= folders.size() && !walk_done) {
      // Waking for every folder would cost more than a rescan spends on one:
      // the writer sleeps until a batch of folders is ready.
      constexpr size_t kWakeBatch = 64;
      wanted = index + kWakeBatch;
      walked_cv.wait(lock, [&] { return walk_done || folders.size() >= wanted; });
    }
    *walked = folders.size();
    return index < folders.size() ? folders[index].get() : nullptr;
  };

  // The writer: in folder order, the catalogue decides and the albums are
  // written, committed in batches.
  LibraryLookup lookup(catalog, *snapshot);
  constexpr size_t kBatchAlbums = 100;
  constexpr auto kBatchTime = std::chrono::seconds(2);
  bool in_batch = catalog.BeginBatch() == kOk;
  size_t batch_writes = 0;
  auto batch_start = std::chrono::steady_clock::now();
  auto end_batch = [&] {
    if (in_batch && catalog.CommitBatch() != kOk) {
      summary.failed += batch_writes;
      summary.failures.emplace_back(fs::path(),
                                    "cannot commit to the catalogue: " + catalog.LastErrorText());
    }
    in_batch = false;
  };

  size_t walked = 0;
  for (size_t i = 0;; ++i) {
    PendingFolder* next = next_folder(i, &walked);
    if (next == nullptr) break;
    PendingFolder& f = *next;
    if (progress) progress(i, walked, summary.files, f.folder);
    if (f.read) readers.Wait(i);
    if (options.log != nullptr) {
      for (const std::string& line : f.log_lines)
        options.log->Write(line);
    }
    if (f.find_error && options.on_error) options.on_error(f.folder, *f.find_error);

    FolderScanResult r;
    r.files = f.listing.files.size();
    if (!f.failure.empty()) {
      r.outcome = FolderOutcome::kFailed;
      r.message = f.failure;
    } else if (f.start.done) {
      r = *f.start.done;
    } else {
      try {
        const RecordChoice choice = Steps::Choose(f.key, f.listing, f.start.attached, lookup);
        r.record_id = choice.id;
        if (Steps::Unchanged(scanner, choice, f.listing)) {
          if (options.log != nullptr) options.log->Write("Folder skipped due to existing record");
          r.outcome = FolderOutcome::kUnchanged;
          r.result = 1;
        } else {
          // The snapshot said unchanged and the catalogue, which this scan
          // has written to since, says otherwise (a folder scanned twice, a
          // record another folder took): read the files now.
          if (!f.album) {
            f.album = Steps::Infer(scanner, f.folder, *f.root, f.key, f.listing,
                                   Steps::Read(scanner, f.folder, f.listing));
          }
          if (const auto written = Steps::Commit(scanner, f.folder, f.key, f.listing, choice,
                                                 std::move(*f.album), r)) {
            lookup.Written(f.key, *written);
          }
        }
      } catch (const FatalDatabaseError& e) {
        r.outcome = FolderOutcome::kFailed;
        r.error = kFail;
        r.message = e.what();
        if (options.log != nullptr) options.log->Write(std::string("Folder failed: ") + e.what());
      } catch (const std::exception& e) {  // a failed folder never stops the scan
        r.outcome = FolderOutcome::kFailed;
        r.message = e.what();
      }
    }
    // The folder's memory goes as soon as it is done.
    const fs::path folder = std::move(f.folder);
    const size_t held = f.held_bytes;
    f = PendingFolder{};
    readers.Consumed(i + 1, held);
    summary.files += r.files;
    if (r.outcome == FolderOutcome::kAdded || r.outcome == FolderOutcome::kUpdated) {
      ++batch_writes;
      if (batch_writes >= kBatchAlbums ||
          std::chrono::steady_clock::now() - batch_start >= kBatchTime) {
        end_batch();
        in_batch = catalog.BeginBatch() == kOk;
        batch_writes = 0;
        batch_start = std::chrono::steady_clock::now();
      }
    }
    // A folder's lines reach the log before the next folder starts, so that
    // the log of an interrupted scan ends where the scan stopped.
    if (options.log != nullptr) options.log->Flush();
    if (on_folder) on_folder(folder, r);
    switch (r.outcome) {
      case FolderOutcome::kNoFiles:
        ++summary.empty;
        break;
      case FolderOutcome::kExcluded:
        ++summary.excluded;
        break;
      case FolderOutcome::kAttached:
      case FolderOutcome::kUnchanged:
        ++summary.skipped;
        break;
      case FolderOutcome::kAdded:
        ++summary.added;
        break;
      case FolderOutcome::kUpdated:
        ++summary.updated;
        break;
      case FolderOutcome::kFailed:
        ++summary.failed;
        summary.failures.emplace_back(folder, r.message);
        break;
    }
  }
  end_batch();
  summary.folders = walked;
  if (!walk_failure.empty()) {
    ++summary.failed;
    summary.failures.emplace_back(fs::path(), "cannot walk the library: " + walk_failure);
  }
  if (progress) progress(walked, walked, summary.files, {});
  return summary;
}

}  // namespace dischive
