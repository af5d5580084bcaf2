// Opening the catalogue for a command: --db PATH, else the default database.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "cli.h"
#include "dischive/catalog.h"

namespace dischive::cli {

/// Adds the "--db PATH" option to a command.
void AddDatabaseOption(CLI::App* command, std::string& db_path);

/// Opens the catalogue named by --db (empty: the default database, created on
/// first use). A file named by --db must exist ("dischive catalog create"
/// makes one), so that a mistyped name never starts a new catalogue. With
/// `for_writing` the engine holds the write lock; another writing process
/// makes this fail. Throws CommandError (exit code 1) with a one-line message
/// when the catalogue cannot be opened.
std::unique_ptr<CatalogEngine> OpenCliCatalog(const Context& context, const std::string& db_path,
                                              bool for_writing);

}  // namespace dischive::cli
