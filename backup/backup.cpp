#include "backup/backup.h"

#include <execinfo.h>
#include <signal.h>
#include <uuid/uuid.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "backup/backup_manager.h"
#include "backup/backup_volume.h"
#include "backup/incremental_history.h"
#include "backup/reload_script.h"
#include "daemon/entry.h"
#include "daemon/logger.h"
#include "store/history.h"

namespace orv {

namespace {

// Serialises the double-run check with the thread's registration.
pthread_mutex_t runMutex = PTHREAD_MUTEX_INITIALIZER;

std::string NewBackupId() {
  uuid_t uuid;
  uuid_generate(uuid);
  char text[37];
  uuid_unparse_lower(uuid, text);
  return text;
}

// Thirty seconds after the epoch: long past, so a cancel never waits for a job or a
// volume that holds its mutex; it fails at once and the caller may ask again.
struct timespec CancelDeadline() {
  struct timespec deadline = {30, 0};
  return deadline;
}

void InstallRunSignals() {
  struct sigaction action = {};
  action.sa_handler = Backup::SignalHandler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  // Under the sanitizers their own handlers report faults; taking them over would hide
  // the report that the build exists for.
  sigaction(SIGFPE, &action, nullptr);
  sigaction(SIGSEGV, &action, nullptr);
#endif
  sigaction(SIGSTKFLT, &action, nullptr);
  sigaction(SIGPIPE, &action, nullptr);
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  // Script children are reaped by the system.
  if (sigaction(SIGCHLD, &ignore, nullptr) != 0) {
    LogEvent(kError, "", "couldn't set sigchld handler, errno: %d\n", errno);
  }
}

}  // namespace

Backup::Backup(bool forceCopyFull, bool forceDiffMerge)
    : id_(NewBackupId()), forceCopyFull_(forceCopyFull), forceDiffMerge_(forceDiffMerge), status_(id_) {}

Backup::~Backup() = default;

void Backup::addVolume(const VolumeRequest& request) {
  volumes_.push_back(std::make_unique<BackupVolume>(request, id_, status_, driverInfo_));
  status_.modifyVolume(request.guid);
}

bool Backup::start() {
  int error = pthread_create(&thread_, nullptr, &BackupManager::RunThread, this);
  if (error != 0) {
    LogEvent(kError, id_, "Could not create backup thread: Error %d", error);
    return false;
  }
  return true;
}

bool Backup::cancel() {
  if (statusText() != "active") return false;
  LogEvent(kInfo, id_, "Canceling backup.");
  struct timespec deadline = CancelDeadline();
  MutexLock lock(mutex_, deadline);
  if (!lock.locked()) return false;
  cancelled_ = true;
  for (auto& volume : volumes_) volume->cancel(CancelDeadline());
  return true;
}

void Backup::recordRun(const std::string& result, const std::string& message, int error) {
  History().write(id_, "", "backup_run", -1, -1, "", "", result, message, error);
}

void Backup::run() {
  pthread_t self = pthread_self();
  pthread_detach(self);
  InstallRunSignals();

  if (pthread_mutex_lock(&runMutex) != 0) {
    status_.setAllFailed();
    return;
  }
  size_t count = 0;
  if (!BackupManager::threadCount(count)) {
    LogEvent(kError, id_, "double run check can't get thread count. Exiting backup thread.");
    pthread_mutex_unlock(&runMutex);
    status_.setAllFailed();
    return;
  }
  if (count > 0) {
    LogEvent(kError, id_, "double run check found existing backup count > 0: %d. Exiting backup thread.",
             static_cast<int>(count));
    pthread_mutex_unlock(&runMutex);
    status_.setAllFailed();
    return;
  }
  if (!BackupManager::addThread(self, this)) {
    pthread_mutex_unlock(&runMutex);
    status_.setAllFailed();
    return;
  }
  pthread_mutex_unlock(&runMutex);
  runSteps();
}

void Backup::runSteps() {
  startTime_ = time(nullptr);
  if (isCancelled()) {
    finish(false);
    BackupManager::removeThread(pthread_self());
    return;
  }
  driverInfo_.reset();
  if (!driverInfo_.load(&status_)) {
    recordRun("failure", "Loading driver info failed.");
    status_.setAllFailed();
    BackupManager::removeThread(pthread_self());
    return;
  }
  if (const DriverVersion* version = driverInfo_.version()) {
    LogEvent(kInfo, id_, "Kernel driver version: %s", version->ToString().c_str());
  }
  LogEvent(kInfo, id_, "orvd version: %s", kAgentVersion);
  priorBackup_ = History().last_command("backup_run") != nullptr;
  status_.setStatus("active");

  bool failed = !quiesceSnapshotUnquiesce();
  if (!failed) {
    for (auto& volume : volumes_) {
      if (isCancelled()) break;
      LogEvent(kInfo, id_, "Starting backup of volume %s", volume->uuid().c_str());
      status_.setVolumeStatus(volume->uuid(), "active");
      if (volume->CopyVolume(forceCopyFull_, forceDiffMerge_, priorBackup_)) {
        status_.setVolumeStatus(volume->uuid(), "finished");
        LogEvent(kInfo, id_, "Backup of volume %s successful.", volume->uuid().c_str());
      } else {
        status_.setVolumeStatus(volume->uuid(), "failed");
        LogEvent(kError, id_, "Backup of volume %s failed.", volume->uuid().c_str());
        // A copy stopped by a cancel ends the job as cancelled, not as a failure.
        failed = !isCancelled();
        break;
      }
    }
  }
  snapcleaner();
  finish(failed);
  BackupManager::removeThread(pthread_self());
  LogEvent(kInfo, id_, "Backup completed in %d seconds.", static_cast<int>(time(nullptr) - startTime_));
}

bool Backup::quiesceSnapshotUnquiesce() {
  if (volumes_.empty()) {
    LogEvent(kError, id_, "There are no volumes to back up in the volume list original request.");
    status_.setError("There are no volumes to back up in the volume list original request.", 0);
    return false;
  }
  for (auto& volume : volumes_) {
    if (!volume) {
      LogEvent(kError, id_, "Can't find backup volume.");
      return false;
    }
    if (!volume->resolveDevice()) return false;
  }
  for (auto& volume : volumes_) {
    if (!volume->runPreScripts()) {
      LogEvent(kError, id_, "Quiesce scripts failed. Ending backup.");
      return false;
    }
  }
  for (auto& volume : volumes_) {
    LogEvent(kInfo, id_, "Making snapshot for volume %s", volume->uuid().c_str());
    if (!volume->SnapshotBackup(&driverInfo_)) {
      LogEvent(kError, id_, "SnapshotBackup of volume %s failed.", volume->uuid().c_str());
      LogEvent(kError, id_, "Can't snapshot all backup volumes. Ending backup.");
      // Applications are released before the clean-up: they must not wait on it.
      for (auto& other : volumes_) other->runPostScripts();
      return false;
    }
  }
  for (auto& volume : volumes_) {
    if (!volume->runPostScripts()) {
      LogEvent(kError, id_, "Unquiesce scripts failed. Ending backup.");
      return false;
    }
  }
  return true;
}

void Backup::finish(bool failed) {
  if (failed) {
    status_.setAllFailed();
    recordRun("failure", "Volume backup failed.");
  } else if (!isCancelled()) {
    if (statusText() == "active") {
      status_.setStatus("finished");
      recordRun("success", "Backup successful.");
      for (auto& volume : volumes_) {
        IncrementalHistory history(volume->mountPoint(), volume->uuid(), id_);
        LogEvent(kInfo, id_, "removing incremental history on backup success.");
        int error = history.remove_incremental_history();
        if (error != 0) LogEvent(kError, id_, "Could not remove incremental history: error %d", error);
        LogEvent(kInfo, id_, "setting all volumes to incremental ok on backup success.");
        history.setIncrementalOk(true);
      }
    }
  } else {
    status_.setAllFailed();
    recordRun("failure", "Backup cancelled.");
  }
  DriverInfo driver;
  if (driver.load(nullptr)) {
    ReloadScript::RemoveStray(
        [&driver](int minor) {
          for (const DriverDevice& device : driver.devices()) {
            if (device.minor == minor) return device.state == 0 || device.state == 2 || device.state == 4;
          }
          return false;
        },
        id_);
  }
}

void Backup::snapcleaner() {
  driverInfo_.reset();
  if (!driverInfo_.load(nullptr)) return;
  for (auto& volume : volumes_) {
    if (!volume) {
      LogEvent(kError, id_, "snapcleaner sanity failure, backup volume is null, skipping.");
      continue;
    }
    if (volume->minor() < 0) continue;
    bool inSnapshot = false;
    for (const DriverDevice& device : driverInfo_.devices()) {
      if (device.minor == volume->minor() && device.state == 3) inSnapshot = true;
    }
    if (!inSnapshot) continue;
    IncrementalHistory history(volume->mountPoint(), volume->uuid(), id_);
    if (volume->priorState() == 2 && history.incrementalOk()) {
      LogEvent(kInfo, id_, "snapcleaner found a volume in snapshot mode that came from incremental mode. Moving to incremental, minor: %d, device: %s",
               volume->minor(), volume->blockDevice().c_str());
      volume->MoveSnapshotToIncremental();
    } else {
      LogEvent(kInfo, id_, "snapcleaner found a volume in snapshot mode. No history of incremental, destroying device, minor: %d, device: %s",
               volume->minor(), volume->blockDevice().c_str());
      if (volume->DestroyDriverDevice()) volume->DeleteNewCowFile();
    }
  }
}

void Backup::SignalHandler(int signo) {
  unsigned long tid = static_cast<unsigned long>(pthread_self());
  if (signo == SIGFPE || signo == SIGSEGV || signo == SIGSTKFLT) {
    void* frames[100];
    int count = backtrace(frames, 100);
    char** symbols = backtrace_symbols(frames, count);
    for (int i = 0; symbols != nullptr && i < count; ++i) LogEvent(kError, "", "TID: %lu - %s\n", tid, symbols[i]);
    free(symbols);
  }
  if (signo == SIGPIPE) {
    LogEvent(kError, "", "Broken pipe during backup. TID: %lu", tid);
  } else {
    LogEvent(kError, "", "Failure on signal: %d. TID: %lu", signo, tid);
  }
  Backup* backup = BackupManager::backupForThread(pthread_self());
  if (backup == nullptr) pthread_exit(nullptr);
  if (!backup->cancel()) LogEvent(kError, backup->id(), "Could not cancel backup.");
  if (backup->status_.setAllFailed()) BackupManager::removeThread(pthread_self());
  backup->recordRun("failure", "Backup failed on signal.", signo);
  pthread_exit(nullptr);
}

}  // namespace orv
