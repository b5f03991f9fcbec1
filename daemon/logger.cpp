#include "daemon/logger.h"

#include <pthread.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "store/configs.h"

namespace orv {

bool LogSettings::display = false;
bool LogSettings::syslog = false;
int LogSettings::displayThreshold = 0;

namespace {

pthread_mutex_t displayLock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t syslogLock = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t databaseLogLock = PTHREAD_MUTEX_INITIALIZER;

// Holds one of the sink locks for a scope; a failed lock leaves `locked` false and the
// caller does nothing.
class SinkLock {
 public:
  explicit SinkLock(pthread_mutex_t* mutex) : mutex_(mutex), locked_(pthread_mutex_lock(mutex) == 0) {}
  ~SinkLock() {
    if (locked_) pthread_mutex_unlock(mutex_);
  }
  SinkLock(const SinkLock&) = delete;
  SinkLock& operator=(const SinkLock&) = delete;
  bool locked() const { return locked_; }

 private:
  pthread_mutex_t* mutex_;
  bool locked_;
};

int SyslogPriority(int level) {
  switch (level) {
    case 0:
    case kDebug:
      return LOG_DEBUG;
    case kInfo:
      return LOG_INFO;
    case kWarning:
      return LOG_WARNING;
    case kError:
      return LOG_ERR;
    case kCritical:
      return LOG_CRIT;
    default:
      return -1;
  }
}

void DisplayText(int level, const char* text) {
  switch (level) {
    case kDebug:
      printf("[DEBUG] %s\n", text);
      break;
    case kInfo:
      printf("[INFO] %s\n", text);
      break;
    case kWarning:
      printf("[WARNING] %s\n", text);
      break;
    case kError:
      printf("[ERROR] %s\n", text);
      break;
    case kCritical:
      printf("[CRITICAL] %s\n", text);
      break;
    default:
      puts(text);
      break;
  }
  // Whoever watches the display (an admin, a supervisor, a test) sees each line as it
  // happens rather than when a buffer fills.
  fflush(stdout);
}

}  // namespace

void LogDisplay(int level, const char* format, ...) {
  if (!LogSettings::display) return;
  SinkLock lock(&displayLock);
  if (!lock.locked()) return;
  char text[4096] = {0};
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  if (text[0] == '\0' || LogSettings::displayThreshold > level) return;
  try {
    DisplayText(level, text);
  } catch (...) {
  }
}

void LogSyslog(int level, const char* format, ...) {
  SinkLock lock(&syslogLock);
  if (!lock.locked()) return;
  int priority = SyslogPriority(level);
  if (priority < 0) return;
  char text[1024] = {0};
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  if (text[0] == '\0') return;
  openlog("orvd", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_USER);
  syslog(priority, "%s", text);
  closelog();
}

void LogEvent(int level, const std::string& backupId, const char* format, ...) {
  char text[1024] = {0};
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  LogEvents(level, backupId, {text});
}

void LogEvents(int level, const std::string& backupId, const std::vector<std::string>& texts) {
  // Each row as LogEvent's buffer would hold it: at most 1023 bytes, none empty.
  std::vector<std::string> rows;
  for (const std::string& text : texts) {
    if (!text.empty()) rows.push_back(text.substr(0, 1023));
  }
  if (rows.empty()) return;
  {
    SinkLock lock(&databaseLogLock);
    if (!lock.locked()) return;
    size_t stored = insert_logs(level, backupId, rows);
    // The rows after a failed one are each tried again, as separate events would be.
    for (size_t i = stored; i < rows.size(); ++i) {
      if (i > stored && insert_log(level, backupId, rows[i])) continue;
      LogSyslog(kError, "Could not write to database log - BackupId: %s Msg: %s", backupId.c_str(), rows[i].c_str());
    }
  }
  for (const std::string& row : rows) {
    if (LogSettings::syslog) LogSyslog(level, "%s", row.c_str());
    LogDisplay(level, "%s", row.c_str());
  }
  PruneLogs();
}

void SetSyslogLevel(int level) {
  switch (level) {
    case 0:
    case kDebug:
      setlogmask(LOG_UPTO(LOG_DEBUG));
      break;
    case kInfo:
      setlogmask(LOG_UPTO(LOG_INFO));
      break;
    case kWarning:
      setlogmask(LOG_UPTO(LOG_WARNING));
      break;
    case kError:
      setlogmask(LOG_UPTO(LOG_ERR));
      break;
    case kCritical:
      setlogmask(LOG_UPTO(LOG_CRIT));
      break;
    default:
      break;
  }
}

int RetentionDays() {
  Configs configs;
  std::string value;
  if (!configs.get("log_days_to_keep", value)) return 30;
  if (!value.empty()) {
    long days = strtol(value.c_str(), nullptr, 10);
    if (days > 0 && days < 366) return static_cast<int>(days);
  }
  configs.set("log_days_to_keep", "30");
  LogEvent(kWarning, "", "Invalid log days to keep configuration - using default.");
  return 30;
}

void PruneLogs() {
  int days = RetentionDays();
  SinkLock lock(&databaseLogLock);
  if (!lock.locked()) return;
  // The product is taken in 32 bits, as the stored cutoff is a 32-bit integer.
  int32_t cutoff = static_cast<int32_t>(time(nullptr)) - static_cast<int32_t>(days * 86400);
  if (!delete_logs_before(cutoff)) LogSyslog(kError, "Could not prune database logs.");
}

bool ReadLogs(int level, int limit, const std::string& backupId, const std::string& after,
              std::vector<LogRow>* rows) {
  SinkLock lock(&databaseLogLock);
  if (!lock.locked()) return false;
  if (!list_logs(rows, level, limit, backupId, after)) {
    LogSyslog(kError, "Could not read from database log.");
    return false;
  }
  return true;
}

}  // namespace orv
