// The library folder list kept in a real catalogue file, the folder key both
// the list and the scan use, and the album-artist rule.
#include "dischive/library.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "dischive/sqlite_catalog.h"
#include "scan/folder_scan_internal.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;

TEST(LibraryTest, FolderKeys) {
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  const std::string here = cwd;
  const struct {
    const char* folder;
    std::string key;
  } cases[] = {
      {"/music/", "/music"},
      {"/music//a/./b/../c", "/music/a/c"},
      {"/", "/"},
      {"//", "/"},
      {"rel/x/", here + "/rel/x"},
      {".", here},
      {"/m\xE9/Ab", "/m\xE9/Ab"},  // names are kept as they are, case and bytes
  };
  for (const auto& c : cases)
    EXPECT_EQ(FolderKey(c.folder), c.key) << c.folder;
}

TEST(LibraryTest, AddAndRemoveFoldersByKey) {
  test::TempDir dir;
  HResult error = kOk;
  auto catalog = OpenSqliteCatalog(dir / "lib.dab", CatalogOpenMode::kCreate, &error);
  ASSERT_NE(catalog, nullptr) << error;
  bool changed = false;
  ASSERT_EQ(AddLibraryFolder(*catalog, "/music/jazz/", &changed), kOk);
  EXPECT_TRUE(changed);
  ASSERT_EQ(AddLibraryFolder(*catalog, "/music/./jazz", &changed), kOk);
  EXPECT_FALSE(changed) << "the same folder spelled another way";
  ASSERT_EQ(AddLibraryFolder(*catalog, "/music/rock", &changed), kOk);
  EXPECT_EQ(LoadLibraryFolders(*catalog),
            (std::vector<LibraryFolder>{{"/music/jazz", 0}, {"/music/rock", 0}}));

  // A folder stored by an older program in another spelling is removed by it.
  ASSERT_EQ(SaveLibraryFolders(*catalog, {{"/music/jazz", 0}, {"/old//path/", 3}}), kOk);
  ASSERT_EQ(RemoveLibraryFolder(*catalog, "/old//path/", &changed), kOk);
  EXPECT_TRUE(changed);
  ASSERT_EQ(RemoveLibraryFolder(*catalog, "/music/pop", &changed), kOk);
  EXPECT_FALSE(changed);
  ASSERT_EQ(RemoveLibraryFolder(*catalog, "/music/jazz/", &changed), kOk);
  EXPECT_TRUE(changed);
  EXPECT_TRUE(LoadLibraryFolders(*catalog).empty());
}

TEST(LibraryTest, AlbumArtistAndCompilation) {
  const struct {
    std::vector<std::string> tracks;
    const char* path;
    const char* artist;
    bool compilation;
  } cases[] = {
      {{"A", "A"}, "P", "A", false},
      {{"", "A", ""}, "P", "A", false},
      {{"", ""}, "P", "P", false},
      {{"", ""}, "", "", false},
      {{"A", "B"}, "P", "A", true},
      {{"A", "a"}, "P", "A", true},  // track artists compare as they are spelled
      {{"A", "A"}, "Various Artists", "", true},
      {{}, "various", "", true},
  };
  for (const auto& c : cases) {
    const detail::AlbumArtist got = detail::InferAlbumArtist(c.tracks, c.path);
    EXPECT_EQ(got.artist, c.artist) << c.path;
    EXPECT_EQ(got.compilation, c.compilation) << c.path;
  }
}

}  // namespace
}  // namespace dischive
