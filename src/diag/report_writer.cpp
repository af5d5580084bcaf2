#include "diag/report_writer.h"

#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <sys/uio.h>
#include <sys/utsname.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstring>

namespace dischive::diag {
namespace {

constexpr int kPointerDigits = static_cast<int>(sizeof(uintptr_t) * 2);
constexpr size_t kLineBytes = 16;
// Readability is decided per page by the kernel; 4096 divides every page size
// in use, so a piece that does not cross such a boundary is readable or not
// as a whole.
constexpr uintptr_t kChunk = 4096;

// Stack lines dumped at most, and lines dumped where a register points.
constexpr size_t kStackLines = 256;
constexpr size_t kRegisterLines = 4;
// Lines dumped from a stack pointer that lies in no mapping.
constexpr size_t kLostStackLines = 8;

// Exception codes of the platform the report format comes from.
constexpr ExceptionKind kAccessViolation{0xC0000005u, "EXCEPTION_ACCESS_VIOLATION"};
constexpr ExceptionKind kArrayBoundsExceeded{0xC000008Cu, "EXCEPTION_ARRAY_BOUNDS_EXCEEDED"};
constexpr ExceptionKind kBreakpoint{0x80000003u, "EXCEPTION_BREAKPOINT"};
constexpr ExceptionKind kDatatypeMisalignment{0x80000002u, "EXCEPTION_DATATYPE_MISALIGNMENT"};
constexpr ExceptionKind kFltDivideByZero{0xC000008Eu, "EXCEPTION_FLT_DIVIDE_BY_ZERO"};
constexpr ExceptionKind kFltInexactResult{0xC000008Fu, "EXCEPTION_FLT_INEXACT_RESULT"};
constexpr ExceptionKind kFltInvalidOperation{0xC0000090u, "EXCEPTION_FLT_INVALID_OPERATION"};
constexpr ExceptionKind kFltOverflow{0xC0000091u, "EXCEPTION_FLT_OVERFLOW"};
constexpr ExceptionKind kFltUnderflow{0xC0000093u, "EXCEPTION_FLT_UNDERFLOW"};
constexpr ExceptionKind kIllegalInstruction{0xC000001Du, "EXCEPTION_ILLEGAL_INSTRUCTION"};
constexpr ExceptionKind kInPageError{0xC0000006u, "EXCEPTION_IN_PAGE_ERROR"};
constexpr ExceptionKind kIntDivideByZero{0xC0000094u, "EXCEPTION_INT_DIVIDE_BY_ZERO"};
constexpr ExceptionKind kIntOverflow{0xC0000095u, "EXCEPTION_INT_OVERFLOW"};
constexpr ExceptionKind kPrivInstruction{0xC0000096u, "EXCEPTION_PRIV_INSTRUCTION"};
constexpr ExceptionKind kSingleStep{0x80000004u, "EXCEPTION_SINGLE_STEP"};
constexpr ExceptionKind kStackOverflow{0xC00000FDu, "EXCEPTION_STACK_OVERFLOW"};
// abort() ends a program there with this status, which has no name of its own.
constexpr ExceptionKind kFatalAppExit{0x40000015u, "Unknown Exception"};
constexpr ExceptionKind kUnknown{0, "Unknown Exception"};

const char* SignalName(int signo) {
  switch (signo) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGBUS:
      return "SIGBUS";
    case SIGILL:
      return "SIGILL";
    case SIGFPE:
      return "SIGFPE";
    case SIGABRT:
      return "SIGABRT";
    case SIGTRAP:
      return "SIGTRAP";
    default:
      return "signal";
  }
}

// The registers of the interrupted thread, as the processor names them.
struct Register {
  const char* name;
  uintptr_t value;
};

struct ThreadState {
  Register registers[20] = {};
  size_t count = 0;
  uintptr_t ip = 0;
  uintptr_t sp = 0;
  // The six general registers whose targets are dumped.
  Register pointed[6] = {};
};

ThreadState ReadThreadState(const void* context) {
  ThreadState state;
  if (context == nullptr) return state;
  const auto* uc = static_cast<const ucontext_t*>(context);
#if defined(__x86_64__)
  const greg_t* g = uc->uc_mcontext.gregs;
  const Register all[] = {
      {"RAX", static_cast<uintptr_t>(g[REG_RAX])}, {"RBX", static_cast<uintptr_t>(g[REG_RBX])},
      {"RCX", static_cast<uintptr_t>(g[REG_RCX])}, {"RDX", static_cast<uintptr_t>(g[REG_RDX])},
      {"RSI", static_cast<uintptr_t>(g[REG_RSI])}, {"RDI", static_cast<uintptr_t>(g[REG_RDI])},
      {"RBP", static_cast<uintptr_t>(g[REG_RBP])}, {"RSP", static_cast<uintptr_t>(g[REG_RSP])},
      {"R8", static_cast<uintptr_t>(g[REG_R8])},   {"R9", static_cast<uintptr_t>(g[REG_R9])},
      {"R10", static_cast<uintptr_t>(g[REG_R10])}, {"R11", static_cast<uintptr_t>(g[REG_R11])},
      {"R12", static_cast<uintptr_t>(g[REG_R12])}, {"R13", static_cast<uintptr_t>(g[REG_R13])},
      {"R14", static_cast<uintptr_t>(g[REG_R14])}, {"R15", static_cast<uintptr_t>(g[REG_R15])},
      {"RIP", static_cast<uintptr_t>(g[REG_RIP])}, {"FLAGS", static_cast<uintptr_t>(g[REG_EFL])},
  };
  state.ip = static_cast<uintptr_t>(g[REG_RIP]);
  state.sp = static_cast<uintptr_t>(g[REG_RSP]);
  const int pointed[6] = {0, 1, 2, 3, 5, 4};  // RAX RBX RCX RDX RDI RSI
#elif defined(__i386__)
  const greg_t* g = uc->uc_mcontext.gregs;
  const Register all[] = {
      {"EAX", static_cast<uintptr_t>(g[REG_EAX])}, {"EBX", static_cast<uintptr_t>(g[REG_EBX])},
      {"ECX", static_cast<uintptr_t>(g[REG_ECX])}, {"EDX", static_cast<uintptr_t>(g[REG_EDX])},
      {"ESI", static_cast<uintptr_t>(g[REG_ESI])}, {"EDI", static_cast<uintptr_t>(g[REG_EDI])},
      {"EBP", static_cast<uintptr_t>(g[REG_EBP])}, {"ESP", static_cast<uintptr_t>(g[REG_ESP])},
      {"EIP", static_cast<uintptr_t>(g[REG_EIP])}, {"FLAGS", static_cast<uintptr_t>(g[REG_EFL])},
  };
  state.ip = static_cast<uintptr_t>(g[REG_EIP]);
  state.sp = static_cast<uintptr_t>(g[REG_ESP]);
  const int pointed[6] = {0, 1, 2, 3, 5, 4};  // EAX EBX ECX EDX EDI ESI
#else
  // Other processors: the report carries no registers.
  (void)uc;
  const Register all[] = {{"", 0}};
  const int pointed[6] = {0, 0, 0, 0, 0, 0};
  return state;
#endif
  state.count = sizeof(all) / sizeof(all[0]);
  for (size_t i = 0; i < state.count; ++i)
    state.registers[i] = all[i];
  for (int i = 0; i < 6; ++i)
    state.pointed[i] = all[pointed[i]];
  return state;
}

bool Printable(unsigned char c) {
  return c >= 0x20 && c < 0x7F;
}

// Parses a hexadecimal field of a maps line; advances `p` past it.
uint64_t ParseHexField(const char*& p) {
  uint64_t value = 0;
  for (int digits = 0; digits < 16; ++digits, ++p) {
    const char c = *p;
    int v;
    if (c >= '0' && c <= '9') {
      v = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      v = c - 'a' + 10;
    } else {
      break;
    }
    value = value << 4 | static_cast<uint64_t>(v);
  }
  return value;
}

void SkipField(const char*& p) {
  while (*p != '\0' && *p != ' ')
    ++p;
  while (*p == ' ')
    ++p;
}

}  // namespace

