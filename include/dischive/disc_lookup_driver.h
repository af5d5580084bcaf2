// Driving freedb lookups from a program without a GUI: one request thread for a
// set of discs with the caller's thread acting as the host window, and batch
// lookups of many discs through the background lookup worker.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/cddb.h"
#include "dischive/host.h"
#include "dischive/settings.h"

namespace dischive {

/// How a lookup reaches freedb.
enum class LookupProtocol { kHttp, kCddbp };

/// "http" or "cddbp"; nullopt for anything else.
std::optional<LookupProtocol> ParseLookupProtocol(std::string_view name);

/// Runs LookupDiscsFreedb or LookupDiscsCddbp on a thread of its own while the
/// calling thread handles `window`'s messages (progress, the match choice), as
/// a host's window thread does, and returns the lookup's result once it has
/// ended and every message it posted was handled.
HResult RunDiscLookup(DiscLookupRequest& request, MessageLoop& window,
                      const SettingsStore& settings, LookupProtocol protocol,
                      std::string* transcript = nullptr);

/// One disc of a batch lookup and its outcome.
struct BatchDisc {
  DiscToc toc;
  DiscMetadata metadata;  ///< filled when the entry was read
  /// 0 found; kNoFreedbMatch; kTooManyMatches when several inexact matches
  /// left the choice open (see `matches`); kAborted when the batch was
  /// cancelled first; else the transport's or the service's failure.
  HResult result = kOk;
  std::vector<FreedbMatch> matches;  ///< the candidates of an open choice
};

struct BatchLookupOptions {
  int jobs = 2;                               ///< requests at once
  std::chrono::milliseconds min_interval{0};  ///< from the end of one request to the next
  /// Called on the calling thread after each disc: discs finished, total.
  std::function<void(size_t, size_t)> progress;
  /// Polled on the calling thread; true cancels the batch.
  std::function<bool()> cancelled;
  std::string* transcript = nullptr;  ///< receives every exchange when given
};

/// Looks every disc up over HTTP (settings "acquire_url", "email_address",
/// "cddb_proto") through one LookupWorker: a query per disc, then the read of
/// its exact match, or of the first of a list of exact matches; a list of
/// inexact matches is left open. Never asks. Returns 0, or kAborted when
/// cancelled (discs not finished then carry kAborted).
HResult LookupDiscBatch(std::vector<BatchDisc>& discs, const SettingsStore& settings,
                        const BatchLookupOptions& options);

}  // namespace dischive
