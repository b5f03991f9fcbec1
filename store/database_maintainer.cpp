#include "store/database_maintainer.h"

#include <unistd.h>

#include <cstdio>
#include <tuple>

#include "daemon/logger.h"
#include "store/database.h"

namespace orv {

namespace {

const char* kCreateAbout = "CREATE TABLE about ( version TEXT NOT NULL );";
const char* kCreateDevice = "CREATE TABLE device ( id INTEGER NOT NULL );";
const char* kCreateConfig =
    "CREATE TABLE config (id INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL, name TEXT NOT NULL, value TEXT NULL );";
const char* kCreateLogs =
    "CREATE TABLE logs (id INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL, backup_id TEXT NULL, level INTEGER NOT NULL, message TEXT NOT NULL, datetm TEXT NOT NULL DEFAULT ( datetime( 'now', 'localtime' ) ) );";
const char* kCreateHistory =
    "CREATE TABLE history (id INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL, backup_id TEXT NOT NULL, device TEXT NOT NULL, command TEXT NOT NULL, device_minor INTEGER NULL, device_state INTEGER NULL, cow_file TEXT NULL, image_chksum TEXT NULL, result TEXT NOT NULL, result_detail TEXT NOT NULL, error INTEGER NOT NULL, datetm TEXT NOT NULL DEFAULT ( datetime( 'now', 'localtime' ) ) );";

}  // namespace

SchemaVersion SchemaVersion::Parse(const std::string& text) {
  SchemaVersion v;
  sscanf(text.c_str(), "%d.%d.%d-%d", &v.major, &v.minor, &v.patch, &v.build);
  return v;
}

std::string SchemaVersion::ToString() const {
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch) + "-" +
         std::to_string(build);
}

bool SchemaVersion::operator<(const SchemaVersion& other) const {
  return std::tie(major, minor, patch, build) < std::tie(other.major, other.minor, other.patch, other.build);
}

DatabaseMaintainer::DatabaseMaintainer() : programVersion_(SchemaVersion::Parse(kProgramVersion)) {}

DatabaseMaintainer::~DatabaseMaintainer() { close(); }

bool DatabaseMaintainer::readDatabaseVersion(std::string* text) {
  *text = "0.0.0";
  Statement table;
  if (!table.prepare(handle_, "SELECT name FROM sqlite_master WHERE type = 'table' AND name = 'about';")) {
    StoreLog(kError, "Could not prepare DB version select statement. %s", sqlite3_errmsg(handle_));
    return false;
  }
  int rc = table.step();
  if (table.finalize() != SQLITE_OK) return false;
  if (rc == SQLITE_DONE) return true;
  if (rc != SQLITE_ROW) {
    StoreLog(kError, "Could not perform DB version select statement. %s", sqlite3_errmsg(handle_));
    return false;
  }
  Statement version;
  if (!version.prepare(handle_, "SELECT version FROM about LIMIT 1;")) {
    StoreLog(kError, "Could not prepare DB version select statement from table 'about'. %s", sqlite3_errmsg(handle_));
    return false;
  }
  if (version.step() == SQLITE_ROW) *text = version.columnText(0);
  return true;
}

bool DatabaseMaintainer::initialise() {
  int rc = sqlite3_open_v2(Database::path().c_str(), &handle_,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    StoreLog(kError, "Could not open sqlite database. %s", sqlite3_errmsg(handle_));
    sqlite3_close(handle_);
    handle_ = nullptr;
    return false;
  }
  if (handle_ == nullptr) {
    StoreLog(kError, "Invalid database handle");
    return false;
  }
  sqlite3_busy_timeout(handle_, Database::kBusyTimeoutMs);
  std::string text;
  if (!readDatabaseVersion(&text)) return false;
  databaseVersion_ = SchemaVersion::Parse(text);
  LogDisplay(kInfo, "Comparing DB version: %s TO %s", databaseVersion_.ToString().c_str(),
             programVersion_.ToString().c_str());
  if (!(databaseVersion_ < programVersion_)) return true;
  buildSteps();
  return applySteps();
}

void DatabaseMaintainer::buildSteps() {
  steps_.clear();
  UpgradeStep first;
  first.version = SchemaVersion::Parse("1.0.0");
  first.commands = {
      "DROP TABLE IF EXISTS about;",
      "DROP TABLE IF EXISTS device;",
      "DROP TABLE IF EXISTS config;",
      "DROP TABLE IF EXISTS logs;",
      "DROP TABLE IF EXISTS history;",
      kCreateAbout,
      "INSERT INTO about ( version ) VALUES( '1.0.0' );",
      kCreateDevice,
      kCreateConfig,
      kCreateLogs,
      kCreateHistory,
  };
  steps_.push_back(first);
}

bool DatabaseMaintainer::applySteps() {
  for (const UpgradeStep& step : steps_) {
    if (step.version <= databaseVersion_) continue;
    if (!runCommands(step.commands)) return false;
  }
  return true;
}

bool DatabaseMaintainer::runCommands(const std::vector<std::string>& commands) {
  if (commands.empty()) {
    StoreLog(kError, "Empty SQL command list.");
    return false;
  }
  if (handle_ == nullptr) {
    StoreLog(kError, "Invalid database handle");
    return false;
  }
  for (const std::string& command : commands) {
    if (command.empty()) continue;
    char* error = nullptr;
    int rc = sqlite3_exec(handle_, command.c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
      LogSyslog(kError, "Could not run SQL command. %s - %s ret = %d\n", command.c_str(),
                error != nullptr ? error : sqlite3_errmsg(handle_), rc);
      sqlite3_free(error);
      return false;
    }
  }
  return true;
}

void DatabaseMaintainer::close() {
  if (handle_ != nullptr) {
    int attempt = 1;
    while (sqlite3_close(handle_) != SQLITE_OK) {
      StoreLog(kError, "DB maintainer could not close sqlite database. Attempt %d", attempt);
      if (attempt == 101) {
        StoreLog(kError, "Exceeded 100 tries, giving up.");
        break;
      }
      ++attempt;
      sleep(1);
    }
    handle_ = nullptr;
  }
  steps_.clear();
}

}  // namespace orv
