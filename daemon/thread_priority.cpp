#include "daemon/thread_priority.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace orv {

namespace {

int CurrentTid() { return static_cast<int>(syscall(SYS_gettid)); }

bool SetNice(int nice) { return setpriority(PRIO_PROCESS, static_cast<id_t>(CurrentTid()), nice) == 0; }

// The process's own priority: the main thread's (its tid is the process id), read once,
// by the first server start, before any thread of the daemon was raised.
int ProcessNice() {
  static const int nice = [] {
    errno = 0;
    int value = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
    return errno == 0 ? value : 0;
  }();
  return nice;
}

}  // namespace

int ThreadNice() {
  errno = 0;
  int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(CurrentTid()));
  return errno == 0 ? nice : 0;
}

ScopedServerPriority::ScopedServerPriority() {
  int wanted = ProcessNice() - kBoost;
  before_ = ThreadNice();
  // Never above the process's priority plus the boost, whatever thread restarts the server.
  if (wanted < -20) wanted = -20;
  if (wanted < before_) raised_ = SetNice(wanted);
}

ScopedServerPriority::~ScopedServerPriority() {
  if (raised_) SetNice(before_);
}

void RestoreProcessPriority() {
  if (ThreadNice() != ProcessNice()) SetNice(ProcessNice());
}

}  // namespace orv
