// Folder enumeration, record ids, library settings helpers and the inference
// from paths and names.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "dischive/folder_scan.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;
using test::TempDir;
using test::WriteFile;

std::vector<std::string> Names(const FolderListing& listing) {
  std::vector<std::string> names;
  for (const FolderFile& f : listing.files)
    names.push_back(f.name);
  return names;
}

TEST(FolderEnumerationTest, MatchesExtensionsWithoutCaseAndSkipsHiddenEntries) {
  TempDir dir;
  const std::pair<const char*, size_t> files[] = {
      {"b.MP3", 100},        {"a.mp3", 200},      {"c.Flac", 300},
      {".hidden.mp3", 1000}, {".flac", 1000},     {"folder.mp3/inside.mp3", 1000},
      {"x.mp3x", 1000},      {"mp3", 1000},       {"cover.JPG", 40},
      {"notes.txt", 7},      {".notes.txt", 1000}};
  for (const auto& [name, size] : files)
    WriteFile(dir / name, std::string(size, 'x'));

  std::vector<std::string> lines;
  ScanLog log([&lines](std::string_view line) { lines.emplace_back(line); });
  FolderListing listing;
  ASSERT_TRUE(EnumerateFolder(dir.path(), {"mp3", "ogg", "flac", "MP3"}, listing, &log));
  EXPECT_EQ(Names(listing), (std::vector<std::string>{"a.mp3", "b.MP3", "c.Flac"}));
  EXPECT_EQ(listing.byte_total, 100u + 200 + 300 + 40 + 7);
  EXPECT_EQ(listing.files[0].size, 200u);
  const std::string base = dir.path().string();
  EXPECT_EQ(lines, (std::vector<std::string>{base + "/*.mp3", base + "/*.ogg",
                                             "FindFirstFile returned INVALID_HANDLE_VALUE",
                                             "GetLastError = 00000002", base + "/*.flac"}));
}

TEST(FolderEnumerationTest, EmptyHiddenAndMissingFolders) {
  TempDir dir;
  WriteFile(dir / "hidden" / ".a.mp3", "x");
  WriteFile(dir / "hidden" / ".b.flac", "x");
  fs::create_directories(dir / "empty");
  std::vector<std::pair<fs::path, uint32_t>> reported;
  const FolderErrorCallback report = [&](const fs::path& folder, uint32_t error) {
    reported.emplace_back(folder, error);
  };
  FolderListing listing;
  EXPECT_FALSE(EnumerateFolder(dir / "hidden", {"mp3", "flac"}, listing, nullptr, report));
  EXPECT_TRUE(listing.files.empty());
  EXPECT_FALSE(EnumerateFolder(dir / "empty", {"mp3"}, listing, nullptr, report));
  EXPECT_TRUE(reported.empty()) << "\"not found\" alone is never reported";

  std::vector<std::string> lines;
  ScanLog log([&lines](std::string_view line) { lines.emplace_back(line); });
  EXPECT_FALSE(EnumerateFolder(dir / "missing", {"mp3"}, listing, &log, report));
  ASSERT_EQ(reported.size(), 1u);
  EXPECT_EQ(reported[0].first, dir / "missing");
  EXPECT_EQ(reported[0].second, 3u);  // path not found
  EXPECT_EQ(lines.back(), "GetLastError = 00000003");

  WriteFile(dir / "plain", "x");
  EXPECT_FALSE(EnumerateFolder(dir / "plain", {"mp3"}, listing, nullptr, report));
  ASSERT_EQ(reported.size(), 2u);
  EXPECT_EQ(reported[1].second, 3u);  // not a folder
}

