// Building a folder's album from its files: the tags read, the track numbers
// and titles settled, the album fields gathered and the records made.
#include <fmt/printf.h>

#include <algorithm>
#include <fstream>
#include <set>

#include "dischive/date.h"
#include "dischive/folder_scan.h"
#include "dischive/strings.h"
#include "dischive/text.h"
#include "platform/file.h"
#include "scan/folder_scan_internal.h"
#include "scan/tag_readers.h"

namespace dischive::detail {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPlaceholderAlbums[] = {"Unknown Album", "New Album", "Unknown Title",
                                                   "New Title", "Title"};
constexpr std::string_view kPlaceholderArtists[] = {"Unknown Artist", "New Artist", "Artist"};

template <size_t N>
bool IsOneOf(std::string_view text, const std::string_view (&list)[N]) {
  return std::any_of(std::begin(list), std::end(list),
                     [&](std::string_view p) { return EqualsIgnoreCase(text, p); });
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
};

// Settles the tracks' numbers, order and titles.
void NumberTracks(std::vector<Track>& tracks) {
  // "Track 1", "track2", "TRACK 03": numbers, not titles; one other title
  // anywhere keeps them all as they are.
  std::vector<int32_t> from_names;
  for (const Track& t : tracks) {
    const std::optional<int32_t> n = TrackNumberFromTitle(t.tags.title);
    if (!n) break;
    from_names.push_back(*n);
  }
  if (from_names.size() == tracks.size()) {
    for (size_t i = 0; i < tracks.size(); ++i) {
      tracks[i].number = from_names[i];
      tracks[i].tags.title.clear();
    }
  }
  // Track numbers: those of the tags (or names) when every track has its own
  // (the tracks are then put in that order), else the position in the folder.
  std::set<int32_t> numbers;
  for (const Track& t : tracks) {
    if (t.number >= 1 && t.number <= 999) numbers.insert(t.number);
  }
  if (numbers.size() == tracks.size()) {
    std::stable_sort(tracks.begin(), tracks.end(),
                     [](const Track& a, const Track& b) { return a.number < b.number; });
  } else {
    for (size_t i = 0; i < tracks.size(); ++i)
      tracks[i].number = static_cast<int32_t>(i + 1);
  }
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (tracks[i].tags.title.empty())
      tracks[i].tags.title = fmt::sprintf("Track %02d", static_cast<int>(i + 1));
  }
}

// The album-level fields: artist, a comment every track shares, the first
// value of each field the files carry, and what the path gives where they are
// silent.
void GatherAlbumFields(ScannedAlbum& album, const PathInference& inferred) {
  std::vector<std::string> artists;
  artists.reserve(album.tracks.size());
  for (const Track& t : album.tracks)
    artists.push_back(t.tags.artist);
  AlbumArtist artist = InferAlbumArtist(artists, inferred.artist);
  album.artist = std::move(artist.artist);
  album.compilation = artist.compilation;

  const std::string& first_comment = album.tracks.front().tags.comment;
  if (!first_comment.empty() &&
      std::all_of(album.tracks.begin(), album.tracks.end(),
                  [&](const Track& t) { return t.tags.comment == first_comment; })) {
    album.comment = first_comment;
    for (Track& t : album.tracks)
      t.tags.comment.clear();
  }

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
}

AlbumRecord AlbumOf(const ScannedAlbum& album) {
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
  return scanned;
}

TrackRecord TrackOf(const ScannedAlbum& album, const Track& t) {
  TrackRecord tr;
  tr.number = static_cast<uint32_t>(t.number);
  tr.frames =
      t.tags.durationFrames > 0 ? static_cast<uint32_t>(t.tags.durationFrames) : kUnknownFrames;
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
  return tr;
}

}  // namespace

FolderFiles FolderScanSteps::Read(const FolderScanner& scanner, const fs::path& folder,
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

InferredAlbum FolderScanSteps::Infer(const FolderScanner& scanner, const fs::path& folder,
                                     const fs::path& root, const std::string& key,
                                     const FolderListing& listing, FolderFiles files) {
  const FolderScanOptions& options = scanner.options_;
  const bool underscores = (options.flags & scan_flags::kUnderscoreToBlank) != 0;

  ScannedAlbum album;
  album.tracks = std::move(files.tracks);
  NumberTracks(album.tracks);
  GatherAlbumFields(album, InferFromPath(folder, root, options.path_limit, underscores));

  std::string cover = ReadCoverFile(listing.cover_file);
  if (cover.empty()) cover = std::move(files.embedded_cover);

  VolumeRecord volume;
  volume.properties.Set(field::kScanStamp, static_cast<int32_t>(listing.stamp));
  volume.properties.Set(field::kScanFlags, static_cast<int32_t>(options.flags));
  volume.properties.Set(field::kScanProfile, static_cast<int32_t>(scanner.profile_));
  volume.properties.Set(field::kScanFolder, key);
  uint64_t frames = 0;
  for (const Track& t : album.tracks) {
    if (t.tags.durationFrames > 0) frames += static_cast<uint32_t>(t.tags.durationFrames);
    volume.tracks.push_back(TrackOf(album, t));
  }
  volume.frames = static_cast<uint32_t>(std::min<uint64_t>(frames, 0xFFFFFFFEu));
  return InferredAlbum{AlbumOf(album), std::move(volume), std::move(cover), files.unreadable};
}

}  // namespace dischive::detail