ExceptionKind ClassifySignal(int signo, int code, bool stack_overflow) noexcept {
  switch (signo) {
    case SIGSEGV:
      return stack_overflow ? kStackOverflow : kAccessViolation;
    case SIGBUS:
      return code == BUS_ADRALN ? kDatatypeMisalignment : kInPageError;
    case SIGILL:
      return code == ILL_PRVOPC || code == ILL_PRVREG ? kPrivInstruction : kIllegalInstruction;
    case SIGTRAP:
      return code == TRAP_TRACE ? kSingleStep : kBreakpoint;
    case SIGABRT:
      return kFatalAppExit;
    case SIGFPE:
      switch (code) {
        case FPE_INTDIV:
          return kIntDivideByZero;
        case FPE_INTOVF:
          return kIntOverflow;
        case FPE_FLTDIV:
          return kFltDivideByZero;
        case FPE_FLTOVF:
          return kFltOverflow;
        case FPE_FLTUND:
          return kFltUnderflow;
        case FPE_FLTRES:
          return kFltInexactResult;
        case FPE_FLTINV:
          return kFltInvalidOperation;
        case FPE_FLTSUB:
          return kArrayBoundsExceeded;  // subscript out of range
        default:
          return kUnknown;
      }
    default:
      return kUnknown;
  }
}

