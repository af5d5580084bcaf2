// Thin RAII wrappers over an SQLite connection and its prepared statements.
// Storage failures the caller cannot recover from (corrupt file, I/O error)
// throw FatalDatabaseError; every other failure throws SqlFailure, which the
// catalogue turns into a result code at its public boundary.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "dischive/result.h"

namespace dischive::catalog {

/// A recoverable SQLite failure: the result code and SQLite's message.
class SqlFailure : public std::runtime_error {
 public:
  SqlFailure(int code, const std::string& message) : std::runtime_error(message), code_(code) {}
  int code() const { return code_; }
  /// The library result code for this failure.
  HResult result() const;

 private:
  int code_;
};

/// True for the SQLite codes that mean the file itself failed.
bool IsFatalSqliteCode(int code);

class Connection {
 public:
  Connection() = default;
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Opens the file (or, with SQLITE_OPEN_URI, the "file:" address `uri`)
  /// with the sqlite3_open_v2 flags; returns the SQLite code (the connection
  /// is closed again on failure) and fills *message.
  int Open(const std::filesystem::path& path, int flags, std::string* message,
           const std::string& uri = {});
  void Close() noexcept;
  bool is_open() const { return db_ != nullptr; }
  sqlite3* handle() const { return db_; }
  const std::string& path() const { return path_; }

  /// Runs one or more statements without results.
  void Exec(const char* sql);
  /// Runs one statement without results through a statement compiled on first
  /// use and kept until Close: for the few statements every write runs
  /// (savepoints), which would otherwise be parsed again each time.
  void ExecCached(const char* sql);
  /// Throws FatalDatabaseError or SqlFailure for a failed SQLite code.
  [[noreturn]] void Throw(int code) const;
  /// Checks an SQLite code: SQLITE_OK passes, anything else throws.
  void Check(int code) const {
    if (code != SQLITE_OK) Throw(code);
  }

 private:
  sqlite3* db_ = nullptr;
  std::string path_;
  std::vector<std::pair<std::string, sqlite3_stmt*>> cached_;
};

class Statement {
 public:
  Statement(Connection& connection, const char* sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& Bind(int index, int64_t value);
  Statement& Bind(int index, std::string_view text);
  Statement& BindBlob(int index, std::string_view bytes);
  /// Steps once: true when a row is ready, false when done.
  bool Step();
  /// Steps to completion (a statement without rows) and resets.
  void Run();
  /// Resets the statement and clears its bindings.
  void Reset() noexcept;

  int Type(int column) const { return sqlite3_column_type(stmt_, column); }
  int64_t Int(int column) const { return sqlite3_column_int64(stmt_, column); }
  std::string Text(int column) const;
  std::string Blob(int column) const;

 private:
  Connection& connection_;
  sqlite3_stmt* stmt_ = nullptr;
};

/// Resets a statement when the scope ends, so that a cached statement never
/// stays active (and holds a read snapshot) after its use.
class ResetGuard {
 public:
  explicit ResetGuard(Statement& statement) : statement_(statement) {}
  ~ResetGuard() { statement_.Reset(); }
  ResetGuard(const ResetGuard&) = delete;
  ResetGuard& operator=(const ResetGuard&) = delete;

 private:
  Statement& statement_;
};

/// A savepoint: the outermost one is the transaction. Rolled back unless
/// Commit() is called; savepoints nest, so a write inside another write (or
/// inside a read that enumerates the catalogue) joins it.
class Transaction {
 public:
  explicit Transaction(Connection& connection);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void Commit();

 private:
  Connection& connection_;
  bool done_ = false;
};

}  // namespace dischive::catalog
