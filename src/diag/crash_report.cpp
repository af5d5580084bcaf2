// Installing the crash report writer: signal handlers, the report path and the
// alternate signal stacks they run on.
#include "dischive/crash_report.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>

#include "diag/report_writer.h"

namespace dischive {

namespace {

constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP};
constexpr size_t kSignalCount = sizeof(kSignals) / sizeof(kSignals[0]);

// What the handler puts back before the signal takes its course. Written by
// InstallCrashReporter before the handler can run, read only by the handler.
struct sigaction g_previous[kSignalCount];

// Two buffers for the report path, so that installing again never changes the
// text a handler in another thread may be reading.
char g_path_buffers[2][PATH_MAX];
std::atomic<const char*> g_path{nullptr};
std::mutex g_install_mutex;

// One report per process, the first failure's: a handler that runs after ours
// and ends in abort() (as sanitizers do) must not replace it, and a second
// failing thread waits until it is written.
std::atomic<bool> g_report_started{false};
std::atomic<bool> g_report_finished{false};

int SignalIndex(int signo) {
  for (size_t i = 0; i < kSignalCount; ++i)
    if (kSignals[i] == signo) return static_cast<int>(i);
  return -1;
}

// An absolute folder from the environment, or "" (relative values are ignored,
// as the XDG base directory rules say).
std::string AbsoluteEnv(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || value[0] != '/') return {};
  return value;
}

