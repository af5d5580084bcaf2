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
#include "catalog/record_codec.h"
#include "catalog/sqlite_db.h"
#include "dischive/database_files.h"
#include "dischive/random_id.h"
#include "dischive/sqlite_catalog.h"
#include "platform/file_lock.h"

namespace dischive {
namespace {

using catalog::Connection;
using catalog::DecodeAlbum;
using catalog::EncodeAlbum;
using catalog::ResetGuard;
using catalog::SqlFailure;
using catalog::Statement;
using catalog::Transaction;

// "DHAB" in the header's application-id field marks a DiscHive catalogue.
constexpr int32_t kApplicationId = 0x44484142;
// 2: the volume index keeps each volume's scan state (see ScannedVolumes).
constexpr int kSchemaVersion = 2;

constexpr const char* kSchema = R"sql(
CREATE TABLE albums(
  aid INTEGER PRIMARY KEY,
  id TEXT NOT NULL UNIQUE,
  modified INTEGER NOT NULL DEFAULT 0,
  record BLOB NOT NULL);
CREATE TABLE volumes(
  record_id INTEGER PRIMARY KEY,
  aid INTEGER NOT NULL,
  track_count INTEGER NOT NULL DEFAULT 0,
  scan_folder TEXT,
  scan_stamp INTEGER,
  scan_flags INTEGER,
  scan_value3 INTEGER);
CREATE TABLE covers(
  record_id INTEGER PRIMARY KEY REFERENCES volumes(record_id) ON DELETE CASCADE,
  bytes BLOB NOT NULL);
CREATE TABLE artists(
  name TEXT PRIMARY KEY,
  is_band INTEGER NOT NULL DEFAULT 0,
  sort_name TEXT NOT NULL DEFAULT '',
  country TEXT NOT NULL DEFAULT '',
  formed INTEGER NOT NULL DEFAULT 0,
  disbanded INTEGER NOT NULL DEFAULT 0);
CREATE TABLE artist_alt_names(
  name TEXT NOT NULL REFERENCES artists(name) ON DELETE CASCADE,
  pos INTEGER NOT NULL,
  alt_name TEXT NOT NULL,
  PRIMARY KEY(name, pos)) WITHOUT ROWID;
CREATE TABLE artist_links(
  name TEXT NOT NULL REFERENCES artists(name) ON DELETE CASCADE,
  pos INTEGER NOT NULL,
  link TEXT NOT NULL,
  description TEXT NOT NULL DEFAULT '',
  PRIMARY KEY(name, pos)) WITHOUT ROWID;
CREATE TABLE db_props(
  grp TEXT NOT NULL COLLATE NOCASE,
  key TEXT NOT NULL COLLATE NOCASE,
  value TEXT NOT NULL,
  PRIMARY KEY(grp, key)) WITHOUT ROWID;
CREATE TABLE meta(
  key TEXT PRIMARY KEY,
  value) WITHOUT ROWID;
)sql";

uint32_t Now() {
  return static_cast<uint32_t>(std::time(nullptr));
}

uint32_t ReadBigEndian(const unsigned char* p, size_t n) {
  uint32_t v = 0;
  for (size_t i = 0; i < n; ++i)
    v = v << 8 | p[i];
  return v;
}

// Checks the first bytes of an existing file before SQLite sees it, so that a
// file that is not a catalogue, or a cut-off one, is refused without being
// touched. Returns an empty text when the file looks like a catalogue.
std::string CheckDatabaseHeader(const std::filesystem::path& path) {
  std::error_code ec;
  const uintmax_t size = std::filesystem::file_size(path, ec);
  if (ec) return "cannot read " + path.string() + ": " + ec.message();
  if (size == 0) return path.string() + " is empty, not a catalogue";
  std::ifstream in(path, std::ios::binary);
  unsigned char header[100] = {};
  in.read(reinterpret_cast<char*>(header), sizeof header);
  const std::streamsize got = in.gcount();
  if (got < 16 || std::memcmp(header, "SQLite format 3", 16) != 0) {
    return path.string() + " is not a catalogue (not a database file)";
  }
  if (got < static_cast<std::streamsize>(sizeof header)) {
    return path.string() + " is not a catalogue (too short for a database file)";
  }
  uint32_t page_size = ReadBigEndian(header + 16, 2);
  if (page_size == 1) page_size = 65536;
  if (page_size < 512 || page_size > 65536 || (page_size & (page_size - 1)) != 0) {
    return path.string() + " is damaged (invalid page size in its header)";
  }
  const uint32_t change_counter = ReadBigEndian(header + 24, 4);
  const uint32_t page_count = ReadBigEndian(header + 28, 4);
  const uint32_t valid_for = ReadBigEndian(header + 92, 4);
  // The page count in the header is reliable only when it was written with
  // the current change counter.
  if (page_count != 0 && valid_for == change_counter) {
    const uintmax_t expected = static_cast<uintmax_t>(page_count) * page_size;
    if (size < expected) {
      return fmt::format("{} is truncated ({} of {} bytes)", path.string(), size, expected);
    }
  }
  if (static_cast<int32_t>(ReadBigEndian(header + 68, 4)) != kApplicationId) {
    return path.string() + " is a database, but not a DiscHive catalogue";
  }
  return {};
}

uint32_t U32(int64_t v) {
  return static_cast<uint32_t>(v);
}

// The columns the volume index gained in schema 2.
constexpr const char* kScanColumns[] = {"scan_folder TEXT", "scan_stamp INTEGER",
                                        "scan_flags INTEGER", "scan_value3 INTEGER"};

// The prepared statements of one connection, compiled once. A file of schema 1
// opened by a reader (which cannot add the scan columns) gets the statements
// that do without them.
struct Statements {
  Statements(Connection& c, bool scan_columns)
      : count_albums(c, "SELECT count(*) FROM albums"),
        album_row(c, "SELECT aid, id, modified, record FROM albums WHERE aid = ?1"),
        album_by_id(c, "SELECT aid, id, modified, record FROM albums WHERE id = ?1"),
        volume_album(c, "SELECT aid FROM volumes WHERE record_id = ?1"),
        album_id_of_volume(c,
                           "SELECT a.id FROM volumes v JOIN albums a ON a.aid = v.aid "
                           "WHERE v.record_id = ?1"),
        insert_album(c, "INSERT INTO albums(id, modified, record) VALUES(?1, ?2, ?3)"),
        update_album(c, "UPDATE albums SET modified = ?2, record = ?3 WHERE aid = ?1"),
        id_exists(c, "SELECT 1 FROM albums WHERE id = ?1"),
        delete_album_by_id(c, "DELETE FROM albums WHERE id = ?1"),
        touch_album(c, "UPDATE albums SET modified = ?2 WHERE aid = ?1"),
        write_volume(c, scan_columns
                            ? "INSERT INTO volumes(record_id, aid, track_count, scan_folder, "
                              "scan_stamp, scan_flags, scan_value3) VALUES(?1, ?2, ?3, ?4, ?5, "
                              "?6, ?7) ON CONFLICT(record_id) DO UPDATE SET track_count = "
                              "excluded.track_count, scan_folder = excluded.scan_folder, "
                              "scan_stamp = excluded.scan_stamp, scan_flags = "
                              "excluded.scan_flags, scan_value3 = excluded.scan_value3"
                            : "SELECT ?1, ?2, ?3, ?4, ?5, ?6, ?7"),
        delete_volume(c, "DELETE FROM volumes WHERE record_id = ?1"),
        read_cover(c, "SELECT bytes FROM covers WHERE record_id = ?1"),
        write_cover(c, "INSERT OR REPLACE INTO covers(record_id, bytes) VALUES(?1, ?2)"),
        delete_cover(c, "DELETE FROM covers WHERE record_id = ?1"),
        list_artists(c,
                     "SELECT name, is_band, sort_name, country, formed, disbanded FROM artists "
                     "ORDER BY name"),
        artist_alt_names(c, "SELECT alt_name FROM artist_alt_names WHERE name = ?1 ORDER BY pos"),
        artist_links(c, "SELECT link, description FROM artist_links WHERE name = ?1 ORDER BY pos"),
        delete_artist(c, "DELETE FROM artists WHERE name = ?1"),
        insert_artist(c,
                      "INSERT INTO artists(name, is_band, sort_name, country, formed, disbanded) "
                      "VALUES(?1, ?2, ?3, ?4, ?5, ?6)"),
        insert_alt_name(c, "INSERT INTO artist_alt_names(name, pos, alt_name) VALUES(?1, ?2, ?3)"),
        insert_link(c,
                    "INSERT INTO artist_links(name, pos, link, description) "
                    "VALUES(?1, ?2, ?3, ?4)"),
        get_db_prop(c, "SELECT value FROM db_props WHERE grp = ?1 AND key = ?2"),
        set_db_prop(c, "INSERT OR REPLACE INTO db_props(grp, key, value) VALUES(?1, ?2, ?3)"),
        delete_db_prop(c, "DELETE FROM db_props WHERE grp = ?1 AND key = ?2"),
        list_db_props(c, "SELECT key, value FROM db_props WHERE grp = ?1 ORDER BY key"),
        get_meta(c, "SELECT value FROM meta WHERE key = ?1"),
        set_meta(c, "INSERT OR REPLACE INTO meta(key, value) VALUES(?1, ?2)") {
    if (scan_columns) {
      scan_state.emplace(c,
                         "SELECT record_id, scan_folder, scan_stamp, scan_flags, scan_value3 "
                         "FROM volumes WHERE record_id = ?1");
      scanned_volumes.emplace(c,
                              "SELECT record_id, scan_folder, scan_stamp, scan_flags, "
                              "scan_value3 FROM volumes WHERE scan_folder IS NOT NULL "
                              "ORDER BY record_id");
    }
  }

