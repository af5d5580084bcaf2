// The sync engine: list, compare, put, covers, write-back, delete. See
// dischive/sync_engine.h for how it decides what to send.
#include "dischive/sync_engine.h"

#include <fmt/format.h>

#include <charconv>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>

#include "dischive/collection.h"
#include "dischive/cover.h"
#include "dischive/errors.h"
#include "dischive/fields.h"
#include "dischive/random_id.h"
#include "dischive/xml_writer.h"

namespace dischive {
namespace {

// What the catalogue recorded when the service last accepted an album.
struct RecordedState {
  bool present = false;
  uint32_t modified = 0;
  std::string stored_md5;   // MD5 of the stored cover image
  std::string upload_hash;  // hash of the bytes uploaded for it ("" none)
};

RecordedState ParseRecordedState(const std::optional<std::string>& text) {
  RecordedState state;
  if (!text) return state;
  std::istringstream in(*text);
  std::string modified;
  in >> modified >> state.stored_md5 >> state.upload_hash;
  const auto [end, ec] =
      std::from_chars(modified.data(), modified.data() + modified.size(), state.modified, 16);
  state.present = ec == std::errc() && end == modified.data() + modified.size();
  if (state.stored_md5 == "-") state.stored_md5.clear();
  if (state.upload_hash == "-") state.upload_hash.clear();
  return state;
}

std::string FormatRecordedState(uint32_t modified, const std::string& md5,
                                const std::string& hash) {
  return fmt::format("{:08X} {} {}", modified, md5.empty() ? "-" : md5, hash.empty() ? "-" : hash);
}

// One catalogue album as the sync sees it.
struct LocalAlbum {
  std::string id;
  bool put = false;
  bool added = false;
  bool write_back = false;  // service id or newer times to store
  uint32_t played = 0;      // the service's times, when newer
  uint32_t rated = 0;
  std::string stored_md5;
  std::string upload_hash;
  std::string cover_bytes;  // kept only when the cover is to be sent
  bool recorded = false;    // state stored in this sync
};

class Sync {
 public:
  Sync(CatalogEngine& catalog, ServiceConnection& connection, const SyncOptions& options,
       SyncReport& report)
      : catalog_(catalog), connection_(connection), options_(options), report_(report) {}

  HResult Run();

 private:
  void Progress(const std::string& text) const {
    if (options_.progress) options_.progress(text);
  }
  HResult Send(std::string_view command, std::vector<ServiceParam> params,
               std::vector<ServiceParam>* result, const std::filesystem::path& payload,
               const std::vector<CoverAttachment>& covers, std::vector<AlbumState>* albums) {
    params.insert(params.begin(), account_.begin(), account_.end());
    ++report_.requests;
    return SendServiceRequest(connection_, command, params, result, payload, covers, albums,
                              command == "cover");
  }
  HResult Compare(const std::vector<AlbumState>& service_albums);
  HResult PutAlbums();
  HResult SendCovers();
  HResult WriteBack();
  HResult DeleteMissing();
  HResult Record(LocalAlbum& album);

