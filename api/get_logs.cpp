#include "api/get_logs.h"

#include <ctime>
#include <mutex>
#include <stdexcept>

#include "daemon/logger.h"

namespace orv {

GetLogs::GetLogs(int severity, int lines, const std::string& backupId, const std::string& after)
    : severity_(severity), lines_(lines), backupId_(backupId), after_(after) {}

int64_t GetLogs::ParseTimestamp(const std::string& datetime) {
  struct tm fields = {};
  const char* end = strptime(datetime.c_str(), "%Y-%m-%d %H:%M:%S", &fields);
  if (end == nullptr || *end != '\0') return 0;
  // The database writes local time; let mktime decide whether summer time applied.
  fields.tm_isdst = -1;
  // mktime reloads the time zone on each call, under a C library lock that the thread
  // sanitizer can't see; concurrent log requests take turns here instead.
  static std::mutex timeZoneLock;
  std::lock_guard<std::mutex> lock(timeZoneLock);
  time_t seconds = mktime(&fields);
  return seconds == static_cast<time_t>(-1) ? 0 : static_cast<int64_t>(seconds);
}

void GetLogs::load() {
  std::vector<LogRow> rows;
  if (!ReadLogs(severity_, lines_, backupId_, after_, &rows)) throw std::runtime_error("Could not retrieve logs.");
  entries_.clear();
  entries_.reserve(rows.size());
  for (const LogRow& row : rows) {
    Entry entry;
    entry.severity = row.level;
    entry.backupId = row.backupId;
    entry.timestamp = ParseTimestamp(row.datetm);
    entry.message = row.message;
    entry.raw = row.datetm;
    entries_.push_back(std::move(entry));
  }
}

JsonValue GetLogs::render() const {
  JsonValue log = JsonValue::Array();
  for (const Entry& entry : entries_) {
    JsonValue item = JsonValue::Object();
    item.add("severity", JsonValue::Number(entry.severity));
    item.add("backupid", JsonValue::String(entry.backupId));
    item.add("timestamp", JsonValue::Number(entry.timestamp));
    item.add("message", JsonValue::String(entry.message));
    item.add("raw", JsonValue::String(entry.raw));
    log.push(std::move(item));
  }
  JsonValue document = JsonValue::Object();
  document.add("log", std::move(log));
  return document;
}

}  // namespace orv
