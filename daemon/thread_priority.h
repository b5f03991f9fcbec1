#ifndef ORV_DAEMON_THREAD_PRIORITY_H_
#define ORV_DAEMON_THREAD_PRIORITY_H_

namespace orv {

// Per-thread scheduling priority (nice values: Linux keeps one per thread, and a new
// thread starts with its creator's).
//
// The server's threads answer the appliance ahead of the copies: a status request costs
// a few milliseconds of CPU, but while a copy and the target keep both cores busy it used
// to wait in the run queue for tens of milliseconds at a time. So the server is started
// from a thread whose priority is raised for that moment (ScopedServerPriority); its
// listener and every connection thread the listener starts inherit it. Work that a
// request starts on threads of its own (a backup, its scripts) goes back to the
// process's priority first (RestoreProcessPriority), so that copies and scripts never
// run above what the admin gave the daemon.
class ScopedServerPriority {
 public:
  // How much nearer the front the server's threads run than the rest of the daemon.
  static constexpr int kBoost = 5;

  ScopedServerPriority();
  virtual ~ScopedServerPriority();
  ScopedServerPriority(const ScopedServerPriority&) = delete;
  ScopedServerPriority& operator=(const ScopedServerPriority&) = delete;

 private:
  int before_ = 0;
  bool raised_ = false;
};

// Sets the calling thread to the priority the daemon was started with. Without the
// privilege to raise priorities nothing was raised, and nothing changes.
void RestoreProcessPriority();

// The nice value of the calling thread.
int ThreadNice();

}  // namespace orv

#endif  // ORV_DAEMON_THREAD_PRIORITY_H_
