// dischive scan: folders of music files into the catalogue; dischive library:
// the list of library folders a scan without arguments walks.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <iostream>

#include "catalog_cli.h"
#include "cli.h"
#include "dischive/folder_scan.h"
#include "dischive/text.h"
#include "progress.h"

namespace dischive::cli {
namespace {

namespace fs = std::filesystem;

struct ScanArgs {
  std::vector<std::string> folders;
  std::string db_path;
  bool force = false;
  bool replace = false;
  bool no_log = false;
  std::string log_path;
  std::string section;
};

void CheckFolder(const std::string& folder) {
  std::error_code ec;
  if (!fs::is_directory(folder, ec)) {
    throw CommandError(kExitFailure, "not a folder: " + folder);
  }
}

int RunScan(const Context& context, const ScanArgs& args) {
  std::unique_ptr<CatalogEngine> catalog = OpenCliCatalog(context, args.db_path, true);

  std::vector<fs::path> roots;
  for (const std::string& folder : args.folders) {
    CheckFolder(folder);
    roots.emplace_back(FolderKey(folder));
  }
  if (roots.empty()) {
    for (const LibraryFolder& folder : LoadLibraryFolders(*catalog))
      roots.emplace_back(folder.path);
  }
  if (roots.empty()) {
    throw CommandError(kExitUsage,
                       "no folder to scan: name one, or add library folders with "
                       "\"dischive library add FOLDER\"");
  }

  FolderScanOptions options;
  options.flags = LoadScanFlags(*catalog, *context.settings);
  if (args.force || args.replace) {
    options.forced = true;
    options.flags |= scan_flags::kNeverSkipUnchanged;
  }
  if (args.replace) options.flags |= scan_flags::kReplaceMode;
  options.extensions = MediaFileExtensions(*context.settings);
  options.section = args.section;

  std::unique_ptr<ScanLog> log;
  fs::path log_path;
  if (!args.no_log) {
    log_path = args.log_path.empty()
                   ? fs::path(context.settings->GetString("Settings", "ScanLogFile", ""))
                   : fs::path(args.log_path);
    if (log_path.empty()) log_path = catalog->path().parent_path() / kScanLogName;
    log = std::make_unique<ScanLog>(log_path);
    if (!log->is_open()) {
      std::cerr << "dischive: cannot write the scan log " << log_path.string() << '\n';
      log.reset();
      log_path.clear();
    }
    options.log = log.get();
  }
  options.on_error = [](const fs::path& folder, uint32_t error) {
    std::cerr << "dischive: cannot read " << folder.string() << ": "
              << FormatErrorMessage(0x80070000u | error) << '\n';
  };

  FolderScanner scanner(*catalog, options);
  ProgressBar bar("Scanning", 0, context.stderr_is_terminal && !context.json);
  const auto start = std::chrono::steady_clock::now();
  const LibraryProgress progress = [&](size_t done, size_t total, size_t files, const fs::path&) {
    bar.SetTotal(total);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double rate = seconds > 0 ? static_cast<double>(files) / seconds : 0;
    bar.Update(done, fmt::format("folders, {} files, {:.0f} files/s", files, rate));
  };
  const FolderDone on_folder = [&](const fs::path& folder, const FolderScanResult& r) {
    if (r.outcome == FolderOutcome::kNoFiles) return;
    if (r.outcome == FolderOutcome::kFailed) {
      std::cerr << "dischive: " << folder.string() << ": " << r.message << '\n';
    } else if (context.verbosity > 0) {
      context.Note(fmt::format("{:<9} {}", FolderOutcomeName(r.outcome), folder.string()));
    }
  };
  const LibraryScanSummary summary = ScanLibrary(scanner, roots, progress, on_folder);
  bar.Finish();
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  if (context.json) {
    Json failures = Json::array();
    for (const auto& [folder, message] : summary.failures)
      failures.push_back(
          Json{{"folder", SanitizeUtf8(folder.string())}, {"message", SanitizeUtf8(message)}});
    PrintJson(Json{{"database", SanitizeUtf8(catalog->path().string())},
                   {"folders", summary.folders},
                   {"files", summary.files},
                   {"added", summary.added},
                   {"updated", summary.updated},
                   {"skipped", summary.skipped},
                   {"excluded", summary.excluded},
                   {"empty", summary.empty},
                   {"failed", summary.failed},
                   {"failures", failures},
                   {"seconds", seconds},
                   {"log", SanitizeUtf8(log_path.string())}});
  } else {
    std::cout << fmt::format(
        "Scanned {} folders ({} files) in {:.1f} s: {} added, {} updated, {} skipped, "
        "{} excluded, {} failed\n",
        summary.folders, summary.files, seconds, summary.added, summary.updated, summary.skipped,
        summary.excluded, summary.failed);
  }
  return summary.failed == 0 ? kExitOk : kExitFailure;
}

void SetupScan(CLI::App& app, Context& context) {
  static ScanArgs args;
  CLI::App* scan = app.add_subcommand(
      "scan",
      "Scan folders of music files into the catalogue, one album per folder (no FOLDER: the "
      "library folders)");
  scan->add_option("folders", args.folders, "Folders to scan with their subfolders")
      ->type_name("FOLDER");
  AddDatabaseOption(scan, args.db_path);
  scan->add_flag("--force", args.force,
                 "Rescan unchanged folders and ignore \"Exclude\" in dischive.ini");
  scan->add_flag("--replace", args.replace,
                 "Like --force, and replace stored albums instead of updating them");
  scan->add_option("--log", args.log_path,
                   "Scan log file (default: Settings.ScanLogFile, else rikranan.log beside the "
                   "database)")
      ->type_name("PATH");
  scan->add_flag("--no-log", args.no_log, "Write no scan log");
  scan->add_option("--section", args.section, "dischive.ini section to read besides [ScanOptions]")
      ->type_name("NAME");
  scan->callback([&context] { context.action = [&context] { return RunScan(context, args); }; });
}

const CommandRegistrar scan_registrar("scan", &SetupScan);

void SetupLibrary(CLI::App& app, Context& context) {
  static std::string folder;
  static std::string db_path;
  CLI::App* library = app.add_subcommand("library", "The library folders \"dischive scan\" walks");
  library->require_subcommand(1);

  CLI::App* add = library->add_subcommand("add", "Add a folder to the library");
  add->add_option("folder", folder, "FOLDER")->required();
  AddDatabaseOption(add, db_path);
  add->callback([&context] {
    context.action = [&context] {
      CheckFolder(folder);
      auto catalog = OpenCliCatalog(context, db_path, true);
      const std::string path = FolderKey(folder);
      bool added = false;
      if (HResult hr = AddLibraryFolder(*catalog, path, &added))
        Fail(hr, "cannot save the library");
      if (!added) {
        std::cerr << "dischive: " << path << " is already in the library\n";
        return static_cast<int>(kExitOk);
      }
      context.Note("added " + path);
      return static_cast<int>(kExitOk);
    };
  });

  CLI::App* remove = library->add_subcommand("remove", "Remove a folder from the library");
  remove->add_option("folder", folder, "FOLDER")->required();
  AddDatabaseOption(remove, db_path);
  remove->callback([&context] {
    context.action = [&context] {
      auto catalog = OpenCliCatalog(context, db_path, true);
      const std::string path = FolderKey(folder);
      bool removed = false;
      if (HResult hr = RemoveLibraryFolder(*catalog, folder, &removed))
        Fail(hr, "cannot save the library");
      if (!removed) throw CommandError(kExitFailure, path + " is not in the library");
      return static_cast<int>(kExitOk);
    };
  });

  CLI::App* list = library->add_subcommand("list", "Print the library folders");
  AddDatabaseOption(list, db_path);
  list->callback([&context] {
    context.action = [&context] {
      auto catalog = OpenCliCatalog(context, db_path, false);
      const std::vector<LibraryFolder> folders = LoadLibraryFolders(*catalog);
      if (context.json) {
        Json out = Json::array();
        for (const LibraryFolder& f : folders)
          out.push_back(Json{{"path", SanitizeUtf8(f.path)}, {"number", f.number}});
        PrintJson(out);
      } else {
        for (const LibraryFolder& f : folders)
          std::cout << f.path << '\n';
      }
      return static_cast<int>(kExitOk);
    };
  });
}

const CommandRegistrar library_registrar("library", &SetupLibrary);

}  // namespace
}  // namespace dischive::cli
