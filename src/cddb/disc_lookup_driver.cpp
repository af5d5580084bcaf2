// Lookup drivers for hosts without a GUI: a request thread with the caller as
// its window, and batch lookups through the background worker.
#include "dischive/disc_lookup_driver.h"

#include <atomic>
#include <memory>
#include <thread>

#include "cddb/disc_lookup.h"
#include "dischive/lookup_worker.h"

namespace dischive {

std::optional<LookupProtocol> ParseLookupProtocol(std::string_view name) {
  if (name == "http") return LookupProtocol::kHttp;
  if (name == "cddbp") return LookupProtocol::kCddbp;
  return std::nullopt;
}

HResult RunDiscLookup(DiscLookupRequest& request, MessageLoop& window,
                      const SettingsStore& settings, LookupProtocol protocol,
                      std::string* transcript) {
  std::atomic<bool> done{false};
  HResult result = kOk;
  window.pump();  // the calling thread owns the window from now on
  std::thread thread([&] {
    result = protocol == LookupProtocol::kCddbp ? LookupDiscsCddbp(request, settings, transcript)
                                                : LookupDiscsFreedb(request, settings, transcript);
    done = true;
  });
  while (!done)
    window.pump(std::chrono::milliseconds(20));
  thread.join();
  window.pump();  // what was posted last
  return result;
}

namespace {

constexpr uint32_t kBatchDone = 0x8403;

class BatchRun;

// One query or read of a batch, reporting back to the run.
class BatchRequest : public LookupRequest {
 public:
  BatchRequest(BatchRun& run, size_t disc, bool is_read, std::string url,
               std::shared_ptr<MessageLoop> window)
      : run_(run), disc_(disc), is_read_(is_read), url_(std::move(url)), window_(window) {}
  void OnComplete() override;
  std::string GetUrl() const override { return url_; }
  std::shared_ptr<HostWindow> GetOwnerWindow() const override { return window_; }
  uint32_t GetMessageId() const override { return kBatchDone; }

 private:
  BatchRun& run_;
  size_t disc_;
  bool is_read_;
  std::string url_;
  std::shared_ptr<MessageLoop> window_;
};

class BatchRun {
 public:
  BatchRun(std::vector<BatchDisc>& discs, const SettingsStore& settings,
           const BatchLookupOptions& options)
      : discs_(discs),
        options_(options),
        base_(settings.GetString(kFreedbSettingsGroup, "acquire_url", DefaultAcquireUrl())),
        email_(detail::FreedbEmailAddress(settings)),
        proto_(detail::FreedbProtoLevel(settings)),
        worker_(0, "", options.jobs,
                std::shared_ptr<const SettingsStore>(&settings, [](auto*) {})) {
    worker_.min_interval = options.min_interval;
  }

  HResult Run() {
    for (size_t i = 0; i < discs_.size(); ++i)
      Submit(i, false, BuildQueryRequest(discs_[i].toc, email_, proto_));
    while (finished_ < discs_.size()) {
      if (options_.cancelled && options_.cancelled()) {
        worker_.CancelAllRequests();
        window_->close();  // posted but unhandled requests are freed with it
        for (size_t i = 0; i < discs_.size(); ++i) {
          if (!done_[i]) discs_[i].result = kAborted;
        }
        return kAborted;
      }
      window_->pump(std::chrono::milliseconds(20));
      if (worker_.IsWorkerIdle() && finished_ < discs_.size()) {
        // Nothing runs and discs are open: a request went missing. Never wait
        // for ever on it.
        for (size_t i = 0; i < discs_.size(); ++i) {
          if (!done_[i]) discs_[i].result = kFreedbServiceError;
        }
        break;
      }
    }
    return kOk;
  }