  Statement count_albums, album_row, album_by_id, volume_album, album_id_of_volume, insert_album,
      update_album, id_exists, delete_album_by_id, touch_album, write_volume, delete_volume,
      read_cover, write_cover, delete_cover, list_artists, artist_alt_names, artist_links,
      delete_artist, insert_artist, insert_alt_name, insert_link, get_db_prop, set_db_prop,
      delete_db_prop, list_db_props, get_meta, set_meta;
  std::optional<Statement> scan_state, scanned_volumes;
};

// An album identifier in its stored form (16 upper-case hexadecimal digits);
// empty when the text is not 16 hexadecimal digits.
std::optional<std::string> NormalAlbumId(std::string_view id) {
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

  ~SqliteCatalog() override {
    // A batch still open is committed: closing never drops written albums.
    while (batch_depth_ > 0) {
      --batch_depth_;
      sqlite3_exec(db_.handle(), "RELEASE batch", nullptr, nullptr, nullptr);
    }
    st_.reset();
    db_.Close();
  }

  // Opens the connection and compiles the statements; fills *message on failure.
  HResult Open(std::string* message) {
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

  const std::filesystem::path& path() const override { return path_; }

  // Settings of the connection; the first read of the file happens here.
  void Configure() {
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

  size_t AlbumCount() override {
    std::lock_guard lock(mutex_);
    size_t count = 0;
    Guard([&] {
      ResetGuard reset(st_->count_albums);
      if (st_->count_albums.Step()) count = static_cast<size_t>(st_->count_albums.Int(0));
    });
    return count;
  }

  CatalogCounts Counts() override {
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

  HResult ForEachAlbum(const std::function<bool(const AlbumRecord&)>& visit) override {
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

  std::optional<AlbumRecord> ReadAlbum(std::string_view album_id) override {
    std::lock_guard lock(mutex_);
    std::optional<AlbumRecord> result;
    Guard([&] {
      AlbumRecord album;
      const std::optional<std::string> id = NormalAlbumId(album_id);
      if (id && FindAlbum(*id, &album)) result = std::move(album);
    });
    return result;
  }

  std::optional<std::string> FindAlbumOfVolume(uint32_t record_id) override {
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

  std::optional<VolumeRecord> ReadVolume(uint32_t record_id) override {
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

  std::optional<VolumeScanState> ReadVolumeScanState(uint32_t record_id) override {
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

  std::vector<VolumeScanState> ScannedVolumes() override {
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

  HResult WriteAlbum(AlbumRecord& album, WriteMode mode) override {
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
        st_->update_album.Bind(1, *aid)
            .Bind(2, int64_t{now})
            .BindBlob(3, EncodeAlbum(result))
            .Run();
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

  HResult DeleteAlbum(std::string_view album_id) override {
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

  std::optional<PropertyValue> GetVolumeProperty(uint32_t record_id, field::FieldId id,
                                                 uint32_t index) override {
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

  HResult SetVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index,
                            const PropertyValue& value) override {
    return EditVolume(record_id, index, [&](PropertySet& properties) {
      properties.Set(id, value);
      return true;
    });
  }

  HResult RemoveVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index) override {
    return EditVolume(record_id, index, [&](PropertySet& properties) {
      if (!properties.Has(id)) return false;
      properties.Remove(id);
      return true;
    });
  }

  HResult BeginBatch() override {
    std::unique_lock lock(mutex_);
    if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
    return Guard([&] {
      db_.Exec("SAVEPOINT batch");
      ++batch_depth_;
    });
  }

  HResult CommitBatch() override {
    std::unique_lock lock(mutex_);
    if (batch_depth_ == 0) return Refuse(kInvalidArgument, "no batch of writes to commit");
    return Guard([&] {
      db_.Exec("RELEASE batch");
      --batch_depth_;
    });
  }

  std::optional<std::string> ReadCover(uint32_t record_id) override {
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

  HResult WriteCover(uint32_t record_id, std::string_view bytes) override {
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

  std::vector<ArtistEntry> Artists() override {
    std::lock_guard lock(mutex_);
    std::vector<ArtistEntry> artists;
    Guard([&] {
      Transaction snapshot(db_);
      {
        Statement& s = st_->list_artists;
        ResetGuard reset(s);
        while (s.Step()) {
          ArtistEntry& a = artists.emplace_back();
          a.name = s.Text(0);
          a.is_band = s.Int(1) != 0;
          a.sort_name = s.Text(2);
          a.country = s.Text(3);
          a.date_formed = U32(s.Int(4));
          a.date_disbanded = U32(s.Int(5));
        }
      }
      for (ArtistEntry& a : artists) {
        Statement& alt = st_->artist_alt_names;
        {
          ResetGuard reset(alt);
          alt.Bind(1, a.name);
          while (alt.Step())
            a.alt_names.push_back(alt.Text(0));
        }
        Statement& links = st_->artist_links;
        ResetGuard reset(links);
        links.Bind(1, a.name);
        while (links.Step())
          a.links.push_back({links.Text(0), links.Text(1)});
      }
      snapshot.Commit();
    });
    return artists;
  }

  uint32_t ArtistsModified() override {
    std::lock_guard lock(mutex_);
    uint32_t result = 0;
    Guard([&] { result = U32(GetMeta("artists_modified")); });
    return result;
  }

  HResult WriteArtist(const ArtistEntry& artist) override {
    std::unique_lock lock(mutex_);
    if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
    return Guard([&] {
      if (artist.name.empty()) throw Refusal{kInvalidArgument, "an artist needs a name"};
      Transaction transaction(db_);
      st_->delete_artist.Bind(1, artist.name).Run();
      Statement& s = st_->insert_artist;
      s.Bind(1, artist.name).Bind(2, artist.is_band ? 1 : 0).Bind(3, artist.sort_name);
      s.Bind(4, artist.country).Bind(5, int64_t{artist.date_formed});
      s.Bind(6, int64_t{artist.date_disbanded});
      s.Run();
      for (size_t i = 0; i < artist.alt_names.size(); ++i) {
        st_->insert_alt_name.Bind(1, artist.name)
            .Bind(2, static_cast<int64_t>(i))
            .Bind(3, artist.alt_names[i])
            .Run();
      }
      for (size_t i = 0; i < artist.links.size(); ++i) {
        st_->insert_link.Bind(1, artist.name)
            .Bind(2, static_cast<int64_t>(i))
            .Bind(3, artist.links[i].name)
            .Bind(4, artist.links[i].description)
            .Run();
      }
      SetMeta("artists_modified", Now());
      transaction.Commit();
    });
  }

  HResult RemoveArtist(std::string_view name) override {
    std::unique_lock lock(mutex_);
    if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
    return Guard([&] {
      Transaction transaction(db_);
      st_->delete_artist.Bind(1, name).Run();
      if (sqlite3_changes(db_.handle()) == 0) {
        throw Refusal{kCatalogNotFound, fmt::format("no artist \"{}\"", name)};
      }
      SetMeta("artists_modified", Now());
      transaction.Commit();
    });
  }

  std::optional<std::string> GetDatabaseProperty(std::string_view group,
                                                 std::string_view key) override {
    std::lock_guard lock(mutex_);
    std::optional<std::string> result;
    Guard([&] { result = GetProperty(group, key); });
    return result;
  }

  HResult SetDatabaseProperty(std::string_view group, std::string_view key,
                              std::string_view value) override {
    std::unique_lock lock(mutex_);
    if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
    return Guard([&] {
      if (group.empty() || key.empty()) {
        throw Refusal{kInvalidArgument, "a database property needs a group and a key"};
      }
      st_->set_db_prop.Bind(1, group).Bind(2, key).Bind(3, value).Run();
    });
  }

  HResult RemoveDatabaseProperty(std::string_view group, std::string_view key) override {
    std::unique_lock lock(mutex_);
    if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
    return Guard([&] { st_->delete_db_prop.Bind(1, group).Bind(2, key).Run(); });
  }

  std::vector<std::pair<std::string, std::string>> DatabaseProperties(
      std::string_view group) override {
    std::lock_guard lock(mutex_);
    std::vector<std::pair<std::string, std::string>> result;
    Guard([&] {
      Statement& s = st_->list_db_props;
      ResetGuard reset(s);
      s.Bind(1, group);
      while (s.Step())
        result.emplace_back(s.Text(0), s.Text(1));
    });
    return result;
  }

  std::string UserList(std::string_view key) override {
    std::lock_guard lock(mutex_);
    std::optional<std::string> stored;
    Guard([&] { stored = GetProperty(kDatabaseOptionsGroup, key); });
    return stored ? *stored : DefaultUserList(key);
  }

  HResult SetUserList(std::string_view key, std::string_view text) override {
    std::unique_lock lock(mutex_);
    if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
    return Guard([&] {
      if (key.empty()) throw Refusal{kInvalidArgument, "a user list needs a key"};
      Transaction transaction(db_);
      st_->set_db_prop.Bind(1, kDatabaseOptionsGroup).Bind(2, key).Bind(3, text).Run();
      st_->set_db_prop.Bind(1, kDatabaseOptionsGroup)
          .Bind(2, "t_" + std::string(key))
          .Bind(3, std::to_string(Now()))
          .Run();
      transaction.Commit();
    });
  }

  uint32_t UserListTimestamp(std::string_view key) override {
    std::lock_guard lock(mutex_);
    std::optional<std::string> stored;
    Guard([&] { stored = GetProperty(kDatabaseOptionsGroup, "t_" + std::string(key)); });
    if (!stored) return 0;
    const std::optional<int32_t> value = ParseSettingsInt(*stored);
    return value ? static_cast<uint32_t>(*value) : 0;
  }

  HResult SuspendWriting() override {
    std::unique_lock lock(mutex_);
    if (suspended_) {
      return Refuse(kCatalogLocked, "writing to the catalogue is already suspended");
    }
    if (batch_depth_ > 0) {
      return Refuse(kCatalogLocked, "a batch of writes is still open");
    }
    if (writable_) {
      int log_frames = 0, checkpointed = 0;
      const int rc = sqlite3_wal_checkpoint_v2(db_.handle(), nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                               &log_frames, &checkpointed);
      if (rc != SQLITE_OK) {
        if (catalog::IsFatalSqliteCode(rc))
          throw FatalDatabaseError(path_.string(), sqlite3_errmsg(db_.handle()));
        return Refuse(kCatalogLocked, std::string("the write-ahead log cannot be emptied: ") +
                                          sqlite3_errmsg(db_.handle()));
      }
    } else {
      // A reader holds writers off by taking the write lock itself, then
      // empties a log a crashed writer may have left behind.
      const int error = suspend_lock_.TryLock(CatalogLockPath(path_));
      if (error == EWOULDBLOCK) {
        return Refuse(kCatalogLocked, "another process is writing to " + path_.string());
      }
      if (error != 0) {
        return Refuse(kFail, "cannot lock " + path_.string() + ": " + std::strerror(error));
      }
      std::error_code ec;
      std::filesystem::path wal = path_;
      wal += "-wal";
      if (std::filesystem::file_size(wal, ec) > 0 && !ec) {
        Connection writer;
        std::string message;
        int rc = writer.Open(path_, SQLITE_OPEN_READWRITE, &message);
        if (rc == SQLITE_OK) {
          sqlite3_busy_timeout(writer.handle(), 5000);
          rc = sqlite3_wal_checkpoint_v2(writer.handle(), nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                         nullptr, nullptr);
          if (rc != SQLITE_OK) message = sqlite3_errmsg(writer.handle());
        }
        if (rc != SQLITE_OK) {
          suspend_lock_.Release();
          return Refuse(kCatalogLocked, "the write-ahead log cannot be emptied: " + message);
        }
      }
    }
    suspended_ = true;
    suspender_ = std::this_thread::get_id();
    return kOk;
  }

  void ResumeWriting() override {
    std::unique_lock lock(mutex_);
    suspended_ = false;
    suspend_lock_.Release();
    resumed_.notify_all();
  }

  std::string LastErrorText() const override {
    std::lock_guard lock(mutex_);
    return last_error_;
  }

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

  HResult Refuse(HResult code, std::string message) {
    last_error_ = std::move(message);
    return code;
  }

  // Whether this engine may write now; waits while another thread of this
  // process has writing suspended for a copy of the file.
  HResult CheckWritable(std::unique_lock<std::recursive_mutex>& lock) {
    if (!writable_) return Refuse(kCatalogReadOnly, path_.string() + " is open for reading only");
    while (suspended_) {
      if (suspender_ == std::this_thread::get_id()) {
        return Refuse(kCatalogLocked, "writing is suspended while the catalogue is copied");
      }
      resumed_.wait(lock);
    }
    return kOk;
  }

  [[noreturn]] void Damaged(std::string_view what) const {
    throw FatalDatabaseError(path_.string(), fmt::format("damaged record: {}", what));
  }

  // An album row's columns: aid, id, modified, record.
  void FillAlbum(const Statement& s, AlbumRecord& album) const {
    album.id = s.Text(1);
    album.modified = U32(s.Int(2));
    if (!DecodeAlbum(s.Blob(3), &album)) Damaged("album " + album.id);
  }

  bool LoadAlbum(int64_t aid, AlbumRecord* album) {
    Statement& s = st_->album_row;
    ResetGuard reset(s);
    s.Bind(1, aid);
    if (!s.Step()) return false;
    FillAlbum(s, *album);
    return true;
  }

  // The row of the album with this (stored-form) identifier, loaded into
  // *album when given.
  std::optional<int64_t> FindAlbum(const std::string& id, AlbumRecord* album) {
    Statement& s = st_->album_by_id;
    ResetGuard reset(s);
    s.Bind(1, id);
    if (!s.Step()) return std::nullopt;
    if (album != nullptr) FillAlbum(s, *album);
    return s.Int(0);
  }

  std::optional<int64_t> AlbumOfVolume(uint32_t record_id) {
    Statement& s = st_->volume_album;
    ResetGuard reset(s);
    s.Bind(1, int64_t{record_id});
    if (!s.Step()) return std::nullopt;
    return s.Int(0);
  }

  // Loads the album that holds the volume into *album and returns the volume
  // in it, or nullptr when there is no such volume.
  VolumeRecord* LoadVolume(uint32_t record_id, AlbumRecord* album, int64_t* row = nullptr) {
    const std::optional<int64_t> aid = AlbumOfVolume(record_id);
    if (!aid || !LoadAlbum(*aid, album)) return nullptr;
    if (row != nullptr) *row = *aid;
    for (VolumeRecord& v : album->volumes) {
      if (v.record_id == record_id) return &v;
    }
    Damaged(fmt::format("volume {:08X} is missing from album {}", record_id, album->id));
  }

  std::string NewAlbumId() {
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
  HResult EditVolume(uint32_t record_id, uint32_t index,
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
        st_->update_album.Bind(1, aid)
            .Bind(2, int64_t{Now()})
            .BindBlob(3, EncodeAlbum(album))
            .Run();
        if (index == 0) WriteVolumeRow(*v, aid);
      }
      transaction.Commit();
    });
  }

  // The properties of the volume (index 0) or of its track `index`; nullptr
  // when there is no such track.
  static PropertySet* PropertiesAt(VolumeRecord& volume, uint32_t index) {
    if (index == 0) return &volume.properties;
    for (TrackRecord& t : volume.tracks) {
      if (t.number == index) return &t.properties;
    }
    return nullptr;
  }

  static bool TrackNumberLess(const TrackRecord& a, const TrackRecord& b) {
    return a.number < b.number;
  }
  static bool TracksSorted(const VolumeRecord& v) {
    return std::is_sorted(v.tracks.begin(), v.tracks.end(), TrackNumberLess);
  }
  static void SortTracks(VolumeRecord& v) {
    std::stable_sort(v.tracks.begin(), v.tracks.end(), TrackNumberLess);
  }

  // A row of record_id, scan_folder, scan_stamp, scan_flags, scan_value3.
  static VolumeScanState ScanStateRow(const Statement& s) {
    VolumeScanState state;
    state.record_id = U32(s.Int(0));
    state.folder = s.Text(1);
    std::optional<uint32_t>* values[] = {&state.stamp, &state.flags, &state.value3};
    for (int i = 0; i < 3; ++i) {
      if (s.Type(2 + i) != SQLITE_NULL) *values[i] = U32(s.Int(2 + i));
    }
    return state;
  }

  // The volume's row of the index: its album, track count and scan state.
  void WriteVolumeRow(const VolumeRecord& v, int64_t aid) {
    const VolumeScanState state = VolumeScanState::Of(v);
    Statement& s = st_->write_volume;
    s.Bind(1, int64_t{v.record_id}).Bind(2, aid).Bind(3, static_cast<int64_t>(v.tracks.size()));
    if (!state.folder.empty()) s.Bind(4, state.folder);
    int column = 5;
    for (const std::optional<uint32_t>& value : {state.stamp, state.flags, state.value3}) {
      if (value) s.Bind(column, int64_t{*value});
      ++column;
    }
    s.Run();
  }

  // Brings a schema 1 file to schema 2: adds the scan columns to the volume
  // index and fills them from the stored volumes, in one transaction.
  void AddScanColumns() {
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

  void Touch(int64_t aid) { st_->touch_album.Bind(1, aid).Bind(2, int64_t{Now()}).Run(); }

  std::optional<std::string> GetProperty(std::string_view group, std::string_view key) {
    Statement& s = st_->get_db_prop;
    ResetGuard reset(s);
    s.Bind(1, group).Bind(2, key);
    if (!s.Step()) return std::nullopt;
    return s.Text(0);
  }

  int64_t GetMeta(std::string_view key) {
    Statement& s = st_->get_meta;
    ResetGuard reset(s);
    s.Bind(1, key);
    return s.Step() ? s.Int(0) : 0;
  }

  void SetMeta(std::string_view key, int64_t value) {
    st_->set_meta.Bind(1, key).Bind(2, value).Run();
  }

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

// Creates a new, empty catalogue file; removes what it made when that fails.
HResult CreateCatalogFile(const std::filesystem::path& path, std::string* message) {
  Connection db;
  if (db.Open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_EXCLUSIVE, message) !=
      SQLITE_OK) {
    *message = "cannot create " + path.string() + ": " + *message;
    return kFail;
  }
  try {
    db.Exec(fmt::format("PRAGMA application_id = {}; PRAGMA user_version = {};", kApplicationId,
                        kSchemaVersion)
                .c_str());
    db.Exec("BEGIN");
    db.Exec(kSchema);
    db.Exec("COMMIT");
    db.Exec("PRAGMA journal_mode = WAL");
    db.Close();
    return kOk;
  } catch (const std::exception& e) {
    *message = "cannot create " + path.string() + ": " + e.what();
  }
  db.Close();
  std::error_code ec;
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    std::filesystem::path p = path;
    p += suffix;
    std::filesystem::remove(p, ec);
  }
  return kFail;
}

}  // namespace

std::filesystem::path CatalogLockPath(const std::filesystem::path& path) {
  std::filesystem::path lock = path;
  lock += ".lock";
  return lock;
}

bool CatalogBeingWritten(const std::filesystem::path& path) {
  std::error_code ec;
  if (!std::filesystem::exists(CatalogLockPath(path), ec)) return false;
  platform::FileLock probe;
  return probe.TryLock(CatalogLockPath(path)) == EWOULDBLOCK;
}

std::unique_ptr<CatalogEngine> OpenSqliteCatalog(const std::filesystem::path& path,
                                                 CatalogOpenMode mode, HResult* error,
                                                 std::string* message) {
  std::string text;
  auto fail = [&](HResult code, std::string why) -> std::unique_ptr<CatalogEngine> {
    if (error != nullptr) *error = code;
    if (message != nullptr) *message = std::move(why);
    return nullptr;
  };
  if (path.empty()) return fail(kInvalidArgument, "no catalogue file given");

  std::error_code ec;
  const std::filesystem::file_status status = std::filesystem::status(path, ec);
  bool exists = std::filesystem::exists(status);
  if (exists && !std::filesystem::is_regular_file(status)) {
    return fail(kCatalogInvalid, path.string() + " is not a file");
  }
  if (!exists && mode != CatalogOpenMode::kCreate) {
    return fail(kCatalogMissing, "no catalogue at " + path.string());
  }
  if (exists) {
    if (std::string why = CheckDatabaseHeader(path); !why.empty()) {
      return fail(kCatalogInvalid, why);
    }
  } else if (path.has_parent_path()) {
    std::filesystem::create_directories(path.parent_path(), ec);
    if (ec)
      return fail(kFail, "cannot create " + path.parent_path().string() + ": " + ec.message());
  }

  platform::FileLock lock;
  if (mode != CatalogOpenMode::kReadOnly) {
    const int e = lock.TryLock(CatalogLockPath(path));
    if (e == EWOULDBLOCK) {
      return fail(kCatalogLocked, "another process is writing to " + path.string());
    }
    if (e != 0) {
      return fail(e == EACCES || e == EROFS ? kCatalogReadOnly : kFail,
                  "cannot lock " + path.string() + ": " + std::strerror(e));
    }
    // Another process may have created the file before the lock was ours.
    exists = std::filesystem::exists(path, ec);
    if (!exists) {
      if (const HResult rc = CreateCatalogFile(path, &text); rc != kOk) return fail(rc, text);
    } else if (std::string why = CheckDatabaseHeader(path); !why.empty()) {
      return fail(kCatalogInvalid, why);
    }
  }

  auto engine =
      std::make_unique<SqliteCatalog>(path, mode != CatalogOpenMode::kReadOnly, std::move(lock));
  if (const HResult rc = engine->Open(&text); rc != kOk) return fail(rc, text);
  if (error != nullptr) *error = kOk;
  return engine;
}

}  // namespace dischive
