#ifndef ORV_BACKUP_PRE_POST_SCRIPT_H_
#define ORV_BACKUP_PRE_POST_SCRIPT_H_

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "backup/mutex.h"

namespace orv {

// One administrator's quiesce script in the scripts directory. Each backup runs it
// once with the argument PRE before the snapshots and once with POST after them, each
// run on a thread of its own with the script as a child process; the script says it
// has done its part by printing "PRE-DONE" (or "POST-DONE") on a line of its own.
//
// A run ends at the marker, at the end of the script's output, when the shell reports
// the script missing, or at the script's timeout. A child still alive then is given
// one more second and killed with its whole process group (the child is "sh -c", so
// the script and anything it started in the foreground go with it). Children are
// reaped here whether or not SIGCHLD is ignored, so no zombie is left either way.
class PrePostScript {
 public:
  enum class Phase { kPre, kPost };
  // How the last run ended. Only kDone counts as success.
  enum class Outcome {
    kIdle,         // never run
    kRunning,      // thread started, no end yet
    kDone,         // marker printed
    kTimedOut,     // no marker within the timeout
    kNotFound,     // the shell reported the script missing
    kFailed,       // output ended (script exited or closed it) or could not be read
    kStartFailed,  // no thread, pipe, child or shell
  };

  // Used when the request gives no timeout or one <= 0: long enough for a database
  // to flush and hold, short enough that a hung script cannot stall the backup.
  static constexpr int64_t kDefaultTimeoutSeconds = 300;
  // Output kept per run and per line; a flooding script cannot exhaust memory.
  static constexpr size_t kMaxOutputBytes = 65536;
  static constexpr size_t kMaxLineBytes = 4096;
  // Bytes of a script searched for its "## DISPLAYNAME: " line.
  static constexpr size_t kDisplayNameScanBytes = 65536;

  explicit PrePostScript(const std::string& fileName, int64_t timeoutSeconds = 0);
  // Waits for a run still in progress (at most a second or so past its end).
  virtual ~PrePostScript();
  PrePostScript(const PrePostScript&) = delete;
  PrePostScript& operator=(const PrePostScript&) = delete;

  // The regular files of the scripts directory, sorted by name; false when the
  // directory cannot be opened.
  static bool loadScripts(std::list<PrePostScript>& scripts);

  // Runs `phase` of every script at once and waits, polling once a second, until each
  // is done or has ended or run past its timeout. True only when every script printed
  // its marker (an empty list succeeds): a script that is missing, fails, ends without
  // the marker or times out leaves the applications in an unknown state, so the
  // quiesce or unquiesce step fails. Pre and post runs are serialised.
  static bool runPhase(const std::vector<PrePostScript*>& scripts, Phase phase, const std::string& backupId);

  // The script of a run thread, or null.
  static PrePostScript* forThread(pthread_t thread);

  // Start a run on a new thread (after the previous run's thread has ended).
  bool startPre(const std::string& backupId = std::string());
  bool startPost(const std::string& backupId = std::string());
  // Waits for the current run's thread to end.
  void join();

  bool isDone() const { return done_.load(); }
  Outcome outcome() const { return outcome_.load(); }
  bool isRunning() const { return outcome_.load() == Outcome::kRunning; }
  const std::string& fileName() const { return fileName_; }
  const std::string& displayName() const { return displayName_; }
  int64_t timeout() const { return timeout_; }
  // time() at the start of the current run, 0 when not running.
  int64_t startTime() const { return startTime_.load(); }
  // The child of the last run (its process group has the same id), 0 before any.
  pid_t childPid() const { return childPid_.load(); }
  // The lines the last run printed before its marker.
  std::string output();
  std::string path() const;

 private:
  static void* ThreadMain(void* argument);
  bool start(Phase phase, const std::string& backupId);
  void run();
  int startChild(const std::string& command, int& readFd);
  int readLine(int fd, std::string& line, int64_t deadlineMs);
  void stopChild(pid_t pid);
  void appendOutput(const std::string& line);
  static std::string ReadDisplayName(const std::string& path, const std::string& fallback);

  const std::string fileName_;
  const std::string displayName_;
  const int64_t timeout_;
  Phase phase_ = Phase::kPre;
  std::string backupId_;
  pthread_t thread_{};
  bool threadJoinable_ = false;
  std::atomic<int64_t> startTime_{0};
  std::atomic<pid_t> childPid_{0};
  std::atomic<bool> done_{false};
  std::atomic<Outcome> outcome_{Outcome::kIdle};
  Mutex outputMutex_;
  std::string output_;
};

}  // namespace orv

#endif  // ORV_BACKUP_PRE_POST_SCRIPT_H_
