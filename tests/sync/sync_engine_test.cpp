// The sync engine on a real SQLite catalogue against the fake collection
// service on 127.0.0.1: first sync, nothing to send, single changes,
// interruption, write-back and removal.
#include "dischive/sync_engine.h"

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <set>

#include "dischive/fields.h"
#include "dischive/sqlite_catalog.h"
#include "support/fake_collection_service.h"
#include "support/temp_dir.h"

namespace dischive {
namespace {

// A small JPEG by libjpeg-turbo whose colour depends on `seed`.
std::string MakeJpeg(int seed) {
  const int width = 24, height = 16;
  std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * 3);
  for (size_t i = 0; i < pixels.size(); i += 3) {
    pixels[i] = static_cast<uint8_t>(seed * 37);
    pixels[i + 1] = static_cast<uint8_t>(seed / 7 * 53);
    pixels[i + 2] = static_cast<uint8_t>(i % 255);
  }
  tjhandle handle = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(handle, pixels.data(), width, 0, height, TJPF_RGB, &jpeg, &size, TJSAMP_420,
                        85, 0),
            0);
  std::string bytes(reinterpret_cast<const char*>(jpeg), size);
  tjFree(jpeg);
  tjDestroy(handle);
  return bytes;
}

class SyncEngineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(service.Start());
    catalog = OpenSqliteCatalog(dir / "music.dab", CatalogOpenMode::kCreate);
    ASSERT_NE(catalog, nullptr);
    catalog->SetDatabaseProperty("db_opts", "sync_login", "listener");
    catalog->SetDatabaseProperty("db_opts", "sync_dbkey", "0123ABCD");
    connection.host = service.host();
    connection.internet.preconfigured = false;
    options.work_dir = dir.path();
  }

  void AddAlbums(int count) {
    CatalogBatch batch(*catalog);
    for (int i = 0; i < count; ++i) {
      AlbumRecord album;
      album.artists = {"Artist " + std::to_string(i)};
      album.properties.Set(field::kTitle, "Album " + std::to_string(i));
      VolumeRecord volume;
      volume.record_id = 0x1000 + static_cast<uint32_t>(i);
      volume.tracks.push_back({1, 7500, {}});
      album.volumes.push_back(volume);
      ASSERT_EQ(catalog->WriteAlbum(album, WriteMode::kReplace), kOk);
      ASSERT_EQ(catalog->WriteCover(volume.record_id, MakeJpeg(i)), kOk);
      ids.push_back(album.id);
    }
  }

  SyncReport Sync(HResult expected = kOk) {
    SyncReport report;
    service.ClearLog();
    EXPECT_EQ(RunSync(*catalog, connection, options, report), expected);
    return report;
  }

  std::vector<std::string> Commands() {
    std::vector<std::string> out;
    for (const auto& r : service.requests())
      out.push_back(r.command);
    return out;
  }
  std::vector<std::string> Put() {
    std::vector<std::string> out;
    for (const auto& r : service.requests())
      out.insert(out.end(), r.album_ids.begin(), r.album_ids.end());
    return out;
  }
  std::vector<std::string> Covers() {
    std::vector<std::string> out;
    for (const auto& r : service.requests())
      out.insert(out.end(), r.cover_ids.begin(), r.cover_ids.end());
    return out;
  }

  test::TempDir dir;
  test::FakeCollectionService service;
  std::unique_ptr<CatalogEngine> catalog;
  ServiceConnection connection;
  SyncOptions options;
  std::vector<std::string> ids;
};

TEST_F(SyncEngineTest, FullCatalogueSyncsOnceAndThenSendsNothing) {
  AddAlbums(200);
  const SyncReport first = Sync();
  EXPECT_EQ(first.added, 200u);
  EXPECT_EQ(first.updated, 0u);
  EXPECT_EQ(first.covers, 200u);
  // list, one put, 200 covers in chunks of 25.
  EXPECT_EQ(Commands().size(), 10u);
  EXPECT_EQ(Put(), ids);
  EXPECT_EQ(Covers(), ids);
  const auto held = service.albums();
  ASSERT_EQ(held.size(), 200u);
  std::set<std::string> hashes;
  for (const auto& [id, album] : held)
    hashes.insert(album.cover_hash);
  EXPECT_EQ(hashes.size(), 200u);
  EXPECT_EQ(catalog->ReadAlbum(ids[17])->properties.Text(field::kServiceId), ids[17]);
  EXPECT_TRUE(catalog->GetDatabaseProperty("db_opts", "sync_last").has_value());

  const SyncReport second = Sync();
  EXPECT_EQ(Commands(), std::vector<std::string>{"list"});
  EXPECT_EQ(second.added + second.updated + second.covers + second.times_written_back, 0u);
  EXPECT_EQ(second.service_albums, 200u);
}

