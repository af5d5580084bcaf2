#include "dischive/crash_report.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "diag/report_writer.h"
#include "support/temp_dir.h"

extern char** environ;

namespace dischive {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

// What a function writes through a ReportSink.
std::string Capture(const std::function<void(diag::ReportSink&)>& write) {
  const int fd = ::memfd_create("report", 0);
  EXPECT_GE(fd, 0);
  {
    diag::ReportSink sink(fd);
    write(sink);
  }
  std::string text(static_cast<size_t>(::lseek(fd, 0, SEEK_END)), '\0');
  EXPECT_EQ(::pread(fd, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  ::close(fd);
  return text;
}

std::string Hex16(uintptr_t value) {
  char text[32];
  std::snprintf(text, sizeof(text), "0x%016jx", static_cast<uintmax_t>(value));
  return text;
}

const std::string kUnreadableLine =
    " : ???? ???? ???? ???? ???? ???? ???? ????  : ????????????????";

TEST(CrashReportTest, SignalsMapToTheExceptionOfTheSameMeaning) {
  struct Case {
    int signo, code;
    bool overflow;
    uint32_t expected_code;
    const char* expected_name;
  } const cases[] = {
      {SIGSEGV, SEGV_MAPERR, false, 0xC0000005, "EXCEPTION_ACCESS_VIOLATION"},
      {SIGSEGV, SEGV_ACCERR, true, 0xC00000FD, "EXCEPTION_STACK_OVERFLOW"},
      {SIGFPE, FPE_INTDIV, false, 0xC0000094, "EXCEPTION_INT_DIVIDE_BY_ZERO"},
      {SIGFPE, FPE_INTOVF, false, 0xC0000095, "EXCEPTION_INT_OVERFLOW"},
      {SIGFPE, FPE_FLTDIV, false, 0xC000008E, "EXCEPTION_FLT_DIVIDE_BY_ZERO"},
      {SIGFPE, FPE_FLTOVF, false, 0xC0000091, "EXCEPTION_FLT_OVERFLOW"},
      {SIGFPE, FPE_FLTUND, false, 0xC0000093, "EXCEPTION_FLT_UNDERFLOW"},
      {SIGFPE, FPE_FLTRES, false, 0xC000008F, "EXCEPTION_FLT_INEXACT_RESULT"},
      {SIGFPE, FPE_FLTINV, false, 0xC0000090, "EXCEPTION_FLT_INVALID_OPERATION"},
      {SIGFPE, FPE_FLTSUB, false, 0xC000008C, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"},
      {SIGFPE, 99, false, 0, "Unknown Exception"},
      {SIGILL, ILL_ILLOPN, false, 0xC000001D, "EXCEPTION_ILLEGAL_INSTRUCTION"},
      {SIGILL, ILL_PRVOPC, false, 0xC0000096, "EXCEPTION_PRIV_INSTRUCTION"},
      {SIGBUS, BUS_ADRALN, false, 0x80000002, "EXCEPTION_DATATYPE_MISALIGNMENT"},
      {SIGBUS, BUS_ADRERR, false, 0xC0000006, "EXCEPTION_IN_PAGE_ERROR"},
      {SIGTRAP, SI_KERNEL, false, 0x80000003, "EXCEPTION_BREAKPOINT"},
      {SIGTRAP, TRAP_TRACE, false, 0x80000004, "EXCEPTION_SINGLE_STEP"},
      {SIGABRT, SI_TKILL, false, 0x40000015, "Unknown Exception"},
      {SIGUSR1, SI_USER, false, 0, "Unknown Exception"},
  };
  for (const Case& c : cases) {
    const diag::ExceptionKind kind = diag::ClassifySignal(c.signo, c.code, c.overflow);
    EXPECT_EQ(kind.code, c.expected_code) << c.signo << "/" << c.code;
    EXPECT_STREQ(kind.name, c.expected_name) << c.signo << "/" << c.code;
  }
  // A fault beside the stack pointer is an overflow; far from it, it is not.
  const uintptr_t sp = 0x7ffd00010000;
  EXPECT_TRUE(diag::LooksLikeStackOverflow(sp - 8, sp));
  EXPECT_TRUE(diag::LooksLikeStackOverflow(sp + 300, sp));
  EXPECT_FALSE(diag::LooksLikeStackOverflow(0, sp));
  EXPECT_FALSE(diag::LooksLikeStackOverflow(sp - 8 * 1024 * 1024, sp));
  EXPECT_FALSE(diag::LooksLikeStackOverflow(8, 0));
}

TEST(CrashReportTest, DumpsShowUnreadableBytesAsQuestionMarks) {
  // Two pages, the second one inaccessible; text at the end of the first.
  const size_t page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  auto* base = static_cast<char*>(
      ::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(base, MAP_FAILED);
  std::memcpy(base + page - 8, "AB\x01\x7f\xff~ z", 8);
  ASSERT_EQ(::mprotect(base + page, page, PROT_NONE), 0);
  const auto at = reinterpret_cast<uintptr_t>(base + page - 8);

  struct Case {
    uintptr_t address;
    size_t length, max_lines;
    std::string expected;
  } const cases[] = {
      {at, 16, 1, Hex16(at) + " : 4142 017f ff7e 207a ???? ???? ???? ????  : AB...~ z????????"},
      {at + 8, 20, 4, Hex16(at + 8) + kUnreadableLine + "\n" + Hex16(at + 24) + kUnreadableLine},
      {0, 16, 4, Hex16(0) + kUnreadableLine},
      {0, 64, 2, Hex16(0) + kUnreadableLine + "\n" + Hex16(16) + kUnreadableLine + "\n..."},
      {at, 0, 4, ""},
      // The top of the address space: the dump stops rather than wrapping.
      {UINTPTR_MAX - 15, 48, 4, Hex16(UINTPTR_MAX - 15) + kUnreadableLine + "\n..."},
  };
  for (const Case& c : cases) {
    diag::MemoryReader reader;
    EXPECT_EQ(Capture([&](diag::ReportSink& sink) {
                diag::DumpMemory(sink, reader, c.address, c.length, c.max_lines);
              }),
              c.expected)
        << std::hex << c.address;
  }
  ::munmap(base, 2 * page);
}

#if defined(__x86_64__)
TEST(CrashReportTest, DumpsStillWorkWhereProcessVmReadvIsRefused) {
  // Container seccomp profiles often refuse process_vm_readv; the reader then
  // copies through a pipe. A child refuses the call to itself and dumps a
  // readable and an unreadable line; its exit code says what it saw.
  static char text[16] = "fallback, pipe!";
  const pid_t pid = ::fork();
  if (pid == 0) {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_process_vm_readv, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
      ::_exit(3);
    }
    char copy[16];
    iovec local{copy, sizeof(copy)}, remote{text, sizeof(text)};
    if (::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0) != -1 || errno != EPERM) {
      ::_exit(4);
    }
    const auto at = reinterpret_cast<uintptr_t>(text);
    diag::MemoryReader reader;
    const std::string dump = Capture([&](diag::ReportSink& sink) {
      diag::DumpMemory(sink, reader, at, 16, 1);
      sink.Char('|');
      diag::DumpMemory(sink, reader, 0, 16, 1);
    });
    const std::string expected = Hex16(at) +
                                 " : 6661 6c6c 6261 636b 2c20 7069 7065 2100  : fallback, pipe!." +
                                 "|" + Hex16(0) + kUnreadableLine;
    ::_exit(dump == expected ? 0 : 5);
  }
  ASSERT_GT(pid, 0);
  int status = 0;
  ASSERT_EQ(::waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "3: no filter, 4: call not refused, 5: wrong dump";
}
#endif

TEST(CrashReportTest, ModuleVersionIsTheBuildIdOfTheLoadedImage) {
  // The test program itself is mapped from offset 0; its build-id note is
  // what `readelf -n` shows, here read from memory.
  diag::MappingReader maps;
  diag::Mapping m;
  std::string self_build_id;
  diag::MemoryReader reader;
  const std::string self = fs::canonical("/proc/self/exe").string();
  while (maps.Next(m)) {
    if (m.offset == 0 && self == m.path) {
      char id[130];
      ASSERT_TRUE(diag::ReadBuildId(reader, m.start, id, sizeof(id)));
      self_build_id = id;
      break;
    }
  }
  EXPECT_TRUE(std::regex_match(self_build_id, std::regex("[0-9a-f]{16,}"))) << self_build_id;
  // Anonymous memory and unmapped addresses have none.
  char id[130];
  std::vector<char> anonymous(4096, '\0');
  EXPECT_FALSE(diag::ReadBuildId(reader, reinterpret_cast<uintptr_t>(anonymous.data()), id, 130));
  EXPECT_FALSE(diag::ReadBuildId(reader, 0, id, sizeof(id)));
}

// Counts the calls of a handler that a host installed before the reporter.
volatile sig_atomic_t g_host_handler_calls = 0;
void HostHandler(int) {
  g_host_handler_calls = g_host_handler_calls + 1;
}

TEST(CrashReportTest, RemovePutsThePreviousHandlersBack) {
  TempDir dir;
  test::ScopedEnv state("XDG_STATE_HOME", (dir / "state").string());
  struct sigaction host {
  }, before{}, during{}, after{};
  host.sa_handler = HostHandler;
  sigemptyset(&host.sa_mask);
  ASSERT_EQ(::sigaction(SIGTRAP, &host, &before), 0);

  CrashHandlersHolder first = InstallCrashReporter();
  ASSERT_NE(first, nullptr);
  CrashHandlersHolder second = InstallCrashReporter();  // nested: saves the reporter's own
  ASSERT_NE(second, nullptr);
  ::sigaction(SIGTRAP, nullptr, &during);
  EXPECT_NE(reinterpret_cast<void*>(during.sa_sigaction), reinterpret_cast<void*>(HostHandler));
  EXPECT_TRUE(fs::is_directory(dir / "state" / "Brightfern"));
  EXPECT_EQ(std::string(CrashReportPath()),
            (dir / "state" / "Brightfern" / "dischive.dmp").string());

  RemoveCrashReporter(std::move(second));
  ::sigaction(SIGTRAP, nullptr, &after);
  EXPECT_EQ(reinterpret_cast<void*>(after.sa_sigaction),
            reinterpret_cast<void*>(during.sa_sigaction));
  RemoveCrashReporter(std::move(first));
  RemoveCrashReporter(nullptr);  // nothing to put back
  ::sigaction(SIGTRAP, nullptr, &after);
  EXPECT_EQ(reinterpret_cast<void*>(after.sa_handler), reinterpret_cast<void*>(HostHandler));
  g_host_handler_calls = 0;
  ::raise(SIGTRAP);
  EXPECT_EQ(g_host_handler_calls, 1);
  ::sigaction(SIGTRAP, &before, nullptr);
}

// Children ------------------------------------------------------------------

struct ChildResult {
  bool finished = false;  // false: the watchdog killed it
  int status = 0;
  std::string err;
};

// Waits for a child for up to five seconds, then kills it.
ChildResult Watch(pid_t pid, int err_fd) {
  ChildResult result;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (;;) {
    const pid_t done = ::waitpid(pid, &result.status, WNOHANG);
    if (done == pid) {
      result.finished = true;
      break;
    }
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &result.status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (err_fd >= 0) {
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(err_fd, buffer, sizeof(buffer))) > 0)
      result.err.append(buffer, static_cast<size_t>(n));
    ::close(err_fd);
  }
  return result;
}

// Runs crash_child with `kind`; `env` sets (or, with nullopt, removes) the
// named variables.
ChildResult RunCrashChild(const std::string& kind,
                          const std::map<std::string, std::optional<std::string>>& env) {
  std::vector<std::string> entries;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    if (!env.contains(entry.substr(0, entry.find('=')))) entries.push_back(entry);
  }
  for (const auto& [name, value] : env)
    if (value) entries.push_back(name + "=" + *value);
  std::vector<char*> envp;
  for (std::string& entry : entries)
    envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string program = CRASH_CHILD_PATH;
  char* argv[] = {program.data(), const_cast<char*>(kind.c_str()), nullptr};

  // No output on the test's terminal, and no core files from two hundred
  // crashes (the limit is inherited; the test program's own is put back).
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  rlimit core{};
  ::getrlimit(RLIMIT_CORE, &core);
  const rlimit no_core{0, core.rlim_max};
  ::setrlimit(RLIMIT_CORE, &no_core);
  pid_t pid = -1;
  const int error = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv, envp.data());
  ::setrlimit(RLIMIT_CORE, &core);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(error, 0) << std::strerror(error);
  return error == 0 ? Watch(pid, -1) : ChildResult{};
}

// Positions of the report's sections, each expected after the one before.
void ExpectSectionsInOrder(const std::string& report, const std::vector<std::string>& markers) {
  size_t pos = 0;
  for (const std::string& marker : markers) {
    const size_t found = report.find(marker, pos);
    ASSERT_NE(found, std::string::npos) << "missing or out of order: " << marker << "\n" << report;
    pos = found + marker.size();
  }
}

// The lines of the "Memory at [NAME]:" dump.
std::string RegisterDump(const std::string& report, const std::string& name) {
  const std::string marker = "Memory at [" + name + "]:\n";
  const size_t start = report.find(marker);
  if (start == std::string::npos) return {};
  const size_t end = report.find("\n\n", start);
  return report.substr(start + marker.size(), end - start - marker.size());
}

std::string RegisterValue(const std::string& report, const std::string& name) {
  std::smatch match;
  const std::regex pattern("(^|[ \\n])" + name + "=(0x[0-9a-f]{16})");
  return std::regex_search(report, match, pattern) ? match[2].str() : std::string();
}

void ExpectCompleteReport(const std::string& report, const std::string& exception_name, int signo) {
  utsname system{};
  ::uname(&system);
  ExpectSectionsInOrder(
      report,
      {"Exception 0x", " " + exception_name + " at 0x", "\nSignal " + std::to_string(signo) + " ",
       "\n\nRAX=0x", " RSP=0x", "\nRIP=0x", " FLAGS=0x", "\n\nBytes at EIP: 0x", "\n\nStack:\n0x",
       "\n\nMemory at [RAX]:\n0x", "Memory at [RBX]:\n0x", "Memory at [RCX]:\n0x",
       "Memory at [RDX]:\n0x", "Memory at [RDI]:\n0x", "Memory at [RSI]:\n0x",
       "\n\nLoaded modules:\n0x", fs::canonical(CRASH_CHILD_PATH).string() + " : ", "libc.so.6 : ",
       std::string("\n\n") + system.sysname + " " + system.release + " : " + system.version + " " +
           system.machine + "\n"});
  // Every dump line has the same shape.
  const std::regex line("0x[0-9a-f]{16} :( [0-9a-f?]{4}){8}  : .{16}");
  for (const char* name : {"RAX", "RBX", "RCX", "RDX", "RDI", "RSI"}) {
    const std::string dump = RegisterDump(report, name);
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 3) << name;
    EXPECT_TRUE(std::regex_match(dump.substr(0, dump.find('\n')), line)) << dump;
  }
}

