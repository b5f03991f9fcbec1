#include "store/log_table.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <mutex>
#include <vector>

#include "daemon/logger.h"
#include "store/database.h"
#include "store/database_keeper.h"

namespace orv {

namespace {

// What this process knows of the ages in the logs table, so that a prune reads only the
// rows that can be old enough to go. The table is read once (and again every hour, or
// when another process or another file shows up) in id order, in blocks of kBlockRows
// rows, each with the least age in it; the rows this process stores afterwards join the
// last block with their own age, read back right after the insert. Then a prune deletes
// with the same condition but only up to the last block that holds a row older than the
// cutoff: every row past that block is known to be younger, so the rows deleted are the
// rows the plain statement deletes, without reading the rest of a table that a month of
// backups fills with millions of rows. Another writer's rows are noticed by the table's
// AUTOINCREMENT sequence moving without us, another file by its inode; either sends the
// next prune back to the read. When no row can be old enough, the prune needs no session
// at all: the insert that comes before every prune has just checked the sequence.
class LogAges {
 public:
  // After an insert of ours, in its session.
  void noteInsert(sqlite3* db, int64_t id) {
    std::lock_guard<std::mutex> hold(lock_);
    if (!current() || id != sequence_ + 1) {
      valid_ = false;
      return;
    }
    sequence_ = id;
    Statement age;
    if (!age.prepare(db, "SELECT CAST( strftime( \"%s\", datetm ) AS INTEGER ) FROM logs WHERE id = ?;") ||
        sqlite3_bind_int64(age.get(), 1, id) != SQLITE_OK || age.step() != SQLITE_ROW) {
      valid_ = false;
      return;
    }
    add(id, AgeOf(age.get(), 0));
  }

  // The highest id the prune's statement needs to look at for `cutoff`: -1 when no row
  // can be older, the table's whole range when nothing is known. False when the table
  // could not be read.
  bool reach(sqlite3* db, int64_t cutoff, int64_t* last) {
    std::lock_guard<std::mutex> hold(lock_);
    if (!current() || sequence(db) != sequence_ || stale()) {
      if (!read(db)) return false;
    }
    *last = -1;
    for (auto block = blocks_.rbegin(); block != blocks_.rend(); ++block) {
      if (block->least < cutoff) {
        *last = block->lastId;
        break;
      }
    }
    return true;
  }

  // After a prune that deleted every row up to `last` older than `cutoff`: what is left up
  // to there is at least `cutoff` old, and those blocks become one.
  void pruned(int64_t last, int64_t cutoff) {
    std::lock_guard<std::mutex> hold(lock_);
    auto end = std::upper_bound(blocks_.begin(), blocks_.end(), last,
                                [](int64_t id, const Block& block) { return id < block.lastId; });
    if (end == blocks_.begin()) return;
    Block merged{(end - 1)->lastId, kNoAge, 0};
    for (auto block = blocks_.begin(); block != end; ++block) {
      merged.least = std::min(merged.least, std::max(block->least, cutoff));
      merged.rows += block->rows;
    }
    end = blocks_.erase(blocks_.begin(), end);
    blocks_.insert(end, merged);
  }

  void forget() {
    std::lock_guard<std::mutex> hold(lock_);
    valid_ = false;
  }

  // True when what is known says that no row is older than `cutoff`.
  bool noneOlder(int64_t cutoff) {
    std::lock_guard<std::mutex> hold(lock_);
    if (!current() || stale()) return false;
    for (const Block& block : blocks_) {
      if (block.least < cutoff) return false;
    }
    return true;
  }

 private:
  struct Block {
    int64_t lastId;  // the block holds the ids after the previous block's, up to this one
    int64_t least;   // no row of the block has a smaller age
    int64_t rows;
  };
  static constexpr int64_t kBlockRows = 1024;
  static constexpr time_t kRereadSeconds = 3600;
  static constexpr int64_t kNoAge = std::numeric_limits<int64_t>::max();

  // A date-time that strftime cannot read has no age: no prune ever deletes its row.
  static int64_t AgeOf(sqlite3_stmt* stmt, int column) {
    return sqlite3_column_type(stmt, column) == SQLITE_NULL ? kNoAge : sqlite3_column_int64(stmt, column);
  }

  bool current() const { return valid_ && !file_.empty() && FileIdentity() == file_; }
  bool stale() const { return time(nullptr) - readAt_ >= kRereadSeconds; }

