#include "catalog/record_codec.h"

#include <gtest/gtest.h>

#include <set>

namespace dischive::catalog {
namespace {

TEST(RecordCodecTest, RoundTripsAndRefusesDamagedBytes) {
  PropertySet properties;
  properties.Set(field::kTitle, std::string("A\0B", 3));
  properties.Set(field::kRating, -5);
  properties.Set(field::kComment, "");
  const std::string encoded = EncodeProperties(properties);

  std::vector<TrackRecord> tracks(2);
  tracks[0].number = 1;
  tracks[0].frames = kUnknownFrames;
  tracks[1].number = 7;
  tracks[1].properties = properties;

  AlbumRecord album;
  album.artists = {"a", "b"};
  album.composers = {"c"};
  album.credits[2] = {{"d", "role"}};
  album.lineup = {{"e", "f", "g"}};

  // A cut of valid bytes decodes only when it falls between two entries.
  std::set<size_t> boundaries = {0};
  PropertySet prefix;
  for (const auto& [id, value] : properties.values()) {
    prefix.Set(id, value);
    boundaries.insert(EncodeProperties(prefix).size());
  }
  for (size_t size = 0; size < encoded.size(); ++size) {
    PropertySet out;
    EXPECT_EQ(DecodeProperties(encoded.substr(0, size), &out), boundaries.count(size) == 1) << size;
  }
  const std::string track_bytes = EncodeTracks(tracks);
  const size_t first_track = EncodeTracks({tracks[0]}).size();
  for (size_t size = 0; size < track_bytes.size(); ++size) {
    std::vector<TrackRecord> out;
    EXPECT_EQ(DecodeTracks(track_bytes.substr(0, size), &out), size == 0 || size == first_track)
        << size;
  }
  // A whole album, which holds all of the above, round-trips; every shorter
  // prefix is refused.
  album.various_artists = true;
  album.properties = properties;
  VolumeRecord volume;
  volume.record_id = 0xABCDEF01;
  volume.title = "Disc";
  volume.tracks = tracks;
  album.volumes = {volume, volume};
  const std::string album_bytes = EncodeAlbum(album);
  AlbumRecord album_back;
  ASSERT_TRUE(DecodeAlbum(album_bytes, &album_back));
  EXPECT_EQ(album_back, album);
  for (size_t size = 0; size < album_bytes.size(); ++size) {
    AlbumRecord out;
    EXPECT_FALSE(DecodeAlbum(album_bytes.substr(0, size), &out)) << size;
  }

  const struct {
    const char* what;
    std::string bytes;
  } hostile[] = {
      {"text length beyond the end", std::string("\x01\x00\x00\x00\x01\xFF\xFF\xFF\xFF", 9)},
      {"unknown kind", std::string("\x01\x00\x00\x00\x07\x00\x00\x00\x00", 9)},
      {"lone byte", std::string("\x01", 1)},
  };
  for (const auto& h : hostile) {
    PropertySet out;
    EXPECT_FALSE(DecodeProperties(h.bytes, &out)) << h.what;
  }
  AlbumRecord out;
  EXPECT_FALSE(
      DecodeNames(std::string("\x09\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00", 13), &out));
  EXPECT_FALSE(DecodeNames(std::string("\x00\xFF\xFF\xFF\x7F", 5), &out));
}

}  // namespace
}  // namespace dischive::catalog