TEST(CrashReportTest, EveryKindOfCrashLeavesACompleteReportAndDiesByItsSignal) {
  struct Kind {
    const char* name;
    int signo;
    const char* exception;
    int runs;
  } const kinds[] = {
      {"null", SIGSEGV, "EXCEPTION_ACCESS_VIOLATION", 20},
      {"wild", SIGSEGV, "EXCEPTION_ACCESS_VIOLATION", 20},
      {"divide", SIGFPE, "EXCEPTION_INT_DIVIDE_BY_ZERO", 20},
      {"illegal", SIGILL, "EXCEPTION_ILLEGAL_INSTRUCTION", 20},
      {"breakpoint", SIGTRAP, "EXCEPTION_BREAKPOINT", 15},
      {"abort", SIGABRT, "Unknown Exception", 20},
      {"bus", SIGBUS, "EXCEPTION_IN_PAGE_ERROR", 10},
      {"recursion", SIGSEGV, "EXCEPTION_STACK_OVERFLOW", 15},
      {"thread", SIGSEGV, "EXCEPTION_ACCESS_VIOLATION", 20},
      {"thread-recursion", SIGSEGV, "EXCEPTION_STACK_OVERFLOW", 15},
      {"malloc", SIGSEGV, "EXCEPTION_ACCESS_VIOLATION", 20},
      {"two-threads", SIGSEGV, "EXCEPTION_ACCESS_VIOLATION", 5},
  };
  TempDir dir;
  const fs::path report_path = dir / "state" / "Brightfern" / "dischive.dmp";
  int total = 0;
  for (const Kind& kind : kinds) {
    for (int run = 0; run < kind.runs; ++run, ++total) {
      fs::remove(report_path);
      const ChildResult child = RunCrashChild(
          kind.name, {{"XDG_STATE_HOME", (dir / "state").string()}, {"TMPDIR", dir.path()}});
      ASSERT_TRUE(child.finished) << kind.name << " hung";
      ASSERT_TRUE(WIFSIGNALED(child.status)) << kind.name << " status " << child.status;
      ASSERT_EQ(WTERMSIG(child.status), kind.signo) << kind.name;
      const std::string report = test::ReadFile(report_path);
      ExpectCompleteReport(report, kind.exception, kind.signo);
      if (HasFatalFailure() || HasNonfatalFailure()) FAIL() << kind.name << " run " << run;

      if (std::string(kind.name) == "null") {
        // The null pointer in RAX: a dump made of "??" alone.
        EXPECT_EQ(RegisterValue(report, "RAX"), Hex16(0));
        EXPECT_EQ(RegisterDump(report, "RAX").substr(0, 18 + kUnreadableLine.size()),
                  Hex16(0) + kUnreadableLine);
      }
      if (std::string(kind.name) == "wild") {
        // The wild pointer is in RBX and is the fault address.
        const std::string rbx = RegisterValue(report, "RBX");
        EXPECT_NE(report.find("fault address " + rbx + "\n"), std::string::npos) << report;
        EXPECT_EQ(RegisterDump(report, "RBX").substr(0, 18 + kUnreadableLine.size()),
                  rbx + kUnreadableLine);
      }
    }
  }
  EXPECT_EQ(total, 200);
}

