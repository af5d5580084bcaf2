// The background lookup worker. Each running request has a thread of its own
// and a mailbox through which CancelAllRequests tells it to quit; the thread
// touches only its own request, its mailbox and the process-wide time of the
// last finished request, so the slots and the queue need no lock.
#include "dischive/lookup_worker.h"

#include <curl/curl.h>
#include <fmt/printf.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

#include "dischive/strings.h"

namespace dischive {
namespace {

using Clock = std::chrono::steady_clock;

// End of the last finished request, in steady-clock ticks (0: none yet). One
// value for the whole process; an atomic so that two request threads do not
// race on it (a lost update only shortens one wait, as before).
std::atomic<Clock::rep> g_last_finished{0};

// Live request threads, so that a program can wait for cancelled ones.
std::mutex g_threads_mutex;
std::condition_variable g_threads_cv;
size_t g_threads = 0;

std::atomic<uint32_t> g_next_thread_id{0};

uint32_t NewThreadId() {
  uint32_t id = 0;
  while (id == 0)
    id = ++g_next_thread_id;
  return id;
}

// The payload of a completion message. Copies share one holder; the request
// is deleted with the last copy unless TakeRequest took it, so a message that
// is dropped (window closed, post refused) frees its request.
class PostedRequest {
 public:
  explicit PostedRequest(std::unique_ptr<LookupRequest> request)
      : holder_(std::make_shared<Holder>(std::move(request))) {}
  LookupRequest* Take() const { return holder_->request.exchange(nullptr); }

