#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <random>
#include <set>
#include <string>

#include "daemon/logger.h"
#include "store/database.h"
#include "store/log_table.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

// The database as another process sees it: its own connection, opened per call.
class Outside {
 public:
  explicit Outside(const std::string& path) { EXPECT_EQ(sqlite3_open(path.c_str(), &db_), SQLITE_OK); }
  ~Outside() { sqlite3_close(db_); }
  Outside(const Outside&) = delete;
  Outside& operator=(const Outside&) = delete;

  void exec(const std::string& sql) {
    char* error = nullptr;
    ASSERT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "") << sql;
  }
  std::set<int64_t> ids(const std::string& where) {
    std::set<int64_t> found;
    sqlite3_stmt* stmt = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db_, ("SELECT id FROM logs WHERE " + where).c_str(), -1, &stmt, nullptr), SQLITE_OK);
    while (sqlite3_step(stmt) == SQLITE_ROW) found.insert(sqlite3_column_int64(stmt, 0));
    sqlite3_finalize(stmt);
    return found;
  }

 private:
  sqlite3* db_ = nullptr;
};

std::string Stamp(time_t at) {
  char text[32];
  struct tm local;
  localtime_r(&at, &local);
  strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

// The rows the plain prune statement keeps for `cutoff`: those not older, and those whose
// date-time strftime cannot read.
std::string Kept(int32_t cutoff) {
  return "CAST( strftime( '%s', datetm ) AS INTEGER ) >= " + std::to_string(cutoff) +
         " OR strftime( '%s', datetm ) IS NULL";
}

using LogPruneTest = AgentRootTest;

// A month of old rows written by another process, then the agent's own events while the
// retention's edge moves through the old rows, other writers and hand-made rows between:
// every prune leaves exactly the rows the plain statement would leave.
TEST_F(LogPruneTest, PrunesDeleteWhatThePlainStatementDeletes) {
  Outside outside(root_.databasePath());
  std::mt19937 random(7);
  time_t now = time(nullptr);
  time_t base = now - 40 * 86400;
  outside.exec("BEGIN");
  for (int i = 0; i < 6000; ++i) {
    outside.exec("INSERT INTO logs (backup_id, level, message, datetm) VALUES ('old', 1, 'm', '" +
                 Stamp(base + i * 7) + "')");
  }
  outside.exec("INSERT INTO logs (level, message, datetm) VALUES (2, 'unreadable', 'not a date')");
  outside.exec("COMMIT");
  int32_t cutoff = static_cast<int32_t>(base + 10);
  for (int step = 0; step < 400; ++step) {
    int action = static_cast<int>(random() % 10);
    if (action < 5) {
      ASSERT_TRUE(insert_log(2, "b", "event " + std::to_string(step)));
    } else if (action == 5) {
      // Another writer: an old row, a fresh one, or an old one that goes again.
      time_t at = base + static_cast<time_t>(random() % (45 * 86400));
      outside.exec("INSERT INTO logs (level, message, datetm) VALUES (3, 'outside', '" + Stamp(at) + "')");
      if (random() % 3 == 0) outside.exec("DELETE FROM logs WHERE id = (SELECT MAX(id) FROM logs)");
    } else {
      cutoff += static_cast<int32_t>(random() % 900);
      if (random() % 20 == 0) cutoff -= 5000;  // the clock went back
      std::set<int64_t> expected = outside.ids(Kept(cutoff));
      ASSERT_TRUE(delete_logs_before(cutoff));
      ASSERT_EQ(outside.ids("1"), expected) << "step " << step << " cutoff " << cutoff;
    }
  }
  // The edge passed every old row; the agent's rows and the unreadable one stay.
  std::set<int64_t> expected = outside.ids(Kept(static_cast<int32_t>(now - 60)));
  ASSERT_TRUE(delete_logs_before(static_cast<int32_t>(now - 60)));
  EXPECT_EQ(outside.ids("1"), expected);
  EXPECT_EQ(outside.ids("message = 'unreadable'").size(), 1u);
  EXPECT_TRUE(outside.ids("backup_id = 'old'").empty());
}

TEST_F(LogPruneTest, ARowAddedByHandIsPrunedAtTheNextEvent) {
  LogEvent(kInfo, "", "first");
  Outside outside(root_.databasePath());
  outside.exec("INSERT INTO logs (level, message, datetm) VALUES (2, 'stale', '2001-01-01 00:00:00')");
  LogEvent(kInfo, "", "second");
  EXPECT_TRUE(outside.ids("message = 'stale'").empty());
  EXPECT_EQ(outside.ids("1").size(), 2u);
}

// The database file made anew under the same path (another inode, or the same inode
// number born again) is read afresh: what was known of the old file's rows says nothing.
TEST_F(LogPruneTest, ADatabaseMadeAnewIsReadAfresh) {
  time_t now = time(nullptr);
  for (int i = 0; i < 3; ++i) LogEvent(kInfo, "", "before");
  int32_t cutoff = static_cast<int32_t>(now - 30 * 86400);
  ASSERT_TRUE(delete_logs_before(cutoff));
  ASSERT_EQ(unlink(root_.databasePath().c_str()), 0);
  ASSERT_TRUE(root_.initialiseDatabase());
  Outside outside(root_.databasePath());
  outside.exec("INSERT INTO logs (level, message, datetm) VALUES (2, 'old', '" + Stamp(now - 40 * 86400) + "')");
  outside.exec("INSERT INTO logs (level, message, datetm) VALUES (2, 'new', '" + Stamp(now) + "')");
  ASSERT_TRUE(delete_logs_before(cutoff));
  EXPECT_TRUE(outside.ids("message = 'old'").empty());
  EXPECT_EQ(outside.ids("1").size(), 1u);
}

}  // namespace
}  // namespace orv
