#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <thread>

#include "dischive/sqlite_catalog.h"
#include "support/temp_dir.h"

namespace dischive::test {
namespace {

TrackRecord Track(uint32_t number, uint32_t frames, const std::string& title) {
  TrackRecord t;
  t.number = number;
  t.frames = frames;
  t.properties.Set(field::kTrackTitle, title);
  return t;
}

// An album with every kind of content: texts, integers, dates, negative and
// high-bit values, names, credits, line-up, two volumes with tracks.
AlbumRecord SampleAlbum() {
  AlbumRecord a;
  a.properties.Set(field::kTitle, "Blue Train \xC3\xA9");
  a.properties.Set(field::kYear, "1957");
  a.properties.Set(field::kReleaseDate, static_cast<int32_t>(0x39090F00));
  a.properties.Set(field::kPrice, 1999);
  a.properties.Set(field::kRating, -1);
  a.properties.Set(field::kMciId, static_cast<int32_t>(0xFFFFFFFEu));
  a.properties.Set(field::kComment, "");
  a.artists = {"John Coltrane"};
  a.composers = {"Coltrane", "Mercer"};
  a.various_composers = true;
  a.credits[static_cast<int>(CreditList::kMusicians)] = {{"Lee Morgan", "trumpet"}};
  a.credits[static_cast<int>(CreditList::kArtworkCredits)] = {{"Reid Miles", "design"}};
  a.lineup = {{"Paul Chambers", "bass", "1957"}};
  VolumeRecord v1;
  v1.record_id = 0x8A0B2D05;
  v1.frames = 3200000;
  v1.created = 1000;
  v1.played = 2000;
  v1.properties.Set(field::kLive, 1);
  v1.tracks = {Track(1, 64000, "Blue Train"), Track(2, 50000, "Moment's Notice")};
  v1.tracks[1].properties.Set(field::kBitrate, 320);
  VolumeRecord v2;
  v2.record_id = 0x12345602;
  v2.title = "Bonus";
  v2.tracks = {Track(1, kUnknownFrames, "Lazy Bird")};
  a.volumes = {v1, v2};
  return a;
}

// Creates a catalogue holding `count` albums made by `make`.
void Fill(const std::filesystem::path& path, int count,
          const std::function<AlbumRecord(int)>& make) {
  auto cat = OpenSqliteCatalog(path, CatalogOpenMode::kCreate);
  ASSERT_TRUE(cat);
  for (int i = 0; i < count; ++i) {
    AlbumRecord album = make(i);
    ASSERT_EQ(cat->WriteAlbum(album, WriteMode::kReplace), kOk) << cat->LastErrorText();
  }
}

TEST(SqliteCatalogTest, AlbumRoundTripKeepsEveryKindOfValue) {
  TempDir dir;
  const auto path = dir / "sub" / "Cat.dab";
  AlbumRecord album = SampleAlbum();
  const auto before = static_cast<uint32_t>(std::time(nullptr));
  {
    auto cat = OpenSqliteCatalog(path, CatalogOpenMode::kCreate);
    ASSERT_TRUE(cat);
    ASSERT_EQ(cat->WriteAlbum(album, WriteMode::kReplace), kOk) << cat->LastErrorText();
  }
  EXPECT_EQ(album.id.size(), 16u);
  EXPECT_GE(album.modified, before);

  auto cat = OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly);
  ASSERT_TRUE(cat);
  EXPECT_EQ(cat->AlbumCount(), 1u);
  const std::optional<AlbumRecord> read = cat->ReadAlbum(album.id);
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, album);
  EXPECT_EQ(cat->FindAlbumOfVolume(0x12345602), album.id);
  EXPECT_FALSE(cat->FindAlbumOfVolume(0x99));
  EXPECT_FALSE(cat->ReadAlbum("0000000000000000"));
  const std::optional<VolumeRecord> volume = cat->ReadVolume(0x8A0B2D05);
  ASSERT_TRUE(volume);
  EXPECT_EQ(*volume, album.volumes[0]);
  EXPECT_EQ(cat->GetVolumeProperty(0x8A0B2D05, field::kBitrate, 2), PropertyValue(320));
  EXPECT_EQ(cat->GetVolumeProperty(0x8A0B2D05, field::kTrackTitle, 1), PropertyValue("Blue Train"));
  EXPECT_FALSE(cat->GetVolumeProperty(0x8A0B2D05, field::kBitrate, 1));
  // A reader cannot write.
  EXPECT_EQ(cat->SetVolumeProperty(0x8A0B2D05, field::kLive, 0, 0), kCatalogReadOnly);
  EXPECT_NE(cat->LastErrorText().find("reading only"), std::string::npos);
}

