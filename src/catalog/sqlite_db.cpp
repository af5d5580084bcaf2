#include "catalog/sqlite_db.h"

#include "dischive/database_error.h"
#include "dischive/sqlite_catalog.h"

namespace dischive::catalog {

HResult SqlFailure::result() const {
  switch (code_ & 0xFF) {
    case SQLITE_CONSTRAINT:
    case SQLITE_MISMATCH:
    case SQLITE_RANGE:
    case SQLITE_TOOBIG:
      return kInvalidArgument;
    case SQLITE_READONLY:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return kCatalogReadOnly;
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
      return kCatalogLocked;
    case SQLITE_FULL:
      return kCatalogDiskFull;
    case SQLITE_NOMEM:
      return 0x8007000E;
    default:
      return kFail;
  }
}

bool IsFatalSqliteCode(int code) {
  switch (code & 0xFF) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_IOERR:
    case SQLITE_CANTOPEN:
    case SQLITE_PROTOCOL:
      return true;
    default:
      return false;
  }
}

Connection::~Connection() {
  Close();
}

int Connection::Open(const std::filesystem::path& path, int flags, std::string* message,
                     const std::string& uri) {
  Close();
  path_ = path.string();
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(uri.empty() ? path_.c_str() : uri.c_str(), &db,
                                 flags | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    if (message != nullptr) *message = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close_v2(db);
    return rc;
  }
  sqlite3_extended_result_codes(db, 1);
  db_ = db;
  return SQLITE_OK;
}

void Connection::Close() noexcept {
  for (auto& [sql, stmt] : cached_)
    sqlite3_finalize(stmt);
  cached_.clear();
  if (db_ != nullptr) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }
}

void Connection::Exec(const char* sql) {
  char* error = nullptr;
  const int rc = sqlite3_exec(db_, sql, nullptr, nullptr, &error);
  if (rc != SQLITE_OK) {
    const std::string text = error != nullptr ? error : sqlite3_errstr(rc);
    sqlite3_free(error);
    if (IsFatalSqliteCode(rc)) throw FatalDatabaseError(path_, text);
    throw SqlFailure(rc, text);
  }
}

void Connection::ExecCached(const char* sql) {
  sqlite3_stmt* stmt = nullptr;
  for (const auto& [text, cached] : cached_) {
    if (text == sql) {
      stmt = cached;
      break;
    }
  }
  if (stmt == nullptr) {
    Check(sqlite3_prepare_v3(db_, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt, nullptr));
    cached_.emplace_back(sql, stmt);
  }
  const int rc = sqlite3_step(stmt);
  sqlite3_reset(stmt);
  if (rc != SQLITE_DONE && rc != SQLITE_ROW) Throw(rc);
}

void Connection::Throw(int code) const {
  const std::string text = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(code);
  if (IsFatalSqliteCode(code)) throw FatalDatabaseError(path_, text);
  throw SqlFailure(code, text);
}

Statement::Statement(Connection& connection, const char* sql) : connection_(connection) {
  connection_.Check(sqlite3_prepare_v3(connection_.handle(), sql, -1, SQLITE_PREPARE_PERSISTENT,
                                       &stmt_, nullptr));
}

Statement::~Statement() {
  sqlite3_finalize(stmt_);
}

Statement& Statement::Bind(int index, int64_t value) {
  connection_.Check(sqlite3_bind_int64(stmt_, index, value));
  return *this;
}

Statement& Statement::Bind(int index, std::string_view text) {
  // An empty view may have no data pointer, which SQLite would store as NULL.
  if (text.data() == nullptr) text = "";
  connection_.Check(
      sqlite3_bind_text64(stmt_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8));
  return *this;
}

Statement& Statement::BindBlob(int index, std::string_view bytes) {
  if (bytes.data() == nullptr) bytes = "";
  connection_.Check(
      sqlite3_bind_blob64(stmt_, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT));
  return *this;
}

bool Statement::Step() {
  const int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  connection_.Throw(rc);
}

void Statement::Run() {
  ResetGuard reset(*this);
  while (Step()) {
  }
}

void Statement::Reset() noexcept {
  sqlite3_reset(stmt_);
  sqlite3_clear_bindings(stmt_);
}

std::string Statement::Text(int column) const {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
  return text != nullptr
             ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
             : std::string();
}

std::string Statement::Blob(int column) const {
  const void* data = sqlite3_column_blob(stmt_, column);
  const int size = sqlite3_column_bytes(stmt_, column);
  return data != nullptr && size > 0
             ? std::string(static_cast<const char*>(data), static_cast<size_t>(size))
             : std::string();
}

Transaction::Transaction(Connection& connection) : connection_(connection) {
  connection_.ExecCached("SAVEPOINT write");
}

Transaction::~Transaction() {
  if (!done_) {
    // Undo and end the savepoint; a failure here leaves nothing more to undo.
    sqlite3_exec(connection_.handle(), "ROLLBACK TO write; RELEASE write", nullptr, nullptr,
                 nullptr);
  }
}

void Transaction::Commit() {
  connection_.ExecCached("RELEASE write");
  done_ = true;
}

}  // namespace dischive::catalog
