// Feeds arbitrary bytes to the catalogue record decoders (a restored or
// foreign database is untrusted); whatever decodes must encode and decode
// again to the same record.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "catalog/record_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace catalog = dischive::catalog;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  dischive::PropertySet properties;
  if (catalog::DecodeProperties(bytes, &properties)) {
    dischive::PropertySet again;
    if (!catalog::DecodeProperties(catalog::EncodeProperties(properties), &again)) std::abort();
  }
  std::vector<dischive::TrackRecord> tracks;
  if (catalog::DecodeTracks(bytes, &tracks)) {
    std::vector<dischive::TrackRecord> again;
    if (!catalog::DecodeTracks(catalog::EncodeTracks(tracks), &again)) std::abort();
  }
  dischive::AlbumRecord album;
  (void)catalog::DecodeNames(bytes, &album);
  dischive::AlbumRecord whole;
  if (catalog::DecodeAlbum(bytes, &whole)) {
    dischive::AlbumRecord again;
    if (!catalog::DecodeAlbum(catalog::EncodeAlbum(whole), &again)) std::abort();
  }
  return 0;
}