TEST(SqliteCatalogTest, ReplaceAndMergeModes) {
  TempDir dir;
  auto cat = OpenSqliteCatalog(dir / "c.dab", CatalogOpenMode::kCreate);
  ASSERT_TRUE(cat);
  AlbumRecord album = SampleAlbum();
  ASSERT_EQ(cat->WriteAlbum(album, WriteMode::kReplace), kOk);
  ASSERT_EQ(cat->WriteCover(0x8A0B2D05, "JPEGDATA"), kOk);

  // Merge: given fields set, others kept; tracks matched by number, new volume appended.
  AlbumRecord merge;
  merge.id = album.id;
  merge.properties.Set(field::kYear, "1958");
  merge.properties.Set(field::kLabel, "Blue Note");
  VolumeRecord v;
  v.record_id = 0x8A0B2D05;
  v.tracks = {Track(2, 0, "Moment's Notice (take 2)"), Track(3, 40000, "Locomotion")};
  VolumeRecord extra;
  extra.record_id = 0x77;
  merge.volumes = {v, extra};
  ASSERT_EQ(cat->WriteAlbum(merge, WriteMode::kMerge), kOk) << cat->LastErrorText();
  AlbumRecord got = *cat->ReadAlbum(album.id);
  EXPECT_EQ(got.properties.Text(field::kTitle), "Blue Train \xC3\xA9");
  EXPECT_EQ(got.properties.Text(field::kYear), "1958");
  EXPECT_EQ(got.properties.Text(field::kLabel), "Blue Note");
  EXPECT_EQ(got.artists, album.artists);
  EXPECT_TRUE(got.various_composers);
  ASSERT_EQ(got.volumes.size(), 3u);
  EXPECT_EQ(got.volumes[2].record_id, 0x77u);
  const VolumeRecord& v1 = got.volumes[0];
  EXPECT_EQ(v1.frames, 3200000u);
  EXPECT_EQ(v1.properties.Int(field::kLive), 1);
  ASSERT_EQ(v1.tracks.size(), 3u);
  EXPECT_EQ(v1.tracks[1].frames, 50000u);  // 0 frames given: kept
  EXPECT_EQ(v1.tracks[1].properties.Text(field::kTrackTitle), "Moment's Notice (take 2)");
  EXPECT_EQ(v1.tracks[1].properties.Int(field::kBitrate), 320);
  EXPECT_EQ(v1.tracks[2].properties.Text(field::kTrackTitle), "Locomotion");

  // Replace: the album becomes exactly the given one; a kept volume keeps its cover.
  AlbumRecord replace;
  replace.id = album.id;
  replace.properties.Set(field::kTitle, "Blue Train");
  VolumeRecord only;
  only.record_id = 0x8A0B2D05;
  only.tracks = {Track(1, 100, "One")};
  replace.volumes = {only};
  ASSERT_EQ(cat->WriteAlbum(replace, WriteMode::kReplace), kOk);
  got = *cat->ReadAlbum(album.id);
  replace.modified = got.modified;
  EXPECT_EQ(got, replace);
  EXPECT_FALSE(cat->ReadVolume(0x12345602));
  EXPECT_FALSE(cat->ReadVolume(0x77));
  EXPECT_EQ(cat->ReadCover(0x8A0B2D05), "JPEGDATA");

  // Refusals leave the album untouched.
  VolumeRecord dup_track = only;
  dup_track.tracks.push_back(Track(1, 5, "again"));
  VolumeRecord zero_track = only;
  zero_track.tracks = {Track(0, 5, "zero")};
  const auto with = [&](std::string id, std::vector<VolumeRecord> volumes) {
    AlbumRecord bad = replace;
    bad.id = std::move(id);
    bad.volumes = std::move(volumes);
    return bad;
  };
  const std::pair<const char*, AlbumRecord> cases[] = {
      {"twice in the album", with(album.id, {only, only})},
      {"appears twice", with(album.id, {dup_track})},
      {"start at 1", with(album.id, {zero_track})},
      {"16 hexadecimal digits", with("not-an-identifier", {only})},
      {"another album", with("", {only})},
  };
  for (auto [what, bad] : cases) {
    EXPECT_EQ(cat->WriteAlbum(bad, WriteMode::kReplace), kInvalidArgument) << what;
    EXPECT_NE(cat->LastErrorText().find(what), std::string::npos) << cat->LastErrorText();
  }
  AlbumRecord lower;
  lower.id = "00000000000000ab";  // a given identifier is kept, in upper case
  ASSERT_EQ(cat->WriteAlbum(lower, WriteMode::kReplace), kOk);
  EXPECT_EQ(lower.id, "00000000000000AB");
  EXPECT_EQ(cat->DeleteAlbum("00000000000000ab"), kOk);
  EXPECT_EQ(cat->AlbumCount(), 1u);
  EXPECT_EQ(*cat->ReadAlbum(album.id), replace);

  EXPECT_EQ(cat->DeleteAlbum(album.id), kOk);
  EXPECT_EQ(cat->AlbumCount(), 0u);
  EXPECT_FALSE(cat->ReadCover(0x8A0B2D05));
  EXPECT_EQ(cat->DeleteAlbum(album.id), kCatalogNotFound);
}

