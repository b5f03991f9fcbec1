#include "store/log_table.h"

#include "daemon/logger.h"
#include "store/database.h"

namespace orv {

bool insert_log(int level, const std::string& backupId, const std::string& message) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement insert;
  if (!insert.prepare(db,
                      "INSERT INTO logs ( backup_id, level, message, datetm ) VALUES( ?, ?, ?, datetime( CURRENT_TIMESTAMP, 'localtime' ) );")) {
    StoreLog(kError, "Could not prepare insert log statement. %s", sqlite3_errmsg(db));
    return false;
  }
  if (backupId.empty()) {
    insert.bindNull(1);
  } else {
    insert.bindText(1, backupId);
  }
  insert.bindInt(2, level);
  insert.bindText(3, message);
  if (insert.step() != SQLITE_DONE) {
    StoreLog(kError, "Could not perform insert log statement. %s", sqlite3_errmsg(db));
    insert.finalize();
    StoreLog(kError, "Sqlite error: %s", sqlite3_errmsg(db));
    return false;
  }
  return true;
}

bool delete_logs_before(int32_t cutoff) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement del;
  if (!del.prepare(db,
                   "DELETE FROM logs WHERE ( CAST( strftime( \"%s\", datetm ) AS INTEGER ) < CAST( ? AS INTEGER ) ) ")) {
    StoreLog(kError, "Could not prepare delete log statement. %s", sqlite3_errmsg(db));
    return false;
  }
  if (!del.bindInt(1, cutoff)) {
    StoreLog(kError, "Could not bind delete log statement. %s", sqlite3_errmsg(db));
    return false;
  }
  if (del.step() != SQLITE_DONE) {
    StoreLog(kError, "Could not perform delete log statement. %s", sqlite3_errmsg(db));
    return false;
  }
  return true;
}

std::string BuildLogListSql(int limit, const std::string& backupId, const std::string& after) {
  std::string sql = "SELECT * FROM logs WHERE level >= :LEVEL ";
  if (!backupId.empty()) sql += "AND backup_id = :BACKUPID ";
  if (!after.empty()) {
    sql += "AND ( CAST( strftime( \"%s\", datetm ) AS INTEGER ) >= CAST( strftime( \"%s\", :DTAFTER ) AS INTEGER ) ) ";
  }
  if (limit >= 1) sql += "LIMIT " + std::to_string(limit);
  sql += ";";
  return sql;
}

bool list_logs(std::vector<LogRow>* rows, int level, int limit, const std::string& backupId,
               const std::string& after) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement select;
  if (!select.prepare(db, BuildLogListSql(limit, backupId, after))) {
    StoreLog(kError, "Could not prepare select log list statement. %s", sqlite3_errmsg(db));
    return false;
  }
  select.bindInt(select.parameterIndex(":LEVEL"), level);
  if (!backupId.empty()) select.bindText(select.parameterIndex(":BACKUPID"), backupId);
  if (!after.empty()) select.bindText(select.parameterIndex(":DTAFTER"), after);
  if (rows == nullptr) {
    StoreLog(kError, "Could not perform select log list statement. Nowhere to write to.");
    return false;
  }
  while (select.step() == SQLITE_ROW) {
    LogRow row;
    row.id = select.columnInt64(0);
    row.backupId = select.columnText(1);
    row.level = select.columnInt(2);
    row.message = select.columnText(3);
    row.datetm = select.columnText(4);
    rows->push_back(row);
  }
  return true;
}

}  // namespace orv
