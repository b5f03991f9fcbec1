#ifndef ORV_TRANSFER_COPY_JOB_H_
#define ORV_TRANSFER_COPY_JOB_H_

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace orv {

class AllBackupStatus;

// What a copy needs to know of the volume it copies. The backup job fills it; the copy
// routines read it and report back through the status and the two result flags.
struct CopyJob {
  std::string backupId;    // for log events
  std::string volumeUuid;  // the volume's record in the status document
  AllBackupStatus* status = nullptr;
  const std::atomic<bool>* cancelled = nullptr;  // polled between chunks and blocks

  std::string snapshotPath;  // the driver's snapshot device of the volume
  int64_t imageOffset = 0;   // where the image starts on the target
  uint64_t volumeSize = 0;   // bytes

  // Used-block copies: the COW files whose blocks are neither counted nor copied.
  std::vector<std::string> cowFiles;
  bool cowSkipDisabled = false;

  // Incremental copies: the retired COW file holding the change map, the incremental
  // history to overlay (when historyExists) and the volume's number of 4096-byte blocks.
  std::string changeMapPath;
  std::string historyPath;
  bool historyExists = false;
  uint64_t volumeBlockCount = 0;
  // Reads the driver's error for the snapshot device after a failed read (0 for none).
  int (*driverError)(void* context) = nullptr;
  void* driverErrorContext = nullptr;

  // Results.
  bool bitmapFailure = false;    // the used-block map could not be read
  bool changeMapBroken = false;  // the change map or its history could not be read
};

inline bool IsCancelled(const CopyJob& job) { return job.cancelled != nullptr && job.cancelled->load(); }

}  // namespace orv

#endif  // ORV_TRANSFER_COPY_JOB_H_
