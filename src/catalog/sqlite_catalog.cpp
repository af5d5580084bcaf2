// The embedded catalogue engine: one ".dab" SQLite file in write-ahead-log
// mode. An album is one row: its flags, its properties by field id, its name
// lists and its volumes with their tracks are kept in one column
// (record_codec.h), so that new fields need no schema change and an album is
// written and read as one row. New albums are appended (row ids ascend), and
// the catalogue is walked in row order, so that a walk reads the file front to
// back; small indexes find an album by identifier and a volume's album by the
// volume's record id. One process writes at a time: a writer
// holds an flock on the lock file beside the database while it has it open.
#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>
#include <set>
#include <thread>

#include "catalog/album_merge.h"
#include "catalog/catalog_file.h"
#include "catalog/record_codec.h"
#include "catalog/sqlite_db.h"
#include "catalog/sqlite_engine.h"
#include "catalog/statements.h"
#include "dischive/database_files.h"
#include "dischive/random_id.h"
#include "dischive/sqlite_catalog.h"
#include "platform/file_lock.h"

namespace dischive::catalog {

SqliteCatalog::~SqliteCatalog() {
  // A batch still open is committed: closing never drops written albums.
  while (batch_depth_ > 0) {
    --batch_depth_;
    sqlite3_exec(db_.handle(), "RELEASE batch", nullptr, nullptr, nullptr);
  }
  st_.reset();
  db_.Close();
}

// Opens the connection and compiles the statements; fills *message on failure.
HResult SqliteCatalog::Open(std::string* message) {
  // A reader, too, opens the file for writing when it may, with queries
  // only: then the last connection to close can fold the write-ahead log
  // back into the file and remove it, which a read-only connection cannot.
  int rc = db_.Open(path_, SQLITE_OPEN_READWRITE, message);
  if (rc != SQLITE_OK && !writable_) rc = db_.Open(path_, SQLITE_OPEN_READONLY, message);
  if (rc != SQLITE_OK) {
    *message = path_.string() + " cannot be opened: " + *message;
    return (rc & 0xFF) == SQLITE_READONLY || (rc & 0xFF) == SQLITE_PERM ? kCatalogReadOnly
                                                                        : kCatalogInvalid;
  }
  if (writable_ && sqlite3_db_readonly(db_.handle(), "main") == 1) {
    *message = path_.string() + " cannot be written (read-only file or folder)";
    return kCatalogReadOnly;
  }
  try {
    try {
      Configure();
    } catch (const SqlFailure& f) {
      // A reader of a file in a folder it cannot write (a catalogue on a
      // read-only disc, a sample shipped with the program) cannot create the
      // log's shared-memory file. With no log beside the file no writer is
      // active, and the file can be read as unchanging.
      std::error_code ec;
      if (writable_ || (f.code() & 0xFF) != SQLITE_READONLY ||
          std::filesystem::exists(path_.string() + "-wal", ec)) {
        throw;
      }
      db_.Close();
      std::string uri = "file:";
      for (const char c : path_.string()) {
        if (c == '%' || c == '?' || c == '#') {
          uri += fmt::format("%{:02X}", static_cast<unsigned char>(c));
        } else {
          uri += c;
        }
      }
      uri += "?immutable=1";
      if (db_.Open(path_, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, message, uri) != SQLITE_OK) {
        *message = path_.string() + " cannot be opened: " + *message;
        return kCatalogInvalid;
      }
      Configure();
    }
    Statement version(db_, "PRAGMA user_version");
    const int64_t schema = version.Step() ? version.Int(0) : 0;
    if (schema > kSchemaVersion) {
      *message = fmt::format("{} was written by a newer version of DiscHive (schema {})",
                             path_.string(), schema);
      return kCatalogInvalid;
    }
    if (schema < 2 && writable_) {
      AddScanColumns();
    } else {
      st_ = std::make_unique<Statements>(db_, schema >= 2);
    }
  } catch (const std::exception& e) {
    *message = path_.string() + " cannot be opened as a catalogue: " + e.what();
    return kCatalogInvalid;
  }
  return kOk;
}

// Settings of the connection; the first read of the file happens here.
void SqliteCatalog::Configure() {
  db_.Exec("PRAGMA busy_timeout = 5000; PRAGMA cache_size = -8192;");
  if (writable_) {
    // Checkpoints (each one syncs the disk) every 10,000 pages, not 1,000: a
    // catalogue is written an album per transaction, a few pages each.
    db_.Exec(
        "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA foreign_keys = ON; "
        "PRAGMA wal_autocheckpoint = 10000;");
  } else {
    db_.Exec("PRAGMA query_only = 1;");
  }
  Statement probe(db_, "SELECT count(*) FROM sqlite_master");
  probe.Step();
}

size_t SqliteCatalog::AlbumCount() {
  std::lock_guard lock(mutex_);
  size_t count = 0;
  Guard([&] {
    ResetGuard reset(st_->count_albums);
    if (st_->count_albums.Step()) count = static_cast<size_t>(st_->count_albums.Int(0));
  });
  return count;
}

CatalogCounts SqliteCatalog::Counts() {
  std::lock_guard lock(mutex_);
  CatalogCounts counts;
  Guard([&] {
    Statement s(
        db_,
        "SELECT (SELECT count(*) FROM albums), (SELECT count(*) FROM volumes), "
        "(SELECT coalesce(sum(track_count), 0) FROM volumes), (SELECT count(*) FROM covers), "
        "(SELECT count(*) FROM artists)");
    if (s.Step()) {
      counts.albums = static_cast<size_t>(s.Int(0));
      counts.volumes = static_cast<size_t>(s.Int(1));
      counts.tracks = static_cast<size_t>(s.Int(2));
      counts.covers = static_cast<size_t>(s.Int(3));
      counts.artists = static_cast<size_t>(s.Int(4));
    }
  });
  return counts;
}

HResult SqliteCatalog::ForEachAlbum(const std::function<bool(const AlbumRecord&)>& visit) {
  std::lock_guard lock(mutex_);
  return Guard([&] {
    // One read transaction for the whole walk, so that it sees one state of
    // the catalogue; a write made by `visit` joins it as a savepoint.
    Transaction snapshot(db_);
    Statement cursor(db_, "SELECT aid, id, modified, record FROM albums ORDER BY aid");
    AlbumRecord album;
    while (cursor.Step()) {
      album = AlbumRecord();
      FillAlbum(cursor, album);
      if (!visit(album)) break;
    }
    snapshot.Commit();
  });
}

std::optional<AlbumRecord> SqliteCatalog::ReadAlbum(std::string_view album_id) {
  std::lock_guard lock(mutex_);
  std::optional<AlbumRecord> result;
  Guard([&] {
    AlbumRecord album;
    const std::optional<std::string> id = NormalAlbumId(album_id);
    if (id && FindAlbum(*id, &album)) result = std::move(album);
  });
  return result;
}

std::optional<std::string> SqliteCatalog::FindAlbumOfVolume(uint32_t record_id) {
  std::lock_guard lock(mutex_);
  std::optional<std::string> result;
  Guard([&] {
    Statement& s = st_->album_id_of_volume;
    ResetGuard reset(s);
    s.Bind(1, int64_t{record_id});
    if (s.Step()) result = s.Text(0);
  });
  return result;
}

std::optional<VolumeRecord> SqliteCatalog::ReadVolume(uint32_t record_id) {
  std::lock_guard lock(mutex_);
  std::optional<VolumeRecord> result;
  Guard([&] {
    Transaction snapshot(db_);
    AlbumRecord album;
    if (const VolumeRecord* v = LoadVolume(record_id, &album)) result = *v;
    snapshot.Commit();
  });
  return result;
}

std::optional<VolumeScanState> SqliteCatalog::ReadVolumeScanState(uint32_t record_id) {
  std::lock_guard lock(mutex_);
  if (!st_->scan_state) return CatalogEngine::ReadVolumeScanState(record_id);
  std::optional<VolumeScanState> result;
  Guard([&] {
    Statement& s = *st_->scan_state;
    ResetGuard reset(s);
    s.Bind(1, int64_t{record_id});
    if (s.Step()) result = ScanStateRow(s);
  });
  return result;
}

std::vector<VolumeScanState> SqliteCatalog::ScannedVolumes() {
  std::lock_guard lock(mutex_);
  if (!st_->scanned_volumes) return CatalogEngine::ScannedVolumes();
  std::vector<VolumeScanState> states;
  Guard([&] {
    Statement& s = *st_->scanned_volumes;
    ResetGuard reset(s);
    while (s.Step())
      states.push_back(ScanStateRow(s));
  });
  return states;
}

HResult SqliteCatalog::WriteAlbum(AlbumRecord& album, WriteMode mode) {
  std::unique_lock lock(mutex_);
  if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
  return Guard([&] {
    if (auto problem = catalog::AlbumProblem(album)) throw Refusal{kInvalidArgument, *problem};
    Transaction transaction(db_);
    const uint32_t now = Now();
    std::optional<int64_t> aid;
    AlbumRecord stored;
    std::string id;
    if (album.id.empty()) {
      id = NewAlbumId();
    } else {
      const std::optional<std::string> normal = NormalAlbumId(album.id);
      if (!normal) {
        throw Refusal{kInvalidArgument,
                      "album identifier \"" + album.id + "\" is not 16 hexadecimal digits"};
      }
      id = *normal;
      aid = FindAlbum(id, &stored);
    }
    const bool exists = aid.has_value();
    // The record written: the caller's own when it needs no change (no
    // copy of a large album), else a merged or track-sorted copy.
    AlbumRecord merged;
    const AlbumRecord* written = &album;
    if (exists && mode == WriteMode::kMerge) {
      merged = std::move(stored);
      catalog::MergeAlbum(merged, album);
      written = &merged;
    } else if (!std::all_of(album.volumes.begin(), album.volumes.end(), TracksSorted)) {
      merged = album;
      written = &merged;
    }
    if (written == &merged) {
      for (VolumeRecord& v : merged.volumes)
        SortTracks(v);
    }
    const AlbumRecord& result = *written;
    // A volume belongs to one album: refuse one that another album holds.
    for (const VolumeRecord& v : result.volumes) {
      const std::optional<int64_t> owner = AlbumOfVolume(v.record_id);
      if (owner && owner != aid) {
        throw Refusal{kInvalidArgument,
                      fmt::format("volume {:08X} already belongs to another album", v.record_id)};
      }
    }
    if (exists) {
      st_->update_album.Bind(1, *aid).Bind(2, int64_t{now}).BindBlob(3, EncodeAlbum(result)).Run();
    } else {
      st_->insert_album.Bind(1, id).Bind(2, int64_t{now}).BindBlob(3, EncodeAlbum(result)).Run();
      aid = sqlite3_last_insert_rowid(db_.handle());
    }
    // Volumes the replaced album no longer holds go, with their covers (a
    // merge keeps every stored volume).
    for (const VolumeRecord& old : stored.volumes) {
      if (mode != WriteMode::kReplace) break;
      const uint32_t rid = old.record_id;
      if (std::none_of(result.volumes.begin(), result.volumes.end(),
                       [rid](const VolumeRecord& v) { return v.record_id == rid; })) {
        st_->delete_volume.Bind(1, int64_t{rid}).Run();
      }
    }
    for (const VolumeRecord& v : result.volumes)
      WriteVolumeRow(v, *aid);
    transaction.Commit();
    album.id = id;
    album.modified = now;
  });
}

HResult SqliteCatalog::DeleteAlbum(std::string_view album_id) {
  std::unique_lock lock(mutex_);
  if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
  return Guard([&] {
    Transaction transaction(db_);
    const std::optional<std::string> id = NormalAlbumId(album_id);
    AlbumRecord stored;
    if (!id || !FindAlbum(*id, &stored)) {
      throw Refusal{kCatalogNotFound, fmt::format("no album {}", album_id)};
    }
    // The volume index rows go first, and with them the covers.
    for (const VolumeRecord& v : stored.volumes) {
      st_->delete_volume.Bind(1, int64_t{v.record_id}).Run();
    }
    st_->delete_album_by_id.Bind(1, *id).Run();
    transaction.Commit();
  });
}

std::optional<PropertyValue> SqliteCatalog::GetVolumeProperty(uint32_t record_id, field::FieldId id,
                                                              uint32_t index) {
  std::lock_guard lock(mutex_);
  std::optional<PropertyValue> result;
  Guard([&] {
    Transaction snapshot(db_);
    AlbumRecord album;
    if (VolumeRecord* v = LoadVolume(record_id, &album)) {
      if (const PropertySet* properties = PropertiesAt(*v, index)) {
        if (const PropertyValue* value = properties->Find(id)) result = *value;
      }
    }
    snapshot.Commit();
  });
  return result;
}

HResult SqliteCatalog::SetVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index,
                                         const PropertyValue& value) {
  return EditVolume(record_id, index, [&](PropertySet& properties) {
    properties.Set(id, value);
    return true;
  });
}

