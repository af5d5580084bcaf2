// The embedded catalogue engine: one ".dab" SQLite file in write-ahead-log
// mode. Albums, volumes and tracks are rows; their properties are rows keyed
// by field id (and by track index for volumes), so new fields need no schema
// change. One process writes at a time: a writer holds an flock on the lock
// file beside the database for as long as it has the catalogue open.
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

#include "catalog/sqlite_db.h"
#include "dischive/database_files.h"
#include "dischive/random_id.h"
#include "dischive/sqlite_catalog.h"
#include "platform/file_lock.h"

namespace dischive {
namespace {

using catalog::Connection;
using catalog::ResetGuard;
using catalog::SqlFailure;
using catalog::Statement;
using catalog::Transaction;

// "DHAB" in the header's application-id field marks a DiscHive catalogue.
constexpr int32_t kApplicationId = 0x44484142;
constexpr int kSchemaVersion = 1;

// Lists of names an album keeps in album_names, by list number.
constexpr int kListArtists = 0;
constexpr int kListComposers = 1;
constexpr int kListCredits = 2;  // 2 .. 2 + kCreditListCount - 1
constexpr int kListLineup = kListCredits + kCreditListCount;

constexpr const char* kSchema = R"sql(
CREATE TABLE albums(
  aid INTEGER PRIMARY KEY,
  id TEXT NOT NULL UNIQUE,
  modified INTEGER NOT NULL DEFAULT 0,
  various_artists INTEGER NOT NULL DEFAULT 0,
  various_composers INTEGER NOT NULL DEFAULT 0);
CREATE TABLE album_props(
  aid INTEGER NOT NULL REFERENCES albums(aid) ON DELETE CASCADE,
  field INTEGER NOT NULL,
  value,
  PRIMARY KEY(aid, field)) WITHOUT ROWID;
CREATE TABLE album_names(
  aid INTEGER NOT NULL REFERENCES albums(aid) ON DELETE CASCADE,
  list INTEGER NOT NULL,
  pos INTEGER NOT NULL,
  name TEXT NOT NULL,
  role TEXT NOT NULL DEFAULT '',
  period TEXT NOT NULL DEFAULT '',
  PRIMARY KEY(aid, list, pos)) WITHOUT ROWID;
CREATE TABLE volumes(
  record_id INTEGER PRIMARY KEY,
  aid INTEGER NOT NULL REFERENCES albums(aid) ON DELETE CASCADE,
  pos INTEGER NOT NULL,
  title TEXT NOT NULL DEFAULT '',
  frames INTEGER NOT NULL DEFAULT 0,
  created INTEGER NOT NULL DEFAULT 0,
  played INTEGER NOT NULL DEFAULT 0);
CREATE INDEX volumes_by_album ON volumes(aid, pos);
CREATE TABLE tracks(
  record_id INTEGER NOT NULL REFERENCES volumes(record_id) ON DELETE CASCADE,
  number INTEGER NOT NULL,
  frames INTEGER NOT NULL DEFAULT 0,
  PRIMARY KEY(record_id, number)) WITHOUT ROWID;
CREATE TABLE volume_props(
  record_id INTEGER NOT NULL REFERENCES volumes(record_id) ON DELETE CASCADE,
  idx INTEGER NOT NULL,
  field INTEGER NOT NULL,
  value,
  PRIMARY KEY(record_id, idx, field)) WITHOUT ROWID;
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

std::optional<PropertyValue> ColumnValue(const Statement& s, int column) {
  switch (s.Type(column)) {
    case SQLITE_INTEGER:
    case SQLITE_FLOAT:
      // Properties are 32-bit; a larger number from a foreign writer keeps its low bits.
      return PropertyValue(static_cast<int32_t>(static_cast<uint32_t>(s.Int(column))));
    case SQLITE_TEXT:
      return PropertyValue(s.Text(column));
    case SQLITE_BLOB:
      return PropertyValue(s.Blob(column));
    default:
      return std::nullopt;
  }
}

void BindValue(Statement& s, int index, const PropertyValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) {
    s.Bind(index, *text);
  } else {
    s.Bind(index, static_cast<int64_t>(std::get<int32_t>(value)));
  }
}

uint32_t U32(int64_t v) {
  return static_cast<uint32_t>(v);
}

// The prepared statements of one connection, compiled once.
struct Statements {
  explicit Statements(Connection& c)
      : count_albums(c, "SELECT count(*) FROM albums"),
        album_by_id(c,
                    "SELECT aid, id, modified, various_artists, various_composers FROM albums "
                    "WHERE id = ?1"),
        album_props(c, "SELECT field, value FROM album_props WHERE aid = ?1"),
        album_names(c,
                    "SELECT list, name, role, period FROM album_names WHERE aid = ?1 "
                    "ORDER BY list, pos"),
        album_volumes(c,
                      "SELECT record_id, title, frames, created, played FROM volumes "
                      "WHERE aid = ?1 ORDER BY pos"),
        volume_row(c,
                   "SELECT record_id, title, frames, created, played, aid FROM volumes "
                   "WHERE record_id = ?1"),
        volume_tracks(c, "SELECT number, frames FROM tracks WHERE record_id = ?1 ORDER BY number"),
        volume_props(c,
                     "SELECT idx, field, value FROM volume_props WHERE record_id = ?1 "
                     "ORDER BY idx, field"),
        album_of_volume(c,
                        "SELECT a.id FROM volumes v JOIN albums a ON a.aid = v.aid "
                        "WHERE v.record_id = ?1"),
        insert_album(c,
                     "INSERT INTO albums(id, modified, various_artists, various_composers) "
                     "VALUES(?1, ?2, ?3, ?4)"),
        update_album(c,
                     "UPDATE albums SET modified = ?2, various_artists = ?3, "
                     "various_composers = ?4 WHERE aid = ?1"),
        touch_album(c, "UPDATE albums SET modified = ?2 WHERE aid = ?1"),
        delete_album_props(c, "DELETE FROM album_props WHERE aid = ?1"),
        upsert_album_prop(c,
                          "INSERT OR REPLACE INTO album_props(aid, field, value) "
                          "VALUES(?1, ?2, ?3)"),
        delete_album_names(c, "DELETE FROM album_names WHERE aid = ?1"),
        delete_album_list(c, "DELETE FROM album_names WHERE aid = ?1 AND list = ?2"),
        insert_album_name(c,
                          "INSERT INTO album_names(aid, list, pos, name, role, period) "
                          "VALUES(?1, ?2, ?3, ?4, ?5, ?6)"),
        volume_owner(c, "SELECT aid FROM volumes WHERE record_id = ?1"),
        album_volume_ids(c, "SELECT record_id FROM volumes WHERE aid = ?1"),
        next_volume_pos(c, "SELECT coalesce(max(pos) + 1, 0) FROM volumes WHERE aid = ?1"),
        insert_volume(c,
                      "INSERT INTO volumes(record_id, aid, pos, title, frames, created, played) "
                      "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)"),
        replace_volume(c,
                       "UPDATE volumes SET pos = ?2, title = ?3, frames = ?4, created = ?5, "
                       "played = ?6 WHERE record_id = ?1"),
        merge_volume(c,
                     "UPDATE volumes SET "
                     "title = CASE WHEN ?2 <> '' THEN ?2 ELSE title END, "
                     "frames = CASE WHEN ?3 <> 0 THEN ?3 ELSE frames END, "
                     "created = CASE WHEN ?4 <> 0 THEN ?4 ELSE created END, "
                     "played = CASE WHEN ?5 <> 0 THEN ?5 ELSE played END "
                     "WHERE record_id = ?1"),
        delete_volume(c, "DELETE FROM volumes WHERE record_id = ?1"),
        delete_tracks(c, "DELETE FROM tracks WHERE record_id = ?1"),
        delete_volume_props(c, "DELETE FROM volume_props WHERE record_id = ?1"),
        insert_track(c, "INSERT INTO tracks(record_id, number, frames) VALUES(?1, ?2, ?3)"),
        merge_track(c,
                    "INSERT INTO tracks(record_id, number, frames) VALUES(?1, ?2, ?3) "
                    "ON CONFLICT(record_id, number) DO UPDATE SET frames = "
                    "CASE WHEN excluded.frames <> 0 THEN excluded.frames ELSE frames END"),
        track_exists(c, "SELECT 1 FROM tracks WHERE record_id = ?1 AND number = ?2"),
        upsert_volume_prop(c,
                           "INSERT OR REPLACE INTO volume_props(record_id, idx, field, value) "
                           "VALUES(?1, ?2, ?3, ?4)"),
        get_volume_prop(c,
                        "SELECT value FROM volume_props WHERE record_id = ?1 AND idx = ?2 "
                        "AND field = ?3"),
        delete_volume_prop(c,
                           "DELETE FROM volume_props WHERE record_id = ?1 AND idx = ?2 "
                           "AND field = ?3"),
        delete_album(c, "DELETE FROM albums WHERE aid = ?1"),
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
        set_meta(c, "INSERT OR REPLACE INTO meta(key, value) VALUES(?1, ?2)") {}

