#include "store/history_table.h"

#include "daemon/logger.h"
#include "store/database.h"

namespace orv {

namespace {

void ReadRow(Statement& select, HistoryRow* row) {
  row->id = select.columnInt64(0);
  row->backupId = select.columnText(1);
  row->device = select.columnText(2);
  row->command = select.columnText(3);
  row->deviceMinor = select.columnInt(4);
  row->deviceState = select.columnInt(5);
  row->cowFile = select.columnText(6);
  row->imageChksum = select.columnText(7);
  row->result = select.columnText(8);
  row->resultDetail = select.columnText(9);
  row->error = select.columnInt(10);
  row->datetm = select.columnText(11);
}

}  // namespace

bool insert_history(const std::string& backupId, const std::string& device, const std::string& command,
                    int deviceMinor, int deviceState, const std::string& cowFile, const std::string& imageChksum,
                    const std::string& result, const std::string& resultDetail, int error) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement insert;
  if (!insert.prepare(db,
                      "INSERT INTO history ( backup_id, device, command, device_minor, device_state, cow_file, image_chksum, result, result_detail, error, datetm ) VALUES( ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, datetime( CURRENT_TIMESTAMP, 'localtime' ) );")) {
    StoreLog(kError, "Could not prepare insert history statement. %s", sqlite3_errmsg(db));
    return false;
  }
  insert.bindText(1, backupId);
  insert.bindText(2, device);
  insert.bindText(3, command);
  if (deviceMinor < 0) {
    insert.bindNull(4);
  } else {
    insert.bindInt(4, deviceMinor);
  }
  if (deviceState < 0) {
    insert.bindNull(5);
  } else {
    insert.bindInt(5, deviceState);
  }
  if (cowFile.empty()) {
    insert.bindNull(6);
  } else {
    insert.bindText(6, cowFile);
  }
  if (imageChksum.empty()) {
    insert.bindNull(7);
  } else {
    insert.bindText(7, imageChksum);
  }
  insert.bindText(8, result);
  insert.bindText(9, resultDetail);
  insert.bindInt(10, error);
  if (insert.step() != SQLITE_DONE) {
    StoreLog(kError, "Could not perform insert history statement. %s", sqlite3_errmsg(db));
    return false;
  }
  return true;
}

bool delete_history_before(int32_t cutoff) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement del;
  if (!del.prepare(
          db, "DELETE FROM history WHERE ( CAST( strftime( \"%s\", datetm ) AS INTEGER ) < CAST( ? AS INTEGER ) ) ")) {
    StoreLog(kError, "Could not prepare delete history statement. %s", sqlite3_errmsg(db));
    return false;
  }
  del.bindInt(1, cutoff);
  if (del.step() != SQLITE_DONE) {
    StoreLog(kError, "Could not perform delete history statement. %s", sqlite3_errmsg(db));
    return false;
  }
  return true;
}

bool get_last_checksum_row(const std::string& device, HistoryRow* row) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement select;
  if (!select.prepare(db,
                      "SELECT * FROM history WHERE device = ? AND result = 'success' AND image_chksum IS NOT NULL ORDER BY id DESC LIMIT 1;")) {
    StoreLog(kError, "Could not prepare select history checksum statement. %s", sqlite3_errmsg(db));
    return false;
  }
  select.bindText(1, device);
  int rc = select.step();
  if (rc == SQLITE_ROW) {
    if (row == nullptr) {
      StoreLog(kError, "Could not perform select history checksum statement. Nowhere to write to.");
      return false;
    }
    ReadRow(select, row);
    return true;
  }
  if (rc != SQLITE_DONE) {
    StoreLog(kError, "Could not perform select history checksum statement. %s", sqlite3_errmsg(db));
  }
  return false;
}

bool get_last_command_row(const std::string& command, HistoryRow* row) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement select;
  if (!select.prepare(db, "SELECT * FROM history WHERE command = ? ORDER BY id DESC LIMIT 1;")) {
    StoreLog(kError, "Could not prepare select history command statement. %s", sqlite3_errmsg(db));
    return false;
  }
  select.bindText(1, command);
  int rc = select.step();
  if (rc == SQLITE_ROW) {
    if (row == nullptr) {
      StoreLog(kError, "Could not perform select history command statement. Nowhere to write to.");
      return false;
    }
    ReadRow(select, row);
    return true;
  }
  if (rc != SQLITE_DONE) {
    StoreLog(kError, "Could not perform select history command statment. %s", sqlite3_errmsg(db));
  }
  return false;
}

std::string BuildHistoryListSql(int limit, const std::string& backupId, const std::string& device,
                                const std::string& command, const std::string& result, int error,
                                const std::string& after) {
  std::string sql = "SELECT * FROM history WHERE id > 0 ";
  if (!backupId.empty()) sql += "AND backup_id = :BACKUPID ";
  if (!device.empty()) sql += "AND device = :DEVICE ";
  if (!command.empty()) sql += "AND command = :COMMAND ";
  if (!result.empty()) sql += "AND result = :RESULT ";
  if (error > 0) sql += "AND error = :ERROR ";
  if (!after.empty()) {
    sql += "AND ( CAST( strftime( \"%s\", datetm ) AS INTEGER ) >= CAST( strftime( \"%s\", :DTAFTER ) AS INTEGER ) ) ";
  }
  sql += "ORDER BY id DESC ";
  if (limit >= 1) sql += "LIMIT " + std::to_string(limit);
  sql += ";";
  return sql;
}

bool list_history(std::vector<HistoryRow>* rows, int limit, const std::string& backupId, const std::string& device,
                  const std::string& command, const std::string& result, int error, const std::string& after) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement select;
  if (!select.prepare(db, BuildHistoryListSql(limit, backupId, device, command, result, error, after))) {
    StoreLog(kError, "Could not prepare select history list statement. %s", sqlite3_errmsg(db));
    return false;
  }
  if (!backupId.empty()) select.bindText(select.parameterIndex(":BACKUPID"), backupId);
  if (!device.empty()) select.bindText(select.parameterIndex(":DEVICE"), device);
  if (!command.empty()) select.bindText(select.parameterIndex(":COMMAND"), command);
  if (!result.empty()) select.bindText(select.parameterIndex(":RESULT"), result);
  if (error > 0) select.bindInt(select.parameterIndex(":ERROR"), error);
  if (!after.empty()) select.bindText(select.parameterIndex(":DTAFTER"), after);
  if (rows == nullptr) {
    StoreLog(kError, "Could not perform select history list statement. Nowhere to write to.");
    return false;
  }
  while (select.step() == SQLITE_ROW) {
    HistoryRow row;
    ReadRow(select, &row);
    rows->push_back(row);
  }
  return true;
}

}  // namespace orv
