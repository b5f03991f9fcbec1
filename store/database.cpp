#include "store/database.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "daemon/logger.h"
#include "daemon/paths.h"

namespace orv {

namespace {

pthread_mutex_t databaseMutex = PTHREAD_MUTEX_INITIALIZER;
sqlite3* sharedHandle = nullptr;

}  // namespace

void StoreLog(int level, const char* format, ...) {
  char text[1024] = {0};
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  LogSyslog(level, "%s", text);
  LogDisplay(level, "%s", text);
}

std::string Database::path() { return Paths::DatabasePath(); }

sqlite3* Database::handle() { return sharedHandle; }

bool Database::open() {
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 60;
  if (sqlite3_threadsafe() == 0) StoreLog(kWarning, "Sqlite3 - Non-thread safe compiled library.");
  if (pthread_mutex_timedlock(&databaseMutex, &deadline) != 0) {
    StoreLog(kError, "Could not open sqlite database. Timed out");
    return false;
  }
  if (sharedHandle != nullptr) {
    StoreLog(kError, "Could not open sqlite database. Already open.");
    pthread_mutex_unlock(&databaseMutex);
    return false;
  }
  int rc = sqlite3_open_v2(path().c_str(), &sharedHandle,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    StoreLog(kError, "Could not open sqlite database. %s", sqlite3_errmsg(sharedHandle));
    // A failed open still allocates a handle that carries the error message.
    sqlite3_close(sharedHandle);
    sharedHandle = nullptr;
    pthread_mutex_unlock(&databaseMutex);
    return false;
  }
  sqlite3_busy_timeout(sharedHandle, kBusyTimeoutMs);
  return true;
}

bool Database::close() {
  if (sharedHandle == nullptr) {
    StoreLog(kError, "Could not close sqlite database. Not open.");
    pthread_mutex_unlock(&databaseMutex);
    return false;
  }
  int attempt = 1;
  while (sqlite3_close(sharedHandle) != SQLITE_OK) {
    StoreLog(kError, "Could not close sqlite database. Attempt %d", attempt);
    if (attempt == 101) {
      // The handle stays set: every later open() fails with "Already open.".
      StoreLog(kError, "Exceeded 100 tries, giving up.");
      pthread_mutex_unlock(&databaseMutex);
      return false;
    }
    ++attempt;
    sleep(1);
  }
  sharedHandle = nullptr;
  pthread_mutex_unlock(&databaseMutex);
  return true;
}

}  // namespace orv
