#include "store/config_table.h"

#include "daemon/logger.h"
#include "store/database.h"

namespace orv {

bool set_device_id(int id) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  {
    Statement del;
    if (!del.prepare(db, "DELETE FROM device;")) {
      StoreLog(kError, "Could not prepare pre-insert delete device statement. %s", sqlite3_errmsg(db));
      return false;
    }
    if (del.step() != SQLITE_DONE) {
      StoreLog(kError, "Could not perform pre-insert delete device statement. %s", sqlite3_errmsg(db));
      return false;
    }
  }
  Statement insert;
  if (!insert.prepare(db, "INSERT INTO device ( id ) VALUES( ? );")) {
    StoreLog(kError, "Could not prepare insert device statement. %s", sqlite3_errmsg(db));
    return false;
  }
  insert.bindInt(1, id);
  if (insert.step() != SQLITE_DONE) {
    StoreLog(kError, "Could not perform insert device statement. %s", sqlite3_errmsg(db));
    return false;
  }
  return true;
}

bool get_device_id(int* id) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement select;
  if (!select.prepare(db, "SELECT id FROM device LIMIT 1;")) {
    StoreLog(kError, "Could not prepare select device statement. %s", sqlite3_errmsg(db));
    return false;
  }
  int rc = select.step();
  if (rc == SQLITE_ROW) {
    *id = select.columnInt(0);
    return true;
  }
  if (rc != SQLITE_DONE) StoreLog(kError, "Could not perform select device statement. %s", sqlite3_errmsg(db));
  return false;
}

bool delete_config(const std::string& name) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement del;
  if (!del.prepare(db, "DELETE FROM config WHERE name = ?;")) {
    StoreLog(kError, "Could not prepare delete config statement. %s", sqlite3_errmsg(db));
    return false;
  }
  if (!del.bindText(1, name)) {
    StoreLog(kError, "Could not bind delete config statement. %s", sqlite3_errmsg(db));
    return false;
  }
  if (del.step() != SQLITE_DONE) {
    StoreLog(kError, "Could not perform delete config statement. %s", sqlite3_errmsg(db));
    return false;
  }
  return true;
}

bool set_config(const std::string& name, const std::string& value) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  {
    Statement del;
    if (!del.prepare(db, "DELETE FROM config WHERE name = ?;")) {
      StoreLog(kError, "Could not prepare pre-insert delete config statement. %s", sqlite3_errmsg(db));
      return false;
    }
    if (!del.bindText(1, name)) {
      StoreLog(kError, "Could not bind pre-insert delete config statement. %s", sqlite3_errmsg(db));
      return false;
    }
    if (del.step() != SQLITE_DONE) {
      StoreLog(kError, "Could not perform pre-insert delete config statement. %s", sqlite3_errmsg(db));
      return false;
    }
  }
  Statement insert;
  if (!insert.prepare(db, "INSERT INTO config ( name, value ) VALUES( ?, ? );")) {
    StoreLog(kError, "Could not prepare insert config statement. %s", sqlite3_errmsg(db));
    return false;
  }
  if (!insert.bindText(1, name)) {
    StoreLog(kError, "Could not bind arg 1 to insert config statement. %s", sqlite3_errmsg(db));
    return false;
  }
  if (!insert.bindText(2, value)) {
    StoreLog(kError, "Could not bind arg 2 to insert config statement. %s", sqlite3_errmsg(db));
    return false;
  }
  if (insert.step() != SQLITE_DONE) {
    StoreLog(kError, "Could not perform insert config statement. %s", sqlite3_errmsg(db));
    return false;
  }
  return true;
}

bool get_config_list(std::vector<std::string>* names, std::vector<std::string>* values) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement select;
  if (!select.prepare(db, "SELECT name, value FROM config;")) {
    StoreLog(kError, "Could not prepare select config list statement. %s", sqlite3_errmsg(db));
    return false;
  }
  while (select.step() == SQLITE_ROW) {
    names->push_back(select.columnText(0));
    values->push_back(select.columnText(1));
  }
  return true;
}

bool get_config(const std::string& name, std::string* value) {
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  Statement select;
  if (!select.prepare(db, "SELECT value FROM config WHERE name = ? LIMIT 1;")) {
    StoreLog(kError, "Could not prepare select config statement. %s", sqlite3_errmsg(db));
    return false;
  }
  if (!select.bindText(1, name)) {
    StoreLog(kError, "Could not bind select config statement. %s", sqlite3_errmsg(db));
    return false;
  }
  int rc = select.step();
  if (rc == SQLITE_ROW) {
    *value = select.columnText(0);
    return true;
  }
  if (rc != SQLITE_DONE) StoreLog(kError, "Could not perform select config statement. %s", sqlite3_errmsg(db));
  return false;
}

}  // namespace orv