  void OnQuery(size_t index, const LookupRequest& r) {
    BatchDisc& disc = discs_[index];
    const std::string body = Body(r, disc);
    if (disc.result != kOk) return Finish(index);
    std::vector<FreedbMatch> matches;
    switch (ParseQueryResponse(body, matches, kMaxFreedbMatches)) {
      case kQueryExact:
        break;
      case kQueryList:
        // "210": exact matches (take the first); "211": inexact ones, left
        // for the user to choose.
        if (matches.empty()) {
          disc.result = kFreedbServiceError;
        } else if (body.compare(0, 3, "210") != 0) {
          disc.result = kTooManyMatches;
          disc.matches = std::move(matches);
        }
        break;
      case kQueryNone:
        disc.result = kNoFreedbMatch;
        break;
      case kQueryOverflow:
        disc.result = kTooManyMatches;
        break;
      default:
        disc.result = kFreedbServiceError;
    }
    if (disc.result != kOk) return Finish(index);
    chosen_[index] = matches.front();
    Submit(index, true,
           BuildReadRequest(matches.front().disc_id, matches.front().category, email_, proto_));
  }

  void OnRead(size_t index, const LookupRequest& r) {
    BatchDisc& disc = discs_[index];
    const std::string body = Body(r, disc);
    XmcdKeywordMap map;
    if (disc.result == kOk) {
      // The rest of the status line begins with a blank: the parser skips it.
      if (body.compare(0, 4, "210 ") != 0 ||
          !ParseXmcdEntry(std::string_view(body).substr(3), map)) {
        disc.result = kFreedbServiceError;
      } else {
        ApplyXmcdToMetadata(disc.metadata, map, chosen_[index].category, disc.toc.track_count);
      }
    }
    Finish(index);
  }

 private:
  void Submit(size_t index, bool is_read, const std::string& query) {
    auto request = std::unique_ptr<LookupRequest>(
        std::make_unique<BatchRequest>(*this, index, is_read, base_ + query, window_));
    // Reads go first, so that a disc under way finishes before new ones start.
    worker_.SubmitRequest(request, is_read);
    if (request != nullptr) {  // refused: not an http or https address
      discs_[index].result = kNotHttpAddress;
      Finish(index);
    }
  }

  // The decoded body, or the failure stored in the disc.
  std::string Body(const LookupRequest& r, BatchDisc& disc) {
    if (options_.transcript != nullptr) *options_.transcript += r.transcript;
    if (r.error != kOk) {
      disc.result = r.error;
    } else if (r.status_code != 200) {
      disc.result = kHttpStatusNotOk;
    } else {
      return detail::DecodeFreedbText(r.GetResponseText(), proto_);
    }
    return {};
  }

  void Finish(size_t index) {
    done_[index] = true;
    ++finished_;
    if (options_.progress) options_.progress(finished_, discs_.size());
  }

  std::vector<BatchDisc>& discs_;
  const BatchLookupOptions& options_;
  std::string base_;
  std::string email_;
  int proto_;
  std::vector<bool> done_ = std::vector<bool>(discs_.size());
  std::vector<FreedbMatch> chosen_ = std::vector<FreedbMatch>(discs_.size());
  size_t finished_ = 0;
  std::shared_ptr<MessageLoop> window_ = std::make_shared<MessageLoop>(
      [this](const HostMessage& m) -> intptr_t { return worker_.CompleteFromMessage(m) ? 1 : 0; });
  LookupWorker worker_;
};

void BatchRequest::OnComplete() {
  if (is_read_) {
    run_.OnRead(disc_, *this);
  } else {
    run_.OnQuery(disc_, *this);
  }
}

}  // namespace

HResult LookupDiscBatch(std::vector<BatchDisc>& discs, const SettingsStore& settings,
                        const BatchLookupOptions& options) {
  for (BatchDisc& disc : discs) {
    disc.result = kOk;
    disc.matches.clear();
  }
  if (discs.empty()) return kOk;
  BatchRun run(discs, settings, options);
  return run.Run();
}

}  // namespace dischive
