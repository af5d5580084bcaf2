// Folder enumeration, record ids, library settings and the inference from paths
// and names; the folder scan on real folders of real MP3 files (an encoder's
// stream with ID3v2 tags put in front) into a real catalogue file.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "dischive/folder_scan.h"
#include "dischive/sqlite_catalog.h"
#include "scan/bytes.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

namespace fs = std::filesystem;
using test::TempDir;
using test::WriteFile;
using enum FolderOutcome;

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
  using Reports = std::vector<std::pair<fs::path, uint32_t>>;
  Reports reported;
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
  EXPECT_EQ(reported, (Reports{{dir / "missing", 3}}));  // path not found
  EXPECT_EQ(lines.back(), "GetLastError = 00000003");

  WriteFile(dir / "plain", "x");
  EXPECT_FALSE(EnumerateFolder(dir / "plain", {"mp3"}, listing, nullptr, report));
  EXPECT_EQ(reported, (Reports{{dir / "missing", 3}, {dir / "plain", 3}}));  // not a folder
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

const std::string& ToneMp3() {
  static const std::string bytes =
      test::ReadFile(fs::path(DISCHIVE_TEST_DATA_DIR) / "scan" / "tone.mp3");
  return bytes;
}

struct Tags {
  std::string title, artist, album, comment;
};

// An MP3 file: an ID3v2.3 tag with Latin-1 frames, then the encoder's stream.
std::string Mp3(const Tags& t) {
  const std::string comment = t.comment.empty() ? "" : std::string("eng\0", 4) + t.comment;
  const std::pair<const char*, std::string> frames[] = {
      {"TIT2", t.title}, {"TPE1", t.artist}, {"TALB", t.album}, {"COMM", comment}};
  std::string body;
  for (const auto& [id, value] : frames) {
    if (!value.empty()) body += id + test::Be32(value.size() + 1) + std::string(3, '\0') + value;
  }
  return std::string("ID3\x03\0\0", 6) + test::Syncsafe(body.size()) + body + ToneMp3();
}

using TrackList = std::vector<std::pair<uint32_t, std::string>>;

class FolderScanTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(ToneMp3().empty()) << "tests/data/scan/tone.mp3 missing";
    HResult error = kOk;
    std::string message;
    catalog_ =
        OpenSqliteCatalog(dir_ / "db" / "catalog.dab", CatalogOpenMode::kCreate, &error, &message);
    ASSERT_NE(catalog_, nullptr) << message;
    options_.log = &log_;
  }

  FolderScanResult Scan(const fs::path& folder) {
    lines_.clear();
    FolderScanner scanner(*catalog_, options_);
    return scanner.ScanFolder(folder, dir_.path());
  }

  // The scanned volume's tracks: number and title.
  TrackList Tracks(uint32_t record_id) {
    TrackList out;
    for (const TrackRecord& t : catalog_->ReadVolume(record_id).value_or(VolumeRecord{}).tracks)
      out.emplace_back(t.number, t.properties.Text(field::kTrackTitle));
    return out;
  }

  TempDir dir_;
  std::unique_ptr<CatalogEngine> catalog_;
  std::vector<std::string> lines_;
  ScanLog log_{[this](std::string_view line) { lines_.emplace_back(line); }};
  FolderScanOptions options_;
};

