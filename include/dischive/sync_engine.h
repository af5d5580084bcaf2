// Synchronising the catalogue with the collection service.
//
// A sync lists the service's albums ("list"), compares each catalogue album
// with the service's state, sends the added and changed albums as one
// collection document ("put"), sends missing or changed covers ("cover") in
// chunks, writes the service's newer play and rating times back, and reports
// (or with delete_missing removes, with the "delete" command word and one "id"
// param per album) the albums the service has and the catalogue lacks.
//
// Deciding what changed: the catalogue keeps, per album, the modification time
// it had when the service last accepted it (database property group
// "sync_state", key = album id, value "MODIFIED STOREDMD5 UPLOADHASH"). An
// album is sent when the service lacks it or its modification time differs
// from the recorded one (without a record: when it is newer than the
// service's). A cover is sent when the hash of the bytes that would be
// uploaded differs from the service's "CoverHash"; the recorded MD5 of the
// stored image saves decoding unchanged covers again. Because the state is
// recorded as each step succeeds, an interrupted sync resumes where it
// stopped, and a sync of an unchanged catalogue sends nothing but "list".
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dischive/catalog.h"
#include "dischive/result.h"
#include "dischive/service.h"

namespace dischive {

/// The database-property group of the per-album sync state.
inline constexpr std::string_view kSyncStateGroup = "sync_state";
/// Covers per "cover" request by default ("internet2"/"UploadChunkSize").
inline constexpr size_t kDefaultUploadChunkSize = 25;

struct SyncOptions {
  bool dry_run = false;         ///< compare and report only
  bool delete_missing = false;  ///< remove albums the catalogue lacks from the service
  size_t upload_chunk_size = kDefaultUploadChunkSize;
  /// Where the collection document is written before it is sent; empty: the
  /// system's temporary folder.
  std::filesystem::path work_dir;
  /// Progress lines for the user.
  std::function<void(const std::string&)> progress;
};

struct SyncReport {
  size_t service_albums = 0;  ///< albums the service listed
  size_t catalogue_albums = 0;
  size_t added = 0;                  ///< albums the service did not have
  size_t updated = 0;                ///< albums changed since they were sent
  size_t covers = 0;                 ///< covers sent (or to send, in a dry run)
  size_t times_written_back = 0;     ///< albums whose play or rating time came from the service
  std::vector<std::string> missing;  ///< albums the service has and the catalogue lacks
  size_t removed = 0;                ///< of those, removed from the service
  size_t requests = 0;               ///< requests sent, "list" included
};

/// Runs one sync. The login and key come from the catalogue ("db_opts",
/// "sync_login" and "sync_dbkey"; kInvalidArgument when either is empty).
/// Returns 0 or the first failure (a service error leaves its text in
/// ServiceErrorMessage()); what succeeded before a failure is recorded.
HResult RunSync(CatalogEngine& catalog, ServiceConnection& connection, const SyncOptions& options,
                SyncReport& report);

/// A view of a catalogue that shows only the given albums (in the given order)
/// to ForEachAlbum and AlbumCount, and passes everything else through; used to
/// write a collection document of only those albums.
std::unique_ptr<CatalogEngine> SelectAlbums(CatalogEngine& catalog, std::vector<std::string> ids);

}  // namespace dischive