HResult SqliteCatalog::RemoveVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index) {
  return EditVolume(record_id, index, [&](PropertySet& properties) {
    if (!properties.Has(id)) return false;
    properties.Remove(id);
    return true;
  });
}

HResult SqliteCatalog::BeginBatch() {
  std::unique_lock lock(mutex_);
  if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
  return Guard([&] {
    db_.Exec("SAVEPOINT batch");
    ++batch_depth_;
  });
}

HResult SqliteCatalog::CommitBatch() {
  std::unique_lock lock(mutex_);
  if (batch_depth_ == 0) return Refuse(kInvalidArgument, "no batch of writes to commit");
  return Guard([&] {
    db_.Exec("RELEASE batch");
    --batch_depth_;
  });
}

std::optional<std::string> SqliteCatalog::ReadCover(uint32_t record_id) {
  std::lock_guard lock(mutex_);
  std::optional<std::string> result;
  Guard([&] {
    Statement& s = st_->read_cover;
    ResetGuard reset(s);
    s.Bind(1, int64_t{record_id});
    if (s.Step()) result = s.Blob(0);
  });
  return result;
}

HResult SqliteCatalog::WriteCover(uint32_t record_id, std::string_view bytes) {
  std::unique_lock lock(mutex_);
  if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
  return Guard([&] {
    Transaction transaction(db_);
    const std::optional<int64_t> aid = AlbumOfVolume(record_id);
    if (!aid) throw Refusal{kCatalogNotFound, fmt::format("no volume {:08X}", record_id)};
    if (bytes.empty()) {
      st_->delete_cover.Bind(1, int64_t{record_id}).Run();
    } else {
      st_->write_cover.Bind(1, int64_t{record_id}).BindBlob(2, bytes).Run();
    }
    Touch(*aid);
    transaction.Commit();
  });
}