TEST(FolderEnumerationTest, StampNoticesSizeTimeAndSideFiles) {
  TempDir dir;
  WriteFile(dir / "a.mp3", "aaaa");
  WriteFile(dir / "b.mp3", "bbbb");
  auto stamp = [&] {
    FolderListing listing;
    EnumerateFolder(dir.path(), {"mp3"}, listing);
    return listing.stamp;
  };
  const uint32_t first = stamp();
  EXPECT_EQ(stamp(), first);

  const auto time = fs::last_write_time(dir / "a.mp3");
  fs::last_write_time(dir / "a.mp3", time + std::chrono::seconds(1));
  const uint32_t touched = stamp();
  EXPECT_NE(touched, first);
  fs::last_write_time(dir / "a.mp3", time + std::chrono::nanoseconds(1500));
  EXPECT_NE(stamp(), touched) << "a change below one second counts too";
  fs::last_write_time(dir / "a.mp3", time);
  EXPECT_EQ(stamp(), first);

  WriteFile(dir / "b.mp3", "bbbbb");
  fs::last_write_time(dir / "b.mp3", fs::last_write_time(dir / "a.mp3"));
  const uint32_t resized = stamp();
  EXPECT_NE(resized, first);
  WriteFile(dir / "folder.jpg", "jpeg");
  EXPECT_NE(stamp(), resized);
}

TEST(FolderEnumerationTest, LinksAndSubfolders) {
  TempDir dir;
  WriteFile(dir / "store" / "real.mp3", "12345");
  WriteFile(dir / "lib" / "b" / "x.mp3", "x");
  WriteFile(dir / "lib" / "A" / "y.mp3", "y");
  WriteFile(dir / "lib" / ".hidden" / "z.mp3", "z");
  fs::create_directories(dir / "lib" / "a" / "inner");
  fs::create_symlink(dir / "store" / "real.mp3", dir / "lib" / "b" / "linked.mp3");
  fs::create_symlink(dir / "nowhere.mp3", dir / "lib" / "b" / "broken.mp3");
  fs::create_directory_symlink(dir / "store", dir / "lib" / "store-link");
  fs::create_directory_symlink(dir / "lib", dir / "lib" / "a" / "loop");

  FolderListing listing;
  ASSERT_TRUE(EnumerateFolder(dir / "lib" / "b", {"mp3"}, listing));
  EXPECT_EQ(Names(listing), (std::vector<std::string>{"linked.mp3", "x.mp3"}));
  EXPECT_EQ(listing.byte_total, 6u) << "a linked file counts with its target's size";

  EXPECT_EQ(CollectFolders(dir / "lib"),
            (std::vector<fs::path>{dir / "lib", dir / "lib" / "A", dir / "lib" / "a",
                                   dir / "lib" / "a" / "inner", dir / "lib" / "b"}))
      << "hidden folders and links to folders are left out";
}

TEST(FolderEnumerationTest, RecordIdFormula) {
  const std::tuple<std::vector<uint64_t>, uint64_t, uint32_t> cases[] = {
      // offsets 100, 300, 600: checksum 1000, 1000 % 255 = 0xEB; total 650.
      {{100, 200, 300}, 50, 0xEB028A68},
      // A running offset beyond 32 bits adds its high half; the total loses
      // the bits shifted beyond 32 and overlaps the checksum byte.
      {{0x123456789}, 0x10, 0x5F679966},
      // At most 99 files count: the low byte stops at 0xC8.
      {std::vector<uint64_t>(150, 0), 0, 0x000000C8},
  };
  for (const auto& [sizes, side_bytes, id] : cases) {
    FolderListing listing;
    listing.byte_total = side_bytes;
    for (uint64_t size : sizes) {
      listing.files.emplace_back().size = size;
      listing.byte_total += size;
    }
    EXPECT_EQ(FolderRecordId(listing), id) << sizes.size() << " files";
    EXPECT_GE(FolderRecordId(listing) & 0xFF, 0x66u);
  }
}

