// The catalogue engine: albums (groups of volumes), volumes (a CD or a folder of
// files, identified by a 32-bit record id), tracks, the artist dictionary, and
// database properties. The library reads and writes the catalogue only through
// this interface; SqliteCatalog (dischive/sqlite_catalog.h) is the embedded
// implementation.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "dischive/database_error.h"
#include "dischive/fields.h"
#include "dischive/result.h"

namespace dischive {

/// A property value: text (UTF-8) or a 32-bit integer (flags, counts, packed
/// dates, times).
using PropertyValue = std::variant<std::string, int32_t>;

/// Properties of one record by field id.
class PropertySet {
 public:
  void Set(field::FieldId id, PropertyValue value) { values_[id] = std::move(value); }
  void Remove(field::FieldId id) { values_.erase(id); }
  bool Has(field::FieldId id) const { return values_.count(id) != 0; }
  const PropertyValue* Find(field::FieldId id) const {
    const auto it = values_.find(id);
    return it == values_.end() ? nullptr : &it->second;
  }
  /// The text of a text property; "" when absent or an integer.
  std::string Text(field::FieldId id) const {
    const PropertyValue* v = Find(id);
    return v != nullptr && std::holds_alternative<std::string>(*v) ? std::get<std::string>(*v)
                                                                   : std::string();
  }
  /// The value of an integer property; `def` when absent or text.
  int32_t Int(field::FieldId id, int32_t def = 0) const {
    const PropertyValue* v = Find(id);
    return v != nullptr && std::holds_alternative<int32_t>(*v) ? std::get<int32_t>(*v) : def;
  }
  const std::map<field::FieldId, PropertyValue>& values() const { return values_; }
  bool empty() const { return values_.empty(); }
  bool operator==(const PropertySet&) const = default;

 private:
  std::map<field::FieldId, PropertyValue> values_;
};

/// Frame count of a track whose length is unknown.
inline constexpr uint32_t kUnknownFrames = 0xFFFFFFFF;

struct TrackRecord {
  uint32_t number = 0;  ///< 1-based position on the volume
  uint32_t frames = 0;  ///< length in CD frames (1/75 s); kUnknownFrames when unknown
  PropertySet properties;
  bool operator==(const TrackRecord&) const = default;
};

struct VolumeRecord {
  uint32_t record_id = 0;  ///< freedb disc id of a CD, scan id of a folder
  std::string title;       ///< the volume's own title ("" for most)
  uint32_t frames = 0;     ///< total length in CD frames
  uint32_t created = 0;    ///< creation time, seconds since 1970 (0 unknown)
  uint32_t played = 0;     ///< last-played time, seconds since 1970 (0 never)
  PropertySet properties;  ///< volume-level fields (flags, scan stamp, ...)
  std::vector<TrackRecord> tracks;
  bool operator==(const VolumeRecord&) const = default;
};

/// What a folder scan left on a volume: the folder it was made from
/// (field::kScanFolder) and the three values that tell whether the folder has
/// changed since (field::kScanStamp, kScanFlags, kScanProfile).
struct VolumeScanState {
  uint32_t record_id = 0;
  std::string folder;  ///< empty for a volume not made by a scan
  std::optional<uint32_t> stamp;
  std::optional<uint32_t> flags;
  std::optional<uint32_t> profile;  ///< the scan profile (ScanProfile)
  bool operator==(const VolumeScanState&) const = default;