TEST(CrashReportTest, ReportGoesToTheStateFolderOrTheTemporaryFolder) {
  TempDir dir;
  fs::create_directories(dir / "tmp");
  test::WriteFile(dir / "not-a-folder", "x");
  const std::string state = (dir / "state").string();
  const std::string in_state = state + "/Brightfern/dischive.dmp";
  const std::string in_home = (dir / "home/.local/state/Brightfern/dischive.dmp").string();
  const std::string in_tmp = (dir / "tmp/dischive.dmp").string();
  const std::string tmp = (dir / "tmp").string();
  const std::string home = (dir / "home").string();
  using Env = std::map<std::string, std::optional<std::string>>;
  struct Case {
    const char* what;
    Env env;
    std::string expected;
  } const cases[] = {
      {"state folder", {{"XDG_STATE_HOME", state}, {"HOME", home}, {"TMPDIR", tmp}}, in_state},
      {"home", {{"XDG_STATE_HOME", std::nullopt}, {"HOME", home}, {"TMPDIR", tmp}}, in_home},
      {"relative state", {{"XDG_STATE_HOME", "rel"}, {"HOME", home}, {"TMPDIR", tmp}}, in_home},
      {"state is a file",
       {{"XDG_STATE_HOME", (dir / "not-a-folder").string()},
        {"HOME", std::nullopt},
        {"TMPDIR", tmp}},
       in_tmp},
      {"no folder",
       {{"XDG_STATE_HOME", std::nullopt}, {"HOME", std::nullopt}, {"TMPDIR", tmp}},
       in_tmp},
  };
  for (const Case& c : cases) {
    for (const std::string& p : {in_state, in_home, in_tmp})
      fs::remove(p);
    const ChildResult child = RunCrashChild("null", c.env);
    ASSERT_TRUE(child.finished) << c.what;
    EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGSEGV) << c.what;
    for (const std::string& p : {in_state, in_home, in_tmp}) {
      EXPECT_EQ(fs::exists(p), p == c.expected) << c.what << ": " << p;
    }
  }
}

