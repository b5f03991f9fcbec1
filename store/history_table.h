#ifndef ORV_STORE_HISTORY_TABLE_H_
#define ORV_STORE_HISTORY_TABLE_H_

#include <cstdint>
#include <string>
#include <vector>

namespace orv {

// One row of the history table, in column order. Null texts read as empty, null
// integers as 0.
struct HistoryRow {
  int64_t id = 0;
  std::string backupId;
  std::string device;
  std::string command;
  int deviceMinor = 0;
  int deviceState = 0;
  std::string cowFile;
  std::string imageChksum;
  std::string result;
  std::string resultDetail;
  int error = 0;
  std::string datetm;
};

// Minor and state are stored as null when negative, COW file and checksum when empty.
bool insert_history(const std::string& backupId, const std::string& device, const std::string& command,
                    int deviceMinor, int deviceState, const std::string& cowFile, const std::string& imageChksum,
                    const std::string& result, const std::string& resultDetail, int error);
bool delete_history_before(int32_t cutoff);
bool get_last_checksum_row(const std::string& device, HistoryRow* row);
bool get_last_command_row(const std::string& command, HistoryRow* row);
bool list_history(std::vector<HistoryRow>* rows, int limit, const std::string& backupId, const std::string& device,
                  const std::string& command, const std::string& result, int error, const std::string& after);
// The statement text list_history runs for the given filters.
std::string BuildHistoryListSql(int limit, const std::string& backupId, const std::string& device,
                                const std::string& command, const std::string& result, int error,
                                const std::string& after);

}  // namespace orv

#endif  // ORV_STORE_HISTORY_TABLE_H_