bool LooksLikeStackOverflow(uintptr_t fault, uintptr_t sp) noexcept {
  // A push or call faults a word below the stack pointer; a function with a
  // large frame probes its pages further down before moving the pointer, or
  // moves the pointer first and faults on its new frame, above the pointer.
  // Memory that close to the stack pointer is otherwise always mapped.
  constexpr uintptr_t kBelow = 64 * 1024;
  constexpr uintptr_t kAbove = 16 * 1024;
  if (sp == 0) return false;
  const uintptr_t low = sp > kBelow ? sp - kBelow : 0;
  return fault >= low && fault - low < kBelow + kAbove;
}

// ReportSink ---------------------------------------------------------------

void ReportSink::Bytes(const char* data, size_t size) noexcept {
  while (size > 0) {
    if (used_ == sizeof(buffer_)) Flush();
    size_t n = sizeof(buffer_) - used_;
    if (n > size) n = size;
    std::memcpy(buffer_ + used_, data, n);
    used_ += n;
    data += n;
    size -= n;
  }
}

void ReportSink::Text(const char* text) noexcept {
  Bytes(text, std::strlen(text));
}

void ReportSink::Char(char c) noexcept {
  Bytes(&c, 1);
}

void ReportSink::Hex(uint64_t value, int digits) noexcept {
  char text[16];
  if (digits > 16) digits = 16;
  for (int i = digits - 1; i >= 0; --i) {
    text[i] = "0123456789abcdef"[value & 0xF];
    value >>= 4;
  }
  Bytes(text, static_cast<size_t>(digits));
}

