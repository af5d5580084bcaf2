// A looked-up disc as an album of the catalogue.
#include <ctime>

#include "dischive/cddb.h"

namespace dischive {
namespace {

void CopyText(const DiscMetadata& metadata, field::FieldId id, uint32_t index, PropertySet& to) {
  if (const auto text = metadata.Text(id, index); text && !text->empty()) to.Set(id, *text);
}

void CopyInt(const DiscMetadata& metadata, field::FieldId id, PropertySet& to) {
  if (const auto value = metadata.Int(id, 0)) to.Set(id, *value);
}

}  // namespace

AlbumRecord AlbumFromDisc(const DiscToc& toc, const DiscMetadata& metadata) {
  AlbumRecord album;
  CopyText(metadata, field::kTitle, 0, album.properties);
  CopyText(metadata, field::kGenre, 0, album.properties);
  CopyInt(metadata, field::kReleaseDate, album.properties);
  if (const auto artist = metadata.Text(field::kArtist, 0); artist && !artist->empty()) {
    album.artists.push_back(*artist);
  }
  album.various_artists = metadata.Int(field::kVariousArtists, 0).value_or(0) != 0;

  VolumeRecord volume;
  volume.record_id = toc.disc_id;
  const uint32_t tracks = toc.track_count < kMaxDiscTracks ? toc.track_count : kMaxDiscTracks;
  // The lead-out lies at the disc length; frames are counted from the first track.
  const uint64_t lead_out = uint64_t{toc.disc_length_seconds} * 75;
  const uint32_t first = tracks > 0 ? toc.frame_offsets[0] : 0;
  volume.frames = lead_out > first ? static_cast<uint32_t>(lead_out - first) : 0;
  CopyInt(metadata, field::kRevision, volume.properties);
  CopyText(metadata, field::kCategory, 0, volume.properties);
  CopyText(metadata, field::kFreedbComment, 0, volume.properties);
  for (uint32_t k = 0; k < tracks; ++k) {
    TrackRecord track;
    track.number = k + 1;
    const uint64_t start = toc.frame_offsets[k];
    const uint64_t end = k + 1 < tracks ? toc.frame_offsets[k + 1] : lead_out;
    track.frames = end > start ? static_cast<uint32_t>(end - start) : kUnknownFrames;
    CopyText(metadata, field::kTrackTitle, k + 1, track.properties);
    CopyText(metadata, field::kArtist, k + 1, track.properties);
    CopyText(metadata, field::kFreedbComment, k + 1, track.properties);
    volume.tracks.push_back(std::move(track));
  }
  album.volumes.push_back(std::move(volume));
  return album;
}

HResult SaveDiscToCatalog(CatalogEngine& catalog, const DiscToc& toc, const DiscMetadata& metadata,
                          std::string* album_id) {
  AlbumRecord album = AlbumFromDisc(toc, metadata);
  // A disc already catalogued is updated in place: the user's own fields stay.
  WriteMode mode = WriteMode::kReplace;
  if (const auto existing = catalog.FindAlbumOfVolume(toc.disc_id)) {
    album.id = *existing;
    mode = WriteMode::kMerge;
  } else {
    album.volumes.front().created = static_cast<uint32_t>(std::time(nullptr));
  }
  const HResult result = catalog.WriteAlbum(album, mode);
  if (result == kOk && album_id != nullptr) *album_id = album.id;
  return result;
}

}  // namespace dischive
