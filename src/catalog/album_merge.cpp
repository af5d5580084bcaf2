// Checking and combining albums before they are written.
#include "catalog/album_merge.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

namespace dischive::catalog {
namespace {

std::vector<VolumeRecord>::iterator FindVolume(std::vector<VolumeRecord>& volumes, uint32_t id) {
  return std::find_if(volumes.begin(), volumes.end(),
                      [id](const VolumeRecord& v) { return v.record_id == id; });
}

// The scanned tracks, each keeping the fields of the stored track of the same
// number that the scan does not produce.
std::vector<TrackRecord> RescanTracks(const std::vector<TrackRecord>& stored,
                                      std::vector<TrackRecord> scanned) {
  for (TrackRecord& track : scanned) {
    auto old = std::find_if(stored.begin(), stored.end(),
                            [&](const TrackRecord& o) { return o.number == track.number; });
    if (old == stored.end()) continue;
    PropertySet merged = old->properties;
    for (field::FieldId f :
         {field::kArtist, field::kComment, field::kLyrics, field::kGenre, field::kBitrate}) {
      merged.Remove(f);
    }
    for (const auto& [field_id, value] : track.properties.values())
      merged.Set(field_id, value);
    track.properties = std::move(merged);
  }
  return scanned;
}

}  // namespace

std::optional<std::string> AlbumProblem(const AlbumRecord& album) {
  std::set<uint32_t> ids;
  for (const VolumeRecord& v : album.volumes) {
    if (!ids.insert(v.record_id).second)
      return fmt::format("volume {:08X} appears twice in the album", v.record_id);
    std::set<uint32_t> numbers;
    for (const TrackRecord& t : v.tracks) {
      if (t.number == 0) return fmt::format("volume {:08X}: track numbers start at 1", v.record_id);
      if (!numbers.insert(t.number).second)
        return fmt::format("volume {:08X}: track {} appears twice", v.record_id, t.number);
    }
  }
  return std::nullopt;
}

void MergeAlbum(AlbumRecord& stored, const AlbumRecord& album) {
  for (const auto& [id, value] : album.properties.values())
    stored.properties.Set(id, value);
  if (!album.artists.empty() || album.various_artists) {
    stored.artists = album.artists;
    stored.various_artists = album.various_artists;
  }
  if (!album.composers.empty() || album.various_composers) {
    stored.composers = album.composers;
    stored.various_composers = album.various_composers;
  }
  for (int c = 0; c < kCreditListCount; ++c) {
    if (!album.credits[c].empty()) stored.credits[c] = album.credits[c];
  }
  if (!album.lineup.empty()) stored.lineup = album.lineup;
  for (const VolumeRecord& v : album.volumes) {
    auto it = FindVolume(stored.volumes, v.record_id);
    if (it == stored.volumes.end()) {
      stored.volumes.push_back(v);
    } else {
      MergeVolume(*it, v);
    }
  }
}

void MergeVolume(VolumeRecord& stored, const VolumeRecord& volume) {
  if (!volume.title.empty()) stored.title = volume.title;
  if (volume.frames != 0) stored.frames = volume.frames;
  if (volume.created != 0) stored.created = volume.created;
  if (volume.played != 0) stored.played = volume.played;
  for (const auto& [id, value] : volume.properties.values())
    stored.properties.Set(id, value);
  for (const TrackRecord& t : volume.tracks) {
    auto it = std::find_if(stored.tracks.begin(), stored.tracks.end(),
                           [&t](const TrackRecord& s) { return s.number == t.number; });
    if (it == stored.tracks.end()) {
      stored.tracks.push_back(t);
      continue;
    }
    if (t.frames != 0) it->frames = t.frames;
    for (const auto& [id, value] : t.properties.values())
      it->properties.Set(id, value);
  }
}

AlbumRecord RescanAlbum(std::optional<AlbumRecord> stored, AlbumRecord scanned, VolumeRecord volume,
                        RescanMode mode) {
  const uint32_t id = volume.record_id;
  if (!stored) {
    scanned.volumes.push_back(std::move(volume));
    return scanned;
  }
  if (mode == RescanMode::kReplace) {
    AlbumRecord record = std::move(scanned);
    record.id = stored->id;
    record.volumes = std::move(stored->volumes);
    auto it = FindVolume(record.volumes, id);
    if (it == record.volumes.end()) {
      record.volumes.push_back(std::move(volume));
      return record;
    }
    if (it->created != 0) volume.created = it->created;
    volume.played = it->played;
    *it = std::move(volume);
    return record;
  }
  AlbumRecord record = std::move(*stored);
  for (const auto& [field_id, value] : scanned.properties.values())
    record.properties.Set(field_id, value);
  for (field::FieldId f : {field::kComment, field::kGenre, field::kLabel, field::kLocation}) {
    if (!scanned.properties.Has(f)) record.properties.Remove(f);
  }
  record.artists = std::move(scanned.artists);
  record.various_artists = scanned.various_artists;
  auto it = FindVolume(record.volumes, id);
  if (it == record.volumes.end()) {
    record.volumes.push_back(std::move(volume));
    return record;
  }
  for (const auto& [field_id, value] : volume.properties.values())
    it->properties.Set(field_id, value);
  it->frames = volume.frames;
  it->tracks = RescanTracks(it->tracks, std::move(volume.tracks));
  return record;
}

}  // namespace dischive::catalog
