// C entry points: freedb lookups. The host's request record is mirrored into
// the library's own for the run; the host's lock guards every look at the
// record, and the host's abandonment is passed on to the running lookup.
#include <cstdlib>
#include <functional>

#include "api/c_string.h"
#include "dhvapi.h"
#include "dischive/cddb.h"

namespace dischive::api {
namespace {

// Holds the host's lock of a lookup or submission request for a scope.
class HostLock {
 public:
  template <typename Request>
  explicit HostLock(const Request& request)
      : unlock_(request.unlock), context_(request.lockContext) {
    if (request.lock != nullptr) request.lock(context_);
  }
  ~HostLock() {
    if (unlock_ != nullptr) unlock_(context_);
  }
  HostLock(const HostLock&) = delete;
  HostLock& operator=(const HostLock&) = delete;

 private:
  DhvLockCallback unlock_;
  void* context_;
};

DiscMetadata MetadataFromC(const DhvDiscMetadata& in) {
  DiscMetadata out;
  if (in.entries != nullptr) {
    for (uint32_t i = 0; i < in.count; ++i) {
      const DhvMetadataEntry& e = in.entries[i];
      if (e.type == DHV_VALUE_TEXT) {
        out.SetText(e.fieldId, e.index, e.text != nullptr ? e.text : "");
      } else {
        out.SetInt(e.fieldId, e.index, e.intValue);
      }
    }
  }
  for (size_t i = 0; i < 2; ++i) {
    if (in.extraTexts[i] != nullptr) out.extra_texts[i] = in.extraTexts[i];
  }
  for (size_t i = 0; i < 3; ++i)
    out.extra_words[i] = in.extraWords[i];
  return out;
}

void FreeMetadata(DhvDiscMetadata& m) {
  if (m.entries != nullptr) {
    for (uint32_t i = 0; i < m.count; ++i)
      std::free(m.entries[i].text);
  }
  std::free(m.entries);
  for (char*& text : m.extraTexts) {
    std::free(text);
    text = nullptr;
  }
  m.entries = nullptr;
  m.count = m.capacity = 0;
}

// Replaces the record's metadata; false when memory runs out (the record then
// holds no entries).
bool MetadataToC(const DiscMetadata& in, DhvDiscMetadata& out) {
  FreeMetadata(out);
  const size_t capacity = in.capacity() > in.size() ? in.capacity() : in.size();
  if (capacity > 0) {
    out.entries = static_cast<DhvMetadataEntry*>(std::calloc(capacity, sizeof(DhvMetadataEntry)));
    if (out.entries == nullptr) return false;
  }
  out.capacity = static_cast<uint32_t>(capacity);
  for (const MetadataEntry& e : in.entries()) {
    DhvMetadataEntry& c = out.entries[out.count];
    c.fieldId = e.field_id;
    c.index = e.index;
    if (const auto* text = std::get_if<std::string>(&e.value)) {
      c.type = DHV_VALUE_TEXT;
      c.text = DupString(*text);
      if (c.text == nullptr) return false;
    } else {
      c.type = DHV_VALUE_INT;
      c.intValue = std::get<int32_t>(e.value);
    }
    ++out.count;
  }
  for (size_t i = 0; i < 2; ++i) {
    if (!in.extra_texts[i].empty()) out.extraTexts[i] = DupString(in.extra_texts[i]);
  }
  for (size_t i = 0; i < 3; ++i)
    out.extraWords[i] = in.extra_words[i];
  return true;
}

// The host's callbacks as the lookup's window. Before every message it looks
// whether the host abandoned the request and, if so, abandons the mirror too.
class CallbackWindow : public HostWindow {
 public:
  CallbackWindow(const DhvDiscLookupRequest& host, DiscLookupRequest& mirror)
      : host_(host), mirror_(mirror) {}

  bool post(uint32_t message, uintptr_t wparam, std::any payload) override {
    if (!Sync() || host_.post == nullptr) return false;
    const std::string* text = std::any_cast<std::string>(&payload);
    host_.post(host_.owner, message, wparam, DupString(text != nullptr ? *text : ""));
    return true;
  }

  intptr_t send(uint32_t message, uintptr_t wparam, std::any payload) override {
    MatchChoice** choice = std::any_cast<MatchChoice*>(&payload);
    if (!Sync() || host_.send == nullptr || choice == nullptr) return 0;
    std::vector<DhvFreedbMatch> matches;
    for (uint32_t i = 0; i < (*choice)->count; ++i) {
      const FreedbMatch& m = (*choice)->matches[i];
      matches.push_back({m.disc_id, m.artist.c_str(), m.title.c_str(), m.category.c_str()});
    }
    DhvMatchChoice c{(*choice)->count, 0xFFFFFFFF, matches.data()};
    const intptr_t reply = host_.send(host_.owner, message, wparam, &c);
    (*choice)->chosen = c.chosen;
    Sync();
    return reply;
  }

  bool alive() const override { return true; }

 private:
  bool Sync() {
    bool abandoned;
    {
      HostLock lock(host_);
      abandoned = host_.discs == nullptr;
    }
    if (abandoned) {
      std::lock_guard<std::mutex> guard(mirror_.lock);
      mirror_.discs = nullptr;
    }
    return !abandoned;
  }

  const DhvDiscLookupRequest& host_;
  DiscLookupRequest& mirror_;
};

// The host's post callback as a submission's window; before each message it
// passes the host's abandonment on to the running submission.
class SubmitWindow : public HostWindow {
 public:
  SubmitWindow(const DhvSubmitRequest& host, DiscLookupRequest& mirror)
      : host_(host), mirror_(mirror) {}