void SqliteCatalog::Damaged(std::string_view what) const {
  throw FatalDatabaseError(path_.string(), fmt::format("damaged record: {}", what));
}

// An album row's columns: aid, id, modified, record.
void SqliteCatalog::FillAlbum(const Statement& s, AlbumRecord& album) const {
  album.id = s.Text(1);
  album.modified = U32(s.Int(2));
  if (!DecodeAlbum(s.Blob(3), &album)) Damaged("album " + album.id);
}

bool SqliteCatalog::LoadAlbum(int64_t aid, AlbumRecord* album) {
  Statement& s = st_->album_row;
  ResetGuard reset(s);
  s.Bind(1, aid);
  if (!s.Step()) return false;
  FillAlbum(s, *album);
  return true;
}

// The row of the album with this (stored-form) identifier, loaded into
// *album when given.
std::optional<int64_t> SqliteCatalog::FindAlbum(const std::string& id, AlbumRecord* album) {
  Statement& s = st_->album_by_id;
  ResetGuard reset(s);
  s.Bind(1, id);
  if (!s.Step()) return std::nullopt;
  if (album != nullptr) FillAlbum(s, *album);
  return s.Int(0);
}

std::optional<int64_t> SqliteCatalog::AlbumOfVolume(uint32_t record_id) {
  Statement& s = st_->volume_album;
  ResetGuard reset(s);
  s.Bind(1, int64_t{record_id});
  if (!s.Step()) return std::nullopt;
  return s.Int(0);
}