TEST(SqliteCatalogTest, SinglePropertiesAndCovers) {
  TempDir dir;
  auto cat = OpenSqliteCatalog(dir / "c.dab", CatalogOpenMode::kCreate);
  ASSERT_TRUE(cat);
  AlbumRecord album = SampleAlbum();
  ASSERT_EQ(cat->WriteAlbum(album, WriteMode::kReplace), kOk);

  EXPECT_EQ(cat->SetVolumeProperty(0x12345602, field::kScanStamp, 0, "stamp"), kOk);
  EXPECT_EQ(cat->SetVolumeProperty(0x12345602, field::kScanFlags, 0, -7), kOk);
  EXPECT_EQ(cat->SetVolumeProperty(0x12345602, field::kLyrics, 1, "la la"), kOk);
  EXPECT_EQ(cat->GetVolumeProperty(0x12345602, field::kScanStamp, 0), PropertyValue("stamp"));
  EXPECT_EQ(cat->GetVolumeProperty(0x12345602, field::kScanFlags, 0), PropertyValue(-7));
  EXPECT_EQ(cat->ReadVolume(0x12345602)->tracks[0].properties.Text(field::kLyrics), "la la");
  EXPECT_EQ(cat->RemoveVolumeProperty(0x12345602, field::kScanFlags, 0), kOk);
  EXPECT_FALSE(cat->GetVolumeProperty(0x12345602, field::kScanFlags, 0));
  EXPECT_EQ(cat->SetVolumeProperty(0x12345602, field::kLyrics, 9, "x"), kCatalogNotFound);
  EXPECT_EQ(cat->SetVolumeProperty(0x5, field::kLyrics, 0, "x"), kCatalogNotFound);

  std::string jpeg(70000, '\0');
  for (size_t i = 0; i < jpeg.size(); ++i)
    jpeg[i] = static_cast<char>(i * 31);
  EXPECT_FALSE(cat->ReadCover(0x12345602));
  EXPECT_EQ(cat->WriteCover(0x12345602, jpeg), kOk);
  EXPECT_EQ(cat->ReadCover(0x12345602), jpeg);
  // The engine's indexes agree with a walk over the albums themselves.
  EXPECT_EQ(cat->Counts(), (CatalogCounts{1, 2, 3, 1, 0}));
  EXPECT_EQ(cat->CatalogEngine::Counts(), cat->Counts());
  EXPECT_EQ(cat->WriteCover(0x12345602, ""), kOk);
  EXPECT_FALSE(cat->ReadCover(0x12345602));
  EXPECT_EQ(cat->WriteCover(0x5, jpeg), kCatalogNotFound);
}

std::vector<VolumeScanState> ByRecordId(std::vector<VolumeScanState> states) {
  std::sort(states.begin(), states.end(),
            [](const auto& x, const auto& y) { return x.record_id < y.record_id; });
  return states;
}

