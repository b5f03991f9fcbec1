#ifndef ORV_BACKUP_BACKUP_VOLUME_H_
#define ORV_BACKUP_BACKUP_VOLUME_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "api/backup_start.h"
#include "backup/backup_strategy.h"
#include "backup/mutex.h"
#include "backup/pre_post_script.h"
#include "transfer/copy_job.h"
#include "transfer/image_checksum.h"

namespace orv {

class AllBackupStatus;
class DriverInfo;

// One volume of a backup job: its device, its snapshot through the driver, the copy
// of the snapshot into its image on the target, and the driver left tracking it
// incrementally afterwards.
class BackupVolume {
 public:
  static constexpr const char* kCowName = ".zelko";
  static constexpr const char* kCowNameAlternate = ".zelko1";

  BackupVolume(const VolumeRequest& request, const std::string& backupId, AllBackupStatus& status,
               DriverInfo& driverInfo);
  virtual ~BackupVolume() = default;
  BackupVolume(const BackupVolume&) = delete;
  BackupVolume& operator=(const BackupVolume&) = delete;

  // Finds the mounted block device of the volume's UUID and learns its geometry; false
  // (with the reason in the status) when the volume cannot be backed up.
  bool resolveDevice();

  // Quiesce and unquiesce scripts of this volume.
  bool runPreScripts();
  bool runPostScripts();

  // Makes the volume's snapshot from whatever the driver holds for it.
  bool SnapshotBackup(DriverInfo* driverInfo);
  // Picks the copy path and copies; leaves the volume tracked incrementally on success.
  bool CopyVolume(bool forceCopyFull, bool forceDiffMerge, bool priorBackup);

  bool MoveSnapshotToIncremental();
  bool DestroyDriverDevice();
  // Removes a COW file the job made but no longer needs.
  void DeleteNewCowFile();

  // Sets the cancel flag under the volume's mutex; false when the mutex is held.
  bool cancel(const struct timespec& deadline);
  bool isCancelled() const { return cancelled_.load(); }

  const std::string& uuid() const { return request_.guid; }
  const std::string& blockDevice() const { return blockDevice_; }
  const std::string& mountPoint() const { return mountPoint_; }
  int minor() const { return minor_; }
  int state() const { return state_; }
  int priorMinor() const { return priorMinor_; }
  int priorState() const { return priorState_; }
  bool incrementalOkFlag() const { return incrementalOk_; }
  std::string snapshotPath() const;
  std::string cowPath(const std::string& name) const;

 private:
  // Driver operations.
  bool CreateSnapshotAnd();
  bool CreateSnapshot();
  bool CreateSnapFromIncremental();
  bool TransitionIncrementalToSnapshot();
  bool DestroyCreateSnapshot();
  bool DestroyAll();
  bool ToggleCowName();
  bool ReloadDriverInfo();
  // Logs a failed driver call, with the driver's error for the device when it can be
  // read; returns that error (0 when unknown).
  int ReportDriverFailure(const char* withDriverError, const char* withoutDriverError, int result, int error);
  void RecordDriverCall(const std::string& command, const std::string& result, int error,
                        const std::string& cowFile);

  // Copy paths.
  bool PostCreateSnapshot_AndCopyFull(bool diffMerge);
  bool PostDestroyCreateSnapshotAndCopyFull(bool diffMerge);
  bool PostCreateSnapFromIncremental_AndCopyFull(bool diffMerge);
  bool PostCreateSnapFromIncremental_AndCopyIncremental(bool diffMerge);
  // Full or diff-merge copy, recording its history and the image checksum.
  bool CopyFullOrMerge(bool diffMerge);
  // What every copy of this volume is told: whose it is, where it reads and writes.
  CopyJob MakeCopyJob();
  bool CopyIncremental();
  bool PriorImageValid();
  bool RecordImageChecksum(const std::string& command);
  VolumeImage Image() const;
  std::vector<PrePostScript*> Scripts();
  static int DriverErrorOf(void* context);
  bool ConfigYes(const char* key) const;

  VolumeRequest request_;
  std::string backupId_;
  AllBackupStatus& status_;
  DriverInfo& driverInfo_;

  std::string blockDevice_;
  std::string mountPoint_;
  std::string fsType_;
  uint64_t volumeSize_ = 0;
  uint64_t fsBlockSize_ = 4096;
  uint64_t sectorSize_ = 512;
  uint64_t sectorCount_ = 0;

  int minor_ = -1;
  int state_ = -1;
  int priorMinor_ = -1;
  int priorState_ = -1;
  std::string newCowName_;
  std::string existingCowName_;
  bool incrementalOk_ = false;
  bool changeMapBroken_ = false;

  std::vector<std::unique_ptr<PrePostScript>> scripts_;
  Mutex mutex_;
  std::atomic<bool> cancelled_{false};
};

}  // namespace orv

#endif  // ORV_BACKUP_BACKUP_VOLUME_H_
