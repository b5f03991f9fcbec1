#include "backup/pre_post_script.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>

#include "daemon/logger.h"
#include "daemon/paths.h"

namespace orv {

namespace {

constexpr const char* kDisplayNamePrefix = "## DISPLAYNAME: ";
constexpr int kSelectWaitSeconds = 30;
// After SIGKILL a child normally ends at once; one stuck in the kernel is left to the
// system rather than stalling the backup.
constexpr int kReapWaitMs = 10000;

Mutex& ThreadMapMutex() {
  static Mutex mutex;
  return mutex;
}

std::map<pthread_t, PrePostScript*>& ThreadMap() {
  static std::map<pthread_t, PrePostScript*> map;
  return map;
}

// Serialises the pre-script and post-script runs.
Mutex& RunMutex() {
  static Mutex mutex;
  return mutex;
}

int64_t MonotonicMs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The path as one shell word: the script's name comes from the appliance's request
// and is never interpreted by the shell.
std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  quoted += "'";
  return quoted;
}

// A script is named by a plain file name inside the scripts directory.
bool IsPlainFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

class FdCloser {
 public:
  explicit FdCloser(int fd) : fd_(fd) {}
  ~FdCloser() {
    if (fd_ >= 0) close(fd_);
  }
  FdCloser(const FdCloser&) = delete;
  FdCloser& operator=(const FdCloser&) = delete;

 private:
  int fd_;
};

}  // namespace

PrePostScript::PrePostScript(const std::string& fileName, int64_t timeoutSeconds)
    : fileName_(fileName),
      displayName_(ReadDisplayName(Paths::ScriptsDir() + "/" + fileName, fileName)),
      timeout_(timeoutSeconds > 0 ? timeoutSeconds : kDefaultTimeoutSeconds) {}

PrePostScript::~PrePostScript() { join(); }

std::string PrePostScript::path() const { return Paths::ScriptsDir() + "/" + fileName_; }

std::string PrePostScript::ReadDisplayName(const std::string& path, const std::string& fallback) {
  if (!IsPlainFileName(fallback)) return fallback;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return fallback;
  FdCloser closer(fd);
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) return fallback;
  std::string text;
  char buffer[8192];
  while (text.size() < kDisplayNameScanBytes) {
    ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  const size_t prefixLength = strlen(kDisplayNamePrefix);
  size_t lineStart = 0;
  while (lineStart < text.size()) {
    size_t lineEnd = text.find('\n', lineStart);
    if (lineEnd == std::string::npos) lineEnd = text.size();
    if (text.compare(lineStart, prefixLength, kDisplayNamePrefix) == 0 && lineEnd - lineStart >= prefixLength) {
      std::string name = text.substr(lineStart + prefixLength, lineEnd - lineStart - prefixLength);
      while (!name.empty() && (name.back() == '\r' || name.back() == ' ' || name.back() == '\t')) name.pop_back();
      if (!name.empty()) return name;
    }
    lineStart = lineEnd + 1;
  }
  return fallback;
}

bool PrePostScript::loadScripts(std::list<PrePostScript>& scripts) {
  const std::string dir = Paths::ScriptsDir();
  std::unique_ptr<DIR, int (*)(DIR*)> handle(opendir(dir.c_str()), closedir);
  if (!handle) {
    LogEvent(kError, "", "Could not open pre/post scripts directory.");
    return false;
  }
  std::vector<std::string> names;
  while (struct dirent* entry = readdir(handle.get())) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    struct stat info;
    if (stat((dir + "/" + name).c_str(), &info) != 0) {
      LogEvent(kWarning, "", "Could not stat pre/post script %s.", name.c_str());
      continue;
    }
    if (S_ISREG(info.st_mode)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) scripts.emplace_back(name);
  if (names.empty()) LogEvent(kInfo, "", "No pre/post scripts found.");
  return true;
}

