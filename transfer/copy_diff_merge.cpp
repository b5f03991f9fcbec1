#include "transfer/copy_diff_merge.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "api/all_backup_status.h"
#include "daemon/logger.h"
#include "transfer/copy_full.h"
#include "transfer/iscsi_block_device.h"
#include "transfer/snapshot_reader.h"

namespace orv {

namespace {

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};

void TargetError(CopyJob& job, const char* text) {
  if (job.status) job.status->setError(text, kErrorTargetWrite);
}

}  // namespace

bool CopyDiffMergeAllBlocks(CopyJob& job, IscsiBlockDevice& device) {
  LogEvent(kInfo, job.backupId, "Performing original diffmerge on all blocks.");
  LogDisplay(kDebug, "Copying diff-merge/all blocks: %s", job.snapshotPath.c_str());
  SnapshotReader snapshot;
  if (!snapshot.Open(job, device, "Open snapshot device %s failed: %d")) return false;

  void* aligned = nullptr;
  if (posix_memalign(&aligned, static_cast<size_t>(getpagesize()), kCopyChunkBytes) != 0) {
    LogEvent(kError, job.backupId, "Could not allocate snapshot read buffer.");
    return false;
  }
  std::unique_ptr<unsigned char, FreeDeleter> local(static_cast<unsigned char*>(aligned));
  std::unique_ptr<unsigned char[]> remote(new (std::nothrow) unsigned char[kCopyChunkBytes]);
  if (!remote) {
    LogEvent(kError, job.backupId, "Could not allocate snapshot read buffer.");
    return false;
  }
  if (job.status) job.status->setTotalSize(job.volumeUuid, static_cast<int64_t>(job.volumeSize));

  uint64_t transferred = 0;
  for (;;) {
    ssize_t n = read(snapshot.fd(), local.get(), kCopyChunkBytes);
    if (n < 0) {
      LogEvent(kError, job.backupId, "Error reading from snapshot, errno %d", errno);
      return false;
    }
    if (n == 0) return true;
    if (IsCancelled(job)) return false;
    int64_t got = device.ReadRetry(remote.get(), static_cast<size_t>(n));
    if (got < 1) {
      TargetError(job, "Could not read from target device.");
      LogEvent(kError, job.backupId, "Read from iscsi target failed: %d", errno);
      return false;
    }
    if (got != n) {
      LogEvent(kError, job.backupId, "Differential read amounts are different: iscsi = %lu - snapshot = %lu\n",
               static_cast<unsigned long>(got), static_cast<unsigned long>(n));
      return false;
    }
    transferred += static_cast<uint64_t>(n);
    if (job.status) job.status->setBytesTransferred(job.volumeUuid, transferred);
    if (memcmp(local.get(), remote.get(), static_cast<size_t>(n)) == 0) continue;
    if (device.Seek(-n, SEEK_CUR) < 0) {
      TargetError(job, "Could not seek on target device.");
      LogEvent(kError, job.backupId, "Iscsi backward seek failed: %d", errno);
      return false;
    }
    int64_t written = device.WriteRetry(local.get(), static_cast<size_t>(n));
    if (written < 1) {
      int error = errno;
      TargetError(job, "Could not write to target device.");
      LogEvent(kError, job.backupId, "Write to iscsi target failed: %d write returned %d", error,
               static_cast<int>(written));
      return false;
    }
  }
}

}  // namespace orv