bool HasLine(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

TEST_F(FolderScanTest, ExclusionAndAttachment) {
  const fs::path folder = dir_ / "Artist" / "Album";
  WriteFile(folder / "01.mp3", Mp3({"One", "Artist", "Album", ""}));
  WriteFile(folder / "02.mp3", Mp3({"Two", "Artist", "Album", ""}));

  const char* const attached = "Folder skipped due to attached record";
  // ini, section, forced, outcome, result, line
  const std::tuple<const char*, const char*, bool, FolderOutcome, int, const char*> cases[] = {
      {"[ScanOptions]\nExclude=1\n", "", false, kExcluded, 0, "Folder excluded"},
      {"[Mine]\nExclude=1\n", "Mine", false, kExcluded, 0, "Folder excluded"},
      {"[ScanOptions]\nExclude=1\n", "Mine", false, kExcluded, 0, "Folder excluded"},
      {"[Mine]\nExclude=1\n", "", false, kAdded, 1, "Folder finished"},
      {"[ScanOptions]\nExclude=0\nID=12345665\n", "", false, kAttached, 1, attached},
      {"[ScanOptions]\nExclude=1\nID=00000001\n", "", true, kAttached, 1, attached},
      {"[ScanOptions]\nID=12345666\n", "", false, kAdded, 1, "Folder finished"},
      {"[ScanOptions]\nID=12345666\n", "", false, kUnchanged, 1,
       "Folder skipped due to existing record"},
  };
  for (const auto& [ini, section, forced, outcome, result, line] : cases) {
    WriteFile(folder / "dischive.ini", ini);
    options_.section = section;
    options_.forced = forced;
    const FolderScanResult r = Scan(folder);
    EXPECT_EQ(r.outcome, outcome) << ini << " section " << section;
    EXPECT_EQ(r.result, result) << ini;
    EXPECT_TRUE(HasLine(lines_, line)) << ini;
    EXPECT_TRUE(HasLine(lines_, "Processing folder with 2 files"));
    if (outcome == kAdded && std::string(ini).find("ID=") == std::string::npos) {
      ASSERT_TRUE(catalog_->DeleteAlbum(r.album_id) == kOk);
    }
  }
  // The attached id is the record's id.
  EXPECT_TRUE(catalog_->FindAlbumOfVolume(0x12345666));
  EXPECT_FALSE(catalog_->FindAlbumOfVolume(0x12345665));
  EXPECT_EQ(catalog_->AlbumCount(), 1u);
}

TEST_F(FolderScanTest, UnchangedFolderSkippedAndChangedOneRescanned) {
  const fs::path folder = dir_ / "Artist" / "Album";
  WriteFile(folder / "01.mp3", Mp3({"One", "Artist", "Album", ""}));
  WriteFile(folder / "02.mp3", Mp3({"Two", "Artist", "Album", ""}));

  const FolderScanResult first = Scan(folder);
  ASSERT_EQ(first.outcome, kAdded) << first.message;
  EXPECT_EQ(lines_.back(), "Folder finished");
  FolderListing listing;
  EnumerateFolder(folder, options_.extensions, listing);
  EXPECT_EQ(first.record_id, FolderRecordId(listing));
  // A new volume gets its creation time; rescans keep the stored one.
  AlbumRecord stored = catalog_->ReadAlbum(first.album_id).value_or(AlbumRecord{});
  ASSERT_EQ(stored.volumes.size(), 1u);
  EXPECT_GT(stored.volumes[0].created, 0u);
  stored.volumes[0].created = 12345;
  ASSERT_EQ(catalog_->WriteAlbum(stored, WriteMode::kReplace), kOk);

  EXPECT_EQ(Scan(folder).outcome, kUnchanged);
  EXPECT_EQ(lines_.back(), "Folder skipped due to existing record");

  // A new modification time alone makes the folder scanned again, into the
  // same album and record.
  fs::last_write_time(folder / "02.mp3",
                      fs::last_write_time(folder / "02.mp3") + std::chrono::seconds(5));
  FolderScanResult r = Scan(folder);
  EXPECT_EQ(r.outcome, kUpdated);
  EXPECT_EQ(r.album_id, first.album_id);
  EXPECT_EQ(Scan(folder).outcome, kUnchanged);

  // A file more changes the size and the computed id; the album is updated.
  WriteFile(folder / "03.mp3", Mp3({"Three", "Artist", "Album", ""}));
  r = Scan(folder);
  EXPECT_EQ(r.outcome, kUpdated);
  EXPECT_EQ(r.album_id, first.album_id);
  EXPECT_EQ(Tracks(r.record_id).size(), 3u);
  EXPECT_EQ(catalog_->AlbumCount(), 1u);

  // Other flags in the compared bits rescan; the never-skip flag always does.
  options_.flags = scan_flags::kDefault | 0x02;
  EXPECT_EQ(Scan(folder).outcome, kUpdated);
  EXPECT_EQ(Scan(folder).outcome, kUnchanged);
  options_.flags |= 0x20000000;  // beyond the compared bits
  EXPECT_EQ(Scan(folder).outcome, kUnchanged);
  options_.flags |= scan_flags::kNeverSkipUnchanged;
  r = Scan(folder);
  EXPECT_EQ(r.outcome, kUpdated);
  EXPECT_EQ(catalog_->ReadVolume(r.record_id).value_or(VolumeRecord{}).created, 12345u);
  // A different extension list changes the third value.
  options_.flags = scan_flags::kDefault | 0x02;
  options_.extensions = {"mp3", "flac"};
  EXPECT_EQ(Scan(folder).outcome, kUpdated);

  // Removing a file drops its track.
  fs::remove(folder / "01.mp3");
  r = Scan(folder);
  EXPECT_EQ(r.outcome, kUpdated);
  EXPECT_EQ(Tracks(r.record_id), (TrackList{{1, "Two"}, {2, "Three"}}));
}

TEST_F(FolderScanTest, TrackNumbersFromNames) {
  const fs::path numbered = dir_ / "Numbered";
  WriteFile(numbered / "Track 1.mp3", Mp3({"", "A", "X", ""}));
  WriteFile(numbered / "track2.mp3", Mp3({"", "A", "X", ""}));
  WriteFile(numbered / "TRACK 03.mp3", Mp3({"", "A", "X", ""}));
  FolderScanResult r = Scan(numbered);
  ASSERT_EQ(r.outcome, kAdded) << r.message;
  EXPECT_EQ(Tracks(r.record_id), (TrackList{{1, "Track 01"}, {2, "Track 02"}, {3, "Track 03"}}));

  const fs::path mixed = dir_ / "Mixed";
  WriteFile(mixed / "Track 1.mp3", Mp3({"", "A", "Y", ""}));
  WriteFile(mixed / "Track 1a.mp3", Mp3({"", "A", "Y", ""}));
  WriteFile(mixed / "Track 3.mp3", Mp3({"", "A", "Y", ""}));
  r = Scan(mixed);
  EXPECT_EQ(Tracks(r.record_id), (TrackList{{1, "Track 1"}, {2, "Track 1a"}, {3, "Track 3"}}));

  // Without the file-name flag untitled tracks are numbered by position.
  options_.flags = scan_flags::kDefault & ~scan_flags::kTitleFromFileName;
  const fs::path plain = dir_ / "Plain";
  WriteFile(plain / "b_song.mp3", Mp3({"", "A", "Z", ""}));
  WriteFile(plain / "a_song.mp3", Mp3({"Named", "A", "Z", ""}));
  r = Scan(plain);
  EXPECT_EQ(Tracks(r.record_id), (TrackList{{1, "Named"}, {2, "Track 02"}}));
  options_.flags = scan_flags::kDefault | scan_flags::kUnderscoreToBlank;
  fs::remove(plain / "a_song.mp3");
  r = Scan(plain);
  EXPECT_EQ(Tracks(r.record_id), (TrackList{{1, "b song"}}));
}

TEST_F(FolderScanTest, ArtistsCompilationsCommentsAndFallbacks) {
  // name, artist, compilation, title, comment, tracks
  const std::tuple<const char*, const char*, bool, const char*, const char*, std::vector<Tags>>
      // clang-format off
      cases[] = {
      {"Same", "The Band", false, "Record", "",
       {{"a", "The Band", "Record", ""}, {"b", "The Band", "Record", ""}}},
      {"Case", "Various Artists", true, "Record", "",
       {{"a", "The Band", "Record", ""}, {"b", "the band", "Record", ""}}},
      {"Partly", "Solo", false, "Record", "",
       {{"a", "", "Record", ""}, {"b", "Solo", "Record", ""}}},
      {"Painter/Untagged", "Painter", false, "Untagged", "",
       {{"a", "", "", ""}, {"b", "Unknown Artist", "New Album", ""}}},
      {"Various Artists/Hits", "Various Artists", true, "Hits", "",
       {{"a", "X", "Hits", ""}, {"b", "X", "Hits", ""}}},
      {"Bare", "Unknown Artist", false, "Bare", "same",
       {{"a", "", "", "same"}, {"b", "", "", "same"}}},
      {"Differing", "Unknown Artist", false, "Differing", "",
       {{"a", "", "", "one"}, {"b", "", "", "two"}}},
  };
  // clang-format on
  for (const auto& [name, artist, compilation, title, comment, tracks] : cases) {
    const fs::path folder = dir_ / name;
    for (size_t i = 0; i < tracks.size(); ++i)
      WriteFile(folder / (std::to_string(i + 1) + ".mp3"), Mp3(tracks[i]));
    const FolderScanResult r = Scan(folder);
    ASSERT_EQ(r.outcome, kAdded) << name << ": " << r.message;
    const AlbumRecord album = catalog_->ReadAlbum(r.album_id).value_or(AlbumRecord{});
    ASSERT_EQ(album.artists.size(), 1u) << name;
    EXPECT_EQ(album.artists[0], artist) << name;
    EXPECT_EQ(album.various_artists, compilation) << name;
    EXPECT_EQ(album.properties.Int(field::kIsCompilation), compilation ? 1 : 0) << name;
    EXPECT_EQ(album.properties.Text(field::kTitle), title) << name;
    EXPECT_EQ(album.properties.Text(field::kComment), comment) << name;
    const auto volume = catalog_->ReadVolume(r.record_id);
    ASSERT_TRUE(volume);
    const bool shared = *comment != '\0';
    for (const TrackRecord& t : volume->tracks)
      EXPECT_EQ(t.properties.Text(field::kComment).empty(), shared || tracks[0].comment.empty())
          << name;
  }
}

TEST_F(FolderScanTest, FoldersWithTheSameSizesKeepTheirOwnRecords) {
  const std::string bytes = Mp3({"Same", "Twin", "Twins", ""});
  WriteFile(dir_ / "P" / "1.mp3", bytes);
  WriteFile(dir_ / "Q" / "1.mp3", bytes);
  const FolderScanResult p = Scan(dir_ / "P");
  const FolderScanResult q = Scan(dir_ / "Q");
  ASSERT_EQ(p.outcome, kAdded) << p.message;
  ASSERT_EQ(q.outcome, kAdded) << q.message;
  EXPECT_EQ(q.record_id & 0x00FFFFFF, p.record_id & 0x00FFFFFF);
  EXPECT_EQ(q.record_id >> 24, ((p.record_id >> 24) + 1) % 255) << "the next checksum byte";
  EXPECT_EQ(Scan(dir_ / "P").outcome, kUnchanged);
  EXPECT_EQ(Scan(dir_ / "Q").outcome, kUnchanged);

  // P's album deleted: P is scanned anew and never takes over Q's record.
  ASSERT_EQ(catalog_->DeleteAlbum(p.album_id), kOk);
  const FolderScanResult again = Scan(dir_ / "P");
  EXPECT_EQ(again.outcome, kAdded);
  EXPECT_NE(again.album_id, q.album_id);
  EXPECT_EQ(catalog_->AlbumCount(), 2u);
}

TEST_F(FolderScanTest, CoverPictureOfTheFolder) {
  const fs::path folder = dir_ / "Covered";
  WriteFile(folder / "1.mp3", Mp3({"a", "A", "Covered", ""}));
  WriteFile(folder / "Cover.JPG", "\xFF\xD8 first picture");
  FolderScanResult r = Scan(folder);
  ASSERT_EQ(r.outcome, kAdded) << r.message;
  EXPECT_EQ(catalog_->ReadCover(r.record_id), "\xFF\xD8 first picture");
  WriteFile(folder / "Cover.JPG", "\xFF\xD8 second picture!");
  r = Scan(folder);
  EXPECT_EQ(r.outcome, kUpdated) << "a changed picture file changes the stamp";
  EXPECT_EQ(catalog_->ReadCover(r.record_id), "\xFF\xD8 second picture!");
}

TEST_F(FolderScanTest, LibraryScanLogsAndDecidesAsFolderScansDo) {
  const fs::path lib = dir_ / "lib";
  WriteFile(lib / "A - One" / "1.mp3", Mp3({"x", "A", "One", ""}));
  WriteFile(lib / "A - One" / "2.mp3", Mp3({"y", "A", "One", ""}));
  WriteFile(lib / "B" / "Two" / "1.mp3", Mp3({"z", "B", "Two", ""}));
  WriteFile(lib / "B" / "Two" / "dischive.ini", "[ScanOptions]\nExclude=1\n");
  WriteFile(lib / "C" / "1.mp3", Mp3({"c", "C", "Three", ""}));
  WriteFile(lib / "C" / "DISCHIVE.INI", "[ScanOptions]\nID=00000a65\n");
  WriteFile(lib / "D" / "1.mp3", Mp3({"d", "D", "Four", ""}));
  WriteFile(lib / "D" / "notes.txt", "n");

  // The same folders scanned one by one into another catalogue log the same
  // lines in the same order.
  std::vector<std::string> expected;
  {
    auto other = OpenSqliteCatalog(dir_ / "other.dab", CatalogOpenMode::kCreate);
    ASSERT_NE(other, nullptr);
    ScanLog log([&expected](std::string_view line) { expected.emplace_back(line); });
    FolderScanOptions options = options_;
    options.log = &log;
    FolderScanner scanner(*other, options);
    for (const fs::path& folder : CollectFolders(lib))
      scanner.ScanFolder(folder, lib);
  }
  FolderScanner scanner(*catalog_, options_);
  lines_.clear();
  LibraryScanSummary s = ScanLibrary(scanner, {lib});
  EXPECT_EQ(lines_, expected);
  EXPECT_EQ(s.added, 2u);

  // A folder reached from two roots is written once: its second visit sees
  // what the first one wrote, although both were judged before either.
  WriteFile(lib / "A - One" / "2.mp3", Mp3({"y2", "A", "One", ""}));
  s = ScanLibrary(scanner, {lib, lib / "A - One"});
  EXPECT_EQ(s.folders, 7u);
  EXPECT_EQ(s.updated, 1u);
  EXPECT_EQ(s.skipped, 3u);  // C attached, D unchanged, A on its second visit
  EXPECT_EQ(s.excluded, 1u);
  EXPECT_EQ(s.added + s.failed, 0u);
}

TEST_F(FolderScanTest, LibraryFoldersFlagsAndLibraryScan) {
  EXPECT_TRUE(LoadLibraryFolders(*catalog_).empty());
  const std::vector<LibraryFolder> three = {{"/a", 1}, {"/b", 2}, {"/c", 0}};
  ASSERT_EQ(SaveLibraryFolders(*catalog_, three), kOk);
  EXPECT_EQ(LoadLibraryFolders(*catalog_), three);
  ASSERT_EQ(SaveLibraryFolders(*catalog_, {{"/b", 2}}), kOk);
  EXPECT_EQ(LoadLibraryFolders(*catalog_), (std::vector<LibraryFolder>{{"/b", 2}}));
  EXPECT_EQ(catalog_->GetDatabaseProperty("medialib", "f0"), "/b");

  MemorySettingsStore settings;
  settings.SetInt("Settings", "FileScanOpts_1", 77);
  EXPECT_EQ(LoadScanFlags(*catalog_, settings), 77u);
  EXPECT_FALSE(settings.Read("Settings", "FileScanOpts_1")) << "moved, not copied";
  settings.SetInt("Settings", "FileScanOpts_1", 5);
  EXPECT_EQ(LoadScanFlags(*catalog_, settings), 77u);
  ASSERT_EQ(SaveScanFlags(*catalog_, 0x80000099u), kOk);
  EXPECT_EQ(LoadScanFlags(*catalog_, settings), 0x80000099u);
  EXPECT_EQ(LoadDefaultCharset(*catalog_), 0);
  ASSERT_EQ(SaveDefaultCharset(*catalog_, 238), kOk);
  EXPECT_EQ(LoadDefaultCharset(*catalog_), 238);

  // A library scan: a failing folder does not stop the others.
  WriteFile(dir_ / "lib" / "A - One" / "1.mp3", Mp3({"x", "A", "One", ""}));
  WriteFile(dir_ / "lib" / "B - Two" / "1.mp3", Mp3({"y", "B", "Two", ""}));
  WriteFile(dir_ / "lib" / "B - Two" / "2.mp3", Mp3({"z", "B", "Two", ""}));
  WriteFile(dir_ / "lib" / "Skip" / "1.mp3", Mp3({"z", "C", "Three", ""}));
  WriteFile(dir_ / "lib" / "Skip" / "dischive.ini", "[ScanOptions]\nExclude=1\n");
  WriteFile(dir_ / "lib" / ".hidden" / "1.mp3", Mp3({"h", "H", "Hidden", ""}));
  FolderScanner scanner(*catalog_, options_);
  LibraryScanSummary s = ScanLibrary(scanner, {dir_ / "lib", dir_ / "missing"});
  EXPECT_EQ(s.folders, 5u);
  EXPECT_EQ(s.files, 4u);
  EXPECT_EQ(s.added, 2u);
  EXPECT_EQ(s.excluded, 1u);
  EXPECT_EQ(s.empty, 2u);
  // The batch of the library scan is committed: another connection sees it.
  auto reader = OpenSqliteCatalog(catalog_->path(), CatalogOpenMode::kReadOnly);
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(reader->AlbumCount(), 2u);
  reader.reset();
  s = ScanLibrary(scanner, {dir_ / "lib"});
  EXPECT_EQ(s.skipped, 2u);
  EXPECT_EQ(s.added + s.updated, 0u);
}

}  // namespace
}  // namespace dischive
