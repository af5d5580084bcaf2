#include "dischive/host.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <vector>

namespace dischive {
namespace {

TEST(MessageLoopTest, PostsFromManyThreadsArriveOnceInOrderPerSender) {
  constexpr int kSenders = 6;
  constexpr int kPerSender = 2000;
  std::map<uintptr_t, std::vector<int>> received;
  MessageLoop loop([&](const HostMessage& m) {
    received[m.wparam].push_back(std::any_cast<int>(m.payload));
    return intptr_t{0};
  });
  std::vector<std::thread> senders;
  for (int s = 0; s < kSenders; ++s) {
    senders.emplace_back([&loop, s] {
      for (int i = 0; i < kPerSender; ++i) {
        ASSERT_TRUE(loop.post(0x400, static_cast<uintptr_t>(s), i));
      }
    });
  }
  std::thread quitter([&] {
    for (auto& t : senders)
      t.join();
    loop.post(0x401, 999, 0);
  });
  // The quitter's message comes last, once every sender is done.
  size_t handled = 0;
  while (received.count(999) == 0)
    handled += loop.pump(std::chrono::milliseconds(50));
  quitter.join();
  EXPECT_EQ(handled, static_cast<size_t>(kSenders * kPerSender + 1));
  for (int s = 0; s < kSenders; ++s) {
    const std::vector<int>& got = received[static_cast<uintptr_t>(s)];
    ASSERT_EQ(got.size(), static_cast<size_t>(kPerSender));
    for (int i = 0; i < kPerSender; ++i)
      ASSERT_EQ(got[i], i) << "sender " << s;
  }
}

TEST(MessageLoopTest, SendWaitsForTheHostsReplyAndCloseReleasesSenders) {
  MessageLoop loop([](const HostMessage& m) {
    int* choice = std::any_cast<int*>(m.payload);
    *choice = 2;  // the host writes its answer into the sender's record
    return static_cast<intptr_t>(m.wparam * 10);
  });
  int choice = -1;
  intptr_t reply = 0;
  std::thread worker([&] { reply = loop.send(0x500, 7, &choice); });
  while (reply == 0)
    loop.pump(std::chrono::milliseconds(10));
  worker.join();
  EXPECT_EQ(reply, 70);
  EXPECT_EQ(choice, 2);

  // A send from the owner thread calls the handler directly.
  EXPECT_EQ(loop.send(0x500, 3, &choice), 30);

  // After close, a waiting sender gets 0 and posts fail.
  std::atomic<bool> started{false};
  intptr_t late = -1;
  std::thread waiter([&] {
    started = true;
    late = loop.send(0x500, 1, &choice);
  });
  while (!started)
    std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  loop.close();
  waiter.join();
  EXPECT_EQ(late, 0);
  EXPECT_FALSE(loop.alive());
  EXPECT_FALSE(loop.post(1, 0, {}));
}

TEST(MessageLoopTest, RunReturnsAfterQuit) {
  int seen = 0;
  MessageLoop* handle = nullptr;
  MessageLoop loop([&](const HostMessage& m) {
    ++seen;
    if (m.message == 2) handle->quit();
    return intptr_t{0};
  });
  handle = &loop;
  loop.post(1, 0, {});
  loop.post(2, 0, {});
  loop.post(3, 0, {});
  EXPECT_EQ(loop.run(), 2u);
  EXPECT_EQ(seen, 2);
  EXPECT_EQ(loop.pump(), 1u);
}

TEST(ThreadMailboxTest, PeekQuitRemovesOnlyTheQuitMessage) {
  ThreadMailbox box;
  box.post(0x400, 1);
  EXPECT_FALSE(box.peek_quit());
  box.post(ThreadMailbox::kQuit);
  box.post(0x400, 2);
  EXPECT_TRUE(box.peek_quit());
  EXPECT_FALSE(box.peek_quit());
  EXPECT_EQ(box.size(), 2u);
  EXPECT_EQ(box.get(std::chrono::milliseconds(0))->wparam, 1u);
  EXPECT_EQ(box.get(std::chrono::milliseconds(0))->wparam, 2u);
  EXPECT_FALSE(box.get(std::chrono::milliseconds(5)).has_value());
  box.close();
  EXPECT_FALSE(box.post(0x400));
}

}  // namespace
}  // namespace dischive
