// What the folder path and the file names tell about an album.
#include <algorithm>

#include "dischive/folder_scan.h"
#include "dischive/text.h"
#include "scan/folder_scan_internal.h"
#include "util/parse.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;

size_t CharacterCount(std::string_view text) {
  size_t count = 0;
  for (char c : text)
    count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return count;
}

std::string CleanName(std::string name, bool underscores) {
  name = NameText(name);
  if (underscores) std::replace(name.begin(), name.end(), '_', ' ');
  return std::string(TrimBlanks(name));
}

// The folder without a trailing separator, so that its last part is its name.
fs::path Normal(const fs::path& path) {
  fs::path p = path.lexically_normal();
  if (!p.has_filename() && p.has_parent_path() && p != p.root_path()) p = p.parent_path();
  return p;
}

}  // namespace

std::string NameText(std::string_view name) {
  return IsValidUtf8(name) ? std::string(name) : Cp1252ToUtf8(name);
}

PathInference InferFromPath(const fs::path& folder, const fs::path& root, size_t limit,
                            bool underscores) {
  PathInference result;
  const fs::path path = Normal(folder);
  const std::string name = CleanName(path.filename().string(), underscores);

  // "Artist - Album": the artist part must be a plausible name, not the first
  // half of a long title that happens to contain a dash.
  const size_t dash = name.find(" - ");
  if (dash != std::string::npos) {
    std::string artist(TrimBlanks(std::string_view(name).substr(0, dash)));
    std::string title(TrimBlanks(std::string_view(name).substr(dash + 3)));
    if (!artist.empty() && !title.empty() && CharacterCount(artist) <= limit) {
      result.artist = std::move(artist);
      result.title = std::move(title);
      return result;
    }
  }

  // "Artist/Album": the parent folder names the artist, unless it is the
  // library folder itself (which holds albums, not one artist's work).
  result.title = name;
  const fs::path parent = path.parent_path();
  if (parent != path && parent.has_filename() && (root.empty() || Normal(root) != parent)) {
    std::string artist = CleanName(parent.filename().string(), underscores);
    if (CharacterCount(artist) <= limit) result.artist = std::move(artist);
  }
  return result;
}

std::optional<int32_t> TrackNumberFromTitle(std::string_view title) {
  if (!StartsWithIgnoreCase(title, "track")) return std::nullopt;
  std::string_view rest = title.substr(5);
  if (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
  if (rest.size() > 6) return std::nullopt;
  const std::optional<uint32_t> number = ParseDecimal32(rest);
  if (!number) return std::nullopt;
  return static_cast<int32_t>(*number);
}

std::string detail::RemovableMediaLocation(const fs::path& path,
                                           platform::RemovableVolumeFinder& finder) {
  std::error_code ec;
  fs::path absolute = fs::absolute(path, ec);
  if (ec) return {};
  absolute = Normal(absolute);
  const std::optional<platform::RemovableVolume> volume = finder.Find(absolute);
  if (!volume) return {};
  std::string label = volume->label;
  std::replace(label.begin(), label.end(), '%', ' ');
  const fs::path below = absolute.lexically_relative(volume->mount_point);
  std::string rest = below.empty() || below == "." ? std::string() : below.generic_string();
  return "%" + label + "%/" + rest;
}

std::string RemovableMediaLocation(const fs::path& path) {
  platform::RemovableVolumeFinder finder;
  return detail::RemovableMediaLocation(path, finder);
}

}  // namespace dischive

namespace dischive::detail {

AlbumArtist InferAlbumArtist(const std::vector<std::string>& track_artists,
                             std::string_view path_artist) {
  AlbumArtist result;
  if (EqualsIgnoreCase(path_artist, "Various Artists") ||
      EqualsIgnoreCase(path_artist, "Various")) {
    result.compilation = true;
    return result;
  }
  const bool any_track_artist = std::any_of(track_artists.begin(), track_artists.end(),
                                            [](const std::string& a) { return !a.empty(); });
  if (!any_track_artist) {
    result.artist = std::string(path_artist);
    return result;
  }
  for (const std::string& artist : track_artists) {
    if (artist.empty()) continue;
    if (result.artist.empty()) {
      result.artist = artist;
    } else if (artist != result.artist) {
      result.compilation = true;
    }
  }
  return result;
}

}  // namespace dischive::detail
