// The pieces of a crash report. Everything here runs inside a signal handler
// of a dying process: no allocation, no stdio, no locks, only system calls on
// file descriptors and the caller's stack.
#pragma once

#include <signal.h>

#include <cstddef>
#include <cstdint>

namespace dischive::diag {

/// The platform exception that a signal corresponds to: its code and name.
struct ExceptionKind {
  uint32_t code;
  const char* name;
};

/// Maps a signal and its si_code to the exception of the same meaning
/// ("EXCEPTION_ACCESS_VIOLATION" for SIGSEGV, ...); `stack_overflow` turns a
/// SIGSEGV into "EXCEPTION_STACK_OVERFLOW". Anything without a counterpart is
/// "Unknown Exception".
ExceptionKind ClassifySignal(int signo, int code, bool stack_overflow) noexcept;

/// True when a SIGSEGV at `fault` with the stack pointer at `sp` is a stack
/// overflow: the fault lies just below (or at) the stack pointer.
bool LooksLikeStackOverflow(uintptr_t fault, uintptr_t sp) noexcept;

/// Buffered output to a file descriptor. A failed write ends all later ones.
class ReportSink {
 public:
  explicit ReportSink(int fd) noexcept : fd_(fd) {}
  ~ReportSink() { Flush(); }
  ReportSink(const ReportSink&) = delete;
  ReportSink& operator=(const ReportSink&) = delete;

  void Text(const char* text) noexcept;
  void Bytes(const char* data, size_t size) noexcept;
  void Char(char c) noexcept;
  /// `value` in lower-case hexadecimal, zero-padded to `digits`.
  void Hex(uint64_t value, int digits) noexcept;
  void Decimal(uint64_t value) noexcept;
  /// "0x" and the address in as many digits as a pointer has.
  void Address(uintptr_t address) noexcept;
  void Flush() noexcept;
  bool failed() const { return failed_; }

 private:
  int fd_;
  bool failed_ = false;
  size_t used_ = 0;
  char buffer_[1024];
};

/// Copies bytes of this process that the kernel reports readable, without
/// touching them: process_vm_readv on the process itself, or, where that call
/// is refused, a write through a pipe (which fails with EFAULT instead of
/// faulting).
class MemoryReader {
 public:
  MemoryReader() noexcept = default;
  ~MemoryReader();
  MemoryReader(const MemoryReader&) = delete;
  MemoryReader& operator=(const MemoryReader&) = delete;

  /// Copies `size` bytes (at most 4096) at `address` into `out`; false when
  /// any of them cannot be read.
  bool Read(uintptr_t address, void* out, size_t size) noexcept;

 private:
  bool ReadThroughPipe(uintptr_t address, void* out, size_t size) noexcept;

  bool use_pipe_ = false;
  int pipe_[2] = {-1, -1};
};

/// Writes lines of 16 bytes from `address`: "0x<address> : " then eight groups
/// of two bytes in hexadecimal, "  : " and the bytes as characters; an
/// unreadable byte is "??" (and "?" among the characters). Writes the lines
/// that cover `length` bytes, at most `max_lines`; a dump cut short ends with
/// "\n...". Lines are separated by "\n" and the last one has no line end.
void DumpMemory(ReportSink& sink, MemoryReader& reader, uintptr_t address, size_t length,
                size_t max_lines) noexcept;

/// One line of /proc/self/maps.
struct Mapping {
  uintptr_t start = 0;
  uintptr_t end = 0;
  uint64_t offset = 0;
  bool readable = false;
  const char* path = "";  // valid until the next call of Next
};

/// Reads /proc/self/maps line by line with a fixed buffer.
class MappingReader {
 public:
  MappingReader() noexcept;
  ~MappingReader();
  MappingReader(const MappingReader&) = delete;
  MappingReader& operator=(const MappingReader&) = delete;

  /// The next mapping; false at the end or when the file cannot be read.
  bool Next(Mapping& mapping) noexcept;

 private:
  bool NextLine() noexcept;

  int fd_ = -1;
  size_t begin_ = 0;  // unread bytes of buffer_ are [begin_, end_)
  size_t end_ = 0;
  char buffer_[2048];
  char line_[4352];  // a path of PATH_MAX and the fields before it
};

/// The mapping that holds `address`; false when none does.
bool FindMapping(uintptr_t address, Mapping& found) noexcept;

/// Writes the ELF build-id of the module mapped at `base` in hexadecimal into
/// `out` (NUL-terminated); false when it has none or is not ELF.
bool ReadBuildId(MemoryReader& reader, uintptr_t base, char* out, size_t out_size) noexcept;

/// Writes the whole report for a signal to `fd`.
void WriteCrashReport(int fd, int signo, const siginfo_t* info, const void* ucontext) noexcept;

}  // namespace dischive::diag
