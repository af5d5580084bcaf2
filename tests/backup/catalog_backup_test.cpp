// Backups of real SQLite catalogues: consistency with the engine's write-ahead
// log and write lock, and a full round trip.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "dischive/backup.h"
#include "dischive/sqlite_catalog.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

std::map<std::string, std::string> Folder(const std::filesystem::path& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    files[entry.path().filename().string()] = ReadFile(entry.path());
  }
  return files;
}

AlbumRecord Album(int n) {
  AlbumRecord album;
  album.properties.Set(field::kTitle, fmt::format("Album {}", n));
  album.artists = {fmt::format("Artist {}", n % 7)};
  VolumeRecord volume;
  volume.record_id = 0x10000000u + static_cast<uint32_t>(n);
  volume.tracks = {{1, 75 * 200, {}}, {2, 75 * 180, {}}};
  album.volumes = {volume};
  return album;
}

TEST(BackupCatalog, RoundTripWithFiveHundredCovers) {
  TempDir dir;
  const std::filesystem::path db = dir / "src" / "Music.dab";
  std::unique_ptr<CatalogEngine> engine = OpenSqliteCatalog(db, CatalogOpenMode::kCreate);
  ASSERT_NE(engine, nullptr);
  // Written in the write-ahead log; only a checkpoint puts them into the file.
  for (int n = 0; n < 40; ++n) {
    AlbumRecord album = Album(n);
    ASSERT_EQ(engine->WriteAlbum(album, WriteMode::kReplace), kOk) << engine->LastErrorText();
    ASSERT_EQ(engine->WriteCover(album.volumes[0].record_id, std::string(300 + n, 'c')), kOk);
  }
  for (int n = 0; n < 500; ++n) {
    WriteFile(dir / "src" / "Music_covers" / fmt::format("{:08X}.{}", n, n % 5 ? "jpg" : "JPG"),
              fmt::format("cover {} ", n) + std::string(static_cast<size_t>(n % 97), 'j'));
  }
  WriteFile(dir / "src" / "Music_covers" / "notes.txt", "not a cover");

  // Another writer by path is refused while the engine holds the lock.
  BackupRequest by_path;
  by_path.database = db;
  by_path.backup = dir / "by-path.dhb";
  std::string message;
  EXPECT_EQ(WriteBackupFile(by_path, &message), kCatalogLocked) << message;

  BackupRequest request;
  request.catalog = engine.get();
  request.covers_folder = DefaultCoversFolder(db);
  request.include_covers = true;
  request.backup = dir / "Music.dhb";
  uint64_t last_done = 0, last_total = 0;
  request.progress = [&](uint64_t done, uint64_t total) {
    EXPECT_GE(done, last_done);
    last_done = done;
    last_total = total;
    return true;
  };
  BackupSummary written;
  ASSERT_EQ(WriteBackupFile(request, &message, &written), kOk) << message;
  EXPECT_EQ(written.covers, 500u);
  EXPECT_EQ(last_done, last_total);
  EXPECT_EQ(last_total, written.database_bytes + written.cover_bytes);
  const std::string db_at_backup = ReadFile(db);
  EXPECT_EQ(db_at_backup.size(), written.database_bytes);

  // Writing resumes after the copy.
  AlbumRecord later = Album(1000);
  EXPECT_EQ(engine->WriteAlbum(later, WriteMode::kReplace), kOk) << engine->LastErrorText();

  BackupMetadata metadata;
  ASSERT_TRUE(ReadBackupInfo(request.backup, &metadata));
  EXPECT_EQ(metadata.database_name, "Music.dab");

  RestoreRequest restore;
  restore.backup = request.backup;
  restore.database = dir / "elsewhere" / "Restored.dab";
  BackupSummary restored;
  ASSERT_EQ(RestoreBackupFile(restore, &message, &restored), kOk) << message;
  EXPECT_EQ(restored.covers, 500u);
  EXPECT_EQ(ReadFile(restore.database), db_at_backup);
  std::map<std::string, std::string> covers = Folder(DefaultCoversFolder(db));
  covers.erase("notes.txt");
  EXPECT_EQ(Folder(dir / "elsewhere" / "Restored_covers"), covers);

  std::unique_ptr<CatalogEngine> copy =
      OpenSqliteCatalog(restore.database, CatalogOpenMode::kReadOnly);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->AlbumCount(), 40u);
  EXPECT_EQ(copy->ReadCover(0x10000000u + 39), std::string(339, 'c'));

  // Restoring over a database that is open for writing is refused untouched.
  restore.database = db;
  restore.replace_existing = true;
  EXPECT_EQ(RestoreBackupFile(restore, &message), kCatalogLocked);
  EXPECT_EQ(message, "another program is writing to " + db.string());
  EXPECT_EQ(engine->AlbumCount(), 41u);
  engine.reset();
  EXPECT_FALSE(std::filesystem::exists(dir / "src" / "Music.dab.bak"));

  // With the engine closed the database can be backed up by path alone.
  EXPECT_EQ(WriteBackupFile(by_path, &message), kOk) << message;
}

}  // namespace
}  // namespace dischive
