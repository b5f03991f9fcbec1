#ifndef ORV_BACKUP_BACKUP_H_
#define ORV_BACKUP_BACKUP_H_

#include <pthread.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "api/all_backup_status.h"
#include "api/backup_start.h"
#include "backup/driver_info.h"
#include "backup/mutex.h"

namespace orv {

class BackupVolume;

// One backup job requested by the appliance. Its run, on a thread of its own,
// quiesces the volumes, snapshots them all, unquiesces them, copies volume after
// volume and records the outcome; whatever happens, no volume is left in snapshot mode.
class Backup {
 public:
  Backup(bool forceCopyFull, bool forceDiffMerge);
  virtual ~Backup();
  Backup(const Backup&) = delete;
  Backup& operator=(const Backup&) = delete;

  const std::string& id() const { return id_; }
  void addVolume(const VolumeRequest& request);
  size_t volumeCount() const { return volumes_.size(); }

  // Starts the run thread.
  bool start();
  // Sets the cancel flag of the job and of each volume; false when the job is not
  // active or its mutex is held.
  bool cancel();
  bool isCancelled() const { return cancelled_.load(); }
  std::string statusText() { return status_.status(); }
  AllBackupStatus& status() { return status_; }

  // The run thread's body.
  void run();

  // Installed for the run thread: a fault, or a broken pipe, ends the job (cancelled,
  // failed, recorded) and its thread, not the daemon.
  static void SignalHandler(int signo);

 private:
  void runSteps();
  bool quiesceSnapshotUnquiesce();
  void finish(bool failed);
  void snapcleaner();
  void recordRun(const std::string& result, const std::string& message, int error = 0);

  std::string id_;
  bool forceCopyFull_;
  bool forceDiffMerge_;
  std::vector<std::unique_ptr<BackupVolume>> volumes_;
  DriverInfo driverInfo_;
  AllBackupStatus status_;
  Mutex mutex_;
  std::atomic<bool> cancelled_{false};
  pthread_t thread_{};
  time_t startTime_ = 0;
  bool priorBackup_ = false;
};

}  // namespace orv

#endif  // ORV_BACKUP_BACKUP_H_