  CatalogEngine& catalog_;
  ServiceConnection& connection_;
  const SyncOptions& options_;
  SyncReport& report_;
  std::vector<ServiceParam> account_;
  std::vector<LocalAlbum> albums_;
};

HResult Sync::Run() {
  const std::string login = catalog_.GetDatabaseProperty("db_opts", "sync_login").value_or("");
  const std::string key = catalog_.GetDatabaseProperty("db_opts", "sync_dbkey").value_or("");
  if (login.empty() || key.empty()) return kInvalidArgument;
  account_ = {{"login", login}, {"password", key}};

  Progress("Listing the albums on the service");
  std::vector<AlbumState> service_albums;
  if (const HResult listed = Send("list", {}, nullptr, {}, {}, &service_albums); listed != kOk) {
    return listed;
  }
  report_.service_albums = service_albums.size();
  if (const HResult compared = Compare(service_albums); compared != kOk) return compared;
  if (options_.dry_run) return kOk;

  // Each step records what the service accepted before the next one starts,
  // so that a failure part way leaves nothing to send twice.
  for (HResult (Sync::*step)() :
       {&Sync::PutAlbums, &Sync::SendCovers, &Sync::WriteBack, &Sync::DeleteMissing}) {
    if (const HResult result = (this->*step)(); result != kOk) return result;
  }
  return catalog_.SetDatabaseProperty("db_opts", "sync_last",
                                      std::to_string(static_cast<int64_t>(std::time(nullptr))));
}

HResult Sync::Compare(const std::vector<AlbumState>& service_albums) {
  std::map<std::string, const AlbumState*> on_service;
  for (const AlbumState& s : service_albums)
    on_service.emplace(s.id, &s);

  Progress(fmt::format("Comparing {} albums", catalog_.AlbumCount()));
  const HResult walked = catalog_.ForEachAlbum([&](const AlbumRecord& album) {
    ++report_.catalogue_albums;
    LocalAlbum local;
    local.id = album.id;
    const RecordedState recorded =
        ParseRecordedState(catalog_.GetDatabaseProperty(kSyncStateGroup, album.id));
    const auto found = on_service.find(album.id);
    const AlbumState* service = found != on_service.end() ? found->second : nullptr;
    if (found != on_service.end()) on_service.erase(found);

    if (service == nullptr) {
      local.put = local.added = true;
    } else if (recorded.present) {
      local.put = album.modified != recorded.modified;
    } else {
      local.put = album.modified > service->modified;
    }

    // The cover as the collection document names it: the first volume's
    // stored image, prepared for upload.
    std::optional<std::string> stored;
    for (const VolumeRecord& volume : album.volumes) {
      stored = catalog_.ReadCover(volume.record_id);
      if (stored && !stored->empty()) break;
      stored.reset();
    }
    std::string prepared;
    if (stored) {
      local.stored_md5 = CoverHash(*stored);
      if (local.stored_md5 == recorded.stored_md5) {
        local.upload_hash = recorded.upload_hash;
      } else {
        PreparedCover cover = PrepareCover(*stored);
        if (cover.outcome != CoverOutcome::kScalingFailed) {
          local.upload_hash = CoverHash(cover.bytes);
          prepared = std::move(cover.bytes);
        }
      }
    }
    const bool send_cover = !local.upload_hash.empty() &&
                            (service == nullptr || service->cover_hash != local.upload_hash);
    if (send_cover) {
      if (prepared.empty() && stored) prepared = PrepareCover(*stored).bytes;
      local.cover_bytes = std::move(prepared);
      ++report_.covers;
    }

    const PropertySet& p = album.properties;
    if (service != nullptr) {
      if (service->played > static_cast<uint32_t>(p.Int(field::kLastPlayed))) {
        local.played = service->played;
      }
      if (service->rated > static_cast<uint32_t>(p.Int(field::kRatingTime))) {
        local.rated = service->rated;
      }
    }
    local.write_back = local.played != 0 || local.rated != 0 ||
                       (service != nullptr && p.Text(field::kServiceId) != album.id);
    if (local.put) ++(local.added ? report_.added : report_.updated);
    if (local.played != 0 || local.rated != 0) ++report_.times_written_back;
    if (local.put || !local.cover_bytes.empty() || local.write_back || !recorded.present ||
        recorded.stored_md5 != local.stored_md5) {
      albums_.push_back(std::move(local));
    }
    return true;
  });
  if (walked != kOk) return walked;
  for (const auto& [id, state] : on_service)
    report_.missing.push_back(id);
  return kOk;
}

HResult Sync::PutAlbums() {
  std::vector<std::string> ids;
  for (const LocalAlbum& a : albums_) {
    if (a.put) ids.push_back(a.id);
  }
  if (ids.empty()) return kOk;
  Progress(fmt::format("Sending {} albums", ids.size()));

  std::error_code ec;
  const std::filesystem::path dir =
      options_.work_dir.empty() ? std::filesystem::temp_directory_path(ec) : options_.work_dir;
  const std::filesystem::path file = dir / ("dischive-sync-" + NewRandomIdentifier() + ".xml");
  HResult result = kOk;
  {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    if (!out) return HResultFromErrno(errno != 0 ? errno : EIO);
    OstreamXmlOutput output(out);
    const std::unique_ptr<CatalogEngine> selection = SelectAlbums(catalog_, ids);
    CollectionWriter writer(*selection);
    result = writer.Write(output);
    out.close();
    if (result == kOk && !out) result = HResultFromErrno(EIO);
  }
  if (result == kOk) result = Send("put", {}, nullptr, file, {}, nullptr);
  std::filesystem::remove(file, ec);
  if (result != kOk) return result;

  // The service has them now: each gets its service identifier and its state.
  CatalogBatch batch(catalog_);
  for (LocalAlbum& a : albums_) {
    if (!a.put) continue;
    a.write_back = true;
    if (const HResult recorded = Record(a); recorded != kOk) return recorded;
    a.put = false;
  }
  return batch.Commit();
}

HResult Sync::SendCovers() {
  std::vector<LocalAlbum*> pending;
  for (LocalAlbum& a : albums_) {
    if (!a.cover_bytes.empty()) pending.push_back(&a);
  }
  const size_t chunk = std::max<size_t>(options_.upload_chunk_size, 1);
  for (size_t start = 0; start < pending.size(); start += chunk) {
    const size_t end = std::min(pending.size(), start + chunk);
    Progress(fmt::format("Sending covers {}-{} of {}", start + 1, end, pending.size()));
    std::vector<CoverAttachment> covers;
    for (size_t i = start; i < end; ++i)
      covers.push_back({pending[i]->cover_bytes, pending[i]->id});
    if (const HResult sent = Send("cover", {}, nullptr, {}, covers, nullptr); sent != kOk) {
      return sent;
    }
    for (size_t i = start; i < end; ++i)
      std::string().swap(pending[i]->cover_bytes);
  }
  return kOk;
}

HResult Sync::WriteBack() {
  CatalogBatch batch(catalog_);
  for (LocalAlbum& a : albums_) {
    if (a.recorded) continue;
    if (const HResult recorded = Record(a); recorded != kOk) return recorded;
  }
  return batch.Commit();
}

// Stores the service identifier and the service's newer times when needed,
// then the album's sync state with its modification time after that write.
HResult Sync::Record(LocalAlbum& local) {
  std::optional<AlbumRecord> album = catalog_.ReadAlbum(local.id);
  if (!album) return kOk;  // removed meanwhile: nothing to record
  if (local.write_back) {
    PropertySet& p = album->properties;
    const bool changed =
        p.Text(field::kServiceId) != album->id || local.played != 0 || local.rated != 0;
    if (changed) {
      p.Set(field::kServiceId, album->id);
      if (local.played != 0) p.Set(field::kLastPlayed, static_cast<int32_t>(local.played));
      if (local.rated != 0) p.Set(field::kRatingTime, static_cast<int32_t>(local.rated));
      if (const HResult written = catalog_.WriteAlbum(*album, WriteMode::kMerge); written != kOk) {
        return written;
      }
      // The write moved the modification time on; the state records the new one.
      album = catalog_.ReadAlbum(local.id);
      if (!album) return kFail;
    }
    local.write_back = false;
    local.played = local.rated = 0;
  }
  local.recorded = true;
  return catalog_.SetDatabaseProperty(
      kSyncStateGroup, local.id,
      FormatRecordedState(album->modified, local.stored_md5, local.upload_hash));
}

HResult Sync::DeleteMissing() {
  if (!options_.delete_missing || report_.missing.empty()) return kOk;
  Progress(fmt::format("Removing {} albums from the service", report_.missing.size()));
  std::vector<ServiceParam> params;
  for (const std::string& id : report_.missing)
    params.push_back({"id", id});
  if (const HResult removed = Send("delete", params, nullptr, {}, {}, nullptr); removed != kOk) {
    return removed;
  }
  report_.removed = report_.missing.size();
  for (const std::string& id : report_.missing)
    catalog_.RemoveDatabaseProperty(kSyncStateGroup, id);
  return kOk;
}

}  // namespace

HResult RunSync(CatalogEngine& catalog, ServiceConnection& connection, const SyncOptions& options,
                SyncReport& report) {
  report = {};
  return Sync(catalog, connection, options, report).Run();
}

}  // namespace dischive
