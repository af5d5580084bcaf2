#include "catalog_cli.h"

#include <cstdlib>

#include "dischive/database_files.h"
#include "dischive/sqlite_catalog.h"

namespace dischive::cli {
namespace {

// $XDG_DATA_HOME/dischive (default ~/.local/share/dischive).
std::filesystem::path DataFolder() {
  if (const char* data = std::getenv("XDG_DATA_HOME"); data != nullptr && data[0] == '/') {
    return std::filesystem::path(data) / "dischive";
  }
  if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') {
    return std::filesystem::path(home) / ".local" / "share" / "dischive";
  }
  return std::filesystem::path("/tmp") / "dischive";
}

}  // namespace

std::filesystem::path DefaultCliDatabase(const Context& context) {
  const std::string configured =
      context.settings != nullptr ? DefaultDatabase(*context.settings, nullptr) : std::string();
  if (!configured.empty()) return configured;
  const std::string system = DefaultDatabase();
  if (!system.empty()) return system;
  return DataFolder() / (std::string("Catalogue") + kDatabaseExtension);
}

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
    path = DefaultCliDatabase(context);
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