TEST(CrashReportTest, UnwritableReportIsSkippedAndTheProcessStillDies) {
  TempDir dir;
  const fs::path folder = dir / "state" / "Brightfern";
  const fs::path report = folder / "dischive.dmp";
  struct Case {
    const char* what;
    std::function<void()> prepare;
    std::function<void()> check;
  } const cases[] = {
      {"a folder in the way", [&] { fs::create_directories(report); },
       [&] { EXPECT_TRUE(fs::is_empty(report)); }},
      {"a FIFO in the way", [&] { ASSERT_EQ(::mkfifo(report.c_str(), 0600), 0); },
       [&] { EXPECT_TRUE(fs::is_fifo(report)); }},
      {"a symbolic link in the way",
       [&] {
         test::WriteFile(dir / "target", "keep");
         fs::create_symlink(dir / "target", report);
       },
       [&] { EXPECT_EQ(test::ReadFile(dir / "target"), "keep"); }},
      {"an older report", [&] { test::WriteFile(report, std::string(100000, 'O')); },
       [&] {
         const std::string text = test::ReadFile(report);
         EXPECT_EQ(text.rfind("Exception 0xc0000005 ", 0), 0u);
         EXPECT_EQ(text.find('O' + std::string(100, 'O')), std::string::npos);
       }},
  };
  for (const Case& c : cases) {
    fs::remove_all(dir / "state");
    fs::create_directories(folder);
    c.prepare();
    const ChildResult child = RunCrashChild("null", {{"XDG_STATE_HOME", (dir / "state").string()}});
    ASSERT_TRUE(child.finished) << c.what << " hung";
    EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGSEGV) << c.what;
    c.check();
  }
  // Neither a state folder nor a temporary folder to write in.
  const ChildResult child = RunCrashChild("abort", {{"XDG_STATE_HOME", std::nullopt},
                                                    {"HOME", std::nullopt},
                                                    {"TMPDIR", (dir / "missing").string()}});
  EXPECT_TRUE(child.finished && WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGABRT);
  EXPECT_FALSE(fs::exists(dir / "missing"));
}