PrePostScript* PrePostScript::forThread(pthread_t thread) {
  MutexLock lock(ThreadMapMutex());
  if (!lock.locked()) return nullptr;
  auto it = ThreadMap().find(thread);
  return it != ThreadMap().end() ? it->second : nullptr;
}

bool PrePostScript::startPre(const std::string& backupId) { return start(Phase::kPre, backupId); }

bool PrePostScript::startPost(const std::string& backupId) { return start(Phase::kPost, backupId); }

void PrePostScript::join() {
  if (!threadJoinable_) return;
  pthread_join(thread_, nullptr);
  threadJoinable_ = false;
}

bool PrePostScript::start(Phase phase, const std::string& backupId) {
  join();
  phase_ = phase;
  backupId_ = backupId;
  done_ = false;
  outcome_ = Outcome::kRunning;
  startTime_ = time(nullptr);
  // The map lock is held across the creation so that a thread that ends at once
  // cannot remove itself before it was added.
  MutexLock lock(ThreadMapMutex());
  int rc = pthread_create(&thread_, nullptr, ThreadMain, this);
  if (rc != 0) {
    if (phase == Phase::kPre) {
      LogEvent(kError, backupId_, "Could not create '%s' script PRE thread: Error %d", fileName_.c_str(), rc);
    } else {
      LogEvent(kError, backupId_, "Could not create '%s' script POST thread: Error %d", fileName_.c_str(), rc);
    }
    startTime_ = 0;
    outcome_ = Outcome::kStartFailed;
    return false;
  }
  threadJoinable_ = true;
  ThreadMap()[thread_] = this;
  return true;
}

void* PrePostScript::ThreadMain(void* argument) {
  pthread_setname_np(pthread_self(), "orvd-script");
  static_cast<PrePostScript*>(argument)->run();
  return nullptr;
}

std::string PrePostScript::output() {
  MutexLock lock(outputMutex_);
  return output_;
}

void PrePostScript::appendOutput(const std::string& line) {
  MutexLock lock(outputMutex_);
  if (output_.size() >= kMaxOutputBytes) return;
  output_.append(line, 0, kMaxOutputBytes - output_.size());
  if (output_.size() < kMaxOutputBytes) output_ += '\n';
}

void PrePostScript::run() {
  const bool pre = phase_ == Phase::kPre;
  const std::string scriptPath = path();
  // "exec": the script itself becomes the child, so that its output ends when it
  // closes it or ends, and the kill reaches it rather than an idle shell around it.
  const std::string command = "exec " + ShellQuote(scriptPath) + (pre ? " PRE" : " POST");
  const std::string marker = pre ? "PRE-DONE" : "POST-DONE";
  {
    MutexLock lock(outputMutex_);
    output_.clear();
  }
  done_ = false;
  startTime_ = time(nullptr);
  const int64_t deadlineMs = MonotonicMs() + timeout_ * 1000;

  Outcome outcome = Outcome::kFailed;
  int readFd = -1;
  int error = startChild(command, readFd);
  if (error != 0) {
    if (pre) {
      LogEvent(kError, backupId_, "Pre/Post Script '%s' open error: %d", fileName_.c_str(), error);
    } else {
      LogEvent(kError, backupId_, "Post Script '%s' open error: %d", fileName_.c_str(), error);
    }
    outcome = Outcome::kStartFailed;
  } else {
    // The shell names the missing script without the quotes and the phase word
    // ("sh: 1: exec: <path>: not found").
    const std::string notFound = scriptPath + ": not found";
    std::string line;
    for (;;) {
      error = readLine(readFd, line, deadlineMs);
      if (error != 0) break;
      if (MonotonicMs() >= deadlineMs) {
        outcome = Outcome::kTimedOut;
        break;
      }
      if (line.find(notFound) != std::string::npos) {
        LogEvent(kError, backupId_, "Pre/Post Script '%s' not found", fileName_.c_str());
        outcome = Outcome::kNotFound;
        break;
      }
      if (line == marker) {
        done_ = true;
        outcome = Outcome::kDone;
        break;
      }
      appendOutput(line);
    }
    if (error != 0) {
      if (error == ETIMEDOUT) outcome = Outcome::kTimedOut;
      LogEvent(kError, backupId_, "runpre failed reading script output, errno: %d", error);
    }
    stopChild(childPid_.load());
    close(readFd);
  }

  startTime_ = 0;
  outcome_ = outcome;
  MutexLock lock(ThreadMapMutex());
  ThreadMap().erase(pthread_self());
}

