#include "catalog/album_merge.h"

#include <gtest/gtest.h>

namespace dischive::catalog {
namespace {

TrackRecord Track(uint32_t number, const std::string& title, uint32_t frames = 100) {
  TrackRecord t;
  t.number = number;
  t.frames = frames;
  t.properties.Set(field::kTrackTitle, title);
  return t;
}

VolumeRecord Volume(uint32_t id, std::vector<TrackRecord> tracks) {
  VolumeRecord v;
  v.record_id = id;
  v.tracks = std::move(tracks);
  return v;
}

TEST(AlbumMergeTest, ProblemsNamed) {
  struct Case {
    const char* name;
    std::vector<VolumeRecord> volumes;
    std::optional<std::string> problem;
  };
  const Case cases[] = {
      {"fine", {Volume(1, {Track(1, "a"), Track(2, "b")}), Volume(2, {Track(1, "c")})}, {}},
      {"no volumes", {}, {}},
      {"volume twice",
       {Volume(0xAB, {}), Volume(0xAB, {})},
       "volume 000000AB appears twice in the album"},
      {"track zero", {Volume(0x10, {Track(0, "a")})}, "volume 00000010: track numbers start at 1"},
      {"track twice",
       {Volume(0x10, {Track(3, "a"), Track(3, "b")})},
       "volume 00000010: track 3 appears twice"},
      {"same number on two volumes", {Volume(1, {Track(1, "a")}), Volume(2, {Track(1, "a")})}, {}},
  };
  for (const Case& c : cases) {
    AlbumRecord album;
    album.volumes = c.volumes;
    EXPECT_EQ(AlbumProblem(album), c.problem) << c.name;
  }
}

TEST(AlbumMergeTest, MergeSetsWhatIsGivenAndKeepsTheRest) {
  AlbumRecord stored;
  stored.properties.Set(field::kTitle, "Old");
  stored.properties.Set(field::kRating, 5);
  stored.artists = {"Stored Artist"};
  stored.composers = {"Stored Composer"};
  stored.lineup = {{"Drummer", "drums", ""}};
  VolumeRecord v = Volume(7, {Track(1, "one", 50), Track(2, "two", 60)});
  v.title = "Disc";
  v.created = 10;
  v.played = 20;
  v.frames = 110;
  stored.volumes = {v, Volume(8, {Track(1, "other")})};

  AlbumRecord given;
  given.properties.Set(field::kTitle, "New");
  given.composers = {};          // an empty list leaves the stored one
  given.various_artists = true;  // a flag alone replaces the list
  VolumeRecord gv = Volume(7, {Track(2, "TWO", 0), Track(5, "five", 70)});
  gv.created = 0;  // zero values leave the stored ones
  gv.played = 30;
  given.volumes = {gv, Volume(9, {Track(1, "new volume")})};

  MergeAlbum(stored, given);
  EXPECT_EQ(stored.properties.Text(field::kTitle), "New");
  EXPECT_TRUE(stored.properties.Has(field::kRating));
  EXPECT_TRUE(stored.artists.empty());
  EXPECT_TRUE(stored.various_artists);
  EXPECT_EQ(stored.composers, std::vector<std::string>{"Stored Composer"});
  EXPECT_EQ(stored.lineup.size(), 1u);
  ASSERT_EQ(stored.volumes.size(), 3u);
  const VolumeRecord& merged = stored.volumes[0];
  EXPECT_EQ(merged.title, "Disc");
  EXPECT_EQ(merged.created, 10u);
  EXPECT_EQ(merged.played, 30u);
  EXPECT_EQ(merged.frames, 110u);
  ASSERT_EQ(merged.tracks.size(), 3u);
  EXPECT_EQ(merged.tracks[1].properties.Text(field::kTrackTitle), "TWO");
  EXPECT_EQ(merged.tracks[1].frames, 60u);
  EXPECT_EQ(merged.tracks[2].number, 5u);
  EXPECT_EQ(stored.volumes[1].tracks[0].properties.Text(field::kTrackTitle), "other");
  EXPECT_EQ(stored.volumes[2].record_id, 9u);
}

// A stored album with the folder's volume 1 (rated, with a rating on track 1, an
// artist on track 2 that the files have since lost) and a volume entered by
// hand; the rescan finds tracks 1 and 3.
struct Rescan {
  AlbumRecord stored;
  AlbumRecord scanned;
  VolumeRecord volume;

