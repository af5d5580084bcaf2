#include "cddb/disc_lookup.h"

#include "dischive/strings.h"
#include "dischive/text.h"

namespace dischive::detail {

uintptr_t ProgressParam(size_t index, size_t count) {
  if (count <= 1) return 0;
  return static_cast<uintptr_t>((index & 0xFFFF) | (count & 0xFFFF) << 16);
}

void PostProgress(DiscLookupRequest& request, uintptr_t wparam, std::string text) {
  if (request.owner != nullptr && request.progress_message != 0) {
    request.owner->post(request.progress_message, wparam, std::move(text));
  }
}

std::optional<size_t> DiscCount(DiscLookupRequest& request) {
  std::lock_guard<std::mutex> guard(request.lock);
  if (request.discs == nullptr) return std::nullopt;
  return request.discs->size();
}

bool StoreResultForAll(DiscLookupRequest& request, HResult result) {
  std::lock_guard<std::mutex> guard(request.lock);
  if (request.discs == nullptr) return false;
  for (DiscRecord& disc : *request.discs)
    disc.result = result;
  return true;
}

std::string FreedbEmailAddress(const SettingsStore& settings) {
  return settings.GetString(kFreedbSettingsGroup, "email_address", "dischive@localhost");
}

int FreedbProtoLevel(const SettingsStore& settings) {
  const int level = settings.GetInt(kFreedbSettingsGroup, "cddb_proto", kDefaultFreedbProto);
  return level >= 6 ? 6 : kDefaultFreedbProto;
}

std::string DecodeFreedbText(std::string_view text, int proto) {
  return proto >= 6 ? SanitizeUtf8(text) : Latin1ToUtf8(text);
}

namespace {

// What a disc looks like when its lookup starts, copied out under the lock.
struct DiscSnapshot {
  DiscToc toc;
  DiscMetadata metadata;
  HResult result = kOk;
};

// Settles on one match: by name for later discs when allowed, else the host's
// choice. Returns 0 with *chosen set, or the disc's failure code.
HResult ChooseMatch(DiscLookupRequest& request, size_t index, size_t count,
                    const DiscSnapshot& disc, const std::vector<FreedbMatch>& matches,
                    size_t* chosen, bool* by_name) {
  *by_name = false;
  if (matches.empty()) return kFreedbServiceError;
  if (request.match_by_name && index > 0 && Succeeded(disc.result)) {
    const auto artist = disc.metadata.Text(field::kArtist, 0);
    const auto title = disc.metadata.Text(field::kTitle, 0);
    if (artist && title && FindMatchByArtistTitle(*artist, *title, matches, *chosen)) {
      *by_name = true;
      return kOk;
    }
  }
  MatchChoice choice;
  choice.count = static_cast<uint32_t>(matches.size());
  choice.matches = matches.data();
  const intptr_t reply =
      request.owner != nullptr
          ? request.owner->send(request.choice_message, ProgressParam(index, count), &choice)
          : 0;
  if (reply == 0) return kAborted;
  if (choice.chosen >= choice.count) return kFreedbServiceError;
  *chosen = choice.chosen;
  return kOk;
}

HResult LookupOne(DiscLookupRequest& request, FreedbSource& source, size_t index, size_t count,
                  DiscSnapshot& disc) {
  std::vector<FreedbMatch> matches;
  const FreedbSource::QueryResult query = source.Query(disc.toc, matches, kMaxFreedbMatches);
  if (query.error != kOk) return query.error;
  // The host may have given up while the server was answering.
  if (!DiscCount(request)) return kAborted;
  size_t chosen = 0;
  bool by_name = false;
  switch (query.outcome) {
    case kQueryExact:
      break;
    case kQueryList:
      if (const HResult r = ChooseMatch(request, index, count, disc, matches, &chosen, &by_name);
          r != kOk) {
        return r;
      }
      break;
    case kQueryNone:
      return kNoFreedbMatch;
    case kQueryOverflow:
      return kTooManyMatches;
    default:
      return kFreedbServiceError;
  }
  const FreedbMatch& match = matches[chosen];
  if (!DiscCount(request)) return kAborted;
  XmcdKeywordMap map;
  if (const HResult r = source.Read(match, map); r != kOk) return r;

  std::optional<std::string> held_artist, held_title;
  if (by_name) {
    held_artist = disc.metadata.Text(field::kArtist, 0);
    held_title = disc.metadata.Text(field::kTitle, 0);
  }
  ApplyXmcdToMetadata(disc.metadata, map, match.category, disc.toc.track_count);
  if (by_name) {
    // The caller's spelling of artist and title wins over the entry's.
    if (PropertyValue* v = disc.metadata.FindMutable(field::kArtist, 0)) *v = *held_artist;
    if (PropertyValue* v = disc.metadata.FindMutable(field::kTitle, 0)) *v = *held_title;
  }
  return kOk;
}

}  // namespace

HResult LookupEachDisc(DiscLookupRequest& request, FreedbSource& source) {
  for (size_t index = 0;; ++index) {
    DiscSnapshot disc;
    size_t count = 0;
    {
      std::lock_guard<std::mutex> guard(request.lock);
      if (request.discs == nullptr) return kAborted;
      count = request.discs->size();
      if (index >= count) return kOk;
      const DiscRecord& record = (*request.discs)[index];
      disc.toc = record.toc;
      disc.metadata = record.metadata;
      disc.result = record.result;
    }
    PostProgress(request, ProgressParam(index, count), LoadHostString(strings::kLookupDisc));
    HResult result = index > 0 ? source.PrepareDisc() : kOk;
    if (result == kOk) result = LookupOne(request, source, index, count, disc);

    std::lock_guard<std::mutex> guard(request.lock);
    if (request.discs == nullptr) return kAborted;
    if (index < request.discs->size()) {
      DiscRecord& record = (*request.discs)[index];
      record.result = result;
      if (result == kOk) record.metadata = std::move(disc.metadata);
    }
  }
}

}  // namespace dischive::detail