  bool post(uint32_t message, uintptr_t wparam, std::any payload) override {
    bool abandoned;
    {
      HostLock lock(host_);
      abandoned = host_.submissions == nullptr;
    }
    if (abandoned) {
      std::lock_guard<std::mutex> guard(mirror_.lock);
      mirror_.submissions = nullptr;
      return false;
    }
    if (host_.post == nullptr) return false;
    const std::string* text = std::any_cast<std::string>(&payload);
    host_.post(host_.owner, message, wparam, DupString(text != nullptr ? *text : ""));
    return true;
  }
  intptr_t send(uint32_t, uintptr_t, std::any) override { return 0; }
  bool alive() const override { return true; }

 private:
  const DhvSubmitRequest& host_;
  DiscLookupRequest& mirror_;
};

DHV_RESULT RunLookup(DhvDiscLookupRequest* host,
                     const std::function<HResult(DiscLookupRequest&)>& lookup) {
  if (host == nullptr) return kInvalidArgument;
  std::vector<DiscRecord> discs;
  {
    HostLock lock(*host);
    if (host->discs == nullptr) return kAborted;
    for (uint32_t i = 0; i < host->discCount; ++i) {
      DiscRecord record;
      record.toc.disc_id = host->discs[i].toc.discId;
      record.toc.alt_disc_id = host->discs[i].toc.altDiscId;
      record.toc.track_count = host->discs[i].toc.trackCount < kMaxDiscTracks
                                   ? host->discs[i].toc.trackCount
                                   : kMaxDiscTracks;
      for (uint32_t k = 0; k < record.toc.track_count; ++k) {
        record.toc.frame_offsets[k] = host->discs[i].toc.frameOffsets[k];
      }
      record.toc.disc_length_seconds = host->discs[i].toc.discLengthSeconds;
      record.metadata = MetadataFromC(host->discs[i].metadata);
      record.result = host->discs[i].result;
      discs.push_back(std::move(record));
    }
  }
  DiscLookupRequest mirror;
  mirror.discs = &discs;
  CallbackWindow window(*host, mirror);
  mirror.owner = &window;
  mirror.progress_message = host->progressMessage;
  mirror.choice_message = host->choiceMessage;
  mirror.match_by_name = host->matchByName != 0;
  const HResult result = lookup(mirror);

  HostLock lock(*host);
  if (host->discs == nullptr || result == kAborted) return kAborted;
  for (uint32_t i = 0; i < host->discCount && i < discs.size(); ++i) {
    DhvDiscRecord& record = host->discs[i];
    record.result = discs[i].result;
    if (discs[i].result == kOk && !MetadataToC(discs[i].metadata, record.metadata)) {
      record.result = 0x8007000E;  // out of memory
    }
  }
  return result;
}

std::string Text(const char* text) {
  return text != nullptr ? std::string(text) : std::string();
}

DiscSubmission SubmissionFromC(const DhvDiscSubmission& in) {
  DiscSubmission out;
  out.category = Text(in.category);
  out.disc_id = in.discId;
  out.track_count = in.trackCount;
  out.artist = Text(in.artist);
  out.title = Text(in.title);
  for (uint32_t k = 0; k < kMaxSubmissionTracks; ++k) {
    out.track_artist[k] = Text(in.trackArtist[k]);
    out.track_title[k] = Text(in.trackTitle[k]);
    out.track_extended[k] = Text(in.trackExtended[k]);
  }
  for (uint32_t k = 0; k <= kMaxSubmissionTracks; ++k)
    out.frame_offsets[k] = in.frameOffsets[k];
  out.revision = in.revision;
  out.year = in.year;
  out.extended = Text(in.extended);
  out.has_year_and_genre = in.hasYearAndGenre != 0;
  out.genre = Text(in.genre);
  out.disc_length_seconds = in.discLengthSeconds;
  return out;
}

DHV_RESULT RunSubmission(DhvSubmitRequest* host,
                         const std::function<HResult(DiscLookupRequest&)>& submit) {
  if (host == nullptr) return kInvalidArgument;
  std::vector<SubmissionRecord> entries;
  {
    HostLock lock(*host);
    if (host->submissions == nullptr) return kAborted;
    for (uint32_t i = 0; i < host->submissionCount; ++i)
      entries.push_back({SubmissionFromC(host->submissions[i].entry), kOk});
  }
  DiscLookupRequest mirror;
  mirror.submissions = &entries;
  SubmitWindow window(*host, mirror);
  mirror.owner = &window;
  mirror.progress_message = host->progressMessage;
  const HResult result = submit(mirror);

  HostLock lock(*host);
  if (host->submissions == nullptr || result == kAborted) return kAborted;
  for (uint32_t i = 0; i < host->submissionCount && i < entries.size(); ++i)
    host->submissions[i].result = entries[i].result;
  return result;
}

}  // namespace
}  // namespace dischive::api

extern "C" DHV_RESULT LookupDiscsFreedb(DhvDiscLookupRequest* request) {
  return dischive::api::RunLookup(
      request, [](dischive::DiscLookupRequest& r) { return dischive::LookupDiscsFreedb(r); });
}

extern "C" DHV_RESULT LookupDiscsCddbp(DhvDiscLookupRequest* request) {
  return dischive::api::RunLookup(
      request, [](dischive::DiscLookupRequest& r) { return dischive::LookupDiscsCddbp(r); });
}

extern "C" DHV_RESULT SubmitByMail(DhvSubmitRequest* request) {
  return dischive::api::RunSubmission(
      request, [](dischive::DiscLookupRequest& r) { return dischive::SubmitByMail(r); });
}

extern "C" DHV_RESULT SubmitByHttp(DhvSubmitRequest* request) {
  return dischive::api::RunSubmission(
      request, [](dischive::DiscLookupRequest& r) { return dischive::SubmitByHttp(r); });
}
