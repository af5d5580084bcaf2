#include "dischive/host.h"

namespace dischive {

// A queued message; a send() waits on `done` for the handler's reply.
struct MessageLoop::Item {
  HostMessage message;
  bool is_send = false;
  bool done = false;
  intptr_t reply = 0;
};

MessageLoop::MessageLoop(Handler handler) : handler_(std::move(handler)) {}

MessageLoop::~MessageLoop() {
  close();
}

bool MessageLoop::post(uint32_t message, uintptr_t wparam, std::any payload) {
  auto item = std::make_shared<Item>();
  item->message = HostMessage{message, wparam, std::move(payload)};
  std::lock_guard lock(mutex_);
  if (closed_) return false;
  queue_.push_back(std::move(item));
  cv_.notify_all();
  return true;
}

intptr_t MessageLoop::send(uint32_t message, uintptr_t wparam, std::any payload) {
  std::unique_lock lock(mutex_);
  if (closed_) return 0;
  if (owner_ && *owner_ == std::this_thread::get_id()) {
    // Sent from the owner thread itself: call the handler directly.
    lock.unlock();
    return handler_(HostMessage{message, wparam, std::move(payload)});
  }
  auto item = std::make_shared<Item>();
  item->message = HostMessage{message, wparam, std::move(payload)};
  item->is_send = true;
  queue_.push_back(item);
  cv_.notify_all();
  cv_.wait(lock, [&] { return item->done || closed_; });
  return item->done ? item->reply : 0;
}

bool MessageLoop::alive() const {
  std::lock_guard lock(mutex_);
  return !closed_;
}

size_t MessageLoop::HandleReady(std::unique_lock<std::mutex>& lock) {
  size_t handled = 0;
  while (!queue_.empty() && !closed_) {
    std::shared_ptr<Item> item = std::move(queue_.front());
    queue_.pop_front();
    lock.unlock();
    const intptr_t reply = handler_(item->message);
    lock.lock();
    ++handled;
    if (item->is_send) {
      item->reply = reply;
      item->done = true;
      cv_.notify_all();
    }
    if (quit_) break;
  }
  return handled;
}

size_t MessageLoop::run() {
  std::unique_lock lock(mutex_);
  owner_ = std::this_thread::get_id();
  quit_ = false;
  size_t handled = 0;
  while (!quit_ && !closed_) {
    cv_.wait(lock, [&] { return quit_ || closed_ || !queue_.empty(); });
    handled += HandleReady(lock);
  }
  quit_ = false;
  return handled;
}

size_t MessageLoop::pump(std::chrono::milliseconds wait) {
  std::unique_lock lock(mutex_);
  owner_ = std::this_thread::get_id();
  cv_.wait_for(lock, wait, [&] { return closed_ || !queue_.empty(); });
  const size_t handled = HandleReady(lock);
  quit_ = false;
  return handled;
}

void MessageLoop::quit() {
  std::lock_guard lock(mutex_);
  quit_ = true;
  cv_.notify_all();
}

void MessageLoop::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  queue_.clear();  // waiting senders see closed_ and get 0
  cv_.notify_all();
}

// ---------------------------------------------------------------------------

bool ThreadMailbox::post(uint32_t message, uintptr_t wparam, std::any payload) {
  std::lock_guard lock(mutex_);
  if (closed_) return false;
  queue_.push_back(HostMessage{message, wparam, std::move(payload)});
  cv_.notify_all();
  return true;
}

std::optional<HostMessage> ThreadMailbox::get(std::chrono::milliseconds wait) {
  std::unique_lock lock(mutex_);
  if (!cv_.wait_for(lock, wait, [&] { return !queue_.empty(); })) return std::nullopt;
  HostMessage message = std::move(queue_.front());
  queue_.pop_front();
  return message;
}

bool ThreadMailbox::peek_quit() {
  std::lock_guard lock(mutex_);
  for (auto it = queue_.begin(); it != queue_.end(); ++it) {
    if (it->message == kQuit) {
      queue_.erase(it);
      return true;
    }
  }
  return false;
}

void ThreadMailbox::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  queue_.clear();
}

size_t ThreadMailbox::size() const {
  std::lock_guard lock(mutex_);
  return queue_.size();
}

}  // namespace dischive