  /// The state as the volume's properties hold it.
  static VolumeScanState Of(const VolumeRecord& volume) {
    VolumeScanState state;
    state.record_id = volume.record_id;
    auto number = [&](field::FieldId id) -> std::optional<uint32_t> {
      const PropertyValue* v = volume.properties.Find(id);
      if (v == nullptr || !std::holds_alternative<int32_t>(*v)) return std::nullopt;
      return static_cast<uint32_t>(std::get<int32_t>(*v));
    };
    state.folder = volume.properties.Text(field::kScanFolder);
    state.stamp = number(field::kScanStamp);
    state.flags = number(field::kScanFlags);
    state.profile = number(field::kScanProfile);
    return state;
  }
};

struct Credit {
  std::string name;
  std::string role;
  bool operator==(const Credit&) const = default;
};

struct LineupMember {
  std::string name;
  std::string role;
  std::string period;
  bool operator==(const LineupMember&) const = default;
};

/// The album's credit lists, in the order the collection document writes them.
enum class CreditList { kMusicians, kGuestMusicians, kProduction, kCredits, kArtworkCredits };
inline constexpr int kCreditListCount = 5;

/// An album group: one or more volumes with album-level fields.
struct AlbumRecord {
  std::string id;                    ///< 16 upper-case hexadecimal digits; empty for a new album
  uint32_t modified = 0;             ///< modification time, seconds since 1970
  PropertySet properties;            ///< album fields (title, flags, dates, money, ...)
  std::vector<std::string> artists;  ///< album artists, in order
  bool various_artists = false;
  std::vector<std::string> composers;
  bool various_composers = false;
  std::vector<Credit> credits[kCreditListCount];
  std::vector<LineupMember> lineup;
  std::vector<VolumeRecord> volumes;
  bool operator==(const AlbumRecord&) const = default;
};

struct ArtistLink {
  std::string name;
  std::string description;
  bool operator==(const ArtistLink&) const = default;
};

/// An entry of the artist dictionary.
struct ArtistEntry {
  std::string name;
  bool is_band = false;  ///< false: a person
  std::string sort_name;
  std::vector<std::string> alt_names;
  std::string country;
  uint32_t date_formed = 0;     ///< packed date (dischive/date.h)
  uint32_t date_disbanded = 0;  ///< packed date
  std::vector<ArtistLink> links;
  bool operator==(const ArtistEntry&) const = default;
};

/// How WriteAlbum treats an album that already exists.
enum class WriteMode {
  kReplace,  ///< the stored album becomes exactly the given one (properties,
             ///< volumes and tracks not given are removed)
  kMerge,    ///< given properties are set, others kept; a name list (artists,
             ///< composers, a credit list, the line-up) given non-empty replaces
             ///< the stored one; volumes and tracks are matched by record id and
             ///< number (a volume's title, lengths and times are taken when
             ///< non-empty or non-zero), new ones appended, missing ones kept
};
// In both modes a kept volume keeps its cover; a volume the album no longer
// holds is removed with its cover.

/// The keys of the ten user-editable value lists and their option texts.
inline constexpr const char* kUserListKeys[] = {
    "user_formats", "user_categories", "user_genres", "user_stati",      "user_locations",
    "user_rsrc",    "user_rgen",       "user_rqual",  "user_conditions", "user_packagings"};

/// Numbers of records in a catalogue.
struct CatalogCounts {
  size_t albums = 0;
  size_t volumes = 0;
  size_t tracks = 0;
  size_t covers = 0;
  size_t artists = 0;
  bool operator==(const CatalogCounts&) const = default;
};

class CatalogEngine {
 public:
  virtual ~CatalogEngine() = default;

  /// The database file.
  virtual const std::filesystem::path& path() const = 0;

  // Albums ------------------------------------------------------------------

  /// Number of album groups.
  virtual size_t AlbumCount() = 0;
  /// Numbers of albums, volumes, tracks, covers and artist entries. The
  /// default walks the catalogue; engines answer from their indexes.
  virtual CatalogCounts Counts() {
    CatalogCounts counts;
    ForEachAlbum([&](const AlbumRecord& album) {
      ++counts.albums;
      for (const VolumeRecord& v : album.volumes) {
        ++counts.volumes;
        counts.tracks += v.tracks.size();
        if (ReadCover(v.record_id)) ++counts.covers;
      }
      return true;
    });
    counts.artists = Artists().size();
    return counts;
  }
  /// Visits every album in a stable order (the order in which the albums were
  /// first stored), one at a time so that memory does not grow with the
  /// catalogue; stops when `visit` returns false. Returns 0 or a failure code.
  virtual HResult ForEachAlbum(const std::function<bool(const AlbumRecord&)>& visit) = 0;
  /// One album by identifier.
  virtual std::optional<AlbumRecord> ReadAlbum(std::string_view album_id) = 0;
  /// The identifier of the album that holds the volume with this record id.
  virtual std::optional<std::string> FindAlbumOfVolume(uint32_t record_id) = 0;
  /// One volume by its record id, with its tracks.
  virtual std::optional<VolumeRecord> ReadVolume(uint32_t record_id) = 0;
  /// The scan state of one volume; nullopt when there is no such volume. The
  /// default reads the volume; engines answer from their indexes.
  virtual std::optional<VolumeScanState> ReadVolumeScanState(uint32_t record_id) {
    const std::optional<VolumeRecord> volume = ReadVolume(record_id);
    if (!volume) return std::nullopt;
    return VolumeScanState::Of(*volume);
  }
  /// The scan states of every volume made by a folder scan (those with a
  /// folder), so that a library scan can tell unchanged folders apart without
  /// reading their albums. The default walks the catalogue.
  virtual std::vector<VolumeScanState> ScannedVolumes() {
    std::vector<VolumeScanState> states;
    ForEachAlbum([&](const AlbumRecord& album) {
      for (const VolumeRecord& v : album.volumes) {
        VolumeScanState state = VolumeScanState::Of(v);
        if (!state.folder.empty()) states.push_back(std::move(state));
      }
      return true;
    });
    return states;
  }
  /// Creates (empty id: a new random identifier is assigned and written back)
  /// or updates an album with its volumes and tracks, in one transaction. A
  /// given identifier must be 16 hexadecimal digits (stored in upper case). The
  /// modification time is set to now. Tracks are stored in number order.
  /// Returns 0, or kInvalidArgument (see LastErrorText) for a bad identifier, a
  /// volume given twice or held by another album, or a track number 0 or given
  /// twice; the catalogue is then unchanged.
  virtual HResult WriteAlbum(AlbumRecord& album, WriteMode mode) = 0;
  /// Removes an album with its volumes, tracks and covers.
  virtual HResult DeleteAlbum(std::string_view album_id) = 0;

