// dischive backup | restore | backup-info: backup files of the catalogue.
#include <fmt/format.h>

#include <iostream>

#include "catalog_cli.h"
#include "cli.h"
#include "dischive/backup.h"
#include "dischive/catalog.h"
#include "dischive/database_files.h"
#include "progress.h"

namespace dischive::cli {
namespace {

std::string Bytes(uint64_t n) {
  if (n < 10 * 1024) return fmt::format("{} bytes", n);
  if (n < 10 * 1024 * 1024) return fmt::format("{} KiB", n / 1024);
  return fmt::format("{:.1f} MiB", static_cast<double>(n) / (1024.0 * 1024.0));
}

// A progress callback drawing on the bar; never cancels.
BackupProgress Draw(ProgressBar& bar) {
  return [&bar](uint64_t done, uint64_t total) {
    bar.SetTotal(total);
    bar.Update(done);
    return true;
  };
}

struct BackupOptions {
  std::string db;
  bool covers = false;
  std::string covers_folder;
  std::string out;
};

int RunBackup(const Context& context, const BackupOptions& options) {
  std::unique_ptr<CatalogEngine> catalog = OpenCliCatalog(context, options.db, false);
  BackupRequest request;
  request.catalog = catalog.get();
  request.database = catalog->path();
  request.include_covers = options.covers || !options.covers_folder.empty();
  request.covers_folder = options.covers_folder.empty()
                              ? DefaultCoversFolder(request.database)
                              : std::filesystem::path(options.covers_folder);
  request.backup = options.out;
  context.Note("Backing up " + request.database.string() +
               (request.include_covers ? " with the covers in " + request.covers_folder.string()
                                       : std::string()));

  ProgressBar bar("Backing up", 0, context.stderr_is_terminal && !context.json);
  request.progress = Draw(bar);
  std::string message;
  BackupSummary summary;
  if (const HResult r = WriteBackupFile(request, &message, &summary)) {
    throw CommandError(ExitCodeFor(r), message);
  }
  bar.Finish();
  if (context.json) {
    PrintJson(Json{{"backup", request.backup.string()},
                   {"database", request.database.string()},
                   {"database_bytes", summary.database_bytes},
                   {"covers_included", request.include_covers},
                   {"covers", summary.covers},
                   {"cover_bytes", summary.cover_bytes},
                   {"backup_bytes", summary.backup_bytes}});
  } else {
    std::cout << fmt::format("Backed up {} ({})", request.database.string(),
                             Bytes(summary.database_bytes));
    if (request.include_covers) {
      std::cout << fmt::format(" and {} cover{} ({})", summary.covers,
                               summary.covers == 1 ? "" : "s", Bytes(summary.cover_bytes));
    }
    std::cout << fmt::format(" to {} ({})\n", request.backup.string(), Bytes(summary.backup_bytes));
  }
  return kExitOk;
}

int RunInfo(const Context& context, const std::string& file) {
  if (!ReadBackupInfo(file)) {
    std::error_code ec;
    throw CommandError(kExitFailure, std::filesystem::exists(file, ec)
                                         ? file + " is not a backup file"
                                         : file + " does not exist");
  }
  // A damaged metadata section is reported below with the rest of the check.
  BackupMetadata metadata;
  bool found = false;
  ReadBackupInfo(file, &metadata, &found);
  BackupContents contents;
  std::string problem;
  const bool complete = InspectBackup(file, &contents, &problem) == kOk;
  uint64_t cover_bytes = 0;
  for (const BackupEntry& cover : contents.covers)
    cover_bytes += cover.size;

  if (context.json) {
    Json out{{"file", file}, {"complete", complete}};
    if (!complete) out["problem"] = problem;
    if (found) {
      out["version"] = metadata.version;
      out["database_name"] = metadata.database_name;
    } else {
      out["version"] = nullptr;
      out["database_name"] = nullptr;
    }
    if (complete) {
      out["database_bytes"] = contents.database_size;
      out["covers_included"] = contents.covers_included;
      out["covers"] = contents.covers.size();
      out["cover_bytes"] = cover_bytes;
      out["file_bytes"] = contents.file_size;
    }
    PrintJson(out);
  } else {
    std::cout << "File: " << file << '\n';
    if (found) {
      std::cout << "Database: " << metadata.database_name << '\n'
                << "Format version: " << metadata.version << '\n';
    } else {
      std::cout << "Database: (no metadata section)\n";
    }
    if (complete) {
      std::cout << "Database size: " << Bytes(contents.database_size) << '\n';
      if (contents.covers_included) {
        std::cout << fmt::format("Covers: {} ({})\n", contents.covers.size(), Bytes(cover_bytes));
      } else {
        std::cout << "Covers: not included\n";
      }
      std::cout << "Status: complete\n";
    } else {
      std::cout << "Status: damaged\n"
                << "Problem: " << problem << '\n';
    }
  }
  return complete ? kExitOk : kExitFailure;
}

struct RestoreOptions {
  std::string file;
  std::string db;
  std::string covers_folder;
  bool force = false;
  bool no_keep = false;
};

int RunRestore(const Context& context, const RestoreOptions& options) {
  RestoreRequest request;
  request.backup = options.file;
  request.database = options.db.empty() ? DefaultDatabasePath(context.settings.get())
                                        : std::filesystem::path(options.db);
  request.covers_folder = options.covers_folder;
  request.replace_existing = options.force;
  request.keep_previous = !options.no_keep;
  context.Note("Restoring " + request.backup.string() + " into " + request.database.string());

  ProgressBar bar("Restoring", 0, context.stderr_is_terminal && !context.json);
  request.progress = Draw(bar);
  std::string message;
  BackupSummary summary;
  const HResult r = RestoreBackupFile(request, &message, &summary);
  bar.Finish();
  if (r == kErrorFileExists) {
    throw CommandError(kExitFailure, request.database.string() +
                                         " already exists; use --force to replace it (it is "
                                         "kept as " +
                                         request.database.string() + ".bak)");
  }
  if (r != kOk) throw CommandError(ExitCodeFor(r), message);

  const std::filesystem::path covers =
      request.covers_folder.empty() ? DefaultCoversFolder(request.database) : request.covers_folder;
  if (context.json) {
    PrintJson(Json{{"backup", request.backup.string()},
                   {"database", request.database.string()},
                   {"database_bytes", summary.database_bytes},
                   {"covers_folder", covers.string()},
                   {"covers", summary.covers},
                   {"cover_bytes", summary.cover_bytes},
                   {"previous_database", summary.previous_database.empty()
                                             ? Json(nullptr)
                                             : Json(summary.previous_database.string())}});
  } else {
    std::cout << fmt::format("Restored {} ({})", request.database.string(),
                             Bytes(summary.database_bytes));
    if (summary.covers > 0) {
      std::cout << fmt::format(" and {} cover{} into {}", summary.covers,
                               summary.covers == 1 ? "" : "s", covers.string());
    }
    std::cout << '\n';
    if (!summary.previous_database.empty()) {
      std::cout << "The previous database is kept as " << summary.previous_database.string()
                << '\n';
    }
  }
  return kExitOk;
}

void Setup(CLI::App& app, Context& context) {
  static BackupOptions backup;
  CLI::App* write = app.add_subcommand("backup", "Write a backup file of the catalogue");
  AddDatabaseOption(write, backup.db);
  write->add_flag("--covers", backup.covers,
                  "Include the cover images (*.jpg) of the catalogue's covers folder");
  write->add_option("--covers-folder", backup.covers_folder,
                    "Take the covers from this folder instead of <database>_covers (implies "
                    "--covers)");
  write->add_option("out", backup.out, "The backup file to create (never overwritten)")->required();
  write->callback(
      [&context] { context.action = [&context] { return RunBackup(context, backup); }; });

  static std::string info_file;
  CLI::App* info =
      app.add_subcommand("backup-info", "Show what a backup file holds and whether it is complete");
  info->add_option("file", info_file, "The backup file")->required();
  info->callback(
      [&context] { context.action = [&context] { return RunInfo(context, info_file); }; });

  static RestoreOptions restore;
  CLI::App* put =
      app.add_subcommand("restore", "Restore the catalogue (and its covers) from a backup file");
  put->add_option("file", restore.file, "The backup file")->required();
  AddDatabaseOption(put, restore.db);
  put->add_option("--covers-folder", restore.covers_folder,
                  "Restore the covers into this folder instead of <database>_covers");
  put->add_flag("--force", restore.force,
                "Replace an existing database (it is kept as <database>.bak)");
  put->add_flag("--no-keep", restore.no_keep,
                "With --force: do not keep the replaced database as <database>.bak");
  put->callback(
      [&context] { context.action = [&context] { return RunRestore(context, restore); }; });
}

const CommandRegistrar registrar("backup", &Setup);

}  // namespace
}  // namespace dischive::cli
