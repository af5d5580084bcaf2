// The SQLite catalogue engine's class: its album and volume queries are in
// sqlite_catalog.cpp, its artists, database properties, user lists and the
// suspension of writing in sqlite_catalog_store.cpp, and the file itself
// (header check, schema, creation, locking) in catalog_file.cpp.
#pragma once

#include <condition_variable>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "catalog/sqlite_db.h"
#include "catalog/statements.h"
#include "dischive/catalog.h"
#include "dischive/database_error.h"
#include "dischive/sqlite_catalog.h"
#include "platform/file_lock.h"

namespace dischive::catalog {

inline uint32_t Now() {
  return static_cast<uint32_t>(std::time(nullptr));
}

inline uint32_t U32(int64_t v) {
  return static_cast<uint32_t>(v);
}

// An album identifier in its stored form (16 upper-case hexadecimal digits);
// empty when the text is not 16 hexadecimal digits.
inline std::optional<std::string> NormalAlbumId(std::string_view id) {
  if (id.size() != 16) return std::nullopt;
  std::string out(id);
  for (char& c : out) {
    if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 'a' + 'A');
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return std::nullopt;
  }
  return out;
}

// A failure with its result code and message, raised inside a write and
// turned into the returned code at the public boundary.
struct Refusal {
  HResult code;
  std::string message;
};

class SqliteCatalog final : public CatalogEngine {
 public:
  SqliteCatalog(std::filesystem::path path, bool writable, platform::FileLock lock)
      : path_(std::move(path)), writable_(writable), lock_(std::move(lock)) {}

  ~SqliteCatalog() override;

  // Opens the connection and compiles the statements; fills *message on failure.
  HResult Open(std::string* message);

  const std::filesystem::path& path() const override { return path_; }

  // Settings of the connection; the first read of the file happens here.
  void Configure();

  size_t AlbumCount() override;

  CatalogCounts Counts() override;

  HResult ForEachAlbum(const std::function<bool(const AlbumRecord&)>& visit) override;

  std::optional<AlbumRecord> ReadAlbum(std::string_view album_id) override;

  std::optional<std::string> FindAlbumOfVolume(uint32_t record_id) override;

  std::optional<VolumeRecord> ReadVolume(uint32_t record_id) override;

  std::optional<VolumeScanState> ReadVolumeScanState(uint32_t record_id) override;

  std::vector<VolumeScanState> ScannedVolumes() override;

  HResult WriteAlbum(AlbumRecord& album, WriteMode mode) override;

  HResult DeleteAlbum(std::string_view album_id) override;

  std::optional<PropertyValue> GetVolumeProperty(uint32_t record_id, field::FieldId id,
                                                 uint32_t index) override;

  HResult SetVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index,
                            const PropertyValue& value) override;

  HResult RemoveVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index) override;

  HResult BeginBatch() override;

  HResult CommitBatch() override;

  std::optional<std::string> ReadCover(uint32_t record_id) override;

  HResult WriteCover(uint32_t record_id, std::string_view bytes) override;

  std::vector<ArtistEntry> Artists() override;

  uint32_t ArtistsModified() override;

  HResult WriteArtist(const ArtistEntry& artist) override;

  HResult RemoveArtist(std::string_view name) override;

  std::optional<std::string> GetDatabaseProperty(std::string_view group,
                                                 std::string_view key) override;

  HResult SetDatabaseProperty(std::string_view group, std::string_view key,
                              std::string_view value) override;

  HResult RemoveDatabaseProperty(std::string_view group, std::string_view key) override;

  std::vector<std::pair<std::string, std::string>> DatabaseProperties(
      std::string_view group) override;

  std::string UserList(std::string_view key) override;

  HResult SetUserList(std::string_view key, std::string_view text) override;

  uint32_t UserListTimestamp(std::string_view key) override;

  HResult SuspendWriting() override;

  void ResumeWriting() override;

  std::string LastErrorText() const override;

 private:
  // Runs `work`, turning failures into result codes (FatalDatabaseError passes).
  template <typename Work>
  HResult Guard(Work&& work) {
    try {
      work();
      last_error_.clear();
      return kOk;
    } catch (const Refusal& r) {
      last_error_ = r.message;
      return r.code;
    } catch (const SqlFailure& f) {
      last_error_ = f.what();
      return f.result();
    } catch (const std::bad_alloc&) {
      last_error_ = "out of memory";
      return 0x8007000E;
    }
  }

  HResult Refuse(HResult code, std::string message);

  // Whether this engine may write now; waits while another thread of this
  // process has writing suspended for a copy of the file.
  HResult CheckWritable(std::unique_lock<std::recursive_mutex>& lock);

  [[noreturn]] void Damaged(std::string_view what) const;

  // An album row's columns: aid, id, modified, record.
  void FillAlbum(const Statement& s, AlbumRecord& album) const;

  bool LoadAlbum(int64_t aid, AlbumRecord* album);

  // The row of the album with this (stored-form) identifier, loaded into
  // *album when given.
  std::optional<int64_t> FindAlbum(const std::string& id, AlbumRecord* album);

  std::optional<int64_t> AlbumOfVolume(uint32_t record_id);

  // Loads the album that holds the volume into *album and returns the volume
  // in it, or nullptr when there is no such volume.
  VolumeRecord* LoadVolume(uint32_t record_id, AlbumRecord* album, int64_t* row = nullptr);

  std::string NewAlbumId();

  // Changes the properties of a volume (index 0) or of one of its tracks;
  // `edit` returns whether it changed anything.
  HResult EditVolume(uint32_t record_id, uint32_t index,
                     const std::function<bool(PropertySet&)>& edit);

  // The properties of the volume (index 0) or of its track `index`; nullptr
  // when there is no such track.
  static PropertySet* PropertiesAt(VolumeRecord& volume, uint32_t index);

  static bool TrackNumberLess(const TrackRecord& a, const TrackRecord& b);
  static bool TracksSorted(const VolumeRecord& v);
  static void SortTracks(VolumeRecord& v);

  // A row of record_id, scan_folder, scan_stamp, scan_flags, scan_value3 (the
  // column of the scan profile, named before its meaning was known).
  static VolumeScanState ScanStateRow(const Statement& s);

  // The volume's row of the index: its album, track count and scan state.
  void WriteVolumeRow(const VolumeRecord& v, int64_t aid);

  // Brings a schema 1 file to schema 2: adds the scan columns to the volume
  // index and fills them from the stored volumes, in one transaction.
  void AddScanColumns();

  void Touch(int64_t aid) { st_->touch_album.Bind(1, aid).Bind(2, int64_t{Now()}).Run(); }

  std::optional<std::string> GetProperty(std::string_view group, std::string_view key);

  int64_t GetMeta(std::string_view key);

  void SetMeta(std::string_view key, int64_t value);

  std::filesystem::path path_;
  bool writable_;
  platform::FileLock lock_;
  mutable std::recursive_mutex mutex_;
  std::condition_variable_any resumed_;
  Connection db_;
  std::unique_ptr<Statements> st_;
  std::string last_error_;
  int batch_depth_ = 0;  // open BeginBatch calls
  bool suspended_ = false;
  std::thread::id suspender_;
  platform::FileLock suspend_lock_;
};

}  // namespace dischive::catalog