// Creates `folder` and any missing parents; true when it is a folder now.
bool MakeFolders(const std::string& folder) {
  for (size_t pos = 1; pos <= folder.size(); ++pos) {
    if (pos == folder.size() || folder[pos] == '/') {
      const std::string part = folder.substr(0, pos);
      if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
    }
  }
  struct stat st;
  return ::stat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string ComputeReportPath() {
  std::string state = AbsoluteEnv("XDG_STATE_HOME");
  if (state.empty()) {
    const std::string home = AbsoluteEnv("HOME");
    if (!home.empty()) state = home + "/.local/state";
  }
  if (!state.empty()) {
    if (state.back() != '/') state += '/';
    const std::string folder = state + "Brightfern";
    const std::string path = folder + "/dischive.dmp";
    if (path.size() < PATH_MAX && MakeFolders(folder)) return path;
  }
  // No usable state folder: the temporary folder stands in.
  std::string temp = AbsoluteEnv("TMPDIR");
  if (temp.empty() || temp.size() > PATH_MAX - 32) temp = "/tmp";
  if (temp.back() != '/') temp += '/';
  return temp + "dischive.dmp";
}

void PublishReportPath() {
  const std::string path = ComputeReportPath();
  char* target = g_path_buffers[g_path.load() == g_path_buffers[0] ? 1 : 0];
  std::memcpy(target, path.c_str(), path.size() + 1);
  g_path.store(target);
}

// Opens the report for writing, replacing an older one. Refuses anything but a
// regular file of our own: a FIFO or device at that path is left alone (and
// opening never blocks on one), as is a symbolic link planted in /tmp.
int OpenReport(const char* path) {
  int fd;
  do {
    fd = ::open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != ::geteuid() ||
      ::ftruncate(fd, 0) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

void WaitForReport() {
  // The thread writing the report ends the process when it is done; give it
  // up to ten seconds, then carry on dying without a report of our own.
  const timespec pause{0, 10 * 1000 * 1000};
  for (int i = 0; i < 1000 && !g_report_finished.load(); ++i)
    ::nanosleep(&pause, nullptr);
}

void CrashHandler(int signo, siginfo_t* info, void* context) {
  const int saved_errno = errno;
  const int index = SignalIndex(signo);
  if (!g_report_started.exchange(true)) {
    const char* path = g_path.load();
    const int fd = path != nullptr ? OpenReport(path) : -1;
    if (fd >= 0) {
      diag::WriteCrashReport(fd, signo, info, context);
      ::close(fd);
    }
    g_report_finished.store(true);
  } else {
    WaitForReport();
  }
  // Let the failure continue as if no reporter had been there.
  if (index >= 0) ::sigaction(signo, &g_previous[index], nullptr);
  // A fault of an instruction happens again when the handler returns, now
  // under the previous disposition. A sent signal, or a trap (reported after
  // its instruction), has to be raised again; it is blocked until we return.
  const bool fault = info != nullptr && info->si_code > 0 && signo != SIGTRAP;
  if (!fault) ::raise(signo);
  errno = saved_errno;
}

// Gives the calling thread an alternate signal stack once, kept until the
// thread ends (a thread_local object is destroyed then).
void EnsureThreadSignalStack() {
  thread_local ThreadSignalStack stack;
}

}  // namespace

struct SavedCrashHandlers {
  struct sigaction previous[kSignalCount];
};

void SavedCrashHandlersDeleter::operator()(SavedCrashHandlers* saved) const noexcept {
  delete saved;
}

CrashHandlersHolder InstallCrashReporter() {
  CrashHandlersHolder saved(new (std::nothrow) SavedCrashHandlers{});
  if (!saved) return saved;
  std::lock_guard<std::mutex> lock(g_install_mutex);
  PublishReportPath();
  EnsureThreadSignalStack();

  struct sigaction action;
  std::memset(&action, 0, sizeof(action));
  action.sa_sigaction = CrashHandler;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  // No second fault signal interrupts the writer; a fault inside it ends
  // the process at once, which is the right outcome.
  sigemptyset(&action.sa_mask);
  for (int signo : kSignals)
    sigaddset(&action.sa_mask, signo);

  for (size_t i = 0; i < kSignalCount; ++i) {
    struct sigaction old;
    if (::sigaction(kSignals[i], nullptr, &old) != 0) return nullptr;
    saved->previous[i] = old;
    // Installed twice: the handler keeps the disposition from before the first.
    if (!((old.sa_flags & SA_SIGINFO) != 0 && old.sa_sigaction == CrashHandler)) {
      g_previous[i] = old;
    }
  }
  for (int signo : kSignals)
    ::sigaction(signo, &action, nullptr);
  return saved;
}

void RemoveCrashReporter(CrashHandlersHolder previous) {
  if (!previous) return;
  std::lock_guard<std::mutex> lock(g_install_mutex);
  for (size_t i = 0; i < kSignalCount; ++i)
    ::sigaction(kSignals[i], &previous->previous[i], nullptr);
}

const char* CrashReportPath() {
  if (g_path.load() == nullptr) {
    std::lock_guard<std::mutex> lock(g_install_mutex);
    if (g_path.load() == nullptr) PublishReportPath();
  }
  return g_path.load();
}

// ThreadSignalStack ----------------------------------------------------------

ThreadSignalStack::ThreadSignalStack() noexcept {
  stack_t current;
  if (::sigaltstack(nullptr, &current) != 0) return;
  if ((current.ss_flags & SS_DISABLE) == 0 && current.ss_size >= kMinimumSize) return;

  const long page = ::sysconf(_SC_PAGESIZE);
  const size_t guard = page > 0 ? static_cast<size_t>(page) : 4096;
  size_t size = 64 * 1024;
  const long wanted = ::sysconf(_SC_SIGSTKSZ);
  if (wanted > 0 && static_cast<size_t>(wanted) * 4 > size) size = static_cast<size_t>(wanted) * 4;
  size = (size + guard - 1) / guard * guard;
  void* mapping = ::mmap(nullptr, guard + size, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (mapping == MAP_FAILED) return;
  // The lowest page stays inaccessible: overrunning the stack faults there
  // instead of writing over whatever lies below.
  ::mprotect(mapping, guard, PROT_NONE);

  stack_t stack{};
  stack.ss_sp = static_cast<char*>(mapping) + guard;
  stack.ss_size = size;
  stack.ss_flags = 0;
  if (::sigaltstack(&stack, nullptr) != 0) {
    ::munmap(mapping, guard + size);
    return;
  }
  mapping_ = mapping;
  mapping_size_ = guard + size;
  previous_base_ = current.ss_sp;
  previous_size_ = current.ss_size;
  previous_flags_ = current.ss_flags;
}

ThreadSignalStack::~ThreadSignalStack() {
  if (mapping_ == nullptr) return;
  stack_t current;
  // Running on it (destroyed from a handler), or unable to tell: leave it mapped.
  if (::sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_ONSTACK) != 0) return;
  const char* base = static_cast<const char*>(mapping_);
  const char* sp = static_cast<const char*>(current.ss_sp);
  if ((current.ss_flags & SS_DISABLE) == 0 && sp >= base && sp < base + mapping_size_) {
    stack_t previous{};
    previous.ss_sp = previous_base_;
    previous.ss_size = previous_size_;
    previous.ss_flags = previous_flags_ & SS_DISABLE;
    if (::sigaltstack(&previous, nullptr) != 0) {
      previous.ss_flags = SS_DISABLE;
      ::sigaltstack(&previous, nullptr);
    }
  }
  ::munmap(mapping_, mapping_size_);
}

}  // namespace dischive