void ReportSink::Decimal(uint64_t value) noexcept {
  char text[20];
  int n = 0;
  do {
    text[sizeof(text) - 1 - n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  Bytes(text + sizeof(text) - n, static_cast<size_t>(n));
}

void ReportSink::Address(uintptr_t address) noexcept {
  Text("0x");
  Hex(address, kPointerDigits);
}

void ReportSink::Flush() noexcept {
  size_t done = 0;
  while (!failed_ && done < used_) {
    const ssize_t n = ::write(fd_, buffer_ + done, used_ - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      failed_ = true;
    }
  }
  used_ = 0;
}

// MemoryReader -------------------------------------------------------------

MemoryReader::~MemoryReader() {
  if (pipe_[0] >= 0) ::close(pipe_[0]);
  if (pipe_[1] >= 0) ::close(pipe_[1]);
}

bool MemoryReader::Read(uintptr_t address, void* out, size_t size) noexcept {
  if (size == 0) return true;
  if (size > kChunk || address + size < address) return false;
  if (!use_pipe_) {
    iovec local{out, size};
    iovec remote{reinterpret_cast<void*>(address), size};
    const ssize_t n = ::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0);
    if (n == static_cast<ssize_t>(size)) return true;
    if (n >= 0 || errno == EFAULT || errno == EIO) return false;
    // Refused (a seccomp filter, or no such call): copy through a pipe instead.
    use_pipe_ = true;
  }
  return ReadThroughPipe(address, out, size);
}

bool MemoryReader::ReadThroughPipe(uintptr_t address, void* out, size_t size) noexcept {
  if (pipe_[0] < 0 && ::pipe(pipe_) != 0) {
    pipe_[0] = pipe_[1] = -1;
    return false;
  }
  // A pipe holds at least one page, so neither call blocks.
  ssize_t n;
  do {
    n = ::write(pipe_[1], reinterpret_cast<const void*>(address), size);
  } while (n < 0 && errno == EINTR);
  if (n <= 0) return false;
  size_t got = 0;
  while (got < static_cast<size_t>(n)) {
    const ssize_t r = ::read(pipe_[0], static_cast<char*>(out) + got, static_cast<size_t>(n) - got);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    got += static_cast<size_t>(r);
  }
  return static_cast<size_t>(n) == size;
}

// Dumps --------------------------------------------------------------------

void DumpMemory(ReportSink& sink, MemoryReader& reader, uintptr_t address, size_t length,
                size_t max_lines) noexcept {
  size_t lines = length / kLineBytes + (length % kLineBytes != 0 ? 1 : 0);
  bool cut = false;
  if (lines > max_lines) {
    lines = max_lines;
    cut = true;
  }
  for (size_t line = 0; line < lines; ++line) {
    const uintptr_t start = address + line * kLineBytes;
    if (start < address) {  // wrapped past the top of the address space
      cut = true;
      break;
    }
    unsigned char bytes[kLineBytes];
    bool readable[kLineBytes];
    // The line in pieces that do not cross a page boundary.
    size_t done = 0;
    while (done < kLineBytes) {
      const uintptr_t at = start + done;
      size_t piece = kLineBytes - done;
      const uintptr_t to_boundary = kChunk - (at & (kChunk - 1));
      if (piece > to_boundary) piece = to_boundary;
      const bool ok = at + piece > at && reader.Read(at, bytes + done, piece);
      for (size_t i = 0; i < piece; ++i)
        readable[done + i] = ok;
      done += piece;
    }
    if (line > 0) sink.Char('\n');
    sink.Address(start);
    sink.Text(" : ");
    for (size_t i = 0; i < kLineBytes; ++i) {
      if (readable[i]) {
        sink.Hex(bytes[i], 2);
      } else {
        sink.Text("??");
      }
      if (i % 2 == 1 && i + 1 < kLineBytes) sink.Char(' ');
    }
    sink.Text("  : ");
    for (size_t i = 0; i < kLineBytes; ++i)
      sink.Char(!readable[i] ? '?' : Printable(bytes[i]) ? static_cast<char>(bytes[i]) : '.');
  }
  if (cut) sink.Text("\n...");
}

// Mappings -----------------------------------------------------------------

MappingReader::MappingReader() noexcept {
  do {
    fd_ = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  } while (fd_ < 0 && errno == EINTR);
}

MappingReader::~MappingReader() {
  if (fd_ >= 0) ::close(fd_);
}

bool MappingReader::NextLine() noexcept {
  size_t length = 0;
  bool any = false;
  for (;;) {
    if (begin_ == end_) {
      if (fd_ < 0) return false;
      ssize_t n;
      do {
        n = ::read(fd_, buffer_, sizeof(buffer_));
      } while (n < 0 && errno == EINTR);
      if (n <= 0) {
        if (!any) return false;
        break;  // a last line without a line end
      }
      begin_ = 0;
      end_ = static_cast<size_t>(n);
    }
    any = true;
    const char c = buffer_[begin_++];
    if (c == '\n') break;
    // A longer line is cut; its path is then incomplete but still shown.
    if (length < sizeof(line_) - 1) line_[length++] = c;
  }
  line_[length] = '\0';
  return true;
}

bool MappingReader::Next(Mapping& mapping) noexcept {
  // "start-end perms offset dev inode   path"
  if (!NextLine()) return false;
  const char* p = line_;
  mapping.start = static_cast<uintptr_t>(ParseHexField(p));
  if (*p == '-') ++p;
  mapping.end = static_cast<uintptr_t>(ParseHexField(p));
  while (*p == ' ')
    ++p;
  mapping.readable = *p == 'r';
  SkipField(p);  // permissions
  mapping.offset = ParseHexField(p);
  while (*p == ' ')
    ++p;
  SkipField(p);  // device
  SkipField(p);  // inode
  mapping.path = p;
  return true;
}

bool FindMapping(uintptr_t address, Mapping& found) noexcept {
  MappingReader maps;
  Mapping m;
  while (maps.Next(m)) {
    if (address >= m.start && address < m.end) {
      found = m;
      found.path = "";
      return true;
    }
  }
  return false;
}

bool ReadBuildId(MemoryReader& reader, uintptr_t base, char* out, size_t out_size) noexcept {
  ElfW(Ehdr) header;
  if (!reader.Read(base, &header, sizeof(header))) return false;
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) return false;
  if (header.e_ident[EI_CLASS] != (sizeof(void*) == 8 ? ELFCLASS64 : ELFCLASS32)) return false;
  if (header.e_phentsize != sizeof(ElfW(Phdr)) || header.e_phnum > 256) return false;

  // The mapping at file offset 0 starts at the first loadable segment's page.
  bool have_bias = false;
  uintptr_t bias = 0;
  for (int pass = 0; pass < 2; ++pass) {
    for (unsigned i = 0; i < header.e_phnum; ++i) {
      ElfW(Phdr) ph;
      if (!reader.Read(base + header.e_phoff + i * sizeof(ph), &ph, sizeof(ph))) return false;
      if (pass == 0) {
        if (ph.p_type == PT_LOAD && !have_bias) {
          bias = base - (ph.p_vaddr & ~static_cast<uintptr_t>(kChunk - 1));
          have_bias = true;
        }
        continue;
      }
      if (ph.p_type != PT_NOTE || ph.p_filesz > 4096) continue;
      // Notes: namesz, descsz, type, then name and descriptor, each padded to 4.
      alignas(8) unsigned char notes[4096];
      const size_t size = ph.p_filesz;
      if (!reader.Read(bias + ph.p_vaddr, notes, size)) continue;
      size_t pos = 0;
      while (size - pos >= 12) {
        uint32_t namesz, descsz, type;
        std::memcpy(&namesz, notes + pos, 4);
        std::memcpy(&descsz, notes + pos + 4, 4);
        std::memcpy(&type, notes + pos + 8, 4);
        pos += 12;
        const size_t name_padded = (static_cast<size_t>(namesz) + 3) & ~size_t{3};
        const size_t desc_padded = (static_cast<size_t>(descsz) + 3) & ~size_t{3};
        if (name_padded > size - pos || desc_padded > size - pos - name_padded) break;
        const bool gnu = namesz == 4 && std::memcmp(notes + pos, "GNU", 4) == 0;
        if (gnu && type == NT_GNU_BUILD_ID && descsz > 0 && descsz * 2 < out_size) {
          const unsigned char* desc = notes + pos + name_padded;
          for (size_t k = 0; k < descsz; ++k) {
            out[2 * k] = "0123456789abcdef"[desc[k] >> 4];
            out[2 * k + 1] = "0123456789abcdef"[desc[k] & 0xF];
          }
          out[2 * descsz] = '\0';
          return true;
        }
        pos += name_padded + desc_padded;
      }
    }
    if (!have_bias) return false;
  }
  return false;
}