TEST_F(SyncEngineTest, OneChangedAlbumAndOneChangedCoverAreAllThatIsSent) {
  AddAlbums(12);
  options.upload_chunk_size = 5;
  Sync();
  AlbumRecord changed = *catalog->ReadAlbum(ids[3]);
  changed.properties.Set(field::kTitle, "Renamed");
  // The modification time has a resolution of one second.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  ASSERT_EQ(catalog->WriteAlbum(changed, WriteMode::kMerge), kOk);
  ASSERT_EQ(catalog->WriteCover(0x1000 + 7, MakeJpeg(99)), kOk);

  const SyncReport report = Sync();
  EXPECT_EQ(report.updated, 2u);
  EXPECT_EQ(report.covers, 1u);
  EXPECT_EQ(Commands(), (std::vector<std::string>{"list", "put", "cover"}));
  // A new cover marks its album modified in the catalogue, so that album's
  // record goes too.
  EXPECT_EQ(Put(), (std::vector<std::string>{ids[3], ids[7]}));
  EXPECT_EQ(Covers(), std::vector<std::string>{ids[7]});
  Sync();
  EXPECT_EQ(Commands(), std::vector<std::string>{"list"});
}

TEST_F(SyncEngineTest, InterruptedSyncResumesWhereItStopped) {
  AddAlbums(12);
  options.upload_chunk_size = 3;
  // list, put and the first chunk of covers succeed; the connection breaks
  // during the second chunk.
  service.Fail(test::ServiceFailure::kCutConnection, 3, 1);
  Sync(12030);
  EXPECT_EQ(Covers(), (std::vector<std::string>{ids[0], ids[1], ids[2]}));
  EXPECT_EQ(service.albums().size(), 12u);

  Sync();
  EXPECT_EQ(Put(), std::vector<std::string>{});
  EXPECT_EQ(Covers(), std::vector<std::string>(ids.begin() + 3, ids.end()));
  Sync();
  EXPECT_EQ(Commands(), std::vector<std::string>{"list"});
}

TEST_F(SyncEngineTest, ServiceTimesComeBackAndMissingAlbumsGoOnlyWhenAsked) {
  AddAlbums(3);
  Sync();
  auto held = service.albums();
  held[ids[1]].played = 0x60000000;
  held[ids[1]].rated = 0x60000010;
  service.SetAlbum(ids[1], held[ids[1]]);
  service.SetAlbum("00000000DEADBEEF", {});

  options.dry_run = true;
  SyncReport report = Sync();
  EXPECT_EQ(report.missing, std::vector<std::string>{"00000000DEADBEEF"});
  EXPECT_EQ(report.times_written_back, 1u);
  EXPECT_EQ(Commands(), std::vector<std::string>{"list"});
  EXPECT_EQ(catalog->ReadAlbum(ids[1])->properties.Int(field::kLastPlayed), 0);

  options.dry_run = false;
  report = Sync();
  EXPECT_EQ(report.removed, 0u);
  EXPECT_EQ(service.albums().count("00000000DEADBEEF"), 1u);
  const AlbumRecord album = *catalog->ReadAlbum(ids[1]);
  EXPECT_EQ(album.properties.Int(field::kLastPlayed), 0x60000000);
  EXPECT_EQ(album.properties.Int(field::kRatingTime), 0x60000010);
  EXPECT_EQ(Put(), std::vector<std::string>{}) << "times from the service are not sent back";

  options.delete_missing = true;
  report = Sync();
  EXPECT_EQ(report.removed, 1u);
  EXPECT_EQ(Commands(), (std::vector<std::string>{"list", "delete"}));
  EXPECT_EQ(service.requests()[1].params.back(),
            (std::pair<std::string, std::string>{"id", "00000000DEADBEEF"}));
  EXPECT_EQ(service.albums().size(), 3u);
}

TEST_F(SyncEngineTest, FailuresStopTheSyncWithTheirResult) {
  AddAlbums(2);
  service.Fail(test::ServiceFailure::kDescription, 1, 1);  // the put
  Sync(kFreedbServiceError);
  EXPECT_EQ(ServiceErrorMessage(), "Database locked");
  EXPECT_TRUE(service.albums().empty());
  // Nothing was recorded: everything goes again.
  const SyncReport report = Sync();
  EXPECT_EQ(report.added, 2u);
  catalog->RemoveDatabaseProperty("db_opts", "sync_dbkey");
  Sync(kInvalidArgument);
  EXPECT_TRUE(Commands().empty());
}

}  // namespace
}  // namespace dischive