  // The database file now at the store's path: a file made anew in its place has another
  // inode or, when the inode number is used again, another birth time.
  static std::string FileIdentity() {
    std::string path = Database::path();
    struct statx info;
    if (statx(AT_FDCWD, path.c_str(), 0, STATX_INO | STATX_BTIME, &info) != 0) return std::string();
    return path + "\n" + std::to_string(makedev(info.stx_dev_major, info.stx_dev_minor)) + ":" +
           std::to_string(info.stx_ino) + ":" + std::to_string(info.stx_btime.tv_sec) + "." +
           std::to_string(info.stx_btime.tv_nsec);
  }

  static int64_t sequence(sqlite3* db) {
    Statement select;
    if (!select.prepare(db, "SELECT seq FROM sqlite_sequence WHERE name = 'logs';")) return -1;
    return select.step() == SQLITE_ROW ? select.columnInt64(0) : 0;
  }

  void add(int64_t id, int64_t age) {
    if (blocks_.empty() || blocks_.back().rows >= kBlockRows) blocks_.push_back(Block{id, kNoAge, 0});
    Block& block = blocks_.back();
    block.lastId = id;
    block.least = std::min(block.least, age);
    ++block.rows;
  }

  bool read(sqlite3* db) {
    valid_ = false;
    blocks_.clear();
    sequence_ = sequence(db);
    if (sequence_ < 0) return false;
    Statement scan;
    if (!scan.prepare(db, "SELECT id, CAST( strftime( \"%s\", datetm ) AS INTEGER ) FROM logs ORDER BY id;")) {
      return false;
    }
    int result;
    while ((result = scan.step()) == SQLITE_ROW) add(scan.columnInt64(0), AgeOf(scan.get(), 1));
    if (result != SQLITE_DONE) {
      blocks_.clear();
      return false;
    }
    valid_ = true;
    file_ = FileIdentity();
    readAt_ = time(nullptr);
    return true;
  }

  std::mutex lock_;
  bool valid_ = false;
  std::string file_;
  int64_t sequence_ = 0;
  time_t readAt_ = 0;
  std::vector<Block> blocks_;
};

LogAges logAges;

}  // namespace

bool insert_log(int level, const std::string& backupId, const std::string& message) {
  return insert_logs(level, backupId, {message}) == 1;
}

size_t insert_logs(int level, const std::string& backupId, const std::vector<std::string>& messages) {
  DatabaseSession session;
  if (!session.ok()) return 0;
  sqlite3* db = session.db();
  RelaxLogSync(db);
  Statement insert;
  if (!insert.prepare(db,
                      "INSERT INTO logs ( backup_id, level, message, datetm ) VALUES( ?, ?, ?, datetime( CURRENT_TIMESTAMP, 'localtime' ) );")) {
    StoreLog(kError, "Could not prepare insert log statement. %s", sqlite3_errmsg(db));
    return 0;
  }
  size_t stored = 0;
  for (const std::string& message : messages) {
    sqlite3_reset(insert.get());
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
      logAges.forget();
      return stored;
    }
    logAges.noteInsert(db, sqlite3_last_insert_rowid(db));
    ++stored;
  }
  return stored;
}

bool delete_logs_before(int32_t cutoff) {
  if (logAges.noneOlder(cutoff)) return true;  // the statement would delete nothing
  DatabaseSession session;
  if (!session.ok()) return false;
  sqlite3* db = session.db();
  RelaxLogSync(db);
  int64_t last = 0;
  bool bounded = logAges.reach(db, cutoff, &last);
  if (bounded && last < 0) return true;  // no row is old enough: the statement would delete nothing
  Statement del;
  // The age of a row is its local date-time text read as UTC seconds; the bounded form
  // adds only the id range that LogAges vouches for.
  bool prepared =
      bounded ? del.prepare(db,
                            "DELETE FROM logs WHERE ( CAST( strftime( \"%s\", datetm ) AS INTEGER ) < CAST( ? AS INTEGER ) ) AND id <= ? ")
              : del.prepare(db,
                            "DELETE FROM logs WHERE ( CAST( strftime( \"%s\", datetm ) AS INTEGER ) < CAST( ? AS INTEGER ) ) ");
  if (!prepared) {
    StoreLog(kError, "Could not prepare delete log statement. %s", sqlite3_errmsg(db));
    logAges.forget();
    return false;
  }
  if (!del.bindInt(1, cutoff) || (bounded && sqlite3_bind_int64(del.get(), 2, last) != SQLITE_OK)) {
    StoreLog(kError, "Could not bind delete log statement. %s", sqlite3_errmsg(db));
    logAges.forget();
    return false;
  }
  if (del.step() != SQLITE_DONE) {
    StoreLog(kError, "Could not perform delete log statement. %s", sqlite3_errmsg(db));
    logAges.forget();
    return false;
  }
  if (bounded) logAges.pruned(last, cutoff);
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
