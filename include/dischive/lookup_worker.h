// Background GET requests for the host: a fixed number of request slots, a
// waiting queue, one thread per running request, and the finished request
// posted back to the window that asked for it.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/host.h"
#include "dischive/http.h"
#include "dischive/result.h"
#include "dischive/settings.h"

namespace dischive {

/// One background request. The host derives from it to say what to fetch and
/// what to do with the answer; the worker fills the result fields.
///
/// Life of a request: queued (the worker owns it), running (its thread owns
/// it), posted (the completion message owns it until CompleteRequest), and
/// deleted. A request cancelled while it runs, or whose owner window is gone,
/// is deleted by its own thread without being posted.
class LookupRequest {
 public:
  virtual ~LookupRequest();

  /// Called on the owner's thread by CompleteRequest; read the results here.
  virtual void OnComplete() = 0;
  /// Called by SubmitRequest on the caller's thread just before the start.
  virtual void Prepare() {}
  /// The full URL to fetch (http or https). Called on the caller's thread.
  virtual std::string GetUrl() const = 0;
  /// The window that receives the completion message; called on the request's
  /// thread. A null or closed window makes the thread delete the request.
  virtual std::shared_ptr<HostWindow> GetOwnerWindow() const = 0;
  /// The message number posted on completion (wparam 0, the request as payload).
  virtual uint32_t GetMessageId() const = 0;

  /// The body as text (empty when there is none).
  const std::string& GetResponseText() const { return body; }

  // Set by the host.
  std::string extra_headers;       ///< CR LF separated; empty for none
  bool decoding = false;           ///< accept compressed bodies
  bool no_authentication = false;  ///< never answer an authentication challenge
  std::string host_text;           ///< the host's own; not used by the worker

  // Set by the worker.
  uint16_t port = 0;
  HResult error = kOk;  ///< the transport's result (0: the exchange took place)
  uint32_t status_code = 0;
  std::string server;
  std::string object;      ///< path and query
  std::string transcript;  ///< the connecting line, then the exchange
  std::string body;
  InternetSettings settings;                  ///< the worker's settings, copied at the start
  uint32_t thread_id = 0;                     ///< the request's thread (0 before the start)
  std::chrono::milliseconds min_interval{0};  ///< the worker's, copied at the start
};

/// Runs LookupRequests in the background. Submission, completion, cancellation
/// and the idle test belong to the owner's thread (the one that handles the
/// completion messages); the slots and the queue are not locked.
class LookupWorker {
 public:
  /// `profile_section`: a settings group whose "UserAgent" replaces the agent
  /// when it is not empty; `slots`: requests running at once (at least 1);
  /// `settings`: the store to read once, on the first start (default: the
  /// process-wide one).
  LookupWorker(uint32_t caller_value, std::string_view profile_section, int slots,
               std::shared_ptr<const SettingsStore> settings = nullptr);
  /// Cancels every request (see CancelAllRequests).
  ~LookupWorker();
  LookupWorker(const LookupWorker&) = delete;
  LookupWorker& operator=(const LookupWorker&) = delete;

  /// Starts the request in the first free slot and returns true. With no free
  /// slot the request is queued (at the head with `at_front`) unless
  /// `no_queue` is set, and false is returned either way. A URL that is not
  /// http or https, or a thread that cannot start, also gives false; the
  /// request then stays the caller's. On true or on queuing the worker owns it.
  bool SubmitRequest(std::unique_ptr<LookupRequest>& request, bool at_front = false,
                     bool no_queue = false);
  /// Handles the completion message of `request`: frees its slot, calls
  /// OnComplete, starts the head of the queue, and deletes the request. A
  /// request whose slot was cancelled meanwhile is deleted without OnComplete.
  void CompleteRequest(LookupRequest* request);
  /// Handles a message that may be a completion: when its payload is a posted
  /// request, completes it (see CompleteRequest) and returns true.
  bool CompleteFromMessage(const HostMessage& message);
  /// Deletes every queued request and tells every running one to quit: it
  /// finishes its exchange and is deleted by its thread without being posted.
  void CancelAllRequests();
  /// True when nothing is queued and every slot is free.
  bool IsWorkerIdle() const;

  /// The shortest time from the end of one request to the start of the next
  /// (process-wide: every worker's requests share one last-finished time).
  std::chrono::milliseconds min_interval{0};

  uint32_t caller_value() const { return caller_value_; }
  int slot_count() const { return static_cast<int>(slots_.size()); }
  size_t queued() const { return queue_.size(); }

  /// The payload of a completion message, if it is one (nullptr otherwise).
  /// Ownership passes to the caller, who gives it to CompleteRequest.
  static LookupRequest* TakeRequest(const HostMessage& message);
  /// Request threads still running in this process (all workers).
  static size_t RunningThreads();
  /// Waits until no request thread runs, at most `timeout`; true when none does.
  static bool WaitForThreads(std::chrono::milliseconds timeout);

 private:
  struct Slot {
    uint32_t thread_id = 0;
    std::shared_ptr<ThreadMailbox> mailbox;
  };
  bool Start(std::unique_ptr<LookupRequest>& request, Slot& slot);
  const InternetSettings& Settings();

  uint32_t caller_value_;
  std::string profile_section_;
  std::shared_ptr<const SettingsStore> store_;
  std::unique_ptr<InternetSettings> settings_;
  std::vector<Slot> slots_;
  std::deque<std::unique_ptr<LookupRequest>> queue_;
};

}  // namespace dischive