  Statement count_albums, album_by_id, album_props, album_names, album_volumes, volume_row,
      volume_tracks, volume_props, album_of_volume, insert_album, update_album, touch_album,
      delete_album_props, upsert_album_prop, delete_album_names, delete_album_list,
      insert_album_name, volume_owner, album_volume_ids, next_volume_pos, insert_volume,
      replace_volume, merge_volume, delete_volume, delete_tracks, delete_volume_props, insert_track,
      merge_track, track_exists, upsert_volume_prop, get_volume_prop, delete_volume_prop,
      delete_album, read_cover, write_cover, delete_cover, list_artists, artist_alt_names,
      artist_links, delete_artist, insert_artist, insert_alt_name, insert_link, get_db_prop,
      set_db_prop, delete_db_prop, list_db_props, get_meta, set_meta;
};

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
    if (batch_depth_ > 0) sqlite3_exec(db_.handle(), "RELEASE batch", nullptr, nullptr, nullptr);
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
      db_.Exec("PRAGMA busy_timeout = 5000; PRAGMA cache_size = -8192;");
      if (writable_) {
        db_.Exec(
            "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL; PRAGMA foreign_keys = ON;");
      } else {
        db_.Exec("PRAGMA query_only = 1;");
      }
      Statement version(db_, "PRAGMA user_version");
      const int64_t schema = version.Step() ? version.Int(0) : 0;
      if (schema > kSchemaVersion) {
        *message = fmt::format("{} was written by a newer version of DiscHive (schema {})",
                               path_.string(), schema);
        return kCatalogInvalid;
      }
      st_ = std::make_unique<Statements>(db_);
    } catch (const std::exception& e) {
      *message = path_.string() + " cannot be opened as a catalogue: " + e.what();
      return kCatalogInvalid;
    }
    return kOk;
  }

  const std::filesystem::path& path() const override { return path_; }

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
      Statement s(db_,
                  "SELECT (SELECT count(*) FROM albums), (SELECT count(*) FROM volumes), "
                  "(SELECT count(*) FROM tracks), (SELECT count(*) FROM covers), "
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
      Statement cursor(db_,
                       "SELECT aid, id, modified, various_artists, various_composers "
                       "FROM albums ORDER BY id");
      AlbumRecord album;
      while (cursor.Step()) {
        album = AlbumRecord();
        const int64_t aid = FillAlbumRow(cursor, album);
        LoadAlbum(aid, album);
        if (!visit(album)) break;
      }
      snapshot.Commit();
    });
  }

  std::optional<AlbumRecord> ReadAlbum(std::string_view album_id) override {
    std::lock_guard lock(mutex_);
    std::optional<AlbumRecord> result;
    Guard([&] {
      Transaction snapshot(db_);
      AlbumRecord album;
      const std::optional<int64_t> aid = FindAlbum(album_id, &album);
      if (aid) {
        LoadAlbum(*aid, album);
        result = std::move(album);
      }
      snapshot.Commit();
    });
    return result;
  }

  std::optional<std::string> FindAlbumOfVolume(uint32_t record_id) override {
    std::lock_guard lock(mutex_);
    std::optional<std::string> result;
    Guard([&] {
      Statement& s = st_->album_of_volume;
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
      Statement& s = st_->volume_row;
      ResetGuard reset(s);
      s.Bind(1, int64_t{record_id});
      if (s.Step()) {
        VolumeRecord volume;
        FillVolumeRow(s, volume);
        LoadVolumeDetails(volume);
        result = std::move(volume);
      }
      snapshot.Commit();
    });
    return result;
  }

  HResult WriteAlbum(AlbumRecord& album, WriteMode mode) override {
    std::unique_lock lock(mutex_);
    if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
    return Guard([&] {
      Validate(album);
      Transaction transaction(db_);
      const uint32_t now = Now();
      std::string id = album.id;
      std::optional<int64_t> aid;
      if (!id.empty()) aid = FindAlbum(id, nullptr);
      if (!aid) {
        if (id.empty()) id = NewAlbumId();
        Statement& s = st_->insert_album;
        s.Bind(1, id).Bind(2, int64_t{now});
        s.Bind(3, album.various_artists ? 1 : 0).Bind(4, album.various_composers ? 1 : 0);
        s.Run();
        aid = sqlite3_last_insert_rowid(db_.handle());
        mode = WriteMode::kReplace;  // nothing to merge with
      } else {
        WriteAlbumRow(*aid, album, mode, now);
      }
      WriteAlbumProperties(*aid, album, mode);
      WriteAlbumNames(*aid, album, mode);
      WriteVolumes(*aid, album, mode);
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
      const std::optional<int64_t> aid = FindAlbum(album_id, nullptr);
      if (!aid) throw Refusal{kCatalogNotFound, fmt::format("no album {}", album_id)};
      st_->delete_album.Bind(1, *aid).Run();
      transaction.Commit();
    });
  }

  std::optional<PropertyValue> GetVolumeProperty(uint32_t record_id, field::FieldId id,
                                                 uint32_t index) override {
    std::lock_guard lock(mutex_);
    std::optional<PropertyValue> result;
    Guard([&] {
      Statement& s = st_->get_volume_prop;
      ResetGuard reset(s);
      s.Bind(1, int64_t{record_id}).Bind(2, int64_t{index}).Bind(3, int64_t{id});
      if (s.Step()) result = ColumnValue(s, 0);
    });
    return result;
  }

  HResult SetVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index,
                            const PropertyValue& value) override {
    std::unique_lock lock(mutex_);
    if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
    return Guard([&] {
      Transaction transaction(db_);
      const int64_t aid = RequireRecord(record_id, index);
      Statement& s = st_->upsert_volume_prop;
      s.Bind(1, int64_t{record_id}).Bind(2, int64_t{index}).Bind(3, int64_t{id});
      BindValue(s, 4, value);
      s.Run();
      Touch(aid);
      transaction.Commit();
    });
  }

  HResult RemoveVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index) override {
    std::unique_lock lock(mutex_);
    if (const HResult refused = CheckWritable(lock); refused != kOk) return refused;
    return Guard([&] {
      Transaction transaction(db_);
      const int64_t aid = RequireRecord(record_id, index);
      st_->delete_volume_prop.Bind(1, int64_t{record_id})
          .Bind(2, int64_t{index})
          .Bind(3, int64_t{id})
          .Run();
      if (sqlite3_changes(db_.handle()) > 0) Touch(aid);
      transaction.Commit();
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
      const int64_t aid = RequireRecord(record_id, 0);
      if (bytes.empty()) {
        st_->delete_cover.Bind(1, int64_t{record_id}).Run();
      } else {
        st_->write_cover.Bind(1, int64_t{record_id}).BindBlob(2, bytes).Run();
      }
      Touch(aid);
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

  // An outer savepoint around the batch: the savepoints of the single writes
  // nest inside it, and nothing reaches the file before the last EndBatch.
  HResult BeginBatch() override {
    std::unique_lock lock(mutex_);
    if (!writable_) return Refuse(kFail, "the catalogue is open for reading only");
    return Guard([&] {
      if (batch_depth_ == 0) db_.Exec("SAVEPOINT batch");
      ++batch_depth_;
    });
  }

  HResult EndBatch() override {
    std::unique_lock lock(mutex_);
    if (batch_depth_ == 0) return kOk;
    return Guard([&] {
      if (batch_depth_ == 1) db_.Exec("RELEASE batch");
      --batch_depth_;
    });
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

  static void Validate(const AlbumRecord& album) {
    if (album.id.size() > 64) throw Refusal{kInvalidArgument, "album identifier too long"};
    std::set<uint32_t> ids;
    for (const VolumeRecord& v : album.volumes) {
      if (!ids.insert(v.record_id).second) {
        throw Refusal{kInvalidArgument,
                      fmt::format("volume {:08X} appears twice in the album", v.record_id)};
      }
      std::set<uint32_t> numbers;
      for (const TrackRecord& t : v.tracks) {
        if (t.number == 0) {
          throw Refusal{kInvalidArgument,
                        fmt::format("volume {:08X}: track numbers start at 1", v.record_id)};
        }
        if (!numbers.insert(t.number).second) {
          throw Refusal{kInvalidArgument, fmt::format("volume {:08X}: track {} appears twice",
                                                      v.record_id, t.number)};
        }
      }
    }
  }

  std::string NewAlbumId() {
    for (;;) {
      std::string id = NewRandomIdentifier();
      if (!FindAlbum(id, nullptr)) return id;
    }
  }

  // The album row with this identifier; fills the row's fields into *album.
  std::optional<int64_t> FindAlbum(std::string_view id, AlbumRecord* album) {
    Statement& s = st_->album_by_id;
    ResetGuard reset(s);
    s.Bind(1, id);
    if (!s.Step()) return std::nullopt;
    AlbumRecord ignored;
    return FillAlbumRow(s, album != nullptr ? *album : ignored);
  }

  static int64_t FillAlbumRow(const Statement& s, AlbumRecord& album) {
    album.id = s.Text(1);
    album.modified = U32(s.Int(2));
    album.various_artists = s.Int(3) != 0;
    album.various_composers = s.Int(4) != 0;
    return s.Int(0);
  }

  static void FillVolumeRow(const Statement& s, VolumeRecord& volume) {
    volume.record_id = U32(s.Int(0));
    volume.title = s.Text(1);
    volume.frames = U32(s.Int(2));
    volume.created = U32(s.Int(3));
    volume.played = U32(s.Int(4));
  }

  void LoadAlbum(int64_t aid, AlbumRecord& album) {
    {
      Statement& s = st_->album_props;
      ResetGuard reset(s);
      s.Bind(1, aid);
      while (s.Step()) {
        if (auto value = ColumnValue(s, 1)) album.properties.Set(U32(s.Int(0)), std::move(*value));
      }
    }
    {
      Statement& s = st_->album_names;
      ResetGuard reset(s);
      s.Bind(1, aid);
      while (s.Step()) {
        const int64_t list = s.Int(0);
        if (list == kListArtists) {
          album.artists.push_back(s.Text(1));
        } else if (list == kListComposers) {
          album.composers.push_back(s.Text(1));
        } else if (list >= kListCredits && list < kListLineup) {
          album.credits[list - kListCredits].push_back({s.Text(1), s.Text(2)});
        } else if (list == kListLineup) {
          album.lineup.push_back({s.Text(1), s.Text(2), s.Text(3)});
        }
      }
    }
    {
      Statement& s = st_->album_volumes;
      ResetGuard reset(s);
      s.Bind(1, aid);
      while (s.Step())
        FillVolumeRow(s, album.volumes.emplace_back());
    }
    for (VolumeRecord& volume : album.volumes)
      LoadVolumeDetails(volume);
  }

  void LoadVolumeDetails(VolumeRecord& volume) {
    {
      Statement& s = st_->volume_tracks;
      ResetGuard reset(s);
      s.Bind(1, int64_t{volume.record_id});
      while (s.Step()) {
        TrackRecord& t = volume.tracks.emplace_back();
        t.number = U32(s.Int(0));
        t.frames = U32(s.Int(1));
      }
    }
    Statement& s = st_->volume_props;
    ResetGuard reset(s);
    s.Bind(1, int64_t{volume.record_id});
    // Both the tracks and the property rows come ordered by track number.
    size_t next = 0;
    while (s.Step()) {
      const int64_t index = s.Int(0);
      std::optional<PropertyValue> value = ColumnValue(s, 2);
      if (!value) continue;
      if (index == 0) {
        volume.properties.Set(U32(s.Int(1)), std::move(*value));
        continue;
      }
      while (next < volume.tracks.size() && volume.tracks[next].number < index)
        ++next;
      if (next < volume.tracks.size() && volume.tracks[next].number == index) {
        volume.tracks[next].properties.Set(U32(s.Int(1)), std::move(*value));
      }
    }
  }

  void WriteAlbumRow(int64_t aid, const AlbumRecord& album, WriteMode mode, uint32_t now) {
    bool various_artists = album.various_artists;
    bool various_composers = album.various_composers;
    if (mode == WriteMode::kMerge) {
      // Unless the merged album names its artists or composers, keep the stored flags.
      AlbumRecord stored;
      FindAlbum(album.id, &stored);
      if (album.artists.empty() && !album.various_artists) {
        various_artists = stored.various_artists;
      }
      if (album.composers.empty() && !album.various_composers) {
        various_composers = stored.various_composers;
      }
    }
    st_->update_album.Bind(1, aid)
        .Bind(2, int64_t{now})
        .Bind(3, various_artists ? 1 : 0)
        .Bind(4, various_composers ? 1 : 0)
        .Run();
  }

  void WriteAlbumProperties(int64_t aid, const AlbumRecord& album, WriteMode mode) {
    if (mode == WriteMode::kReplace) st_->delete_album_props.Bind(1, aid).Run();
    for (const auto& [field, value] : album.properties.values()) {
      Statement& s = st_->upsert_album_prop;
      s.Bind(1, aid).Bind(2, int64_t{field});
      BindValue(s, 3, value);
      s.Run();
    }
  }

  void InsertName(int64_t aid, int list, size_t pos, std::string_view name,
                  std::string_view role = {}, std::string_view period = {}) {
    st_->insert_album_name.Bind(1, aid)
        .Bind(2, int64_t{list})
        .Bind(3, static_cast<int64_t>(pos))
        .Bind(4, name)
        .Bind(5, role)
        .Bind(6, period)
        .Run();
  }

  // Writes the artist, composer, credit and line-up lists. In merge mode a
  // list that is empty in `album` keeps its stored entries.
  void WriteAlbumNames(int64_t aid, const AlbumRecord& album, WriteMode mode) {
    const bool merge = mode == WriteMode::kMerge;
    if (!merge) st_->delete_album_names.Bind(1, aid).Run();
    auto begin_list = [&](int list, bool empty) {
      if (merge && !empty) st_->delete_album_list.Bind(1, aid).Bind(2, int64_t{list}).Run();
    };
    begin_list(kListArtists, album.artists.empty());
    for (size_t i = 0; i < album.artists.size(); ++i) {
      InsertName(aid, kListArtists, i, album.artists[i]);
    }
    begin_list(kListComposers, album.composers.empty());
    for (size_t i = 0; i < album.composers.size(); ++i) {
      InsertName(aid, kListComposers, i, album.composers[i]);
    }
    for (int c = 0; c < kCreditListCount; ++c) {
      begin_list(kListCredits + c, album.credits[c].empty());
      for (size_t i = 0; i < album.credits[c].size(); ++i) {
        InsertName(aid, kListCredits + c, i, album.credits[c][i].name, album.credits[c][i].role);
      }
    }
    begin_list(kListLineup, album.lineup.empty());
    for (size_t i = 0; i < album.lineup.size(); ++i) {
      const LineupMember& m = album.lineup[i];
      InsertName(aid, kListLineup, i, m.name, m.role, m.period);
    }
  }

  void WriteVolumes(int64_t aid, const AlbumRecord& album, WriteMode mode) {
    // A volume belongs to one album: refuse one that another album holds.
    for (const VolumeRecord& v : album.volumes) {
      Statement& s = st_->volume_owner;
      ResetGuard reset(s);
      s.Bind(1, int64_t{v.record_id});
      if (s.Step() && s.Int(0) != aid) {
        throw Refusal{kInvalidArgument,
                      fmt::format("volume {:08X} already belongs to another album", v.record_id)};
      }
    }
    std::set<uint32_t> stored;
    {
      Statement& s = st_->album_volume_ids;
      ResetGuard reset(s);
      s.Bind(1, aid);
      while (s.Step())
        stored.insert(U32(s.Int(0)));
    }
    if (mode == WriteMode::kReplace) {
      for (const uint32_t id : stored) {
        const bool kept = std::any_of(album.volumes.begin(), album.volumes.end(),
                                      [id](const VolumeRecord& v) { return v.record_id == id; });
        if (!kept) st_->delete_volume.Bind(1, int64_t{id}).Run();
      }
    }
    int64_t next_pos = 0;
    if (mode == WriteMode::kMerge) {
      Statement& s = st_->next_volume_pos;
      ResetGuard reset(s);
      s.Bind(1, aid);
      if (s.Step()) next_pos = s.Int(0);
    }
    for (size_t i = 0; i < album.volumes.size(); ++i) {
      const VolumeRecord& v = album.volumes[i];
      const auto id = int64_t{v.record_id};
      const bool exists = stored.count(v.record_id) != 0;
      const bool merge = mode == WriteMode::kMerge && exists;
      if (merge) {
        st_->merge_volume.Bind(1, id)
            .Bind(2, v.title)
            .Bind(3, int64_t{v.frames})
            .Bind(4, int64_t{v.created})
            .Bind(5, int64_t{v.played})
            .Run();
      } else if (exists) {
        // Replace mode: the row stays (and with it the volume's cover).
        st_->replace_volume.Bind(1, id)
            .Bind(2, static_cast<int64_t>(i))
            .Bind(3, v.title)
            .Bind(4, int64_t{v.frames})
            .Bind(5, int64_t{v.created})
            .Bind(6, int64_t{v.played})
            .Run();
        st_->delete_tracks.Bind(1, id).Run();
        st_->delete_volume_props.Bind(1, id).Run();
      } else {
        const int64_t pos = mode == WriteMode::kMerge ? next_pos++ : static_cast<int64_t>(i);
        st_->insert_volume.Bind(1, id)
            .Bind(2, aid)
            .Bind(3, pos)
            .Bind(4, v.title)
            .Bind(5, int64_t{v.frames})
            .Bind(6, int64_t{v.created})
            .Bind(7, int64_t{v.played})
            .Run();
      }
      WriteVolumeProperties(id, 0, v.properties);
      Statement& track_insert = merge ? st_->merge_track : st_->insert_track;
      for (const TrackRecord& t : v.tracks) {
        track_insert.Bind(1, id).Bind(2, int64_t{t.number}).Bind(3, int64_t{t.frames}).Run();
        WriteVolumeProperties(id, t.number, t.properties);
      }
    }
  }

  void WriteVolumeProperties(int64_t record_id, uint32_t index, const PropertySet& properties) {
    for (const auto& [field, value] : properties.values()) {
      Statement& s = st_->upsert_volume_prop;
      s.Bind(1, record_id).Bind(2, int64_t{index}).Bind(3, int64_t{field});
      BindValue(s, 4, value);
      s.Run();
    }
  }

  // The album row that owns the volume; refuses a missing volume or track.
  int64_t RequireRecord(uint32_t record_id, uint32_t index) {
    int64_t aid;
    {
      Statement& s = st_->volume_owner;
      ResetGuard reset(s);
      s.Bind(1, int64_t{record_id});
      if (!s.Step()) throw Refusal{kCatalogNotFound, fmt::format("no volume {:08X}", record_id)};
      aid = s.Int(0);
    }
    if (index != 0) {
      Statement& s = st_->track_exists;
      ResetGuard reset(s);
      s.Bind(1, int64_t{record_id}).Bind(2, int64_t{index});
      if (!s.Step()) {
        throw Refusal{kCatalogNotFound,
                      fmt::format("volume {:08X} has no track {}", record_id, index)};
      }
    }
    return aid;
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
  bool suspended_ = false;
  int batch_depth_ = 0;
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