 private:
  struct Holder {
    explicit Holder(std::unique_ptr<LookupRequest> r) : request(r.release()) {}
    ~Holder() { delete request.exchange(nullptr); }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    std::atomic<LookupRequest*> request;
  };
  std::shared_ptr<Holder> holder_;
};

// "scheme://host[:port]/path?query" split with libcurl's URL parser; only http
// and https are accepted.
bool SplitUrl(const std::string& url, LookupRequest& request) {
  CURLU* handle = curl_url();
  if (handle == nullptr) return false;
  const std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> guard(handle, &curl_url_cleanup);
  if (curl_url_set(handle, CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) return false;
  const auto part = [&](CURLUPart which, unsigned flags) -> std::optional<std::string> {
    char* text = nullptr;
    if (curl_url_get(handle, which, &text, flags) != CURLUE_OK) return std::nullopt;
    std::string out(text);
    curl_free(text);
    return out;
  };
  const auto scheme = part(CURLUPART_SCHEME, 0);
  const auto host = part(CURLUPART_HOST, 0);
  const auto port = part(CURLUPART_PORT, CURLU_DEFAULT_PORT);
  const auto path = part(CURLUPART_PATH, 0);
  if (!scheme || !host || !port || !path || (*scheme != "http" && *scheme != "https")) {
    return false;
  }
  std::string server = *host;
  if (server.size() > 2 && server.front() == '[' && server.back() == ']') {
    server = server.substr(1, server.size() - 2);  // the transport adds the brackets
  }
  unsigned number = 0;
  const auto [end, failed] = std::from_chars(port->data(), port->data() + port->size(), number);
  if (failed != std::errc() || end != port->data() + port->size() || number == 0 ||
      number > 65535) {
    return false;
  }
  request.server = std::move(server);
  request.port = static_cast<uint16_t>(number);
  request.object = *path;
  if (const auto query = part(CURLUPART_QUERY, 0)) request.object += "?" + *query;
  return true;
}

// The exchange of one request, on its own thread.
void RunRequest(std::unique_ptr<LookupRequest> request, std::shared_ptr<ThreadMailbox> mailbox) {
  const std::shared_ptr<HostWindow> owner = request->GetOwnerWindow();
  HttpRequest http;
  ApplyInternetSettings(request->settings, http);
  http.server = request->server;
  http.port = request->port;
  http.object = request->object;
  http.verb = "GET";
  http.decoding = request->decoding;
  http.no_authentication = request->no_authentication;
  http.extra_headers = request->extra_headers;

  request->transcript =
      fmt::sprintf(LoadHostString(strings::kConnecting),
                   http.access_type == AccessType::kNamedProxy ? http.proxy : http.server);
  request->transcript += "\r\n";

  if (request->min_interval.count() > 0) {
    const Clock::rep last = g_last_finished.load();
    if (last != 0) {
      const Clock::time_point ready =
          Clock::time_point(Clock::duration(last)) +
          std::chrono::duration_cast<Clock::duration>(request->min_interval);
      if (Clock::now() < ready) std::this_thread::sleep_until(ready);
    }
  }
  request->error = PerformHttpRequest(http);
  g_last_finished.store(Clock::now().time_since_epoch().count());

  FormatHttpTranscript(request->transcript, http);
  request->status_code = http.status_code;
  request->body = std::move(http.response_body);

  const bool quit = mailbox->peek_quit();
  mailbox->close();
  if (quit || owner == nullptr || !owner->alive()) return;  // deleted here
  const uint32_t message = request->GetMessageId();
  // A refused post drops the payload, which deletes the request.
  owner->post(message, 0, PostedRequest(std::move(request)));
}

}  // namespace

LookupRequest::~LookupRequest() = default;

LookupWorker::LookupWorker(uint32_t caller_value, std::string_view profile_section, int slots,
                           std::shared_ptr<const SettingsStore> settings)
    : caller_value_(caller_value),
      profile_section_(profile_section),
      store_(std::move(settings)),
      slots_(static_cast<size_t>(std::max(slots, 1))) {}

LookupWorker::~LookupWorker() {
  CancelAllRequests();
}

const InternetSettings& LookupWorker::Settings() {
  if (settings_ == nullptr) {
    const std::shared_ptr<const SettingsStore> store =
        store_ != nullptr ? store_ : std::shared_ptr<const SettingsStore>(GlobalSettings());
    auto loaded = std::make_unique<InternetSettings>(LoadInternetSettings(*store));
    if (!profile_section_.empty()) {
      std::string agent = store->GetString(profile_section_, "UserAgent", "");
      if (!agent.empty()) loaded->agent = std::move(agent);
    }
    settings_ = std::move(loaded);
  }
  return *settings_;
}

bool LookupWorker::Start(std::unique_ptr<LookupRequest>& request, Slot& slot) {
  request->min_interval = min_interval;
  request->Prepare();
  request->settings = Settings();
  if (!SplitUrl(request->GetUrl(), *request)) return false;
  const uint32_t id = NewThreadId();
  request->thread_id = id;
  auto mailbox = std::make_shared<ThreadMailbox>();
  {
    std::lock_guard lock(g_threads_mutex);
    ++g_threads;
  }
  LookupRequest* const raw = request.release();
  try {
    std::thread([raw, mailbox] {
      RunRequest(std::unique_ptr<LookupRequest>(raw), mailbox);
      std::lock_guard lock(g_threads_mutex);
      --g_threads;
      g_threads_cv.notify_all();
    }).detach();
  } catch (const std::system_error&) {
    request.reset(raw);  // not started: still the caller's
    request->thread_id = 0;
    std::lock_guard lock(g_threads_mutex);
    --g_threads;
    g_threads_cv.notify_all();
    return false;
  }
  slot.thread_id = id;
  slot.mailbox = std::move(mailbox);
  return true;
}

bool LookupWorker::SubmitRequest(std::unique_ptr<LookupRequest>& request, bool at_front,
                                 bool no_queue) {
  if (request == nullptr) return false;
  const auto free_slot =
      std::find_if(slots_.begin(), slots_.end(), [](const Slot& s) { return s.thread_id == 0; });
  if (free_slot != slots_.end()) return Start(request, *free_slot);
  if (!no_queue) {
    if (at_front) {
      queue_.push_front(std::move(request));
    } else {
      queue_.push_back(std::move(request));
    }
  }
  return false;
}

void LookupWorker::CompleteRequest(LookupRequest* request) {
  const std::unique_ptr<LookupRequest> owned(request);
  if (request == nullptr) return;
  const auto slot = std::find_if(slots_.begin(), slots_.end(), [&](const Slot& s) {
    return s.thread_id != 0 && s.thread_id == request->thread_id;
  });
  if (slot == slots_.end()) return;
  *slot = Slot{};
  request->OnComplete();
  // The head of the queue takes the freed slot; a head that does not start
  // stays where it is.
  if (!queue_.empty()) {
    std::unique_ptr<LookupRequest> head = std::move(queue_.front());
    queue_.pop_front();
    if (!SubmitRequest(head, false, true)) queue_.push_front(std::move(head));
  }
}

bool LookupWorker::CompleteFromMessage(const HostMessage& message) {
  LookupRequest* request = TakeRequest(message);
  if (request == nullptr) return false;
  CompleteRequest(request);
  return true;
}

void LookupWorker::CancelAllRequests() {
  queue_.clear();
  for (Slot& slot : slots_) {
    if (slot.thread_id == 0) continue;
    slot.mailbox->post(ThreadMailbox::kQuit);
    slot = Slot{};
  }
}

bool LookupWorker::IsWorkerIdle() const {
  if (!queue_.empty()) return false;
  return std::all_of(slots_.begin(), slots_.end(), [](const Slot& s) { return s.thread_id == 0; });
}

LookupRequest* LookupWorker::TakeRequest(const HostMessage& message) {
  const auto* posted = std::any_cast<PostedRequest>(&message.payload);
  return posted != nullptr ? posted->Take() : nullptr;
}

size_t LookupWorker::RunningThreads() {
  std::lock_guard lock(g_threads_mutex);
  return g_threads;
}

bool LookupWorker::WaitForThreads(std::chrono::milliseconds timeout) {
  std::unique_lock lock(g_threads_mutex);
  return g_threads_cv.wait_for(lock, timeout, [] { return g_threads == 0; });
}

}  // namespace dischive
