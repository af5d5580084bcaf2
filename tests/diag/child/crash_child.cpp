// Installs the crash reporter and then fails in the way its argument names,
// for the crash report tests. Built without sanitizers: their own fault
// handling would stand between the failure and the writer under test.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "dischive/crash_report.h"

namespace {

void NullDereference() {
  // The null pointer is in RAX, whose memory dump then shows only "??".
  asm volatile("xorl %%eax, %%eax\n\tmovq (%%rax), %%rax" ::: "rax", "memory");
}

void WildPointer() {
  // An address that was mapped a moment ago and no longer is, held in RBX.
  void* page = ::mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ::munmap(page, 4096);
  const uintptr_t wild = reinterpret_cast<uintptr_t>(page) + 0x123;
  asm volatile("movq %0, %%rbx\n\tmovq (%%rbx), %%rax" ::"r"(wild) : "rax", "rbx", "memory");
}

void DivideByZero() {
  asm volatile("xorl %%ecx, %%ecx\n\tmovl $1, %%eax\n\tcltd\n\tidivl %%ecx" ::
                   : "rax", "rcx", "rdx");
}

void IllegalInstruction() {
  asm volatile("ud2");
}

void Breakpoint() {
  asm volatile("int3");
}

// Recurses until the stack runs out; the frame is kept from being optimised
// away by the volatile array and by using the result after the call.
volatile int g_depth_limit = 1 << 30;
int Recurse(int depth) {
  volatile char frame[256];
  frame[0] = static_cast<char>(depth);
  if (depth >= g_depth_limit) return frame[0];
  return Recurse(depth + 1) + frame[0];
}

// A file mapping whose file has shrunk under it: SIGBUS on access.
void BusError() {
  std::string path = std::getenv("TMPDIR") != nullptr ? std::getenv("TMPDIR") : "/tmp";
  path += "/bus.XXXXXX";
  const int fd = ::mkstemp(path.data());
  if (fd < 0 || ::ftruncate(fd, 8192) != 0) std::exit(3);
  auto* bytes = static_cast<volatile char*>(::mmap(nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0));
  if (bytes == MAP_FAILED || ::ftruncate(fd, 0) != 0) std::exit(3);
  ::unlink(path.c_str());
  (void)bytes[4096];
}

[[noreturn]] void CrashInThread(void (*crash)()) {
  std::thread thread([crash] {
    dischive::ThreadSignalStack stack;
    crash();
  });
  thread.join();
  std::exit(4);  // not reached
}

// Two threads fail at the same moment: one report, written whole.
[[noreturn]] void CrashInTwoThreads() {
  std::atomic<int> ready{0};
  auto crash = [&ready] {
    dischive::ThreadSignalStack stack;
    ready.fetch_add(1);
    while (ready.load() < 2) {
    }
    NullDereference();
  };
  std::thread first(crash), second(crash);
  first.join();
  second.join();
  std::exit(4);  // not reached
}

void StackOverflow() {
  Recurse(0);
}

[[noreturn]] void CrashWhileAllocating() {
  std::atomic<long> rounds{0};
  std::thread busy([&rounds] {
    for (;;) {
      void* blocks[16];
      for (size_t i = 0; i < 16; ++i)
        blocks[i] = std::malloc(16 + i * 977);
      for (void* block : blocks)
        std::free(block);
      rounds.fetch_add(1, std::memory_order_relaxed);
    }
  });
  while (rounds.load(std::memory_order_relaxed) < 1000)
    std::this_thread::yield();
  NullDereference();
  busy.join();
  std::exit(4);  // not reached
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: crash_child KIND\n");
    return 2;
  }
  const std::string kind = argv[1];
  dischive::CrashHandlersHolder holder = dischive::InstallCrashReporter();
  if (!holder) return 5;
  if (kind == "null") NullDereference();
  if (kind == "wild") WildPointer();
  if (kind == "divide") DivideByZero();
  if (kind == "illegal") IllegalInstruction();
  if (kind == "breakpoint") Breakpoint();
  if (kind == "abort") std::abort();
  if (kind == "recursion") StackOverflow();
  if (kind == "bus") BusError();
  if (kind == "thread") CrashInThread(NullDereference);
  if (kind == "thread-recursion") CrashInThread(StackOverflow);
  if (kind == "malloc") CrashWhileAllocating();
  if (kind == "two-threads") CrashInTwoThreads();
  std::fprintf(stderr, "crash_child: no crash for \"%s\"\n", kind.c_str());
  return 6;
}
