#ifndef ORV_API_ALL_BACKUP_STATUS_H_
#define ORV_API_ALL_BACKUP_STATUS_H_

#include <cstdint>
#include <ctime>
#include <string>
#include <deque>
#include <vector>

#include "api/json_value.h"
#include "backup/mutex.h"

namespace orv {

// Error codes the appliance reads from a backup's status document.
enum BackupErrorCode : int {
  kErrorVolumeFull = 100,
  kErrorDriverNotLoaded = 101,
  kErrorTooManyWrites = 106,
  kErrorTargetWrite = 108,
};

// The live status of one backup job: overall state, timing, the error reported to the
// appliance and one record per volume. The job, the copies and the writer threads
// update it while REST connection threads render it.
class AllBackupStatus {
 public:
  struct VolumeRecord {
    std::string volume;  // the volume's UUID
    std::string status;  // "waiting", "active", "success", "failed" or "error"
    std::string type;    // "full", "incremental" or "differential"
    uint64_t bytesTransferred = 0;
    int64_t totalSize = 0;
  };

  explicit AllBackupStatus(const std::string& backupId);
  virtual ~AllBackupStatus() = default;
  AllBackupStatus(const AllBackupStatus&) = delete;
  AllBackupStatus& operator=(const AllBackupStatus&) = delete;

  const std::string& backupId() const { return backupId_; }

  bool setStatus(const std::string& status);
  bool setAllFailed();
  // Adds the volume's record when it has none yet. The volume setters below add it too.
  bool modifyVolume(const std::string& uuid);
  // Renames a record (for a volume known only by position until its UUID is found).
  bool setVolumeUuid(const std::string& oldUuid, const std::string& newUuid);
  bool setVolumeStatus(const std::string& uuid, const std::string& status);
  bool setVolumeType(const std::string& uuid, const std::string& type);
  bool setBytesTransferred(const std::string& uuid, uint64_t bytes);
  // The figures of several chunks written in turn: each one's row as the setter above
  // stores it, all on one database connection, then the figure set to the last.
  bool setBytesTransferred(const std::string& uuid, const std::vector<uint64_t>& figures);
  bool setTotalSize(const std::string& uuid, int64_t bytes);
  bool setError(const std::string& message, int code, const std::vector<std::string>& params = {});

  std::string status();
  int errorCode();
  std::string errorMessage();
  std::vector<VolumeRecord> volumes();

  // The status document: status, elapsedTime, errorData, details.
  JsonValue render();

 private:
  VolumeRecord* findLocked(const std::string& uuid);

  std::string backupId_;
  Mutex statusLock_;
  Mutex listLock_;
  Mutex volumeLock_;
  std::string status_ = "active";
  time_t startTime_;
  int64_t elapsedTime_ = 0;
  std::string errorMessage_;
  int errorCode_ = 0;
  std::vector<std::string> errorParams_;
  std::deque<VolumeRecord> volumes_;  // records never move once added
};

}  // namespace orv

#endif  // ORV_API_ALL_BACKUP_STATUS_H_
