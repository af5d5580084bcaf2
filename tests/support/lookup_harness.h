// Runs a freedb lookup as a host does: the lookup on a request thread of its
// own, the host's window (a MessageLoop) on the test's thread, recording the
// progress messages and answering the match choice.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "dischive/cddb.h"

namespace dischive::test {

inline constexpr uint32_t kProgressMessage = 0x8001;
inline constexpr uint32_t kChoiceMessage = 0x8002;

struct LookupHarness {
  std::vector<DiscRecord> discs;
  DiscLookupRequest request;
  std::vector<std::pair<uintptr_t, std::string>> progress;
  std::vector<std::vector<FreedbMatch>> choices_seen;
  /// The host's answer to a choice: the reply (0 = cancel); may set chosen.
  std::function<intptr_t(MatchChoice&)> choose = [](MatchChoice& c) {
    c.chosen = 0;
    return intptr_t{1};
  };
  MessageLoop loop{[this](const HostMessage& m) -> intptr_t {
    if (m.message == kProgressMessage) {
      progress.emplace_back(m.wparam, std::any_cast<std::string>(m.payload));
      return 0;
    }
    if (m.message == kChoiceMessage) {
      MatchChoice* choice = std::any_cast<MatchChoice*>(m.payload);
      choices_seen.emplace_back(choice->matches, choice->matches + choice->count);
      return choose(*choice);
    }
    return 0;
  }};

  void AddDisc(const DiscToc& toc) { discs.push_back(DiscRecord{toc, {}, kOk}); }

  /// Runs `lookup` on a thread while the host's window handles messages here.
  HResult Run(const std::function<HResult(DiscLookupRequest&)>& lookup) {
    request.discs = &discs;
    request.owner = &loop;
    request.progress_message = kProgressMessage;
    request.choice_message = kChoiceMessage;
    std::atomic<bool> done{false};
    HResult result = kOk;
    loop.pump();  // this thread owns the window
    std::thread worker([&] {
      result = lookup(request);
      done = true;
    });
    while (!done)
      loop.pump(std::chrono::milliseconds(5));
    worker.join();
    loop.pump();
    return result;
  }

  /// Abandons the request as a host does: clears the data pointer under the lock.
  void Abandon() {
    std::lock_guard<std::mutex> guard(request.lock);
    request.discs = nullptr;
  }
};

/// A table of contents with `tracks` tracks 15000 frames apart.
inline DiscToc MakeToc(uint32_t disc_id, uint32_t tracks) {
  DiscToc toc;
  toc.disc_id = disc_id;
  toc.track_count = tracks;
  for (uint32_t i = 0; i < tracks; ++i)
    toc.frame_offsets[i] = 150 + i * 15000;
  toc.disc_length_seconds = 2 + tracks * 200;
  return toc;
}

}  // namespace dischive::test