TEST(CrashReportTest, PreviousHandlerRunsAfterTheReport) {
  // A child of this program, whose previous SIGSEGV handler is the
  // sanitizer's when it is built with one: after the report is written, that
  // handler reports the same fault.
  TempDir dir;
  test::ScopedEnv state("XDG_STATE_HOME", dir.path().string());
  int err[2];
  ASSERT_EQ(::pipe(err), 0);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(err[1], STDERR_FILENO);
    const rlimit no_core{0, 0};
    ::setrlimit(RLIMIT_CORE, &no_core);
    CrashHandlersHolder holder = InstallCrashReporter();
    // A null store the compiler cannot see (the sanitizer would stop a visible one).
    asm volatile("xorl %%eax, %%eax\n\tmovl $1, (%%rax)" ::: "rax", "memory");
    ::_exit(0);
  }
  ::close(err[1]);
  const ChildResult child = Watch(pid, err[0]);
  ASSERT_TRUE(child.finished);
  const std::string report = test::ReadFile(dir / "Brightfern" / "dischive.dmp");
  EXPECT_EQ(report.rfind("Exception 0xc0000005 EXCEPTION_ACCESS_VIOLATION at ", 0), 0u) << report;
  EXPECT_NE(report.find("\nLoaded modules:\n"), std::string::npos);
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_NE(child.err.find("AddressSanitizer: SEGV"), std::string::npos) << child.err;
#else
  EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGSEGV);
