#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "daemon/logger.h"
#include "store/config_table.h"
#include "store/configs.h"
#include "store/database.h"
#include "store/database_keeper.h"
#include "store/database_maintainer.h"
#include "store/history.h"
#include "store/history_table.h"
#include "store/log_table.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

// Runs SQL on the database file outside the store; its rows, columns joined by "|".
std::vector<std::string> Rows(const std::string& path, const std::string& sql) {
  sqlite3* db = nullptr;
  std::vector<std::string> rows;
  EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  auto addRow = [](void* out, int columns, char** values, char**) {
    std::string row;
    for (int i = 0; i < columns; ++i) row += (i ? "|" : "") + std::string(values[i] ? values[i] : "NULL");
    static_cast<std::vector<std::string>*>(out)->push_back(row);
    return 0;
  };
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), addRow, &rows, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
  return rows;
}

using StoreTest = AgentRootTest;

TEST(SchemaVersionTest, ParsesAndComparesFieldByField) {
  EXPECT_EQ(SchemaVersion::Parse("1.0.0").ToString(), "1.0.0-0");
  EXPECT_EQ(SchemaVersion::Parse("1.2.3-4").ToString(), "1.2.3-4");
  EXPECT_EQ(SchemaVersion::Parse("garbage").ToString(), "0.0.0-0");
  EXPECT_TRUE(SchemaVersion::Parse("0.9.9") < SchemaVersion::Parse("1.0.0"));
  EXPECT_TRUE(SchemaVersion::Parse("1.0.0") < SchemaVersion::Parse("1.0.0-1"));
  EXPECT_FALSE(SchemaVersion::Parse("1.10.0") < SchemaVersion::Parse("1.9.0"));
}

TEST_F(StoreTest, ConfigSetReplacesListsAndReadsNullAsEmpty) {
  Configs configs;
  std::string hostile = "it's \"quoted\"; DROP TABLE config; --";
  ASSERT_TRUE(configs.set("rest_port", "1"));
  ASSERT_TRUE(configs.set("rest_port", hostile));
  std::string value;
  ASSERT_TRUE(configs.get("rest_port", value));
  EXPECT_EQ(value, hostile);
  EXPECT_EQ(Rows(root_.databasePath(), "SELECT COUNT(*) FROM config WHERE name='rest_port'"),
            std::vector<std::string>{"1"});
  EXPECT_FALSE(configs.get("absent", value));
  ASSERT_TRUE(delete_config("rest_port"));
  ASSERT_TRUE(delete_config("never-there"));
  EXPECT_FALSE(configs.get("rest_port", value));

  std::vector<std::string> names, values;
  ASSERT_TRUE(get_config_list(&names, &values));
  EXPECT_TRUE(names.empty());
  Rows(root_.databasePath(), "INSERT INTO config (name, value) VALUES ('nullish', NULL)");
  ASSERT_TRUE(set_config("b", "2"));
  ASSERT_TRUE(get_config_list(&names, &values));
  EXPECT_EQ(names, (std::vector<std::string>{"nullish", "b"}));
  EXPECT_EQ(values, (std::vector<std::string>{"", "2"}));
  ASSERT_TRUE(get_config("nullish", &value));
  EXPECT_EQ(value, "");
}

TEST_F(StoreTest, InvalidRetentionIsRepairedOnceWithWarning) {
  for (const char* bad : {"0", "366", ""}) {
    Rows(root_.databasePath(), "DELETE FROM logs");
    ASSERT_TRUE(set_config("log_days_to_keep", bad));
    LogEvent(kInfo, "", "an event");
    EXPECT_EQ(Rows(root_.databasePath(), "SELECT value FROM config WHERE name='log_days_to_keep'"),
              std::vector<std::string>{"30"})
        << bad;
    EXPECT_EQ(Rows(root_.databasePath(),
                   "SELECT COUNT(*) FROM logs WHERE message='Invalid log days to keep configuration - using default.'"),
              std::vector<std::string>{"1"})
        << bad;
  }
  ASSERT_TRUE(set_config("log_days_to_keep", "365"));
  EXPECT_EQ(RetentionDays(), 365);
}