TEST(SqliteCatalogTest, ScanStatesFollowEveryWriteAndOldFilesAreUpgraded) {
  TempDir dir;
  const std::filesystem::path path = dir / "c.dab";
  auto scanned = [](const std::string& folder, uint32_t id, int32_t stamp) {
    AlbumRecord a;
    a.properties.Set(field::kTitle, folder);
    VolumeRecord v;
    v.record_id = id;
    v.properties.Set(field::kScanFolder, "/music/" + folder);
    v.properties.Set(field::kScanStamp, stamp);
    v.properties.Set(field::kScanFlags, 153);
    v.tracks = {Track(1, 100, "t")};
    a.volumes = {v};
    return a;
  };
  std::vector<VolumeScanState> expected;
  {
    auto cat = OpenSqliteCatalog(path, CatalogOpenMode::kCreate);
    ASSERT_TRUE(cat);
    AlbumRecord plain = SampleAlbum(), a = scanned("a", 0x0100AA66, -5), b = scanned("b", 7, 9);
    ASSERT_EQ(cat->WriteAlbum(plain, WriteMode::kReplace), kOk);
    ASSERT_EQ(cat->WriteAlbum(a, WriteMode::kReplace), kOk);
    ASSERT_EQ(cat->WriteAlbum(b, WriteMode::kReplace), kOk);
    ASSERT_EQ(cat->SetVolumeProperty(7, field::kScanValue3, 0, 0x01ABCDEF), kOk);
    ASSERT_EQ(cat->RemoveVolumeProperty(0x0100AA66, field::kScanFlags, 0), kOk);
    ASSERT_EQ(cat->SetVolumeProperty(0x12345602, field::kScanFolder, 0, "/music/c"), kOk);
    b.volumes[0].properties.Set(field::kScanStamp, 10);
    ASSERT_EQ(cat->WriteAlbum(b, WriteMode::kMerge), kOk);

    // The index answers what a walk over the albums finds.
    expected = ByRecordId(cat->CatalogEngine::ScannedVolumes());
    ASSERT_EQ(expected.size(), 3u);
    EXPECT_EQ(ByRecordId(cat->ScannedVolumes()), expected);
    EXPECT_EQ(expected[0].folder, "/music/b");
    EXPECT_EQ(expected[0].stamp, 10u);
    EXPECT_EQ(expected[1].stamp, 0xFFFFFFFBu);
    EXPECT_EQ(expected[1].flags, std::nullopt);
    EXPECT_EQ(expected[2].folder, "/music/c");
    EXPECT_EQ(cat->ReadVolumeScanState(7), expected[0]);
    EXPECT_EQ(cat->ReadVolumeScanState(0x8A0B2D05)->folder, "");
    EXPECT_EQ(cat->ReadVolumeScanState(0x5), std::nullopt);
  }

  // A file of the first schema, without the index's scan columns: a reader
  // answers from the albums, a writer adds and fills the columns.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db,
                         "ALTER TABLE volumes DROP COLUMN scan_folder; ALTER TABLE volumes DROP "
                         "COLUMN scan_stamp; ALTER TABLE volumes DROP COLUMN scan_flags; ALTER "
                         "TABLE volumes DROP COLUMN scan_value3; PRAGMA user_version = 1;",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(db);
  EXPECT_EQ(ByRecordId(OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly)->ScannedVolumes()),
            expected);
  {
    auto cat = OpenSqliteCatalog(path, CatalogOpenMode::kReadWrite);
    ASSERT_TRUE(cat);
    EXPECT_EQ(ByRecordId(cat->ScannedVolumes()), expected);
  }
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  sqlite3_stmt* version = nullptr;
  sqlite3_prepare_v2(db, "SELECT scan_stamp FROM volumes WHERE record_id = 7", -1, &version,
                     nullptr);
  ASSERT_EQ(sqlite3_step(version), SQLITE_ROW);
  EXPECT_EQ(sqlite3_column_int64(version, 0), 10);
  sqlite3_finalize(version);
  sqlite3_close(db);
}