int PrePostScript::startChild(const std::string& command, int& readFd) {
  if (!IsPlainFileName(fileName_)) {
    LogEvent(kError, backupId_, "Pre/post script name '%s' does not name a file in the scripts directory.",
             fileName_.c_str());
    return EINVAL;
  }
  int output[2];
  if (pipe2(output, O_CLOEXEC) != 0) {
    int error = errno;
    LogEvent(kError, backupId_, "runpre Can't create pipe, error: %d", error);
    return error;
  }
  // select() cannot wait on a descriptor at or above FD_SETSIZE.
  if (output[0] >= FD_SETSIZE) {
    close(output[0]);
    close(output[1]);
    return EMFILE;
  }
  // Carries the exec failure of the child back to this thread, where it can be logged
  // (a forked child of a threaded process must not touch the logger's locks). It is
  // closed by a successful exec, so an empty read means the shell started.
  int status[2];
  if (pipe2(status, O_CLOEXEC) != 0) {
    int error = errno;
    close(output[0]);
    close(output[1]);
    return error;
  }
  const char* commandText = command.c_str();
  pid_t pid = fork();
  if (pid < 0) {
    int error = errno;
    close(output[0]);
    close(output[1]);
    close(status[0]);
    close(status[1]);
    return error;
  }
  if (pid == 0) {
    // Only async-signal-safe calls from here to exec.
    setpgid(0, 0);
    // The script gets a plain environment for signals: the backup thread ignores
    // SIGCHLD and the server SIGPIPE, and the daemon blocks its shutdown signals.
    struct sigaction defaults;
    memset(&defaults, 0, sizeof(defaults));
    defaults.sa_handler = SIG_DFL;
    sigemptyset(&defaults.sa_mask);
    sigaction(SIGCHLD, &defaults, nullptr);
    sigaction(SIGPIPE, &defaults, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    int devNull = open("/dev/null", O_RDONLY);
    if (devNull >= 0 && devNull != STDIN_FILENO) dup2(devNull, STDIN_FILENO);
    dup2(output[1], STDOUT_FILENO);
    dup2(output[1], STDERR_FILENO);
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    execl("/bin/sh", "sh", "-c", commandText, static_cast<char*>(nullptr));
    int error = errno;
    ssize_t ignored = write(status[1], &error, sizeof(error));
    (void)ignored;
    _exit(127);
  }
  // Both sides set the group so that it exists before either can signal it.
  setpgid(pid, pid);
  childPid_ = pid;
  close(output[1]);
  close(status[1]);
  int childError = 0;
  ssize_t n;
  do {
    n = read(status[0], &childError, sizeof(childError));
  } while (n < 0 && errno == EINTR);
  close(status[0]);
  if (n == static_cast<ssize_t>(sizeof(childError))) {
    LogEvent(kError, backupId_, "runpre Error starting child process /bin/sh %s error %d", command.c_str(),
             childError);
    close(output[0]);
    stopChild(pid);
    return childError;
  }
  readFd = output[0];
  return 0;
}

int PrePostScript::readLine(int fd, std::string& line, int64_t deadlineMs) {
  line.clear();
  for (;;) {
    int64_t remainingMs = deadlineMs - MonotonicMs();
    if (remainingMs <= 0) return ETIMEDOUT;
    int64_t waitMs = std::min<int64_t>(remainingMs, kSelectWaitSeconds * 1000);
    struct timeval wait;
    wait.tv_sec = static_cast<time_t>(waitMs / 1000);
    wait.tv_usec = static_cast<suseconds_t>((waitMs % 1000) * 1000);
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    int ready = select(fd + 1, &readable, nullptr, nullptr, &wait);
    if (ready < 0) {
      if (errno == EINTR) continue;
      int error = errno;
      LogEvent(kError, backupId_, "Select waiting for script output yielded error %d", error);
      return error;
    }
    // A quiet wait only means the script is still working; its timeout ends the run.
    if (ready == 0) continue;
    if (ready > 1) {
      LogEvent(kError, backupId_, "runpre Select got too many descriptors back.");
      return EIO;
    }
    if (!FD_ISSET(fd, &readable)) {
      LogEvent(kError, backupId_, "runpre Select came back with a descriptor that wasn't mine.");
      return EIO;
    }
    char byte;
    ssize_t n = read(fd, &byte, 1);
    if (n == 0) {
      LogEvent(kInfo, backupId_, "runpre EOF on pipe");
      return EPIPE;
    }
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      int error = errno;
      LogEvent(kError, backupId_, "Error reading pipe, error %d", error);
      return error;
    }
    if (byte == '\r') continue;
    if (byte == '\n') return 0;
    if (line.size() < kMaxLineBytes) line += byte;
  }
}

