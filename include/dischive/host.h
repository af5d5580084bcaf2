// The host's windows and the worker threads' mailboxes. Long-running work on a
// worker thread reports to the host by posting messages (asynchronous; the
// payload's ownership passes to the receiver) or sending them (the worker waits
// for the host's reply).
#pragma once

#include <any>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

namespace dischive {

/// One message: a number, a small integer parameter and an optional payload.
struct HostMessage {
  uint32_t message = 0;
  uintptr_t wparam = 0;
  std::any payload;
};

/// A window of the host, as a worker sees it.
class HostWindow {
 public:
  virtual ~HostWindow() = default;
  /// Queues a message and returns at once; false when the window is gone.
  virtual bool post(uint32_t message, uintptr_t wparam, std::any payload) = 0;
  /// Delivers a message and waits for the host's reply; 0 when the window is gone.
  virtual intptr_t send(uint32_t message, uintptr_t wparam, std::any payload) = 0;
  /// False once the window has been closed.
  virtual bool alive() const = 0;
};

/// A ready HostWindow for programs without a GUI: messages are queued and
/// handled on the thread that calls run() or pump() (the owner thread), one at a
/// time, in the order they arrived. A send() from the owner thread itself calls
/// the handler directly, as a window procedure would be.
class MessageLoop : public HostWindow {
 public:
  using Handler = std::function<intptr_t(const HostMessage&)>;

  explicit MessageLoop(Handler handler);
  ~MessageLoop() override;

  bool post(uint32_t message, uintptr_t wparam, std::any payload) override;
  intptr_t send(uint32_t message, uintptr_t wparam, std::any payload) override;
  bool alive() const override;

  /// Makes the calling thread the owner and handles messages until quit() or
  /// close(); returns the number of messages handled.
  size_t run();
  /// Handles the messages waiting now, waiting up to `wait` for the first one;
  /// returns how many were handled.
  size_t pump(std::chrono::milliseconds wait = std::chrono::milliseconds(0));
  /// Makes run() return after the message being handled.
  void quit();
  /// Closes the window: alive() turns false, queued posts are dropped, waiting
  /// senders get 0, later posts and sends fail.
  void close();

 private:
  struct Item;
  size_t HandleReady(std::unique_lock<std::mutex>& lock);

  Handler handler_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<std::shared_ptr<Item>> queue_;
  std::optional<std::thread::id> owner_;
  bool quit_ = false;
  bool closed_ = false;
};

/// The message queue of a worker thread: others post to it, the worker peeks.
class ThreadMailbox {
 public:
  /// The quit message number (WM_QUIT).
  static constexpr uint32_t kQuit = 0x0012;

  /// Queues a message; false after close().
  bool post(uint32_t message, uintptr_t wparam = 0, std::any payload = {});
  /// Removes and returns the oldest message, waiting up to `wait` for one.
  std::optional<HostMessage> get(std::chrono::milliseconds wait);
  /// True when a quit message is waiting; removes it (and only it).
  bool peek_quit();
  /// Refuses further posts and drops what is queued.
  void close();
  size_t size() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<HostMessage> queue_;
  bool closed_ = false;
};

}  // namespace dischive
