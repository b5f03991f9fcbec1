#include "store/database_keeper.h"

#include <atomic>
#include <string>

#include "daemon/logger.h"
#include "store/database.h"

namespace orv {

namespace {

std::atomic<int> activeKeepers{0};

// Runs a pragma that answers one row and returns that row's text ("" on failure).
std::string PragmaAnswer(sqlite3* db, const char* sql) {
  Statement pragma;
  if (!pragma.prepare(db, sql)) return std::string();
  if (pragma.step() != SQLITE_ROW) return std::string();
  return pragma.columnText(0);
}

}  // namespace

DatabaseKeeper::DatabaseKeeper() {
  sqlite3* db = nullptr;
  std::string path = Database::path();
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX, nullptr) != SQLITE_OK) {
    StoreLog(kWarning, "Could not keep the database in write-ahead-log mode: %s", sqlite3_errmsg(db));
    sqlite3_close(db);
    return;
  }
  sqlite3_busy_timeout(db, Database::kBusyTimeoutMs);
  // The switch needs the file to itself for a moment; when another process holds it,
  // the agent runs on the rollback journal, only slower.
  std::string mode = PragmaAnswer(db, "PRAGMA journal_mode=WAL;");
  if (mode != "wal") {
    StoreLog(kWarning, "Could not keep the database in write-ahead-log mode: %s",
             mode.empty() ? sqlite3_errmsg(db) : ("journal mode stays " + mode).c_str());
    sqlite3_close(db);
    return;
  }
  // A read makes this connection a user of the log's shared index; from then on the
  // statements' connections are never the last one to close.
  if (PragmaAnswer(db, "SELECT COUNT(*) FROM sqlite_master;").empty()) {
    StoreLog(kWarning, "Could not keep the database in write-ahead-log mode: %s", sqlite3_errmsg(db));
    sqlite3_close(db);
    return;
  }
  handle_ = db;
  ++activeKeepers;
}

DatabaseKeeper::~DatabaseKeeper() {
  if (handle_ == nullptr) return;
  --activeKeepers;
  // Back to the rollback journal: this folds the log into the file and removes it. It
  // fails while another connection is open (a configuration command, an administrator's
  // sqlite3); the file then stays in write-ahead-log mode, which every SQLite reads.
  std::string mode = PragmaAnswer(handle_, "PRAGMA journal_mode=DELETE;");
  if (mode != "delete") {
    StoreLog(kWarning, "The database stays in write-ahead-log mode: %s",
             mode.empty() ? sqlite3_errmsg(handle_) : mode.c_str());
  }
  sqlite3_close(handle_);
}

bool DatabaseKeeper::anyActive() { return activeKeepers.load() > 0; }

void RelaxLogSync(sqlite3* db) {
  if (DatabaseKeeper::anyActive()) sqlite3_exec(db, "PRAGMA synchronous=NORMAL;", nullptr, nullptr, nullptr);
}

}  // namespace orv
