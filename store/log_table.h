#ifndef ORV_STORE_LOG_TABLE_H_
#define ORV_STORE_LOG_TABLE_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace orv {

// One row of the logs table, in column order.
struct LogRow {
  int64_t id = 0;
  std::string backupId;
  int level = 0;
  std::string message;
  std::string datetm;
};

bool insert_log(int level, const std::string& backupId, const std::string& message);
// Stores `messages` in order as rows of one level and backup id, each as insert_log
// stores it, on one connection instead of one each; the number stored before the first
// failure (which is logged as insert_log logs it).
size_t insert_logs(int level, const std::string& backupId, const std::vector<std::string>& messages);
bool delete_logs_before(int32_t cutoff);
// The log-list query: rows at or above `level`, optionally of one backup and not
// older than `after`, at most `limit` rows when limit >= 1.
bool list_logs(std::vector<LogRow>* rows, int level, int limit, const std::string& backupId,
               const std::string& after);
// The statement text list_logs runs for the given filters.
std::string BuildLogListSql(int limit, const std::string& backupId, const std::string& after);

}  // namespace orv

#endif  // ORV_STORE_LOG_TABLE_H_
