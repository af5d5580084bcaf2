// C entry points of the background lookup worker. A C request record is
// wrapped in a LookupRequest whose operations call the record's function
// pointers; the host's window record is wrapped in a HostWindow.
#include <cstdlib>
#include <memory>
#include <string>

#include "api/c_string.h"
#include "dhvapi.h"
#include "dischive/lookup_worker.h"

namespace {

using dischive::HostWindow;
using dischive::LookupRequest;
using dischive::LookupWorker;

void FreeResults(DhvLookupRequest& c) {
  for (char** text : {&c.server, &c.object, &c.transcript, &c.body}) {
    std::free(*text);
    *text = nullptr;
  }
  c.bodyLength = 0;
}

class CRequest : public LookupRequest {
 public:
  explicit CRequest(DhvLookupRequest* c) : c_(c) {
    c_->internal = this;
    if (c_->extraHeaders != nullptr) extra_headers = c_->extraHeaders;
    decoding = c_->decoding != 0;
    no_authentication = c_->noAuthentication != 0;
  }
  ~CRequest() override {
    if (c_ == nullptr) return;
    FreeResults(*c_);
    c_->internal = nullptr;
    if (c_->ops->destroy != nullptr) c_->ops->destroy(c_);
  }
  CRequest(const CRequest&) = delete;
  CRequest& operator=(const CRequest&) = delete;

  // Hands the record back to the host untouched (a refused submission).
  DhvLookupRequest* Release() {
    DhvLookupRequest* c = c_;
    c_->internal = nullptr;
    c_ = nullptr;
    return c;
  }
  DhvLookupRequest* record() const { return c_; }

  void OnComplete() override { c_->ops->onComplete(c_); }
  void Prepare() override {
    c_->minInterval = static_cast<uint32_t>(min_interval.count());
    if (c_->ops->prepare != nullptr) c_->ops->prepare(c_);
  }
  std::string GetUrl() const override {
    const char* url = c_->ops->getUrl(c_);
    return url != nullptr ? std::string(url) : std::string();
  }
  std::shared_ptr<HostWindow> GetOwnerWindow() const override;
  uint32_t GetMessageId() const override { return c_->ops->getMessageId(c_); }

  // Copies the results into the record, on the request's thread before the
  // host sees it.
  void Publish() {
    FreeResults(*c_);
    c_->port = port;
    c_->error = error;
    c_->statusCode = status_code;
    c_->threadId = thread_id;
    c_->server = dischive::api::DupString(server);
    c_->object = dischive::api::DupString(object);
    c_->transcript = dischive::api::DupString(transcript);
    c_->body = dischive::api::DupString(body);
    c_->bodyLength = c_->body != nullptr ? static_cast<uint32_t>(body.size()) : 0;
  }

 private:
  DhvLookupRequest* c_;
};

class CWindow : public HostWindow {
 public:
  explicit CWindow(const DhvHostWindow& window) : window_(window) {}
  bool post(uint32_t message, uintptr_t wparam, std::any payload) override {
    std::unique_ptr<LookupRequest> request(
        LookupWorker::TakeRequest(dischive::HostMessage{message, wparam, std::move(payload)}));
    auto* c = dynamic_cast<CRequest*>(request.get());
    if (c == nullptr || window_.post == nullptr) return false;
    c->Publish();
    if (window_.post(window_.context, message, wparam, c->record()) == 0) return false;
    request.release();  // the host holds it until CompleteRequest
    return true;
  }
  intptr_t send(uint32_t, uintptr_t, std::any) override { return 0; }
  bool alive() const override {
    return window_.alive == nullptr || window_.alive(window_.context) != 0;
  }

 private:
  DhvHostWindow window_;
};

std::shared_ptr<HostWindow> CRequest::GetOwnerWindow() const {
  const DhvHostWindow* window =
      c_->ops->getOwnerWindow != nullptr ? c_->ops->getOwnerWindow(c_) : nullptr;
  if (window == nullptr) return nullptr;
  return std::make_shared<CWindow>(*window);
}

LookupWorker* Worker(const DhvLookupWorker* worker) {
  return worker != nullptr ? static_cast<LookupWorker*>(worker->internal) : nullptr;
}

bool ValidOps(const DhvLookupRequest* request) {
  return request != nullptr && request->ops != nullptr && request->ops->onComplete != nullptr &&
         request->ops->getUrl != nullptr && request->ops->getMessageId != nullptr &&
         request->internal == nullptr;
}

}  // namespace

extern "C" DHV_RESULT ConstructLookupWorker(DhvLookupWorker* worker, uint32_t callerValue,
                                            const char* profileSection, int32_t slots) {
  if (worker == nullptr || slots < 1) return dischive::kInvalidArgument;
  worker->minInterval = 0;
  worker->callerValue = callerValue;
  worker->internal = new (std::nothrow)
      LookupWorker(callerValue, profileSection != nullptr ? profileSection : "", slots);
  return worker->internal != nullptr ? 0 : 0x8007000E;
}

extern "C" void DestructLookupWorker(DhvLookupWorker* worker) {
  delete Worker(worker);
  if (worker != nullptr) worker->internal = nullptr;
}

extern "C" int SubmitRequest(DhvLookupWorker* worker, DhvLookupRequest* request, int atFront,
                             int noQueue) {
  LookupWorker* w = Worker(worker);
  if (w == nullptr || !ValidOps(request)) return 0;
  w->min_interval = std::chrono::milliseconds(worker->minInterval);
  std::unique_ptr<LookupRequest> wrapped = std::make_unique<CRequest>(request);
  const bool started = w->SubmitRequest(wrapped, atFront != 0, noQueue != 0);
  if (wrapped != nullptr) static_cast<CRequest*>(wrapped.get())->Release();
  return started ? 1 : 0;
}

extern "C" void CancelAllRequests(DhvLookupWorker* worker) {
  if (LookupWorker* w = Worker(worker)) w->CancelAllRequests();
}

extern "C" int IsWorkerIdle(const DhvLookupWorker* worker) {
  const LookupWorker* w = Worker(worker);
  return w == nullptr || w->IsWorkerIdle() ? 1 : 0;
}

extern "C" void CompleteRequest(DhvLookupWorker* worker, DhvLookupRequest* request) {
  LookupWorker* w = Worker(worker);
  if (w == nullptr || request == nullptr || request->internal == nullptr) return;
  w->min_interval = std::chrono::milliseconds(worker->minInterval);
  w->CompleteRequest(static_cast<CRequest*>(request->internal));
}

extern "C" char* GetResponseText(const DhvLookupRequest* request) {
  if (request == nullptr || request->body == nullptr) return dischive::api::DupString("");
  return dischive::api::DupString(std::string_view(request->body, request->bodyLength));
}
