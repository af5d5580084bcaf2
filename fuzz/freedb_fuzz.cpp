// Feeds arbitrary bytes to the freedb answer parsers: xmcd entries (and their
// application to a disc) and query answers.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "dischive/cddb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  dischive::XmcdKeywordMap map;
  if (dischive::ParseXmcdEntry(text, map)) {
    dischive::DiscMetadata metadata;
    dischive::ApplyXmcdToMetadata(metadata, map, "misc", dischive::kMaxDiscTracks);
  }
  std::vector<dischive::FreedbMatch> matches;
  dischive::ParseQueryResponse(text, matches, dischive::kMaxFreedbMatches);
  std::string title(text.substr(0, 64));
  int number = 0;
  dischive::ParseDiscNumberSuffix(title, number);
  return 0;
}
