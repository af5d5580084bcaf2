// The steps every freedb lookup shares, whatever carries its requests: per
// disc a query, the choice of one match (by name or by the host), the read of
// the entry and its application to the disc's metadata, with progress messages
// to the host and a stop as soon as the host abandons the request.
#pragma once

#include <string>
#include <vector>

#include "dischive/cddb.h"

namespace dischive::detail {

/// One way of asking a freedb server (HTTP or the CDDB socket protocol).
class FreedbSource {
 public:
  virtual ~FreedbSource() = default;
  /// Asks for the matches of a disc: a QueryOutcome, or a failure code
  /// (anything that is not a QueryOutcome) to be stored as the disc's result.
  struct QueryResult {
    int outcome = kQueryBad;
    HResult error = kOk;  ///< non-zero: the query failed with this code
  };
  virtual QueryResult Query(const DiscToc& toc, std::vector<FreedbMatch>& matches,
                            size_t capacity) = 0;
  /// Reads the chosen entry into `map`; 0 or the disc's failure code.
  virtual HResult Read(const FreedbMatch& match, XmcdKeywordMap& map) = 0;
  /// Called before each disc after the first, e.g. to reconnect.
  virtual HResult PrepareDisc() { return kOk; }
};

/// The progress message's first parameter: 0 for a single disc, else the disc's
/// index in the low and the disc count in the high 16 bits.
uintptr_t ProgressParam(size_t index, size_t count);

/// Posts a progress text to the request's owner window.
void PostProgress(DiscLookupRequest& request, uintptr_t wparam, std::string text);

/// The number of discs, or nullopt when the host abandoned the request.
std::optional<size_t> DiscCount(DiscLookupRequest& request);

/// Stores `result` as the result of every disc (a failure that ended the whole
/// request before any disc was looked up). False when abandoned.
bool StoreResultForAll(DiscLookupRequest& request, HResult result);

/// Looks every disc up through `source`. Returns 0, or kAborted when the host
/// abandoned the request.
HResult LookupEachDisc(DiscLookupRequest& request, FreedbSource& source);

/// The "email_address" setting, and "cddb_proto" (5 or 6).
std::string FreedbEmailAddress(const SettingsStore& settings);
int FreedbProtoLevel(const SettingsStore& settings);

/// Answers of level 5 are ISO-8859-1, of level 6 UTF-8; both become UTF-8.
std::string DecodeFreedbText(std::string_view text, int proto);

}  // namespace dischive::detail
