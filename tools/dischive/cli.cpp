#include "cli.h"

#include <fmt/format.h>

#include <algorithm>
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

}  // namespace dischive::cli
