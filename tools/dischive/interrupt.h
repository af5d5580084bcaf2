// Ctrl-C during long work: while an InterruptGuard lives, SIGINT (and SIGTERM)
// only raise a flag that the work polls, so that it can cancel cleanly, say
// what was done and exit with the "cancelled" code. A second Ctrl-C ends the
// program at once.
#pragma once

namespace dischive::cli {

class InterruptGuard {
 public:
  InterruptGuard();
  ~InterruptGuard();
  InterruptGuard(const InterruptGuard&) = delete;
  InterruptGuard& operator=(const InterruptGuard&) = delete;

  /// True once the user pressed Ctrl-C (or the process was asked to end).
  static bool interrupted();
};

}  // namespace dischive::cli
