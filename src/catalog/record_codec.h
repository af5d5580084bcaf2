// The byte layout of the property lists, track lists and name lists that the
// catalogue keeps in one column each. All numbers are little-endian.
//
//   properties := { field:u32  kind:u8  value }*     kind 0: value = i32
//                                                     kind 1: value = length:u32 bytes
//   tracks     := { number:u32  frames:u32  length:u32  properties[length] }*
//   names      := { list:u8  name:text  role:text  period:text }*   text = length:u32 bytes
//   album      := version:u8(1)  flags:u8  properties:text  names:text  count:u32  volume*
//                 (flags: 1 various artists, 2 various composers)
//   volume     := record_id:u32  title:text  frames:u32  created:u32  played:u32
//                 properties:text  tracks:text
//
// Decoding checks every length against the bytes left and fails on anything
// that does not fit, so a damaged column is reported, never overrun.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "dischive/catalog.h"

namespace dischive::catalog {

/// Name lists of an album, by list number in the names layout.
inline constexpr int kListArtists = 0;
inline constexpr int kListComposers = 1;
inline constexpr int kListCredits = 2;  ///< 2 .. 2 + kCreditListCount - 1
inline constexpr int kListLineup = kListCredits + kCreditListCount;

std::string EncodeProperties(const PropertySet& properties);
/// Adds the decoded properties to *out; false when the bytes are malformed.
bool DecodeProperties(std::string_view bytes, PropertySet* out);

std::string EncodeTracks(const std::vector<TrackRecord>& tracks);
bool DecodeTracks(std::string_view bytes, std::vector<TrackRecord>* out);

/// The artists, composers, credit lists and line-up of an album.
std::string EncodeNames(const AlbumRecord& album);
/// Appends the decoded names to the lists of *album.
bool DecodeNames(std::string_view bytes, AlbumRecord* album);

/// Everything of an album but its identifier and modification time.
std::string EncodeAlbum(const AlbumRecord& album);
/// Fills the flags, properties, names and volumes of *album (which should be
/// empty); false when the bytes are malformed.
bool DecodeAlbum(std::string_view bytes, AlbumRecord* album);

}  // namespace dischive::catalog
