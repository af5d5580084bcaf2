// The collection document: the whole catalogue as one XML text (albums with
// their volumes and tracks, the artist dictionary and the user lists), in the
// form the online collection service reads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "dischive/catalog.h"
#include "dischive/result.h"
#include "dischive/settings.h"
#include "dischive/xml_writer.h"

namespace dischive {

struct CollectionOptions {
  /// Where uploaded cover images are kept, one file "<hash>.jpg" per cover.
  /// Empty: covers are hashed but not stored.
  std::filesystem::path cover_cache_dir;
  /// The configured Amazon servers. An album whose stored Amazon server
  /// (field::kAmazonServer) is one of these refers to its artwork by server
  /// index and product number instead of sending a cover.
  std::vector<std::string> amazon_servers;
};

/// The configured Amazon servers: setting "AmazonSearch"/"Servers", a list
/// separated by ";" (blanks around entries ignored); by default the web-service
/// hosts of the six marketplaces in the order of the "AwsServer" option (United
/// States, United Kingdom, Germany, Japan, France, Canada).
std::vector<std::string> ConfiguredAmazonServers(const SettingsStore& settings);

/// The cover cache folder: $XDG_CACHE_HOME/dischive/covers (default
/// ~/.cache/dischive/covers).
std::filesystem::path DefaultCoverCacheFolder();

/// What a finished (or stopped) document contains.
struct CollectionStats {
  size_t albums = 0;
  size_t covers = 0;              ///< albums with a cover "Hash"
  size_t covers_stored = 0;       ///< cover files newly written to the cache
  size_t cover_store_errors = 0;  ///< cover files that could not be written
  uint64_t bytes = 0;             ///< size of the document
};

/// Called after each album with the count done and the total; returning false
/// stops the document (the result is then kAborted).
using CollectionProgress = std::function<bool(size_t done, size_t total)>;

class CollectionWriter {
 public:
  CollectionWriter(CatalogEngine& catalog, CollectionOptions options = {});
  ~CollectionWriter();
  CollectionWriter(const CollectionWriter&) = delete;
  CollectionWriter& operator=(const CollectionWriter&) = delete;

  /// Writes the whole document, album by album, to `output`. Returns 0, the
  /// catalogue's failure code, kAborted, or a write failure
  /// (HResultFromErrno(EIO)). Memory use does not depend on the number of
  /// albums.
  HResult Write(XmlOutput& output, const CollectionProgress& progress = {});

  const CollectionStats& stats() const { return stats_; }

 private:
  class DocumentWriter;

  /// The "Hash" of an album's cover (processing and storing the cover when
  /// needed); empty when it has none or it could not be scaled.
  std::string CoverHashFor(const AlbumRecord& album);

  CatalogEngine& catalog_;
  CollectionOptions options_;
  CollectionStats stats_;
  /// MD5 of stored cover bytes -> hash of the uploaded bytes ("" when scaling
  /// failed), so that a cover is processed once per writer.
  std::unordered_map<std::string, std::string> cover_hashes_;
};

}  // namespace dischive