void PrePostScript::stopChild(pid_t pid) {
  if (pid <= 0) return;
  int status;
  // Reaps a child that has ended; when SIGCHLD is ignored the system has done so and
  // waitpid fails, and the pid must not be signalled any more.
  pid_t reaped = waitpid(pid, &status, WNOHANG);
  if (reaped != 0 || kill(pid, 0) != 0) return;
  LogEvent(kInfo, backupId_, "Child process %d is still alive, sleeping and killing it.", pid);
  sleep(1);
  if (kill(-pid, SIGKILL) != 0) kill(pid, SIGKILL);
  const int64_t giveUp = MonotonicMs() + kReapWaitMs;
  for (;;) {
    reaped = waitpid(pid, &status, WNOHANG);
    if (reaped != 0) return;
    if (MonotonicMs() >= giveUp) break;
    usleep(10000);
  }
  LogEvent(kWarning, backupId_, "Child process %d did not end after SIGKILL.", pid);
}

bool PrePostScript::runPhase(const std::vector<PrePostScript*>& scripts, Phase phase, const std::string& backupId) {
  const bool pre = phase == Phase::kPre;
  MutexLock lock(RunMutex());
  if (!lock.locked()) {
    LogEvent(kError, backupId, "Could not lock the pre/post script runs: error %d", lock.result());
    return false;
  }
  LogEvent(kInfo, backupId, pre ? "Running pre-scripts..." : "Running post-scripts...");
  for (PrePostScript* script : scripts) script->start(phase, backupId);

  auto pastTimeout = [](const PrePostScript* script) {
    int64_t started = script->startTime();
    return started != 0 && time(nullptr) - started > script->timeout();
  };
  for (;;) {
    bool waiting = false;
    for (const PrePostScript* script : scripts) {
      if (script->isRunning() && !script->isDone() && !pastTimeout(script)) waiting = true;
    }
    if (!waiting) break;
    sleep(1);
  }

  bool allDone = true;
  for (PrePostScript* script : scripts) {
    if (script->isDone()) continue;
    allDone = false;
    if (script->outcome() == Outcome::kTimedOut || (script->isRunning() && pastTimeout(script))) {
      if (pre) {
        LogEvent(kWarning, backupId, "Pre script '%s' timed out.", script->fileName().c_str());
      } else {
        LogEvent(kWarning, backupId, "Post script '%s' timed out.", script->fileName().c_str());
      }
    }
  }
  return allDone;
}

}  // namespace orv
