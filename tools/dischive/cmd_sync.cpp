// dischive sync: brings the collection service up to date with the catalogue
// (see dischive/sync_engine.h for what is sent and when).
#include <fmt/format.h>

#include <iostream>

#include "catalog_cli.h"
#include "dischive/sync_engine.h"
#include "service_cli.h"

namespace dischive::cli {
namespace {

void Setup(CLI::App& app, Context& context) {
  static std::string db_path;
  static bool dry_run = false, remove = false;
  CLI::App* sync = app.add_subcommand(
      "sync", "Send added and changed albums and covers to the collection service");
  sync->add_flag("--dry-run", dry_run, "Compare and report only; send and change nothing");
  sync->add_flag("--delete", remove, "Remove albums the catalogue no longer has from the service");
  AddDatabaseOption(sync, db_path);
  sync->callback([&context] {
    context.action = [&context] {
      const std::unique_ptr<CatalogEngine> catalog = OpenCliCatalog(context, db_path, !dry_run);
      CliServiceAccount(*catalog);  // fails early, naming the catalogue
      std::string log;
      ServiceConnection connection = CliServiceConnection(context, log);
      SyncOptions options;
      options.dry_run = dry_run;
      options.delete_missing = remove;
      const int32_t chunk = context.settings->GetInt("internet2", "UploadChunkSize",
                                                     static_cast<int32_t>(kDefaultUploadChunkSize));
      if (chunk < 1 || chunk > 1000) {
        throw CommandError(kExitUsage,
                           fmt::format("internet2.UploadChunkSize: {} is not 1 to 1000", chunk));
      }
      options.upload_chunk_size = static_cast<size_t>(chunk);
      if (!context.json) {
        options.progress = [](const std::string& line) { std::cerr << line << "...\n"; };
      }

      SyncReport report;
      const HResult code = RunSync(*catalog, connection, options, report);
      if (context.verbosity >= 2) std::cerr << log;
      if (context.json) {
        Json out{{"host", connection.host},
                 {"dry_run", dry_run},
                 {"result", code},
                 {"service_albums", report.service_albums},
                 {"catalogue_albums", report.catalogue_albums},
                 {"added", report.added},
                 {"updated", report.updated},
                 {"covers", report.covers},
                 {"times_written_back", report.times_written_back},
                 {"only_on_service", report.missing},
                 {"removed", report.removed}};
        if (const auto message = ServiceErrorMessage()) out["error"] = *message;
        PrintJson(out);
      } else if (code == kOk) {
        std::cout << fmt::format("{}{} added, {} updated, {} covers, {} removed\n",
                                 dry_run ? "Would send: " : "", report.added, report.updated,
                                 report.covers, report.removed);
        if (report.times_written_back != 0) {
          std::cout << report.times_written_back
                    << " albums took newer play or rating times from the service\n";
        }
        if (!report.missing.empty() && report.removed == 0) {
          std::cout << report.missing.size()
                    << " albums are on the service but not in the catalogue"
                    << (remove ? "" : " (--delete removes them)") << ":\n";
          for (const std::string& id : report.missing)
            std::cout << "  " << id << '\n';
        }
      }
      if (code == kInvalidArgument) {
        throw CommandError(kExitFailure, catalog->path().string() + ": no service account");
      }
      if (code != kOk) FailService(code, "sync with " + connection.host);
      return static_cast<int>(kExitOk);
    };
  });
}

const CommandRegistrar registrar("sync", &Setup);

}  // namespace
}  // namespace dischive::cli
