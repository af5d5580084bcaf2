// Scanning folders into the catalogue: one folder becomes one album.
#include "dischive/folder_scan.h"

#include <fmt/format.h>
#include <fmt/printf.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <set>

#include "dischive/date.h"
#include "dischive/ini.h"
#include "dischive/strings.h"
#include "dischive/text.h"
#include "platform/file_find.h"
#include "scan/folder_scan_internal.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;

// Raised when the way folders are read changes, so that every folder is read
// again once.
constexpr uint32_t kScannerVersion = 1;

constexpr std::string_view kDefaultSection = "ScanOptions";
constexpr std::string_view kSettingsFile = "dischive.ini";
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

// Everything the scan found out about one folder.
struct ScannedAlbum {
  std::string title;
  std::string artist;
  bool compilation = false;
  std::string comment;
  std::string genre;
  std::string label;
  std::optional<uint32_t> release_date;
  std::string location;
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

FolderScanResult FolderScanner::ScanFolder(const fs::path& folder, const fs::path& root) {
  FolderListing listing;
  EnumerateFolder(folder, options_.extensions, listing, options_.log, options_.on_error);
  return ScanFiles(folder, listing, root);
}

FolderScanResult FolderScanner::ScanFiles(const fs::path& folder, const FolderListing& listing,
                                          const fs::path& root) {
  FolderScanResult result;
  result.files = listing.files.size();
  if (listing.files.empty()) return result;
  const uint32_t flags = options_.flags;
  Log(fmt::sprintf("Processing folder with %d files", static_cast<int>(listing.files.size())));

  // Per-folder settings: exclusion and attachment to a record entered by hand.
  const std::string section =
      options_.section.empty() ? std::string(kDefaultSection) : options_.section;
  const fs::path settings_path = listing.settings_file.value_or(folder / kSettingsFile);
  IniDocument ini;
  if (!settings_path.empty()) {
    // A settings file holds a few lines; anything far larger is not one.
    std::error_code ec;
    const uintmax_t size = fs::file_size(settings_path, ec);
    if (!ec && size <= kMaxSettingsBytes) ini = IniDocument::Load(settings_path);
  }
  if (!options_.forced && !options_.ignore_exclusions) {
    auto excluded = [&ini](std::string_view s) {
      const std::optional<std::string> v = ini.Get(s, "Exclude");
      return v && ParseSettingsInt(*v).value_or(0) != 0;
    };
    if (excluded(kDefaultSection) || excluded(section)) {
      Log("Folder excluded");
      result.outcome = FolderOutcome::kExcluded;
      return result;
    }
  }
  std::optional<uint32_t> attached;
  if (const std::optional<std::string> v = ini.Get(section, "ID")) attached = ParseRecordId(*v);
  if (attached && (*attached & 0xFF) < 0x66) {
    Log("Folder skipped due to attached record");
    result.outcome = FolderOutcome::kAttached;
    result.result = 1;
    result.record_id = *attached;
    return result;
  }

  try {
    // The record of this folder: the attached one, the one the folder became
    // last time, or the one its files compute to. One read of the volume
    // answers both whether it exists and what it was scanned from.
    const std::string key = FolderKey(folder);
    std::optional<VolumeRecord> existing;
    uint32_t id = 0;
    if (attached) {
      id = *attached;
      existing = catalog_.ReadVolume(id);
    } else {
      if (const auto remembered = catalog_.GetDatabaseProperty(kFolderIdGroup, key)) {
        if (const auto parsed = ParseRecordId(*remembered)) {
          // Only while the record still belongs to this folder: a deleted
          // album's id may since have gone to another folder.
          existing = catalog_.ReadVolume(*parsed);
          if (existing && existing->properties.Text(field::kScanFolder) == key) {
            id = *parsed;
          } else {
            existing.reset();
          }
        }
      }
      if (!existing) {
        id = FolderRecordId(listing);
        // Two folders whose files have the same sizes compute the same id; the
        // record stays with the folder that still exists, and this one takes
        // the next free checksum byte.
        for (int attempt = 0; attempt < 255; ++attempt) {
          existing = catalog_.ReadVolume(id);
          if (!existing) break;
          const std::string owner_path = existing->properties.Text(field::kScanFolder);
          std::error_code ec;
          if (owner_path.empty() || owner_path == key || !fs::is_directory(owner_path, ec)) break;
          id = (((id >> 24) + 1) % 255) << 24 | (id & 0x00FFFFFF);
          existing.reset();
        }
      }
    }
    result.record_id = id;

    if (existing && (flags & scan_flags::kNeverSkipUnchanged) == 0) {
      auto int_property = [&](field::FieldId field) -> std::optional<uint32_t> {
        const PropertyValue* v = existing->properties.Find(field);
        if (v == nullptr || !std::holds_alternative<int32_t>(*v)) return std::nullopt;
        return static_cast<uint32_t>(std::get<int32_t>(*v));
      };
      const auto stamp = int_property(field::kScanStamp);
      const auto stored_flags = int_property(field::kScanFlags);
      const auto profile = int_property(field::kScanValue3);
      if (stamp == listing.stamp && stored_flags &&
          (*stored_flags & kScanFlagsCompareMask) == (flags & kScanFlagsCompareMask) &&
          profile == profile_) {
        Log("Folder skipped due to existing record");
        result.outcome = FolderOutcome::kUnchanged;
        result.result = 1;
        return result;
      }
    }
    std::optional<std::string> album_id;
    if (existing) album_id = catalog_.FindAlbumOfVolume(id);

    // Read every file.
    const bool underscores = (flags & scan_flags::kUnderscoreToBlank) != 0;
    ScannedAlbum album;
    std::string embedded_cover;
    for (const FolderFile& file : listing.files) {
      Track track;
      track.file_name = file.name;
      track.path = file.path.string();
      track.size = file.size;
      MediaFileInfo info;
      if (ReadMediaFile(file.path, info, embedded_cover.empty()) == kOk) {
        track.tags = std::move(info.tags);
        if (embedded_cover.empty() && !info.picture.empty() &&
            info.picture.size() <= kMaxCoverBytes) {
          embedded_cover = std::move(info.picture);
        }
      } else {
        ++result.unreadable_files;
      }
      MediaFileTags& tags = track.tags;
      if (IsOneOf(tags.album, kPlaceholderAlbums)) tags.album.clear();
      if (IsOneOf(tags.artist, kPlaceholderArtists)) tags.artist.clear();
      if (tags.title.empty() && (flags & scan_flags::kTitleFromFileName) != 0) {
        tags.title = TitleFromFileName(file.name, underscores);
      }
      track.number = tags.trackNumber;
      album.tracks.push_back(std::move(track));
    }

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
    const PathInference inferred = InferFromPath(folder, root, options_.path_limit, underscores);
    const bool any_track_artist =
        std::any_of(album.tracks.begin(), album.tracks.end(),
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
      if (!album.release_date && !t.tags.year.empty())
        album.release_date = DateFromYear(t.tags.year);
    }
    if (album.title.empty()) album.title = inferred.title;
    if (album.compilation) {
      album.artist = LoadHostString(strings::kVariousArtists);
    } else if (album.artist.empty()) {
      album.artist = LoadHostString(strings::kUnknownArtist);
    }
    if (album.title.empty()) album.title = LoadHostString(strings::kUnknownAlbum);

    album.location = detail::RemovableMediaLocation(folder, *volumes_);
    album.cover = ReadCoverFile(listing.cover_file);
    if (album.cover.empty()) album.cover = std::move(embedded_cover);

    // The records.
    AlbumRecord scanned;
    PropertySet& ap = scanned.properties;
    ap.Set(field::kTitle, album.title);
    ap.Set(field::kIsCompilation, album.compilation ? 1 : 0);
    SetText(ap, field::kComment, album.comment);
    SetText(ap, field::kGenre, album.genre);
    SetText(ap, field::kLabel, album.label);
    SetText(ap, field::kLocation, album.location);
    if (album.release_date) ap.Set(field::kReleaseDate, static_cast<int32_t>(*album.release_date));
    scanned.artists = {album.artist};
    scanned.various_artists = album.compilation;

    VolumeRecord volume;
    volume.record_id = id;
    volume.properties.Set(field::kScanStamp, static_cast<int32_t>(listing.stamp));
    volume.properties.Set(field::kScanFlags, static_cast<int32_t>(flags));
    volume.properties.Set(field::kScanValue3, static_cast<int32_t>(profile_));
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

    const bool replace = options_.forced
                             ? (flags & scan_flags::kReplaceMode) != 0
                             : !album_id || (flags & scan_flags::kNeverSkipUnchanged) != 0;
    AlbumRecord record;
    std::optional<AlbumRecord> stored;
    if (album_id) stored = catalog_.ReadAlbum(*album_id);
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
            for (field::FieldId f : {field::kArtist, field::kComment, field::kLyrics, field::kGenre,
                                     field::kBitrate}) {
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

    if (HResult hr = catalog_.WriteAlbum(record, WriteMode::kReplace)) {
      result.outcome = FolderOutcome::kFailed;
      result.error = hr;
      result.message = "cannot write the album: " + FormatErrorMessage(hr);
      Log("Folder failed: " + result.message);
      return result;
    }
    if (!album.cover.empty()) {
      const std::optional<std::string> old_cover = catalog_.ReadCover(id);
      if (!old_cover || *old_cover != album.cover) {
        if (HResult hr = catalog_.WriteCover(id, album.cover)) {
          result.error = hr;
          result.message = "cannot store the cover: " + FormatErrorMessage(hr);
        }
      }
    }
    catalog_.SetDatabaseProperty(kFolderIdGroup, key, fmt::format("{:08x}", id));

    result.outcome = stored ? FolderOutcome::kUpdated : FolderOutcome::kAdded;
    result.album_id = record.id;
    result.result = 1;
    Log("Folder finished");
    return result;
  } catch (const FatalDatabaseError& e) {
    result.outcome = FolderOutcome::kFailed;
    result.error = kFail;
    result.message = e.what();
    Log(std::string("Folder failed: ") + e.what());
    return result;
  }
}

std::vector<fs::path> CollectFolders(const fs::path& root) {
  std::vector<fs::path> out;
  std::vector<fs::path> stack{root};
  while (!stack.empty()) {
    fs::path folder = std::move(stack.back());
    stack.pop_back();
    std::vector<fs::path> children;
    std::vector<platform::FolderEntry> entries;
    platform::ListFolder(folder, entries, false);
    for (const platform::FolderEntry& e : entries) {
      if (e.name.empty() || e.name[0] == '.' || e.is_symlink || !e.is_directory) continue;
      children.push_back(folder / e.name);
    }
    std::sort(children.begin(), children.end(), [](const fs::path& a, const fs::path& b) {
      const std::string la = ToLowerAscii(a.filename().string());
      const std::string lb = ToLowerAscii(b.filename().string());
      return la != lb ? la < lb : a < b;
    });
    out.push_back(std::move(folder));
    for (auto it = children.rbegin(); it != children.rend(); ++it)
      stack.push_back(std::move(*it));
  }
  return out;
}

LibraryScanSummary ScanLibrary(FolderScanner& scanner, const std::vector<fs::path>& roots,
                               const LibraryProgress& progress, const FolderDone& on_folder) {
  LibraryScanSummary summary;
  std::vector<std::pair<fs::path, fs::path>> folders;  // folder, its root
  for (const fs::path& root : roots) {
    for (fs::path& folder : CollectFolders(root))
      folders.emplace_back(std::move(folder), root);
  }
  summary.folders = folders.size();

  CatalogEngine& catalog = scanner.catalog();
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

  for (size_t i = 0; i < folders.size(); ++i) {
    const auto& [folder, root] = folders[i];
    if (progress) progress(i, folders.size(), summary.files, folder);
    FolderScanResult r;
    try {
      r = scanner.ScanFolder(folder, root);
    } catch (const std::exception& e) {  // a failed folder never stops the scan
      r.outcome = FolderOutcome::kFailed;
      r.message = e.what();
    }
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
    if (scanner.options().log != nullptr) scanner.options().log->Flush();
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
  if (progress) progress(folders.size(), folders.size(), summary.files, {});
  return summary;
}

}  // namespace dischive