  /// Groups the writes that follow into one transaction until CommitBatch, for
  /// bulk work (imports, library scans): far faster than one transaction per
  /// album, and other processes see the albums only at the commit. Batches
  /// nest; a write that fails inside a batch is undone alone. A batch still
  /// open when the engine is destroyed is committed. See CatalogBatch.
  /// The defaults commit every write at once (no grouping), which is correct,
  /// only slower.
  virtual HResult BeginBatch() { return kOk; }
  virtual HResult CommitBatch() { return kOk; }

  // Single properties of a volume (index 0) or of its track n (index n) ---------

  virtual std::optional<PropertyValue> GetVolumeProperty(uint32_t record_id, field::FieldId id,
                                                         uint32_t index) = 0;
  virtual HResult SetVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index,
                                    const PropertyValue& value) = 0;
  /// Removes one property (kFail from an engine that cannot remove properties).
  virtual HResult RemoveVolumeProperty(uint32_t record_id, field::FieldId id, uint32_t index) {
    (void)record_id, (void)id, (void)index;
    return kFail;
  }

  // Covers: the image bytes stored under a volume's "cover" stream ------------

  virtual std::optional<std::string> ReadCover(uint32_t record_id) = 0;
  /// Stores the bytes (empty bytes remove the cover).
  virtual HResult WriteCover(uint32_t record_id, std::string_view bytes) = 0;

  // Artist dictionary -------------------------------------------------------

  virtual std::vector<ArtistEntry> Artists() = 0;
  /// Modification time of the dictionary, seconds since 1970.
  virtual uint32_t ArtistsModified() = 0;
  /// Adds or replaces the entry with the same name.
  virtual HResult WriteArtist(const ArtistEntry& artist) = 0;
  /// Removes the entry with this name (1168, ERROR_NOT_FOUND, when absent).
  virtual HResult RemoveArtist(std::string_view name) {
    (void)name;
    return kFail;
  }

  // Database properties by group and key ("db_opts", "medialib") ----------------

  virtual std::optional<std::string> GetDatabaseProperty(std::string_view group,
                                                         std::string_view key) = 0;
  virtual HResult SetDatabaseProperty(std::string_view group, std::string_view key,
                                      std::string_view value) = 0;
  virtual HResult RemoveDatabaseProperty(std::string_view group, std::string_view key) = 0;
  /// Every property of a group, by key (ascending, without regard to case).
  virtual std::vector<std::pair<std::string, std::string>> DatabaseProperties(
      std::string_view group) {
    (void)group;
    return {};
  }

  /// The text of a user list ("\n"-separated entries): the stored one, else the
  /// built-in default for the key.
  virtual std::string UserList(std::string_view key) = 0;
  /// Stores a user list and sets its timestamp ("db_opts", "t_" + key) to now.
  virtual HResult SetUserList(std::string_view key, std::string_view text) = 0;
  /// The list's timestamp, 0 when never set.
  virtual uint32_t UserListTimestamp(std::string_view key) = 0;

  // Consistent copies -------------------------------------------------------

  /// Makes the file complete and consistent on disk (checkpoints the write-ahead
  /// log) and holds off writers until ResumeWriting, so that the file can be
  /// copied. Returns 0 or a failure code.
  virtual HResult SuspendWriting() = 0;
  virtual void ResumeWriting() = 0;

  /// A one-line explanation of the last failure returned by this engine (empty
  /// when none), for messages to the user.
  virtual std::string LastErrorText() const { return {}; }
};

/// Holds a batch of writes open for a scope (CatalogEngine::BeginBatch) and
/// commits it at the end of the scope or at Commit().
class CatalogBatch {
 public:
  explicit CatalogBatch(CatalogEngine& engine) : engine_(engine) {
    open_ = engine_.BeginBatch() == kOk;
  }
  ~CatalogBatch() { Commit(); }
  CatalogBatch(const CatalogBatch&) = delete;
  CatalogBatch& operator=(const CatalogBatch&) = delete;
  /// Commits now; returns 0 or a failure code (also when the batch never opened).
  HResult Commit() {
    if (!open_) return result_;
    open_ = false;
    result_ = engine_.CommitBatch();
    return result_;
  }

 private:
  CatalogEngine& engine_;
  bool open_ = false;
  HResult result_ = kFail;
};

}  // namespace dischive