TEST(LibrarySettingsTest, ExtensionListsAndCheckBoxes) {
  EXPECT_EQ(SplitExtensionList(" mp3; wma,ogg\tflac..aac/"),
            (std::vector<std::string>{"mp3", "wma", "ogg", "flac", "aac"}));
  EXPECT_EQ(SplitExtensionList(kDefaultMediaExtensions).size(), 11u);
  EXPECT_TRUE(SplitExtensionList(" ;; ").empty());
  MemorySettingsStore settings;
  EXPECT_EQ(MediaFileExtensions(settings).front(), "mp3");
  settings.SetString("Settings", "MediaFileExtensions", "FLAC ogg");
  EXPECT_EQ(MediaFileExtensions(settings), (std::vector<std::string>{"FLAC", "ogg"}));

  bool boxes[9];
  CheckBoxesFromScanFlags(scan_flags::kDefault, boxes);  // 0x99
  EXPECT_EQ(std::vector<bool>(boxes, boxes + 9),
            (std::vector<bool>{true, true, true, true, false, false, false, true, true}));
  EXPECT_EQ(ScanFlagsFromCheckBoxes(boxes), scan_flags::kDefault);
  const bool none[9] = {};
  EXPECT_EQ(ScanFlagsFromCheckBoxes(none), 0x300u) << "boxes 7 and 8 are inverted";
  const bool all[9] = {true, true, true, true, true, true, true, true, true};
  EXPECT_EQ(ScanFlagsFromCheckBoxes(all, 0xC0000300), 0xC00000FDu);
}

TEST(AlbumInferenceTest, ArtistAndTitleFromThePath) {
  // folder, root, underscores to blanks, artist, title
  const std::tuple<const char*, const char*, bool, const char*, const char*> cases[] = {
      {"/music/Miles Davis/Kind of Blue", "/music", false, "Miles Davis", "Kind of Blue"},
      {"/music/Miles Davis/Kind of Blue/", "/music/", false, "Miles Davis", "Kind of Blue"},
      {"/music/Kind of Blue", "/music", false, "", "Kind of Blue"},
      {"/music/Kind of Blue", "/music/Kind of Blue", false, "music", "Kind of Blue"},
      {"/music/Miles Davis - Kind of Blue", "/music", false, "Miles Davis", "Kind of Blue"},
      {"/music/x/Sonny_Rollins_-_Saxophone_Colossus", "/music", true, "Sonny Rollins",
       "Saxophone Colossus"},
      {"/music/Sonny_Rollins/Way_Out_West", "/music", false, "Sonny_Rollins", "Way_Out_West"},
      // An artist part beyond 30 characters is a title with a dash in it.
      {"/music/The Complete Columbia Recordings Box - Disc 1", "/music", false, "",
       "The Complete Columbia Recordings Box - Disc 1"},
      {"/music/My Downloaded Music From Many Years/Album", "/music", false, "", "Album"},
      {"/music/Thirty Characters Exactly Here/Album", "/music", false,
       "Thirty Characters Exactly Here", "Album"},
      {"/music/ - Title Only", "/music", false, "", "- Title Only"},
      {"/music/Bj\xF6rk/D\xE9\x62ut", "/music", false, "Bj\xC3\xB6rk", "D\xC3\xA9\x62ut"},
  };
  for (const auto& [folder, root, underscores, artist, title] : cases) {
    const PathInference got = InferFromPath(folder, root, 30, underscores);
    EXPECT_EQ(got.artist, artist) << folder;
    EXPECT_EQ(got.title, title) << folder;
  }
}

TEST(AlbumInferenceTest, TrackNumbersFromTitles) {
  const std::pair<const char*, int32_t> cases[] = {
      {"Track 1", 1},   {"track2", 2},    {"TRACK 03", 3},  {"Track 1a", -1}, {"Track", -1},
      {"Track  1", -1}, {"Tracks 1", -1}, {"Track -1", -1}, {"Track 12", 12}, {"Track 1234567", -1},
  };
  for (const auto& [title, number] : cases) {
    EXPECT_EQ(TrackNumberFromTitle(title).value_or(-1), number) << title;
  }
}

}  // namespace
}  // namespace dischive
