// The crash report writer: when the process dies of a fault (SIGSEGV, SIGBUS,
// SIGILL, SIGFPE, SIGABRT, SIGTRAP), a plain-text report with the exception,
// the registers, memory dumps, the loaded modules and the system is written to
// CrashReportPath(), and the process then dies by its signal as it would have
// without the reporter.
#pragma once

#include <cstddef>
#include <memory>

namespace dischive {

/// The signal dispositions that InstallCrashReporter replaced (opaque).
struct SavedCrashHandlers;

/// Frees saved dispositions without putting them back.
struct SavedCrashHandlersDeleter {
  void operator()(SavedCrashHandlers* saved) const noexcept;
};
using CrashHandlersHolder = std::unique_ptr<SavedCrashHandlers, SavedCrashHandlersDeleter>;

/// Installs the report writer for the six fault signals, computes the report
/// path (creating its folder) and gives the calling thread an alternate signal
/// stack when it has none, so that a stack overflow is reported too. Returns
/// what RemoveCrashReporter needs to put the previous handlers back; dropping
/// it leaves the writer installed. Null when the handlers cannot be installed.
CrashHandlersHolder InstallCrashReporter();

/// Puts back the handlers that `previous` holds; nothing happens when it is null.
void RemoveCrashReporter(CrashHandlersHolder previous);

/// The report file: "$XDG_STATE_HOME/Brightfern/dischive.dmp" (the state folder
/// defaults to "~/.local/state"); when no such folder can be made,
/// "dischive.dmp" in $TMPDIR or "/tmp". Computed by InstallCrashReporter, or
/// here when nothing was installed yet. The text lives as long as the process.
const char* CrashReportPath();

/// An alternate signal stack for the calling thread, for as long as the object
/// lives: a thread that overflows its stack can only run the report writer on
/// another stack. Every thread the library starts holds one; a thread that
/// already has a large enough alternate stack keeps it. Create and destroy it
/// on the same thread; the destructor puts the previous stack back.
class ThreadSignalStack {
 public:
  /// The smallest alternate stack the report writer runs on.
  static constexpr size_t kMinimumSize = 32 * 1024;

  ThreadSignalStack() noexcept;
  ~ThreadSignalStack();
  ThreadSignalStack(const ThreadSignalStack&) = delete;
  ThreadSignalStack& operator=(const ThreadSignalStack&) = delete;

  /// True when this object installed its own stack (false when the thread
  /// already had one, or memory ran out).
  bool installed() const { return mapping_ != nullptr; }

 private:
  void* mapping_ = nullptr;  // guard page + stack
  size_t mapping_size_ = 0;
  void* previous_base_ = nullptr;
  size_t previous_size_ = 0;
  int previous_flags_ = 0;
};

}  // namespace dischive