TEST(SqliteCatalogTest, ArtistsDatabasePropertiesAndLists) {
  TempDir dir;
  const auto path = dir / "c.dab";
  auto cat = OpenSqliteCatalog(path, CatalogOpenMode::kCreate);
  ASSERT_TRUE(cat);
  EXPECT_TRUE(cat->Artists().empty());
  EXPECT_EQ(cat->ArtistsModified(), 0u);
  ArtistEntry band{"The Band", true,       "Band, The", {"Levon and the Hawks"},
                   "CA",       0x44000000, 0x4C000000,  {{"site", "home page"}, {"label", ""}}};
  ArtistEntry person{"Robbie", false, "", {}, "", 0, 0, {}};
  const auto before = static_cast<uint32_t>(std::time(nullptr));
  EXPECT_EQ(cat->WriteArtist(band), kOk);
  EXPECT_EQ(cat->WriteArtist(person), kOk);
  EXPECT_GE(cat->ArtistsModified(), before);
  band.alt_names.push_back("Crackers");
  EXPECT_EQ(cat->WriteArtist(band), kOk);  // replaces the entry of the same name
  EXPECT_EQ(cat->Artists(), (std::vector<ArtistEntry>{person, band}));
  EXPECT_EQ(cat->RemoveArtist("Robbie"), kOk);
  EXPECT_EQ(cat->RemoveArtist("Robbie"), kCatalogNotFound);
  EXPECT_EQ(cat->WriteArtist(ArtistEntry{}), kInvalidArgument);
  EXPECT_EQ(cat->Artists(), (std::vector<ArtistEntry>{band}));

  EXPECT_EQ(cat->SetDatabaseProperty("medialib", "f0", "/music"), kOk);
  EXPECT_EQ(cat->SetDatabaseProperty("medialib", "flags", "153"), kOk);
  EXPECT_EQ(cat->GetDatabaseProperty("MediaLib", "F0"), "/music");
  EXPECT_FALSE(cat->GetDatabaseProperty("db_opts", "f0"));
  EXPECT_EQ(cat->DatabaseProperties("medialib"),
            (std::vector<std::pair<std::string, std::string>>{{"f0", "/music"}, {"flags", "153"}}));
  EXPECT_EQ(cat->RemoveDatabaseProperty("medialib", "f0"), kOk);
  EXPECT_FALSE(cat->GetDatabaseProperty("medialib", "f0"));

  // Lists: defaults until stored, then the stored text with its timestamp.
  EXPECT_EQ(cat->UserList("user_locations"), "Car\nHome\nWork");
  EXPECT_EQ(cat->UserListTimestamp("user_locations"), 0u);
  EXPECT_EQ(cat->UserList("user_nothing"), "");
  EXPECT_EQ(cat->SetUserList("user_locations", "Attic\nShelf\n"), kOk);
  EXPECT_EQ(cat->UserList("user_locations"), "Attic\nShelf\n");
  EXPECT_GE(cat->UserListTimestamp("user_locations"), before);
  EXPECT_EQ(cat->GetDatabaseProperty("db_opts", "t_user_locations"),
            std::to_string(cat->UserListTimestamp("user_locations")));
  EXPECT_EQ(cat->SetUserList("user_genres", ""), kOk);  // an empty list is a list
  EXPECT_EQ(cat->UserList("user_genres"), "");
  cat.reset();
  cat = OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly);
  ASSERT_TRUE(cat);
  EXPECT_EQ(cat->UserList("user_locations"), "Attic\nShelf\n");
  EXPECT_EQ(cat->Artists(), (std::vector<ArtistEntry>{band}));
}