// Rows stored together are the rows of the events one by one: in order, cut at 1023 bytes,
// none for an empty text; an invalid retention is repaired once.
TEST_F(StoreTest, EventsStoredTogetherAreTheRowsOfEventsOneByOne) {
  std::string longText(3000, 'x');
  ASSERT_TRUE(set_config("log_days_to_keep", "abc"));
  LogEvents(kDebug, "bk", {"first", "", longText, "last"});
  LogEvent(kDebug, "bk", "%s", "first");
  LogEvent(kDebug, "bk", "%s", "");
  LogEvent(kDebug, "bk", "%s", longText.c_str());
  LogEvent(kDebug, "bk", "%s", "last");
  std::vector<std::string> rows = Rows(root_.databasePath(),
                                       "SELECT level || ' ' || backup_id || ' ' || length(message) || ' ' || "
                                       "substr(message, 1, 5) FROM logs WHERE backup_id='bk' ORDER BY id");
  std::vector<std::string> once = {"1 bk 5 first", "1 bk 1023 xxxxx", "1 bk 4 last"};
  std::vector<std::string> twice = once;
  twice.insert(twice.end(), once.begin(), once.end());
  EXPECT_EQ(rows, twice);
  EXPECT_EQ(Rows(root_.databasePath(),
                 "SELECT COUNT(*) FROM logs WHERE message='Invalid log days to keep configuration - using default.'"),
            std::vector<std::string>{"1"});
  // A record without a backup keeps NULL there, not an empty text.
  ASSERT_TRUE(insert_log(2, "", "no backup"));
  EXPECT_EQ(Rows(root_.databasePath(), "SELECT COUNT(*) FROM logs WHERE backup_id IS NULL AND message='no backup'"),
            std::vector<std::string>{"1"});
}

TEST_F(StoreTest, HistoryRecordsAndLookups) {
  History history;
  history.write("b1", "uuid-1", "copy_full", -1, -1, "", "", "success", "detail", 0);
  history.write("b1", "uuid-1", "copy_full", 3, 2, "/m/.zelko", "aaaa0001", "success", "", 0);
  history.write("b2", "uuid-1", "copy_full", 3, 2, "/m/.zelko", "bbbb0002", "success", "", 0);
  history.write("b3", "uuid-1", "copy_full", 3, 2, "/m/.zelko", "cccc0003", "failure", "", 5);
  EXPECT_EQ(Rows(root_.databasePath(), "SELECT COALESCE(device_minor,'NULL'), COALESCE(cow_file,'NULL'), "
                                       "COALESCE(image_chksum,'NULL'), backup_id FROM history WHERE id=1"),
            std::vector<std::string>{"NULL|NULL|NULL|b1"});
  auto row = history.last_image_checksum("uuid-1");
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->imageChksum, "bbbb0002");
  EXPECT_EQ(history.last_image_checksum("uuid-2"), nullptr);
  auto last = history.last_command("copy_full");
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(last->backupId, "b3");
  EXPECT_EQ(last->error, 5);
  EXPECT_EQ(history.last_command("backup_run"), nullptr);
  std::vector<HistoryRow> rows;
  ASSERT_TRUE(history.get_history(&rows, 0, "", "uuid-1", "", "success", 0, ""));
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0].backupId, "b2");  // newest first
  rows.clear();
  ASSERT_TRUE(history.get_history(&rows, 0, "", "", "", "", 5, ""));
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].deviceMinor, 3);
}

TEST_F(StoreTest, ConcurrentWritersAreSerialised) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < 25; ++i) {
        ASSERT_TRUE(set_config("shared", std::to_string(t * 100 + i)));
        ASSERT_TRUE(insert_log(2, "", "thread event"));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(Rows(root_.databasePath(), "SELECT COUNT(*) FROM config WHERE name='shared'"),
            std::vector<std::string>{"1"});
  EXPECT_EQ(Rows(root_.databasePath(), "SELECT COUNT(*) FROM logs"), std::vector<std::string>{"200"});
}

// Another connection (another process, as far as SQLite can tell) holding an exclusive lock for `millis`.
void HoldExclusiveLock(const std::string& path, int millis) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
  std::this_thread::sleep_for(std::chrono::milliseconds(millis));
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

