#include "cli.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

namespace dischive::cli {
namespace {

std::vector<std::pair<std::string, CommandSetup>>& Registry() {
  static std::vector<std::pair<std::string, CommandSetup>> registry;
  return registry;
}

}  // namespace

CommandRegistrar::CommandRegistrar(const char* name, CommandSetup setup) {
  Registry().emplace_back(name, setup);
}

std::vector<std::pair<std::string, CommandSetup>> RegisteredCommands() {
  auto commands = Registry();
  std::sort(commands.begin(), commands.end(),
            [](const auto& a, const auto& b) { return a.first < b.first; });
  return commands;
}

void Context::Note(const std::string& text) const {
  if (verbosity > 0) std::cerr << text << '\n';
}

void PrintJson(const Json& value) {
  // Paths and texts from files need not be UTF-8: bad bytes become U+FFFD
  // instead of failing the command.
  std::cout << value.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

int ExitCodeFor(HResult code) {
  if (code == kOk) return kExitOk;
  if (code == kNoFreedbMatch) return kExitNoMatch;
  if (code == kAborted || code == kErrorCancelled) return kExitCancelled;
  const bool own_network = code >= 0x81110002 && code <= 0x81110010 && code != kInvalidSubmission;
  const bool platform_network =
      (code >= 10000 && code <= 11004) || (code >= 12000 && code <= 12175) ||
      (code & 0xFFFF0000u) == 0xA0CC0000u || (code & 0xFFFF0000u) == 0x8CB00000u;
  return own_network || platform_network ? kExitNetwork : kExitFailure;
}

void Fail(HResult code, const std::string& what) {
  throw CommandError(ExitCodeFor(code),
                     fmt::format("{}: {} (0x{:08X})", what, FormatErrorMessage(code), code));
}

std::string ReadUserTextFile(const std::string& path, size_t limit) {
  const auto failure = [&path](const std::string& what) {
    return CommandError(kExitFailure, fmt::format("{}: {}", path, what));
  };
  // O_NONBLOCK: opening a FIFO without a writer must not wait for one.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) throw failure(fmt::format("cannot open: {}", std::strerror(errno)));
  struct Closer {
    int fd;
    ~Closer() { ::close(fd); }
  } closer{fd};
  struct stat info {};
  if (::fstat(fd, &info) != 0) throw failure(fmt::format("cannot read: {}", std::strerror(errno)));
  if (S_ISDIR(info.st_mode)) throw failure("is a directory");
  if (!S_ISREG(info.st_mode)) throw failure("not a regular file");
  if (static_cast<uint64_t>(info.st_size) > limit)
    throw failure(fmt::format("larger than {} bytes", limit));
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  std::string text;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw failure(fmt::format("cannot read: {}", std::strerror(errno)));
    if (n == 0) break;
    text.append(buffer, static_cast<size_t>(n));
    // The file may have grown since it was measured.
    if (text.size() > limit) throw failure(fmt::format("larger than {} bytes", limit));
  }
  return text;
}

}  // namespace dischive::cli