TEST(SqliteCatalogTest, OneWriterWhileReadersRead) {
  TempDir dir;
  const auto path = dir / "c.dab";
  auto writer = OpenSqliteCatalog(path, CatalogOpenMode::kCreate);
  ASSERT_TRUE(writer);
  AlbumRecord album = SampleAlbum();
  ASSERT_EQ(writer->WriteAlbum(album, WriteMode::kReplace), kOk);

  HResult error = kOk;
  std::string message;
  EXPECT_FALSE(OpenSqliteCatalog(path, CatalogOpenMode::kReadWrite, &error, &message));
  EXPECT_EQ(error, kCatalogLocked);
  EXPECT_EQ(message, "another process is writing to " + path.string());
  EXPECT_FALSE(OpenSqliteCatalog(path, CatalogOpenMode::kCreate, &error, &message));
  EXPECT_EQ(error, kCatalogLocked);

  // The same refusal in another process, which reads meanwhile.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    HResult code = kOk;
    const bool refused =
        !OpenSqliteCatalog(path, CatalogOpenMode::kReadWrite, &code) && code == kCatalogLocked;
    auto read = OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly);
    _exit(refused && read && read->AlbumCount() == 1 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;

  auto reader = OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly, &error, &message);
  ASSERT_TRUE(reader) << message;
  EXPECT_EQ(reader->AlbumCount(), 1u);
  // The reader sees the writer's later commits.
  album.properties.Set(field::kYear, "2001");
  ASSERT_EQ(writer->WriteAlbum(album, WriteMode::kReplace), kOk);
  EXPECT_EQ(reader->ReadAlbum(album.id)->properties.Text(field::kYear), "2001");
  // A reader cannot hold writers off while one is writing.
  EXPECT_EQ(reader->SuspendWriting(), kCatalogLocked);

  // Suspension empties the log; the writer's own writes wait for the resume.
  ASSERT_EQ(writer->SuspendWriting(), kOk);
  std::filesystem::path wal = path;
  wal += "-wal";
  EXPECT_EQ(std::filesystem::file_size(wal), 0u);
  EXPECT_EQ(writer->SetDatabaseProperty("db_opts", "x", "1"), kCatalogLocked);
  std::thread other([&] { EXPECT_EQ(writer->SetDatabaseProperty("db_opts", "y", "2"), kOk); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(reader->GetDatabaseProperty("db_opts", "y"));
  writer->ResumeWriting();
  other.join();
  EXPECT_EQ(reader->GetDatabaseProperty("db_opts", "y"), "2");

  // Once the writer is gone, another may write, and a reader may suspend.
  writer.reset();
  EXPECT_EQ(reader->SuspendWriting(), kOk);
  EXPECT_FALSE(OpenSqliteCatalog(path, CatalogOpenMode::kReadWrite, &error, &message));
  EXPECT_EQ(error, kCatalogLocked);
  reader->ResumeWriting();
  EXPECT_TRUE(OpenSqliteCatalog(path, CatalogOpenMode::kReadWrite));
}

TEST(SqliteCatalogTest, ForeignOrDamagedFilesAreRefusedUntouched) {
  TempDir dir;
  const auto good = dir / "good.dab";
  Fill(good, 200, [](int) {
    AlbumRecord a;
    a.properties.Set(field::kComment, std::string(500, 'x'));
    return a;
  });
  const std::string bytes = ReadFile(good);
  ASSERT_GT(bytes.size(), 8192u);

  // A database of another program.
  const auto foreign = dir / "foreign.dab";
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(foreign.c_str(), &db), SQLITE_OK);
  sqlite3_exec(db, "CREATE TABLE t(x); INSERT INTO t VALUES(1);", nullptr, nullptr, nullptr);
  sqlite3_close(db);

  struct Case {
    const char* name;
    std::string content;
    const char* message;
  };
  const Case cases[] = {
      {"text.dab", "Hello, this is not a database at all, just a text file.\n", "not a catalogue"},
      {"empty.dab", "", "is empty"},
      {"short.dab", bytes.substr(0, 60), "too short"},
      {"half.dab", bytes.substr(0, bytes.size() / 2), "is truncated"},
      {"foreign.dab", ReadFile(foreign), "not a DiscHive catalogue"},
  };
  for (const Case& c : cases) {
    const auto path = dir / c.name;
    WriteFile(path, c.content);
    for (CatalogOpenMode mode :
         {CatalogOpenMode::kReadOnly, CatalogOpenMode::kReadWrite, CatalogOpenMode::kCreate}) {
      HResult error = kOk;
      std::string message;
      EXPECT_FALSE(OpenSqliteCatalog(path, mode, &error, &message)) << c.name;
      EXPECT_EQ(error, kCatalogInvalid) << c.name;
      EXPECT_NE(message.find(c.message), std::string::npos) << c.name << ": " << message;
      EXPECT_NE(message.find(path.string()), std::string::npos) << message;
    }
    EXPECT_EQ(ReadFile(path), c.content) << c.name;
    EXPECT_FALSE(std::filesystem::exists(path.string() + "-wal")) << c.name;
  }

  HResult error = kOk;
  std::string message;
  EXPECT_FALSE(
      OpenSqliteCatalog(dir / "missing.dab", CatalogOpenMode::kReadWrite, &error, &message));
  EXPECT_EQ(error, kCatalogMissing);
  EXPECT_FALSE(std::filesystem::exists(dir / "missing.dab"));
  EXPECT_FALSE(OpenSqliteCatalog(dir.path(), CatalogOpenMode::kReadOnly, &error, &message));
  EXPECT_EQ(error, kCatalogInvalid);
}

