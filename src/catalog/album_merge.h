// The rules by which albums are checked and combined before they are written:
// what a merge keeps, what a rescan of a folder replaces and what it leaves to
// the owner. Plain functions on the records, with no database behind them, so
// that the catalogue engine and the folder scan apply the same rules.
#pragma once

#include <optional>
#include <string>

#include "dischive/catalog.h"

namespace dischive::catalog {

/// Why an album cannot be written (a volume twice, a track numbered 0, a track
/// number twice in a volume); nullopt when it can.
std::optional<std::string> AlbumProblem(const AlbumRecord& album);

/// Merges `album` into the stored one: given properties set, others kept; a
/// name list given non-empty replaces the stored one; volumes matched by record
/// id (title, length and times taken when given, properties set, tracks matched
/// by number), new volumes appended, missing ones kept.
void MergeAlbum(AlbumRecord& stored, const AlbumRecord& album);
void MergeVolume(VolumeRecord& stored, const VolumeRecord& volume);

/// How a rescanned folder's album meets the stored one.
enum class RescanMode {
  kReplace,  ///< the scanned album replaces the stored one's fields
  kUpdate,   ///< the scanned fields are set, what the owner entered is kept
};

/// The album to write for a scanned folder. `scanned` holds the album-level
/// fields the files give and `volume` the folder's volume with its tracks (its
/// `created` time set to now). Without a stored album the scanned one is
/// written as it is. Otherwise other volumes of the stored album (entered by
/// hand) stay, and the folder's volume keeps its creation and last-played
/// times. An update keeps every field the scan does not produce (ratings,
/// notes), clears the album's comment, genre, label and location and the
/// tracks' artist, comment, lyrics, genre and bitrate when the files no longer
/// carry them, and drops the tracks whose files are gone.
AlbumRecord RescanAlbum(std::optional<AlbumRecord> stored, AlbumRecord scanned, VolumeRecord volume,
                        RescanMode mode);

}  // namespace dischive::catalog