// Loads the album that holds the volume into *album and returns the volume
// in it, or nullptr when there is no such volume.
VolumeRecord* SqliteCatalog::LoadVolume(uint32_t record_id, AlbumRecord* album, int64_t* row) {
  const std::optional<int64_t> aid = AlbumOfVolume(record_id);
  if (!aid || !LoadAlbum(*aid, album)) return nullptr;
  if (row != nullptr) *row = *aid;
  for (VolumeRecord& v : album->volumes) {
    if (v.record_id == record_id) return &v;
  }
  Damaged(fmt::format("volume {:08X} is missing from album {}", record_id, album->id));
}

std::string SqliteCatalog::NewAlbumId() {
  for (;;) {
    std::string id = NewRandomIdentifier();
    Statement& s = st_->id_exists;
    ResetGuard reset(s);
    s.Bind(1, id);
    if (!s.Step()) return id;
  }
}

// Changes the properties of a volume (index 0) or of one of its tracks;
// `edit` returns whether it changed anything.
HResult SqliteCatalog::EditVolume(uint32_t record_id, uint32_t index,
                                  const std::function<bool(PropertySet&)>& edit) {
  std::unique_lock lock(mutex_);
  if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
  return Guard([&] {
    Transaction transaction(db_);
    AlbumRecord album;
    int64_t aid = 0;
    VolumeRecord* v = LoadVolume(record_id, &album, &aid);
    if (v == nullptr) throw Refusal{kCatalogNotFound, fmt::format("no volume {:08X}", record_id)};
    PropertySet* properties = PropertiesAt(*v, index);
    if (properties == nullptr) {
      throw Refusal{kCatalogNotFound,
                    fmt::format("volume {:08X} has no track {}", record_id, index)};
    }
    if (edit(*properties)) {
      st_->update_album.Bind(1, aid).Bind(2, int64_t{Now()}).BindBlob(3, EncodeAlbum(album)).Run();
      if (index == 0) WriteVolumeRow(*v, aid);
    }
    transaction.Commit();
  });
}