// The report ---------------------------------------------------------------

namespace {

void WriteException(ReportSink& sink, int signo, const siginfo_t* info, const ThreadState& state) {
  const int code = info != nullptr ? info->si_code : 0;
  // Kernel-generated signals carry a fault address; sent ones a sender.
  const bool from_kernel = info != nullptr && code > 0;
  const uintptr_t fault = from_kernel ? reinterpret_cast<uintptr_t>(info->si_addr) : 0;
  const bool overflow = signo == SIGSEGV && from_kernel && LooksLikeStackOverflow(fault, state.sp);
  const ExceptionKind kind = ClassifySignal(signo, code, overflow);
  sink.Text("Exception 0x");
  sink.Hex(kind.code, 8);
  sink.Char(' ');
  sink.Text(kind.name);
  sink.Text(" at ");
  sink.Address(state.ip);
  sink.Text("\nSignal ");
  sink.Decimal(static_cast<uint64_t>(signo));
  sink.Char(' ');
  sink.Text(SignalName(signo));
  sink.Text(", code ");
  if (code < 0) {
    sink.Char('-');
    sink.Decimal(static_cast<uint64_t>(-static_cast<int64_t>(code)));
  } else {
    sink.Decimal(static_cast<uint64_t>(code));
  }
  if (from_kernel) {
    sink.Text(", fault address ");
    sink.Address(fault);
  } else if (info != nullptr) {
    sink.Text(", sent by process ");
    sink.Decimal(static_cast<uint64_t>(info->si_pid));
  }
  sink.Text("\n\n");
}

void WriteRegisters(ReportSink& sink, const ThreadState& state) {
  for (size_t i = 0; i < state.count; ++i) {
    sink.Text(state.registers[i].name);
    sink.Text("=");
    sink.Address(state.registers[i].value);
    sink.Char(i % 4 == 3 || i + 1 == state.count ? '\n' : ' ');
  }
  sink.Char('\n');
}

void WriteStack(ReportSink& sink, MemoryReader& reader, uintptr_t sp) {
  sink.Text("Stack:\n");
  // After a stack overflow the pointer lies below the stack's mapping; the
  // dump then starts where the stack's memory does.
  constexpr uintptr_t kOverflowReach = 64 * 1024;
  Mapping stack;
  const bool found =
      (FindMapping(sp, stack) && stack.readable) ||
      (sp <= UINTPTR_MAX - kOverflowReach && FindMapping(sp + kOverflowReach, stack) &&
       stack.start > sp && stack.readable);
  if (found) {
    const uintptr_t from = stack.start > sp ? stack.start : sp;
    DumpMemory(sink, reader, from, stack.end - from, kStackLines);
  } else {
    DumpMemory(sink, reader, sp, (kLostStackLines + 1) * kLineBytes, kLostStackLines);
  }
  sink.Text("\n\n");
}

void WriteModules(ReportSink& sink, MemoryReader& reader) {
  sink.Text("Loaded modules:\n");
  MappingReader maps;
  Mapping m;
  // A module is a file mapped from its start; the same file mapped again from
  // its start right after (rare) is shown once.
  char last[256] = "";
  while (maps.Next(m)) {
    const bool file = m.path[0] == '/' || std::strcmp(m.path, "[vdso]") == 0;
    if (!file || m.offset != 0) continue;
    if (std::strncmp(last, m.path, sizeof(last) - 1) == 0) continue;
    std::strncpy(last, m.path, sizeof(last) - 1);
    last[sizeof(last) - 1] = '\0';
    char build_id[130];
    sink.Address(m.start);
    sink.Char(' ');
    sink.Text(m.path);
    sink.Text(" : ");
    sink.Text(ReadBuildId(reader, m.start, build_id, sizeof(build_id)) ? build_id : "-");
    sink.Char('\n');
  }
  sink.Char('\n');
}

void WriteSystem(ReportSink& sink) {
  struct utsname name;
  if (::uname(&name) != 0) std::memset(&name, 0, sizeof(name));
  sink.Text(name.sysname);
  sink.Char(' ');
  sink.Text(name.release);
  sink.Text(" : ");
  sink.Text(name.version);
  sink.Char(' ');
  sink.Text(name.machine);
  sink.Char('\n');
}

}  // namespace

void WriteCrashReport(int fd, int signo, const siginfo_t* info, const void* ucontext) noexcept {
  ReportSink sink(fd);
  MemoryReader reader;
  const ThreadState state = ReadThreadState(ucontext);
  WriteException(sink, signo, info, state);
  WriteRegisters(sink, state);
  sink.Text("Bytes at EIP: ");
  DumpMemory(sink, reader, state.ip, kLineBytes, 1);
  sink.Text("\n\n");
  WriteStack(sink, reader, state.sp);
  for (const Register& r : state.pointed) {
    if (r.name == nullptr) continue;  // a processor whose registers are not read
    sink.Text("Memory at [");
    sink.Text(r.name);
    sink.Text("]:\n");
    DumpMemory(sink, reader, r.value, kRegisterLines * kLineBytes, kRegisterLines);
    sink.Text("\n\n");
  }
  WriteModules(sink, reader);
  WriteSystem(sink);
  sink.Flush();
}

}  // namespace dischive::diag
