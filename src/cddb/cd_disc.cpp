// A disc read from a drive or image, turned into what a lookup needs: its
// table of contents (through the same function as offsets typed by the user)
// and its CD-Text as metadata.
#include "dischive/cd_drive.h"

namespace dischive {

std::optional<DiscToc> DiscTocFromCd(const CdDisc& disc, std::string* error) {
  // freedb counts every track, the data track of an enhanced CD too, and takes
  // the lead-out the drive reports (the end of that data track) as the disc end.
  std::vector<uint32_t> offsets;
  offsets.reserve(disc.tracks.size());
  for (const CdTrack& track : disc.tracks)
    offsets.push_back(track.start_frame);
  return MakeDiscTocFromLeadOut(offsets, disc.lead_out_frame, error);
}

DiscMetadata MetadataFromCdText(const CdDisc& disc) {
  DiscMetadata metadata;
  if (!disc.has_cd_text) return metadata;
  metadata.SetText(field::kArtist, 0, disc.performer);
  metadata.SetText(field::kTitle, 0, disc.title);
  metadata.SetInt(field::kVariousArtists, 0, 0);
  for (size_t i = 0; i < disc.tracks.size() && i < kMaxDiscTracks; ++i) {
    const CdTrack& track = disc.tracks[i];
    const auto index = static_cast<uint32_t>(i + 1);
    metadata.SetText(field::kTrackTitle, index, track.title);
    // A track performer equal to the disc's is left out, as freedb entries do.
    if (!track.performer.empty() && track.performer != disc.performer)
      metadata.SetText(field::kArtist, index, track.performer);
  }
  return metadata;
}

}  // namespace dischive