// The properties of the volume (index 0) or of its track `index`; nullptr
// when there is no such track.
PropertySet* SqliteCatalog::PropertiesAt(VolumeRecord& volume, uint32_t index) {
  if (index == 0) return &volume.properties;
  for (TrackRecord& t : volume.tracks) {
    if (t.number == index) return &t.properties;
  }
  return nullptr;
}

bool SqliteCatalog::TrackNumberLess(const TrackRecord& a, const TrackRecord& b) {
  return a.number < b.number;
}

bool SqliteCatalog::TracksSorted(const VolumeRecord& v) {
  return std::is_sorted(v.tracks.begin(), v.tracks.end(), TrackNumberLess);
}

void SqliteCatalog::SortTracks(VolumeRecord& v) {
  std::stable_sort(v.tracks.begin(), v.tracks.end(), TrackNumberLess);
}

// A row of record_id, scan_folder, scan_stamp, scan_flags, scan_value3 (the
// column of the scan profile, named before its meaning was known).
VolumeScanState SqliteCatalog::ScanStateRow(const Statement& s) {
  VolumeScanState state;
  state.record_id = U32(s.Int(0));
  state.folder = s.Text(1);
  std::optional<uint32_t>* values[] = {&state.stamp, &state.flags, &state.profile};
  for (int i = 0; i < 3; ++i) {
    if (s.Type(2 + i) != SQLITE_NULL) *values[i] = U32(s.Int(2 + i));
  }
  return state;
}

// The volume's row of the index: its album, track count and scan state.
void SqliteCatalog::WriteVolumeRow(const VolumeRecord& v, int64_t aid) {
  const VolumeScanState state = VolumeScanState::Of(v);
  Statement& s = st_->write_volume;
  s.Bind(1, int64_t{v.record_id}).Bind(2, aid).Bind(3, static_cast<int64_t>(v.tracks.size()));
  if (!state.folder.empty()) s.Bind(4, state.folder);
  int column = 5;
  for (const std::optional<uint32_t>& value : {state.stamp, state.flags, state.profile}) {
    if (value) s.Bind(column, int64_t{*value});
    ++column;
  }
  s.Run();
}

// Brings a schema 1 file to schema 2: adds the scan columns to the volume
// index and fills them from the stored volumes, in one transaction.
void SqliteCatalog::AddScanColumns() {
  Transaction transaction(db_);
  for (const char* column : kScanColumns)
    db_.Exec(fmt::format("ALTER TABLE volumes ADD COLUMN {}", column).c_str());
  st_ = std::make_unique<Statements>(db_, true);
  Statement albums(db_, "SELECT aid, id, modified, record FROM albums ORDER BY aid");
  while (albums.Step()) {
    AlbumRecord album;
    FillAlbum(albums, album);
    for (const VolumeRecord& v : album.volumes)
      WriteVolumeRow(v, albums.Int(0));
  }
  db_.Exec(fmt::format("PRAGMA user_version = {}", kSchemaVersion).c_str());
  transaction.Commit();
}

std::unique_ptr<CatalogEngine> OpenEngine(const std::filesystem::path& path, bool writable,
                                          platform::FileLock lock, HResult* error,
                                          std::string* message) {
  auto engine = std::make_unique<SqliteCatalog>(path, writable, std::move(lock));
  *error = engine->Open(message);
  if (*error != kOk) return nullptr;
  return engine;
}

}  // namespace dischive::catalog
