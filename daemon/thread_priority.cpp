#include "daemon/thread_priority.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace orv {

namespace {

// The process's own priority, read once before any thread of the daemon was raised.
std::atomic<int> processNice{0};
std::atomic<bool> processNiceKnown{false};

int CurrentTid() { return static_cast<int>(syscall(SYS_gettid)); }

bool SetNice(int nice) { return setpriority(PRIO_PROCESS, static_cast<id_t>(CurrentTid()), nice) == 0; }

void RememberProcessNice() {
  bool expected = false;
  if (processNiceKnown.load()) return;
  // The main thread's tid is the process id; until a server starts nothing is raised.
  errno = 0;
  int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
  if (errno != 0) return;
  processNice.store(nice);
  processNiceKnown.compare_exchange_strong(expected, true);
}

}  // namespace

int ThreadNice() {
  errno = 0;
  int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(CurrentTid()));
  return errno == 0 ? nice : 0;
}

ScopedServerPriority::ScopedServerPriority() {
  RememberProcessNice();
  before_ = ThreadNice();
  // Never above the process's priority plus the boost, whatever thread restarts the server.
  int wanted = processNice.load() - kBoost;
  if (wanted < -20) wanted = -20;
  if (wanted < before_) raised_ = SetNice(wanted);
}

ScopedServerPriority::~ScopedServerPriority() {
  if (raised_) SetNice(before_);
}

void RestoreProcessPriority() {
  if (!processNiceKnown.load()) return;
  int nice = processNice.load();
  if (ThreadNice() != nice) SetNice(nice);
}

}  // namespace orv