#endif
}

TEST(CrashReportTest, CliLeavesAReportWhenItDiesOfAFaultSignal) {
  // The program waits for a loopback server that accepts and never answers;
  // once it has connected, it is sent SIGABRT.
  TempDir home;
  const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(server, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  ASSERT_EQ(::bind(server, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::listen(server, 1), 0);
  ASSERT_EQ(::getsockname(server, reinterpret_cast<sockaddr*>(&address), &length), 0);
  std::string url = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";

  std::vector<std::string> entries = {
      "HOME=" + home.path().string(), "XDG_STATE_HOME=" + (home / "state").string(),
      "XDG_CONFIG_HOME=" + (home / "config").string(), "XDG_DATA_HOME=" + (home / "data").string(),
      "XDG_CACHE_HOME=" + (home / "cache").string()};
  for (char** e = environ; *e != nullptr; ++e)
    if (std::strncmp(*e, "ASAN_OPTIONS=", 13) == 0 || std::strncmp(*e, "PATH=", 5) == 0)
      entries.emplace_back(*e);
  std::vector<char*> envp;
  for (std::string& entry : entries)
    envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string program = DISCHIVE_CLI_PATH;
  char http[] = "http", get[] = "get";
  char* argv[] = {program.data(), http, get, url.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  ASSERT_EQ(::posix_spawn(&pid, argv[0], &actions, nullptr, argv, envp.data()), 0);
  posix_spawn_file_actions_destroy(&actions);

  pollfd ready{server, POLLIN, 0};
  const bool connected = ::poll(&ready, 1, 5000) == 1;
  const int connection = connected ? ::accept(server, nullptr, nullptr) : -1;
  ::kill(pid, SIGABRT);
  const ChildResult child = Watch(pid, -1);
  if (connection >= 0) ::close(connection);
  ::close(server);
  ASSERT_TRUE(connected) << "the program never connected";
  ASSERT_TRUE(child.finished);
  EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGABRT) << child.status;
  const std::string report = test::ReadFile(home / "state" / "Brightfern" / "dischive.dmp");
  EXPECT_EQ(report.rfind("Exception 0x40000015 Unknown Exception at 0x", 0), 0u) << report;
  EXPECT_NE(report.find("Signal 6 SIGABRT, code 0, sent by process " + std::to_string(::getpid())),
            std::string::npos)
      << report;
  EXPECT_NE(report.find(fs::canonical(DISCHIVE_CLI_PATH).string() + " : "), std::string::npos);
}

}  // namespace
}  // namespace dischive
