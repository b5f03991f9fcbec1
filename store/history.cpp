#include "store/history.h"

#include <ctime>

#include "daemon/logger.h"

namespace orv {

void History::write(const std::string& backupId, const std::string& device, const std::string& command,
                    int deviceMinor, int deviceState, const std::string& cowFile, const std::string& imageChksum,
                    const std::string& result, const std::string& resultDetail, int error) {
  if (!insert_history(backupId, device, command, deviceMinor, deviceState, cowFile, imageChksum, result,
                      resultDetail, error)) {
    LogEvent(kError, "", "Could not write to database history - BackupId: %s", backupId.c_str());
  }
  prune();
}

bool History::get_history(std::vector<HistoryRow>* rows, int limit, const std::string& backupId,
                          const std::string& device, const std::string& command, const std::string& result,
                          int error, const std::string& after) {
  if (!list_history(rows, limit, backupId, device, command, result, error, after)) {
    LogEvent(kError, "", "Could not get history.");
    return false;
  }
  return true;
}

std::unique_ptr<HistoryRow> History::last_image_checksum(const std::string& device) {
  auto row = std::make_unique<HistoryRow>();
  if (!get_last_checksum_row(device, row.get())) {
    LogEvent(kError, "", "Could not get device last image checksum - Device UUID: %s", device.c_str());
    return nullptr;
  }
  return row;
}

std::unique_ptr<HistoryRow> History::last_command(const std::string& command) {
  auto row = std::make_unique<HistoryRow>();
  if (!get_last_command_row(command, row.get())) {
    LogEvent(kError, "", "Could not get command history - Command: %s", command.c_str());
    return nullptr;
  }
  return row;
}

void History::prune() {
  int days = RetentionDays();
  int32_t cutoff = static_cast<int32_t>(time(nullptr)) - static_cast<int32_t>(days * 86400);
  if (!delete_history_before(cutoff)) LogSyslog(kError, "Could not prune database history.");
}

}  // namespace orv