TEST_F(StoreTest, StatementsWaitOutABriefLockAndFailOnALongOne) {
  ASSERT_TRUE(set_config("key", "before"));
  std::thread brief(HoldExclusiveLock, root_.databasePath(), 300);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_TRUE(insert_log(2, "", "written after a brief lock"));
  EXPECT_TRUE(set_config("key", "after"));
  brief.join();

  std::thread held(HoldExclusiveLock, root_.databasePath(), 2500);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  auto started = std::chrono::steady_clock::now();
  std::string value;
  EXPECT_FALSE(get_config("key", &value));
  auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, std::chrono::milliseconds(Database::kBusyTimeoutMs - 50));
  EXPECT_LT(waited, std::chrono::milliseconds(Database::kBusyTimeoutMs + 1000));
  held.join();
  ASSERT_TRUE(get_config("key", &value));
  EXPECT_EQ(value, "after");
  EXPECT_EQ(Rows(root_.databasePath(), "SELECT COUNT(*) FROM logs WHERE message = 'written after a brief lock'"),
            std::vector<std::string>{"1"});
}

TEST_F(StoreTest, ClosingWhatIsNotOpenLocksNobodyOut) {
  ASSERT_TRUE(Database::open());
  EXPECT_NE(Database::handle(), nullptr);
  EXPECT_TRUE(Database::close());
  EXPECT_EQ(Database::handle(), nullptr);
#if !defined(__SANITIZE_THREAD__)
  // Closing what is not open unlocks the mutex anyway, so that a caller that lost track of
  // its open locks nobody out (ThreadSanitizer rightly reports that unlock).
  EXPECT_FALSE(Database::close());
#endif
  EXPECT_TRUE(set_config("after", "ok"));
}

// While the keeper lives the file is in write-ahead-log mode, every committed row visible to
// other readers at once; after it, one plain rollback-journal database with every row.
TEST_F(StoreTest, KeeperHoldsTheWriteAheadLogOnlyWhileItLives) {
  const std::string path = root_.databasePath();
  {
    DatabaseKeeper keeper;
    ASSERT_TRUE(keeper.active());
    EXPECT_TRUE(DatabaseKeeper::anyActive());
    EXPECT_EQ(Rows(path, "PRAGMA journal_mode"), std::vector<std::string>{"wal"});
    for (int i = 0; i < 50; ++i) ASSERT_TRUE(insert_log(kInfo, "b1", "row " + std::to_string(i)));
    ASSERT_TRUE(set_config("kept", "yes"));
    EXPECT_EQ(Rows(path, "SELECT COUNT(*) FROM logs WHERE backup_id = 'b1'"), std::vector<std::string>{"50"});
    EXPECT_EQ(Rows(path, "SELECT value FROM config WHERE name = 'kept'"), std::vector<std::string>{"yes"});
    EXPECT_TRUE(std::filesystem::exists(path + "-wal"));
  }
  EXPECT_FALSE(DatabaseKeeper::anyActive());
  EXPECT_FALSE(std::filesystem::exists(path + "-wal"));
  EXPECT_FALSE(std::filesystem::exists(path + "-shm"));
  EXPECT_EQ(Rows(path, "PRAGMA journal_mode"), std::vector<std::string>{"delete"});
  EXPECT_EQ(Rows(path, "SELECT COUNT(*) FROM logs WHERE backup_id = 'b1'"), std::vector<std::string>{"50"});
  EXPECT_EQ(Rows(path, "PRAGMA integrity_check"), std::vector<std::string>{"ok"});
}

// Another process holding the file keeps the agent on the rollback journal, and one still
// reading at the agent's exit keeps the log: neither loses a row.
TEST_F(StoreTest, KeeperGivesWayToOtherConnections) {
  const std::string path = root_.databasePath();
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(path.c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE;", nullptr, nullptr, nullptr), SQLITE_OK);
  {
    DatabaseKeeper keeper;
    EXPECT_FALSE(keeper.active());
    EXPECT_FALSE(DatabaseKeeper::anyActive());
  }
  ASSERT_EQ(sqlite3_exec(other, "COMMIT;", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_TRUE(insert_log(kInfo, "b2", "on the rollback journal"));
  EXPECT_EQ(Rows(path, "PRAGMA journal_mode"), std::vector<std::string>{"delete"});
  {
    DatabaseKeeper keeper;
    ASSERT_TRUE(keeper.active());
    EXPECT_TRUE(insert_log(kInfo, "b2", "in the log"));
    sqlite3_stmt* reading = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(other, "SELECT COUNT(*) FROM logs", -1, &reading, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(reading), SQLITE_ROW);
    sqlite3_finalize(reading);
  }
  sqlite3_close(other);
  EXPECT_EQ(Rows(path, "SELECT message FROM logs WHERE backup_id = 'b2' ORDER BY id"),
            (std::vector<std::string>{"on the rollback journal", "in the log"}));
}

}  // namespace
}  // namespace orv
