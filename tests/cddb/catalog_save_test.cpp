#include <gtest/gtest.h>

#include "dischive/cddb.h"
#include "dischive/sqlite_catalog.h"
#include "support/lookup_harness.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

TEST(CatalogSaveTest, WritesLookedUpDiscAndMergesOnSecondSave) {
  TempDir dir;
  DiscToc toc = MakeToc(0x0a0b0c03, 3);  // 150, 15150, 30150; 602 s
  DiscMetadata m;
  const XmcdKeywordMap entry = {{"DTITLE", "Various / Hits"},
                                {"TTITLE0", "Singer / Song"},
                                {"TTITLE1", "Two"},
                                {"TTITLE2", "Three"},
                                {"DYEAR", "1999"},
                                {"DGENRE", "Pop"},
                                {"Revision", "4"}};
  ApplyXmcdToMetadata(m, entry, "rock", 3);
  std::string first_id;
  {
    auto catalog = OpenSqliteCatalog(dir / "c.dab", CatalogOpenMode::kCreate);
    ASSERT_TRUE(catalog);
    ASSERT_EQ(SaveDiscToCatalog(*catalog, toc, m, &first_id), kOk);
    ASSERT_EQ(first_id.size(), 16u);
  }
  auto catalog = OpenSqliteCatalog(dir / "c.dab", CatalogOpenMode::kReadWrite);
  ASSERT_TRUE(catalog);
  const auto album = catalog->ReadAlbum(first_id);
  ASSERT_TRUE(album);
  EXPECT_TRUE(album->various_artists);
  EXPECT_EQ(album->properties.Text(field::kTitle), "Hits");
  EXPECT_EQ(album->properties.Text(field::kGenre), "Pop");
  EXPECT_EQ(album->properties.Int(field::kReleaseDate), 99 << 24);
  ASSERT_EQ(album->volumes.size(), 1u);
  const VolumeRecord& v = album->volumes[0];
  EXPECT_EQ(v.record_id, 0x0a0b0c03u);
  EXPECT_EQ(v.frames, 602u * 75 - 150);
  EXPECT_EQ(v.properties.Int(field::kRevision), 4);
  ASSERT_EQ(v.tracks.size(), 3u);
  EXPECT_EQ(v.tracks[0].frames, 15000u);
  EXPECT_EQ(v.tracks[2].frames, 602u * 75 - 30150);
  EXPECT_EQ(v.tracks[0].properties.Text(field::kArtist), "Singer");
  EXPECT_EQ(v.tracks[1].properties.Text(field::kTrackTitle), "Two");

  // The user's own field survives a second lookup of the same disc.
  ASSERT_EQ(catalog->SetVolumeProperty(0x0a0b0c03, field::kLocation, 0, std::string("Shelf")), kOk);
  std::string second_id;
  ASSERT_EQ(SaveDiscToCatalog(*catalog, toc, m, &second_id), kOk);
  EXPECT_EQ(second_id, first_id);
  EXPECT_EQ(catalog->AlbumCount(), 1u);
  EXPECT_EQ(catalog->GetVolumeProperty(0x0a0b0c03, field::kLocation, 0),
            PropertyValue(std::string("Shelf")));
}

}  // namespace
}  // namespace dischive::test