  Rescan() {
    stored.id = "00000000000000AA";
    stored.properties.Set(field::kTitle, "Old title");
    stored.properties.Set(field::kRating, 4);
    stored.properties.Set(field::kGenre, "Jazz");
    stored.artists = {"Old"};
    VolumeRecord folder = Volume(1, {Track(1, "one"), Track(2, "two")});
    folder.created = 111;
    folder.played = 222;
    folder.properties.Set(field::kLive, 1);
    folder.tracks[0].properties.Set(field::kTrackRating, 3);
    folder.tracks[0].properties.Set(field::kLyrics, "old lyrics");
    folder.tracks[1].properties.Set(field::kArtist, "Guest");
    stored.volumes = {folder, Volume(2, {Track(1, "by hand")})};

    scanned.properties.Set(field::kTitle, "New title");
    scanned.artists = {"New"};
    volume = Volume(1, {Track(1, "ONE"), Track(3, "three")});
    volume.created = 999;
    volume.frames = 200;
  }
};

TEST(AlbumMergeTest, RescanWithoutStoredAlbumWritesTheScan) {
  Rescan r;
  const AlbumRecord record = RescanAlbum(std::nullopt, r.scanned, r.volume, RescanMode::kUpdate);
  EXPECT_TRUE(record.id.empty());
  ASSERT_EQ(record.volumes.size(), 1u);
  EXPECT_EQ(record.volumes[0], r.volume);
  EXPECT_EQ(record.properties.Text(field::kTitle), "New title");
}

TEST(AlbumMergeTest, RescanReplaceAndUpdate) {
  struct Case {
    RescanMode mode;
    bool rating_kept;
    bool genre_kept;     // the files no longer give one
    bool live_kept;      // a volume field the scan does not make
    bool rating_1_kept;  // entered by hand on track 1
    bool lyrics_1_kept;  // the files no longer carry them
    uint32_t created;
  };
  const Case cases[] = {
      {RescanMode::kReplace, false, false, false, false, false, 111},
      {RescanMode::kUpdate, true, false, true, true, false, 111},
  };
  for (const Case& c : cases) {
    Rescan r;
    const AlbumRecord record = RescanAlbum(r.stored, r.scanned, r.volume, c.mode);
    const int mode = static_cast<int>(c.mode);
    EXPECT_EQ(record.id, r.stored.id) << mode;
    EXPECT_EQ(record.properties.Text(field::kTitle), "New title") << mode;
    EXPECT_EQ(record.properties.Has(field::kRating), c.rating_kept) << mode;
    EXPECT_EQ(record.properties.Has(field::kGenre), c.genre_kept) << mode;
    EXPECT_EQ(record.artists, std::vector<std::string>{"New"}) << mode;
    ASSERT_EQ(record.volumes.size(), 2u) << mode;
    const VolumeRecord& folder = record.volumes[0];
    EXPECT_EQ(folder.created, c.created) << mode;
    EXPECT_EQ(folder.played, 222u) << mode;
    EXPECT_EQ(folder.frames, 200u) << mode;
    EXPECT_EQ(folder.properties.Has(field::kLive), c.live_kept) << mode;
    // Track 2's file is gone; track 3 is new.
    ASSERT_EQ(folder.tracks.size(), 2u) << mode;
    EXPECT_EQ(folder.tracks[0].properties.Text(field::kTrackTitle), "ONE") << mode;
    EXPECT_EQ(folder.tracks[0].properties.Has(field::kTrackRating), c.rating_1_kept) << mode;
    EXPECT_EQ(folder.tracks[0].properties.Has(field::kLyrics), c.lyrics_1_kept) << mode;
    EXPECT_EQ(folder.tracks[1].number, 3u) << mode;
    EXPECT_EQ(record.volumes[1], r.stored.volumes[1]) << mode;
  }
}

TEST(AlbumMergeTest, RescanAddsTheFolderVolumeToAnAlbumWithoutIt) {
  for (RescanMode mode : {RescanMode::kReplace, RescanMode::kUpdate}) {
    Rescan r;
    r.volume.record_id = 5;
    const AlbumRecord record = RescanAlbum(r.stored, r.scanned, r.volume, mode);
    ASSERT_EQ(record.volumes.size(), 3u);
    EXPECT_EQ(record.volumes[2], r.volume);
  }
}

}  // namespace
}  // namespace dischive::catalog