TEST(SqliteCatalogTest, CorruptPagesThrowFatalDatabaseError) {
  TempDir dir;
  const auto path = dir / "c.dab";
  Fill(path, 100, [](int i) {
    AlbumRecord a = SampleAlbum();
    for (VolumeRecord& v : a.volumes)
      v.record_id += static_cast<uint32_t>(i) << 8;
    return a;
  });
  std::string bytes = ReadFile(path);
  // Overwrite every page after the schema with garbage; the header stays valid.
  for (size_t i = 8192; i < bytes.size(); ++i)
    bytes[i] = static_cast<char>(0xA5 ^ (i * 7));
  WriteFile(path, bytes);
  auto cat = OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly);
  ASSERT_TRUE(cat);
  EXPECT_THROW(cat->ForEachAlbum([](const AlbumRecord&) { return true; }), FatalDatabaseError);
}

TEST(SqliteCatalogTest, BatchesCommitTogetherAndFailuresStayAlone) {
  TempDir dir;
  const auto path = dir / "c.dab";
  auto writer = OpenSqliteCatalog(path, CatalogOpenMode::kCreate);
  auto reader = OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly);
  ASSERT_TRUE(writer && reader);
  EXPECT_EQ(writer->CommitBatch(), kInvalidArgument);
  {
    CatalogBatch batch(*writer);
    AlbumRecord first = SampleAlbum();
    ASSERT_EQ(writer->WriteAlbum(first, WriteMode::kReplace), kOk);
    AlbumRecord clash = SampleAlbum();  // same volume ids: refused, alone
    EXPECT_EQ(writer->WriteAlbum(clash, WriteMode::kReplace), kInvalidArgument);
    EXPECT_EQ(writer->SuspendWriting(), kCatalogLocked);
    EXPECT_EQ(writer->AlbumCount(), 1u);
    EXPECT_EQ(reader->AlbumCount(), 0u);  // not committed yet
    EXPECT_EQ(batch.Commit(), kOk);
  }
  EXPECT_EQ(reader->AlbumCount(), 1u);
  // A batch left open is committed when the engine closes.
  ASSERT_EQ(writer->BeginBatch(), kOk);
  AlbumRecord second;
  second.properties.Set(field::kTitle, "Second");
  ASSERT_EQ(writer->WriteAlbum(second, WriteMode::kReplace), kOk);
  writer.reset();
  EXPECT_EQ(reader->AlbumCount(), 2u);
  EXPECT_EQ(reader->BeginBatch(), kCatalogReadOnly);
}

TEST(SqliteCatalogTest, DamagedRecordThrowsFatalDatabaseError) {
  TempDir dir;
  const auto path = dir / "c.dab";
  AlbumRecord album = SampleAlbum();
  album.id = "00000000000000A1";
  AlbumRecord intact;
  intact.id = "00000000000000B2";
  intact.properties.Set(field::kTitle, "Intact");
  Fill(path, 2, [&](int i) { return i == 0 ? album : intact; });
  // Cut the last bytes off one album's record, as a foreign writer might.
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  const std::string sql =
      "UPDATE albums SET record = substr(record, 1, length(record) - 5) "
      "WHERE id = '" +
      album.id + "'";
  const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
  sqlite3_close(db);
  ASSERT_EQ(rc, SQLITE_OK);

  auto cat = OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly);
  ASSERT_TRUE(cat);
  try {
    cat->ReadVolume(0x12345602);
    ADD_FAILURE() << "no exception";
  } catch (const FatalDatabaseError& e) {
    EXPECT_EQ(e.path(), path.string());
    EXPECT_NE(std::string(e.what()).find("damaged record: album " + album.id), std::string::npos)
        << e.what();
  }
  EXPECT_THROW(cat->ReadAlbum(album.id), FatalDatabaseError);
  EXPECT_THROW(cat->ForEachAlbum([](const AlbumRecord&) { return true; }), FatalDatabaseError);
  EXPECT_EQ(cat->ReadAlbum(intact.id)->properties.Text(field::kTitle), "Intact");
}

}  // namespace
}  // namespace dischive::test
