#include "backup/backup_volume.h"

#include <mntent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "api/all_backup_status.h"
#include "backup/cow_size.h"
#include "backup/driver_info.h"
#include "backup/incremental_history.h"
#include "backup/pre_post_script.h"
#include "backup/reload_script.h"
#include "daemon/logger.h"
#include "daemon/paths.h"
#include "store/configs.h"
#include "store/history.h"
#include "transfer/block_devices.h"
#include "transfer/copy_diff_merge.h"
#include "transfer/copy_full.h"
#include "transfer/copy_incremental.h"
#include "transfer/copy_job.h"
#include "transfer/iscsi_block_device.h"

extern "C" {
#include "zelkobd.h"
}

namespace orv {

namespace {

constexpr int kMaxMinor = 255;
constexpr int kDriverRetries = 100;

bool IsRetryable(int error) { return error == EBUSY || error == EAGAIN; }

// The mount directory of a device from the mount table, matched by name or device
// number; `fallback` when the table does not have it.
std::string FullMountPoint(const std::string& device, const std::string& fallback) {
  struct stat deviceInfo;
  bool haveDevice = stat(device.c_str(), &deviceInfo) == 0 && S_ISBLK(deviceInfo.st_mode);
  FILE* table = setmntent("/proc/self/mounts", "r");
  if (table == nullptr) return fallback;
  std::string found;
  while (struct mntent* entry = getmntent(table)) {
    struct stat sourceInfo;
    bool same = device == entry->mnt_fsname ||
                (haveDevice && stat(entry->mnt_fsname, &sourceInfo) == 0 && S_ISBLK(sourceInfo.st_mode) &&
                 sourceInfo.st_rdev == deviceInfo.st_rdev);
    if (same) {
      found = entry->mnt_dir;
      break;
    }
  }
  endmntent(table);
  return found.empty() ? fallback : found;
}

}  // namespace

BackupVolume::BackupVolume(const VolumeRequest& request, const std::string& backupId, AllBackupStatus& status,
                           DriverInfo& driverInfo)
    : request_(request), backupId_(backupId), status_(status), driverInfo_(driverInfo) {
  // The scripts live as long as the volume: a POST run follows its PRE run.
  for (const ScriptRequest& script : request_.scripts) {
    scripts_.push_back(std::make_unique<PrePostScript>(script.scriptname, script.timeout));
  }
}

std::string BackupVolume::snapshotPath() const { return Paths::DriverDev() + std::to_string(minor_); }

std::string BackupVolume::cowPath(const std::string& name) const { return mountPoint_ + "/" + name; }

VolumeImage BackupVolume::Image() const {
  VolumeImage image;
  image.target = IscsiTarget{request_.qualifiedName, request_.target, request_.lun, request_.username,
                             request_.password};
  image.imageOffset = request_.offset;
  image.backupId = backupId_;
  image.status = &status_;
  return image;
}

bool BackupVolume::ConfigYes(const char* key) const {
  Configs configs;
  std::string value;
  return configs.get(key, value) && !value.empty() && strchr("yYtT1", value[0]) != nullptr;
}

bool BackupVolume::resolveDevice() {
  std::string error = "Could not get block device for GUID:" + request_.guid;
  if (request_.offset < 0 || request_.offset % 512 != 0) {
    status_.setError(error + " - Specified offset is not sector aligned", 0, {request_.guid});
    LogEvent(kError, backupId_, "Can't find block device for %s", request_.guid.c_str());
    return false;
  }
  std::unique_ptr<BlockDevice> device = BlockDevices().GetBlockDeviceFromUUID(request_.guid, true);
  if (!device) {
    status_.setError(error, 0, {request_.guid});
    LogEvent(kError, backupId_, "Can't find block device for %s", request_.guid.c_str());
    return false;
  }
  if (!device->mounted) {
    status_.setError(error + " - Device not mounted.", 0, {request_.guid});
    LogEvent(kError, backupId_, "Can't find block device for %s", request_.guid.c_str());
    return false;
  }
  if (access(device->path.c_str(), R_OK) != 0) {
    status_.setError(error + " - Device access denied.", 0, {request_.guid});
    LogEvent(kError, backupId_, "Can't find block device for %s", request_.guid.c_str());
    return false;
  }
  blockDevice_ = device->path;
  // The device record keeps a short mount point for display; COW files need the full path.
  mountPoint_ = FullMountPoint(device->path, device->mountPoint);
  fsType_ = device->type;
  volumeSize_ = static_cast<uint64_t>(device->sizeBytes);
  sectorSize_ = device->sectorSize > 0 ? static_cast<uint64_t>(device->sectorSize) : 512;
  sectorCount_ = static_cast<uint64_t>(device->sectorCount);
  struct statvfs fs;
  if (statvfs(mountPoint_.c_str(), &fs) == 0 && fs.f_bsize > 0) fsBlockSize_ = fs.f_bsize;
  status_.modifyVolume(request_.guid);
  return true;
}

std::vector<PrePostScript*> BackupVolume::Scripts() {
  std::vector<PrePostScript*> scripts;
  for (auto& script : scripts_) scripts.push_back(script.get());
  return scripts;
}

bool BackupVolume::runPreScripts() {
  LogEvent(kInfo, backupId_, "Running quiesce scripts for volume %s", request_.guid.c_str());
  if (!PrePostScript::runPhase(Scripts(), PrePostScript::Phase::kPre, backupId_)) {
    LogEvent(kError, backupId_, "PreSnapshot of volume %s failed.", request_.guid.c_str());
    return false;
  }
  return true;
}

bool BackupVolume::runPostScripts() {
  LogEvent(kInfo, backupId_, "Running unquiesce scripts for volume %s", request_.guid.c_str());
  if (!PrePostScript::runPhase(Scripts(), PrePostScript::Phase::kPost, backupId_)) {
    LogEvent(kError, backupId_, "PostSnapshot of volume %s failed.", request_.guid.c_str());
    return false;
  }
  return true;
}

bool BackupVolume::cancel(const struct timespec& deadline) {
  MutexLock lock(mutex_, deadline);
  if (!lock.locked()) {
    LogEvent(kWarning, backupId_, "Timed out during backup cancel. Device: %s", blockDevice_.c_str());
    return false;
  }
  LogEvent(kInfo, backupId_, "Canceling backup of volume %s.", request_.guid.c_str());
  cancelled_ = true;
  return true;
}

void BackupVolume::RecordDriverCall(const std::string& command, const std::string& result, int error,
                                    const std::string& cowFile) {
  History().write(backupId_, request_.guid, command, minor_, state_, cowFile, "", result, blockDevice_, error);
}

int BackupVolume::ReportDriverFailure(const char* withDriverError, const char* withoutDriverError, int result,
                                      int error) {
  // The driver's own error for the device is only known when its state can be read.
  if (!ReloadDriverInfo()) {
    LogEvent(kError, backupId_, withoutDriverError, static_cast<unsigned>(minor_), result, error);
    return 0;
  }
  int driverError = driverInfo_.errorFor(blockDevice_, request_.guid);
  LogEvent(kError, backupId_, withDriverError, static_cast<unsigned>(minor_), result, error, driverError);
  return driverError;
}

bool BackupVolume::ReloadDriverInfo() {
  driverInfo_.reset();
  return driverInfo_.load(&status_);
}

// ---------------------------------------------------------------------------------
// Driver operations

bool BackupVolume::SnapshotBackup(DriverInfo* driverInfo) {
  LogEvent(kInfo, backupId_, "SnapshotBackup for %s", request_.guid.c_str());
  if (driverInfo == nullptr || driverInfo != &driverInfo_) {
    LogEvent(kError, backupId_, "Invalid driver info argument.");
    return false;
  }
  minor_ = driverInfo_.minorFor(blockDevice_, request_.guid);
  state_ = driverInfo_.stateFor(blockDevice_, request_.guid);
  int error = driverInfo_.errorFor(blockDevice_, request_.guid);
  if (error != 0) {
    LogEvent(kWarning, backupId_, "Driver error %d - Cleaning up.", error);
    if (!DestroyAll()) return false;
  }
  // The copy path follows what the snapshot is made from: after a clean-up of a failed
  // driver device that is no device at all, whatever the driver reported before.
  priorMinor_ = minor_;
  priorState_ = state_;
  if (minor_ >= 0 && (state_ == 0 || state_ == 1 || state_ == 3 || state_ == 4 || state_ == 5)) {
    return DestroyCreateSnapshot();
  }
  if (minor_ >= 0 && state_ == 2) return CreateSnapFromIncremental();
  if (minor_ < 0 && state_ < 0) return CreateSnapshotAnd();
  LogEvent(kError, backupId_, "Driver in unmanageable state, minor: %d state: %d", minor_, state_);
  return false;
}

bool BackupVolume::CreateSnapshotAnd() {
  LogEvent(kDebug, backupId_, "Starting CreateSnapshotAnd. No driver device exists for %s. Creating snapshot.",
           request_.guid.c_str());
  LogDisplay(kDebug, "No driver device exists for %s. Setting up initial snapshot", request_.guid.c_str());
  return CreateSnapshot();
}

bool BackupVolume::CreateSnapshot() {
  std::string cow = cowPath(kCowName);
  LogEvent(kInfo, backupId_, "starting CreateSnapshot %s", cow.c_str());
  minor_ = driverInfo_.nextFreeMinor();
  state_ = -1;
  if (minor_ > kMaxMinor) {
    LogEvent(kError, backupId_, "Maximum driver snapshot minor number exceeded.");
    return false;
  }
  LogEvent(kDebug, backupId_, "Setting up snapshot. Minor number: %d", minor_);
  uint64_t size = CowFileSizeMiB(volumeSize_, fsBlockSize_, fsType_, backupId_);
  sync();
  errno = 0;
  int result = zelkobd_setup_snapshot(static_cast<unsigned>(minor_), blockDevice_.c_str(), cow.c_str(), size, 0);
  int error = errno;
  if (result != 0) {
    int driverError = ReportDriverFailure("Setup snapshot %u failed: Return = %d, errno = %d, driver error = %d",
                                          "Setup snapshot %u failed: Return = %d, errno = %d", result, error);
    if (error == ENOSPC || driverError == -ENOSPC) {
      status_.setError("Volume is full", kErrorVolumeFull, {request_.guid, blockDevice_});
    }
    RecordDriverCall("zelkobd_setup_snapshot", "failure", error, cow);
    return false;
  }
  LogEvent(kInfo, backupId_, "Setup snapshot successful. Minor number: %d", minor_);
  newCowName_ = kCowName;
  RecordDriverCall("zelkobd_setup_snapshot", "success", 0, cow);
  bool reloaded = ReloadDriverInfo();
  if (!reloaded) {
    LogEvent(kError, backupId_, "Could not reload driver info - Create snapshot.");
  } else {
    state_ = driverInfo_.stateFor(blockDevice_, request_.guid);
  }
  return reloaded;
}

bool BackupVolume::ToggleCowName() {
  if (existingCowName_ == kCowName) {
    newCowName_ = kCowNameAlternate;
  } else if (existingCowName_ == kCowNameAlternate) {
    newCowName_ = kCowName;
  } else {
    return false;
  }
  return true;
}

bool BackupVolume::CreateSnapFromIncremental() {
  LogEvent(kInfo, backupId_, "starting CreateSnapFromIncremental");
  LogEvent(kInfo, backupId_, "An incremental exists for %s. Minor number: %d", request_.guid.c_str(), minor_);
  std::string cow = driverInfo_.cowFileFor(blockDevice_, request_.guid);
  size_t slash = cow.rfind('/');
  existingCowName_ = slash == std::string::npos ? cow : cow.substr(slash + 1);
  if (!ToggleCowName()) {
    LogEvent(kError, backupId_, "Unable to toggle cow filename.");
    return false;
  }
  return TransitionIncrementalToSnapshot();
}

bool BackupVolume::TransitionIncrementalToSnapshot() {
  std::string cow = cowPath(newCowName_);
  LogEvent(kDebug, backupId_, "Transition incremental to snapshot. Minor number: %d\tCow file: %s", minor_,
           cow.c_str());
  uint64_t size = CowFileSizeMiB(volumeSize_, fsBlockSize_, fsType_, backupId_);
  errno = 0;
  int result = zelkobd_transition_snapshot(static_cast<unsigned>(minor_), cow.c_str(), size);
  int error = errno;
  if (result != 0) {
    int driverError = ReportDriverFailure(
        "Transition incremental to snapshot [%u] failed: Return = %d, errno = %d, driver error = %d",
        "Transition incremental to snapshot [%u] failed: Return = %d errno = %d", result, error);
    if (error == ENOSPC || driverError == -ENOSPC) {
      status_.setError("Volume is full", kErrorVolumeFull, {request_.guid, blockDevice_});
    }
    RecordDriverCall("zelkobd_transition_snapshot", "failure", error, cow);
    return false;
  }
  LogEvent(kInfo, backupId_, "Transition incremental to snapshot successful. Minor number: %d", minor_);
  RecordDriverCall("zelkobd_transition_snapshot", "success", 0, cow);
  int deleted = ReloadScript::Delete(minor_);
  if (deleted != 0) {
    LogEvent(kWarning, backupId_, "Delete incremental %u reload script failed: errno = %d",
             static_cast<unsigned>(minor_), deleted);
  }
  if (!ReloadDriverInfo()) {
    LogEvent(kError, backupId_, "Could not reload driver info. Transition incremental to snapshot.");
    return false;
  }
  state_ = driverInfo_.stateFor(blockDevice_, request_.guid);
  return true;
}

bool BackupVolume::MoveSnapshotToIncremental() {
  LogEvent(kInfo, backupId_, "starting MoveSnapshotToIncremental");
  if (!existingCowName_.empty()) {
    std::string retired = cowPath(existingCowName_);
    IncrementalHistory history(mountPoint_, request_.guid, backupId_);
    int merged = history.merge_incremental_history(retired);
    if (merged != 0) {
      LogEvent(kError, backupId_, "Merging of archive history from %s failed. error: %d", retired.c_str(), merged);
      History().write(backupId_, request_.guid, "merge_archive", minor_, state_, retired, "", "failure", blockDevice_,
                      merged);
      return false;
    }
    unlink(retired.c_str());
    // The retired map now lives in the history; a second merge must not find it again.
    existingCowName_.clear();
  }
  int result = 0;
  int error = 0;
  for (int attempt = 0;; ++attempt) {
    LogEvent(kDebug, backupId_, "Transitioning snapshot to incremental attempt %d. Minor number: %d", attempt, minor_);
    errno = 0;
    result = zelkobd_transition_incremental(static_cast<unsigned>(minor_));
    error = errno;
    if (result == 0) break;
    if (!IsRetryable(error)) break;
    LogEvent(kWarning, backupId_, "Transition snapshot to incremental retry: Return = %d errno = %d", result, error);
    sleep(1);
    if (attempt + 1 >= kDriverRetries) {
      // A tracker busy for this long is treated as transitioned.
      result = 0;
      break;
    }
  }
  if (result != 0) {
    int driverError = ReportDriverFailure(
        "Transition snapshot to incremental [%u] failed: Return = %d, errno = %d, driver error = %d",
        "Transition snapshot to incremental [%u] failed: Return = %d, errno = %d", result, error);
    if (error == EFBIG || driverError == -EFBIG) {
      status_.setError("Too many writes while snapshotted", kErrorTooManyWrites, {request_.guid, blockDevice_});
    }
    RecordDriverCall("zelkobd_transition_incremental", "failure", error, cowPath(newCowName_));
    return false;
  }
  LogEvent(kInfo, backupId_, "Transition snapshot to incremental successful. Minor number %d", minor_);
  RecordDriverCall("zelkobd_transition_incremental", "success", 0, cowPath(newCowName_));
  bool reloaded = ReloadDriverInfo();
  std::string trackedCow = reloaded ? driverInfo_.cowFileFor(blockDevice_, request_.guid) : cowPath(newCowName_);
  int written = ReloadScript::Write(minor_, request_.guid, trackedCow.empty() ? cowPath(newCowName_) : trackedCow);
  if (written != 0) {
    LogEvent(kError, backupId_, "Set incremental %u reload script failed: errno = %d", static_cast<unsigned>(minor_),
             written);
  }
  if (!reloaded) {
    LogEvent(kError, backupId_, "Could not reload driver info. Transition snapshot to incremental.");
  } else {
    state_ = driverInfo_.stateFor(blockDevice_, request_.guid);
  }
  return true;
}

bool BackupVolume::DestroyDriverDevice() {
  LogEvent(kInfo, backupId_, "starting DestroyDriverDevice");
  int result = 0;
  int error = 0;
  bool timedOut = false;
  for (int attempt = 0;; ++attempt) {
    LogEvent(kDebug, backupId_, "Destroy driver device attempt %d. Minor number: %d", attempt, minor_);
    errno = 0;
    result = zelkobd_destroy(static_cast<unsigned>(minor_));
    error = errno;
    if (result == 0 || !IsRetryable(error)) break;
    LogEvent(kWarning, backupId_, "Destroy driver device retry: Return = %d errno = %d", result, error);
    sleep(1);
    if (attempt + 1 >= kDriverRetries) {
      timedOut = true;
      break;
    }
  }
  if (timedOut) {
    LogEvent(kError, backupId_, "Destroy driver device %u failed: Timed out.", static_cast<unsigned>(minor_));
    RecordDriverCall("destroy_driver_device", "failure", error, "");
    return false;
  }
  if (result != 0) {
    ReportDriverFailure("Destroy driver device %u failed: Return = %d, errno = %d, driver error = %d",
                        "Destroy driver device %u failed: Return = %d, errno = %d", result, error);
    RecordDriverCall("destroy_driver_device", "failure", error, "");
    return false;
  }
  LogEvent(kDebug, backupId_, "Destroy driver device successful. Minor number: %d", minor_);
  LogEvent(kInfo, backupId_, "Destroy driver device successful.");
  RecordDriverCall("destroy_driver_device", "success", 0, "");
  if (state_ == 0 || state_ == 2 || state_ == 4) {
    int deleted = ReloadScript::Delete(minor_);
    if (deleted != 0) {
      LogEvent(kWarning, backupId_, "Delete incremental %u reload script failed: errno = %d",
               static_cast<unsigned>(minor_), deleted);
    }
    IncrementalHistory(mountPoint_, request_.guid, backupId_).remove_incremental_history();
  }
  if (!ReloadDriverInfo()) {
    LogEvent(kError, backupId_, "Could not reload driver info - Destroy driver device.");
    return false;
  }
  minor_ = -1;
  state_ = -1;
  return true;
}

bool BackupVolume::DestroyCreateSnapshot() {
  LogEvent(kInfo, backupId_, "starting DestroyCreateSnapshot");
  LogEvent(kInfo, backupId_, "A snapshot exists for %s. Minor number: %d State: %d", request_.guid.c_str(), minor_,
           state_);
  std::string cow = driverInfo_.cowFileFor(blockDevice_, request_.guid);
  if (cow.empty()) {
    LogEvent(kError, backupId_, "Invalid cow file name.");
    return false;
  }
  if (!DestroyDriverDevice()) return false;
  unlink(cow.c_str());
  IncrementalHistory(mountPoint_, request_.guid, backupId_).remove_incremental_history();
  return CreateSnapshot();
}

bool BackupVolume::DestroyAll() {
  LogEvent(kInfo, backupId_, "starting DestroyAll");
  LogEvent(kInfo, backupId_, "Driver is in a failed state. Destroying all for %s", request_.guid.c_str());
  if (minor_ >= 0) {
    std::string cow = driverInfo_.cowFileFor(blockDevice_, request_.guid);
    if (cow.empty()) {
      LogEvent(kError, backupId_, "Invalid cow file name.");
      History().write(backupId_, request_.guid, "destroy_all", minor_, state_, "", "", "failure", blockDevice_, 0);
    } else {
      if (!DestroyDriverDevice()) return false;
      unlink(cow.c_str());
      IncrementalHistory(mountPoint_, request_.guid, backupId_).remove_incremental_history();
    }
  }
  History().write(backupId_, request_.guid, "destroy_all", minor_, state_, "", "", "success", blockDevice_, 0);
  return true;
}

void BackupVolume::DeleteNewCowFile() {
  if (!newCowName_.empty()) unlink(cowPath(newCowName_).c_str());
}

// ---------------------------------------------------------------------------------
// Copy paths

bool BackupVolume::CopyVolume(bool forceCopyFull, bool forceDiffMerge, bool priorBackup) {
  StrategyInputs inputs;
  inputs.forceCopyFull = forceCopyFull;
  inputs.forceDiffMerge = forceDiffMerge;
  inputs.priorBackup = priorBackup;
  inputs.priorMinor = priorMinor_;
  inputs.priorState = priorState_;
  IncrementalHistory history(mountPoint_, request_.guid, backupId_);
  StrategyDecision decision = DecideStrategy(
      inputs, [this] { return PriorImageValid(); }, [&history] { return history.incrementalOk(); });
  if (decision.logLevel != 0) LogEvent(decision.logLevel, backupId_, "%s", decision.message.c_str());

  incrementalOk_ = false;
  bool ok = false;
  switch (decision.path) {
    case CopyPath::kFail:
      LogEvent(kError, backupId_, "Driver in unmanageable state, minor: %d state: %d", priorMinor_, priorState_);
      ok = false;
      break;
    case CopyPath::kCreateAndCopyFull:
      ok = PostCreateSnapshot_AndCopyFull(decision.diffMerge);
      break;
    case CopyPath::kDestroyCreateAndCopyFull:
      ok = PostDestroyCreateSnapshotAndCopyFull(decision.diffMerge);
      break;
    case CopyPath::kFromIncrementalCopyFull:
      ok = PostCreateSnapFromIncremental_AndCopyFull(decision.diffMerge);
      break;
    case CopyPath::kFromIncrementalIncremental:
      ok = PostCreateSnapFromIncremental_AndCopyIncremental(decision.diffMerge);
      break;
  }
  history.setIncrementalOk(incrementalOk_);
  return ok;
}

bool BackupVolume::PostCreateSnapshot_AndCopyFull(bool diffMerge) {
  LogEvent(kInfo, backupId_, "PostCreateSnapshot_AndCopyFull copying full: %s", request_.guid.c_str());
  if (!CopyFullOrMerge(diffMerge)) return false;
  incrementalOk_ = MoveSnapshotToIncremental();
  return incrementalOk_;
}

bool BackupVolume::PostDestroyCreateSnapshotAndCopyFull(bool diffMerge) {
  LogEvent(kInfo, backupId_, "starting PostDestroyCreateSnapshotAndCopyFull");
  if (!CopyFullOrMerge(diffMerge)) return false;
  incrementalOk_ = MoveSnapshotToIncremental();
  return incrementalOk_;
}

bool BackupVolume::PostCreateSnapFromIncremental_AndCopyFull(bool diffMerge) {
  LogEvent(kInfo, backupId_, "starting PostCreateSnapFromIncremental_AndCopyFull");
  LogEvent(kInfo, backupId_, "An incremental exists for %s. Minor number: %d State %d", request_.guid.c_str(), minor_,
           priorState_);
  if (!CopyFullOrMerge(diffMerge)) return false;
  incrementalOk_ = MoveSnapshotToIncremental();
  return incrementalOk_;
}

bool BackupVolume::PostCreateSnapFromIncremental_AndCopyIncremental(bool diffMerge) {
  LogEvent(kInfo, backupId_, "starting PostCreateSnapFromIncremental_AndCopyIncremental");
  bool copied;
  if (diffMerge) {
    copied = CopyFullOrMerge(true);
  } else {
    LogEvent(kInfo, backupId_, "starting copy incremental");
    copied = CopyIncremental();
  }
  if (copied) {
    LogEvent(kInfo, backupId_, "incremental succeeded, recording image checksum.");
  } else if (changeMapBroken_) {
    // The change map or its history could not be read: what changed is unknown, so
    // nothing built on that history may be trusted again. The next backup merges.
    LogEvent(kWarning, backupId_, "incremental failed, history is broken, flagging not to use incremental history.");
    IncrementalHistory(mountPoint_, request_.guid, backupId_).remove_incremental_history();
  } else {
    // The map is intact (the target or a cancel stopped the copy): it is folded into
    // the history below and travels with the next backup.
    LogEvent(kWarning, backupId_, "incremental failed, recording failure, keeping incremental history.");
  }
  bool moved = MoveSnapshotToIncremental();
  LogEvent(moved ? kInfo : kError, backupId_, "%s",
           moved ? "transition to incremental succeeded." : "transition to incremental failed.");
  incrementalOk_ = copied && moved;
  return incrementalOk_;
}

CopyJob BackupVolume::MakeCopyJob() {
  CopyJob job;
  job.backupId = backupId_;
  job.volumeUuid = request_.guid;
  job.status = &status_;
  job.cancelled = &cancelled_;
  job.snapshotPath = snapshotPath();
  job.imageOffset = request_.offset;
  job.volumeSize = volumeSize_;
  return job;
}

bool BackupVolume::CopyFullOrMerge(bool diffMerge) {
  const char* command = diffMerge ? "copy_diff_merge" : "copy_full";
  status_.setVolumeType(request_.guid, diffMerge ? "differential" : "full");
  bool ok = false;
  if (CheckTargetReachable(Image())) {
    IscsiBlockDevice device(Image().target);
    if (device.Connect()) {
      CopyJob job = MakeCopyJob();
      job.cowFiles = {cowPath(kCowName), cowPath(kCowNameAlternate)};
      job.cowSkipDisabled = ConfigYes("disable_cowskip");
      if (diffMerge) {
        ok = CopyDiffMergeAllBlocks(job, device);
      } else if (ConfigYes("disable_usedblock")) {
        ok = CopyFullAllBlocks(job, device);
      } else {
        ok = CopyFullUsedBlocks(job, device);
      }
      device.Disconnect();
    }
  }
  if (!ok) {
    History().write(backupId_, request_.guid, command, minor_, state_, cowPath(newCowName_), "", "failure",
                    blockDevice_, 0);
    return false;
  }
  return RecordImageChecksum(command);
}

int BackupVolume::DriverErrorOf(void* context) {
  BackupVolume* volume = static_cast<BackupVolume*>(context);
  if (!volume->ReloadDriverInfo()) return 0;
  return volume->driverInfo_.errorFor(volume->blockDevice_, volume->request_.guid);
}

bool BackupVolume::CopyIncremental() {
  status_.setVolumeType(request_.guid, "incremental");
  IncrementalHistory history(mountPoint_, request_.guid, backupId_);
  bool ok = false;
  changeMapBroken_ = false;
  if (CheckTargetReachable(Image())) {
    IscsiBlockDevice device(Image().target);
    if (device.Connect()) {
      CopyJob job = MakeCopyJob();
      job.changeMapPath = cowPath(existingCowName_);
      job.historyPath = history.path();
      job.historyExists = history.incrementalHistoryExists();
      job.volumeBlockCount = (sectorSize_ * sectorCount_) >> 12;
      job.driverError = &BackupVolume::DriverErrorOf;
      job.driverErrorContext = this;
      ok = CopyIncrementalAllBlocks(job, device);
      changeMapBroken_ = job.changeMapBroken;
      device.Disconnect();
    }
  }
  if (!ok) {
    History().write(backupId_, request_.guid, "copy_incremental", minor_, state_, cowPath(existingCowName_), "",
                    "failure", blockDevice_, 0);
    return false;
  }
  return RecordImageChecksum("copy_incremental");
}

bool BackupVolume::RecordImageChecksum(const std::string& command) {
  std::string checksum;
  // Without a checksum the copy still counts; the next backup then finds no match and
  // merges instead of trusting the image.
  GetImageChecksum(Image(), checksum);
  History().write(backupId_, request_.guid, command, minor_, state_, cowPath(newCowName_), checksum, "success",
                  blockDevice_, 0);
  return true;
}

bool BackupVolume::PriorImageValid() {
  std::unique_ptr<HistoryRow> last = History().last_image_checksum(request_.guid);
  std::string recorded = last ? last->imageChksum : "";
  std::string current;
  if (!recorded.empty() && !GetImageChecksum(Image(), current)) current.clear();
  LogEvent(kInfo, backupId_, "Validating prior backup image. Comparing %s and %s", recorded.c_str(), current.c_str());
  bool valid = !recorded.empty() && recorded == current;
  LogEvent(kInfo, backupId_, "%s", valid ? "backup image checksum matches" : "backup image checksum doesn't match");
  return valid;
}

}  // namespace orv
