// Shared parts of the dischive command-line program: the run context, command
// registration, exit codes and output helpers.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <iosfwd>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "dischive/result.h"
#include "dischive/settings.h"

namespace dischive::cli {

using Json = nlohmann::ordered_json;

/// Exit codes of every command.
enum ExitCode : int {
  kExitOk = 0,
  kExitFailure = 1,
  kExitUsage = 2,
  kExitNoMatch = 3,
  kExitNetwork = 4,
  kExitCancelled = 5,
};

/// A failure a command reports: one line on standard error and the exit code.
class CommandError : public std::runtime_error {
 public:
  CommandError(int exit_code, const std::string& message)
      : std::runtime_error(message), exit_code_(exit_code) {}
  int exit_code() const { return exit_code_; }

 private:
  int exit_code_;
};

/// What every command can use while it runs.
struct Context {
  bool json = false;                        ///< --json: standard output is JSON only
  int verbosity = 0;                        ///< -v steps, -vv transcripts
  std::vector<std::string> overrides;       ///< --set group.key=value
  std::string config_path;                  ///< --config FILE instead of the default settings file
  std::string language_file;                ///< --language FILE
  std::shared_ptr<SettingsStore> settings;  ///< the settings with the overrides applied
  bool stdin_is_terminal = false;
  bool stderr_is_terminal = false;
  /// The selected command's work, set by its CLI11 callback; returns the exit code.
  std::function<int()> action;

  /// Prints a step on standard error when -v was given.
  void Note(const std::string& text) const;
};

/// Adds a command to the program; called by a static CommandRegistrar.
using CommandSetup = void (*)(CLI::App& app, Context& context);

struct CommandRegistrar {
  CommandRegistrar(const char* name, CommandSetup setup);
};

/// The registered commands, sorted by name.
std::vector<std::pair<std::string, CommandSetup>> RegisteredCommands();

/// Prints JSON on standard output (two-space indent).
void PrintJson(const Json& value);

/// The exit code that suits a library result: network and service failures 4,
/// "no match" 3, cancellation 5, anything else 1.
int ExitCodeFor(HResult code);

/// Throws CommandError with the code's text: "<what>: <text> (0xXXXXXXXX)".
[[noreturn]] void Fail(HResult code, const std::string& what);

/// The longest text file a user may hand a command (cue sheets, JSON inputs).
inline constexpr size_t kMaxUserTextFile = size_t{1} << 20;

/// Reads a small text file given on the command line. Refuses what is not a
/// regular file (FIFOs and devices are never read, so "/dev/zero" or a FIFO
/// without a writer cannot hang the command) and files beyond `limit` bytes.
/// Throws CommandError naming the path.
std::string ReadUserTextFile(const std::string& path, size_t limit = kMaxUserTextFile);

}  // namespace dischive::cli
