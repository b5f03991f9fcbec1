#ifndef ORV_DAEMON_LOGGER_H_
#define ORV_DAEMON_LOGGER_H_

#include <string>
#include <vector>

#include "store/log_table.h"

namespace orv {

// Log levels shared by every part of the agent.
enum LogLevel : int {
  kDebug = 1,
  kInfo = 2,
  kWarning = 3,
  kError = 4,
  kCritical = 5,
};

// Process-wide settings, written by the command line and read by the sinks.
struct LogSettings {
  static bool display;         // -d: show events on standard output
  static bool syslog;          // -s: send events to syslog
  static int displayThreshold;  // -l: lowest level shown on the display
};

// Standard output, only with -d, filtered by the display threshold.
void LogDisplay(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Syslog under the ident "orvd", filtered only by the syslog mask. Used for failures
// that must not go back into the database (the store's own errors, start-up errors).
void LogSyslog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
// The usual way to log: the database first, then syslog (with -s) and the display.
void LogEvent(int level, const std::string& backupId, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
// LogEvent for texts already formatted, of one level and backup id: each stored, sent
// and shown as LogEvent does it, in order, but the rows stored on one database
// connection and pruned after them once. Meant for the copies' progress rows, which
// come hundreds a second and would each pay a session of their own and the prune's.
void LogEvents(int level, const std::string& backupId, const std::vector<std::string>& texts);
void SetSyslogLevel(int level);
void PruneLogs();
// Rows for the logs resource; false when the read failed.
bool ReadLogs(int level, int limit, const std::string& backupId, const std::string& after,
              std::vector<LogRow>* rows);

// Days of logs and history to keep: log_days_to_keep when it is 1..365, else 30, and
// an invalid stored value is replaced by "30" with one warning.
int RetentionDays();

}  // namespace orv

#endif  // ORV_DAEMON_LOGGER_H_
