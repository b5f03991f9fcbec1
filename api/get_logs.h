#ifndef ORV_API_GET_LOGS_H_
#define ORV_API_GET_LOGS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "api/json_value.h"

namespace orv {

// The answer to "GET /event": the agent's log records of at least a severity, at most
// a number of lines (0: all), optionally of one backup and not older than a date-time
// ("YYYY-MM-DD HH:MM:SS", local time), as the logs table filters them.
class GetLogs {
 public:
  struct Entry {
    int severity = 0;
    std::string backupId;
    int64_t timestamp = 0;  // seconds since the epoch
    std::string message;
    std::string raw;  // the record's date-time as stored, local time
  };

  GetLogs(int severity, int lines, const std::string& backupId, const std::string& after);
  virtual ~GetLogs() = default;

  // Reads the records; throws "Could not retrieve logs." when the read fails.
  void load();
  // {"log": [{"severity", "backupid", "timestamp", "message", "raw"}, ...]}
  JsonValue render() const;

  const std::vector<Entry>& entries() const { return entries_; }

  // Seconds since the epoch of a stored local date-time; 0 when it can't be read.
  static int64_t ParseTimestamp(const std::string& datetime);

 private:
  int severity_;
  int lines_;
  std::string backupId_;
  std::string after_;
  std::vector<Entry> entries_;
};

}  // namespace orv

#endif  // ORV_API_GET_LOGS_H_
