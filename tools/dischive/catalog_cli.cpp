#include "catalog_cli.h"

#include "dischive/database_files.h"
#include "dischive/sqlite_catalog.h"

namespace dischive::cli {
void AddDatabaseOption(CLI::App* command, std::string& db_path) {
  command
      ->add_option("--db", db_path,
                   "Catalogue file (default: the default database, created on first use)")
      ->type_name("PATH");
}

std::unique_ptr<CatalogEngine> OpenCliCatalog(const Context& context, const std::string& db_path,
                                              bool for_writing) {
  std::filesystem::path path = db_path;
  bool create = false;
  if (path.empty()) {
    path = DefaultDatabasePath(context.settings.get());
    create = true;  // the default database is made on first use
  }
  context.Note("catalogue: " + path.string());
  HResult error = kOk;
  std::string message;
  std::unique_ptr<CatalogEngine> engine;
  if (for_writing) {
    engine = OpenSqliteCatalog(
        path, create ? CatalogOpenMode::kCreate : CatalogOpenMode::kReadWrite, &error, &message);
  } else {
    std::error_code ec;
    if (create && !std::filesystem::exists(path, ec)) {
      // Make the empty default database once, then read it like any other.
      OpenSqliteCatalog(path, CatalogOpenMode::kCreate, &error, &message);
    }
    if (error == kOk)
      engine = OpenSqliteCatalog(path, CatalogOpenMode::kReadOnly, &error, &message);
  }
  if (!engine) throw CommandError(kExitFailure, message);
  return engine;
}

}  // namespace dischive::cli
