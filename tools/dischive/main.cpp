// dischive: the command-line host of the DiscHive core library.
#include <unistd.h>

#include <iostream>

#include "cli.h"
#include "dischive/crash_report.h"
#include "dischive/strings.h"
#include "dischive/version.h"

namespace {

using dischive::cli::CommandError;
using dischive::cli::Context;

// Applies --config, --set and --language before the command runs.
void PrepareSettings(Context& context) {
  std::shared_ptr<dischive::SettingsStore> base;
  if (!context.config_path.empty()) {
    base = std::make_shared<dischive::IniSettingsStore>(context.config_path);
  } else {
    base = dischive::GlobalSettings();
  }
  auto overrides = std::make_shared<dischive::MemorySettingsStore>();
  for (const std::string& item : context.overrides) {
    const size_t dot = item.find('.');
    const size_t eq = item.find('=');
    if (dot == std::string::npos || eq == std::string::npos || dot == 0 || dot + 1 >= eq) {
      throw CommandError(dischive::cli::kExitUsage,
                         "--set: expected group.key=value, got \"" + item + "\"");
    }
    overrides->Write(item.substr(0, dot), item.substr(dot + 1, eq - dot - 1), item.substr(eq + 1));
  }
  // The overlay keeps both stores alive through the captured shared pointers.
  struct OwningOverlay : dischive::OverlaySettingsStore {
    OwningOverlay(std::shared_ptr<dischive::SettingsStore> b,
                  std::shared_ptr<dischive::SettingsStore> o)
        : OverlaySettingsStore(*b, *o), base(std::move(b)), over(std::move(o)) {}
    std::shared_ptr<dischive::SettingsStore> base, over;
  };
  context.settings = std::make_shared<OwningOverlay>(base, overrides);
  dischive::SetGlobalSettings(context.settings);

  if (!context.language_file.empty()) {
    std::string error;
    if (dischive::LoadLanguageFile(context.language_file, &error) < 0) {
      throw CommandError(dischive::cli::kExitFailure, error);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  // Any crash of the program leaves a report (see CrashReportPath()); the
  // handlers stay installed until the process ends.
  const dischive::CrashHandlersHolder crash_handlers = dischive::InstallCrashReporter();
  Context context;
  context.stdin_is_terminal = ::isatty(STDIN_FILENO) != 0;
  context.stderr_is_terminal = ::isatty(STDERR_FILENO) != 0;

  CLI::App app{
      "dischive: look up audio CDs in freedb, read music tags, scan folders into the "
      "catalogue, export, back up and restore it.",
      "dischive"};
  app.set_version_flag("--version", std::string("dischive ") + dischive::VersionString());
  app.require_subcommand(1);
  app.fallthrough();
  app.add_flag("--json", context.json, "Print data as JSON on standard output");
  app.add_flag("-v,--verbose", context.verbosity, "Show steps (-vv: also connection transcripts)");
  app.add_option("--set", context.overrides, "Override a setting for this run: group.key=value")
      ->type_name("GROUP.KEY=VALUE");
  app.add_option("--config", context.config_path, "Settings file to use instead of the default");
  app.add_option("--language", context.language_file, "Language file with translated texts");

  for (const auto& [name, setup] : dischive::cli::RegisteredCommands())
    setup(app, context);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version end here with 0; every usage error exits with 2.
    const int code = app.exit(e);
    return code == 0 ? 0 : dischive::cli::kExitUsage;
  }
  try {
    PrepareSettings(context);
    if (!context.action) return dischive::cli::kExitUsage;
    return context.action();
  } catch (const CommandError& e) {
    std::cerr << "dischive: " << e.what() << '\n';
    return e.exit_code();
  } catch (const std::exception& e) {
    std::cerr << "dischive: " << e.what() << '\n';
    return dischive::cli::kExitFailure;
  }
}
