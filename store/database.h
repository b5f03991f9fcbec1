#ifndef ORV_STORE_DATABASE_H_
#define ORV_STORE_DATABASE_H_

#include <sqlite3.h>

#include <string>

namespace orv {

// The one shared SQLite connection of the process. Every statement opens the database
// under the process-wide database mutex, works and closes it again, so at most one
// statement of the whole agent runs at a time and no handle outlives its statement.
class Database {
 public:
  // How long a statement waits for a lock that another process holds on the file (an
  // administrator's sqlite3, a configuration command, a backup copy of the file)
  // before it fails with "database is locked". Without it a reader of a few
  // milliseconds makes the agent drop log lines and history records; kept short
  // because the waiting statement holds the database mutex.
  static constexpr int kBusyTimeoutMs = 1000;

  // Waits up to 60 seconds for the database mutex; on success the caller holds it and
  // handle() is set until close().
  static bool open();
  // Closes the handle (retrying while SQLite is busy) and releases the mutex.
  static bool close();
  static sqlite3* handle();
  static std::string path();
};

// Logs a store failure to syslog and the display, never to the database log, which
// would come straight back here.
void StoreLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Holds the shared connection for a scope: open() in the constructor, close() in the
// destructor when the open worked.
class DatabaseSession {
 public:
  DatabaseSession() : open_(Database::open()) {}
  ~DatabaseSession() {
    if (open_) Database::close();
  }
  DatabaseSession(const DatabaseSession&) = delete;
  DatabaseSession& operator=(const DatabaseSession&) = delete;
  bool ok() const { return open_; }
  sqlite3* db() const { return Database::handle(); }

 private:
  bool open_;
};

// A prepared statement that is finalized when it leaves scope.
class Statement {
 public:
  Statement() = default;
  ~Statement() { finalize(); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool prepare(sqlite3* db, const std::string& sql) {
    finalize();
    return sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt_, nullptr) == SQLITE_OK;
  }
  int finalize() {
    int rc = SQLITE_OK;
    if (stmt_ != nullptr) rc = sqlite3_finalize(stmt_);
    stmt_ = nullptr;
    return rc;
  }
  // Texts are bound with their byte length and a static destructor: the caller's
  // string outlives the statement.
  bool bindText(int index, const std::string& text) {
    return sqlite3_bind_text(stmt_, index, text.data(), static_cast<int>(text.size()), SQLITE_STATIC) == SQLITE_OK;
  }
  bool bindInt(int index, int value) { return sqlite3_bind_int(stmt_, index, value) == SQLITE_OK; }
  bool bindNull(int index) { return sqlite3_bind_null(stmt_, index) == SQLITE_OK; }
  int step() { return sqlite3_step(stmt_); }
  int parameterIndex(const char* name) { return sqlite3_bind_parameter_index(stmt_, name); }
  std::string columnText(int column) {
    const unsigned char* text = sqlite3_column_text(stmt_, column);
    if (text == nullptr) return std::string();
    return std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(sqlite3_column_bytes(stmt_, column)));
  }
  int columnInt(int column) { return sqlite3_column_int(stmt_, column); }
  int64_t columnInt64(int column) { return sqlite3_column_int64(stmt_, column); }
  sqlite3_stmt* get() const { return stmt_; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace orv

#endif  // ORV_STORE_DATABASE_H_
