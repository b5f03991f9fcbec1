#include "transfer/snapshot_reader.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "api/all_backup_status.h"
#include "daemon/logger.h"
#include "transfer/iscsi_block_device.h"

namespace orv {

bool SnapshotReader::Open(CopyJob& job, IscsiBlockDevice& device, const char* openFailureFormat) {
  if (device.Seek(job.imageOffset, SEEK_SET) < 0) {
    int error = errno;
    if (job.status) job.status->setError("Could not seek on target device.", kErrorTargetWrite);
    LogEvent(kError, job.backupId, "Iscsi seek failed: %d", error);
    return false;
  }
  fd_.reset(open(job.snapshotPath.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
  if (!fd_.valid()) {
    LogEvent(kError, job.backupId, openFailureFormat, job.snapshotPath.c_str(), errno);
    return false;
  }
  off64_t end = lseek64(fd_.get(), 0, SEEK_END);
  if (end < 0 || lseek64(fd_.get(), 0, SEEK_SET) != 0) {
    LogEvent(kError, job.backupId, "Check device %s size failed: %d", job.snapshotPath.c_str(), errno);
    return false;
  }
  size_ = static_cast<uint64_t>(end);
  uint64_t room = static_cast<uint64_t>(device.Size() - job.imageOffset);
  if (device.Size() < job.imageOffset || room < size_) {
    if (job.status) job.status->setError("Backup volume is larger than the target storage (Did you resize the volume?)", 0);
    LogEvent(kError, job.backupId, "Snapshot exceeds target size %lu / %lu", static_cast<unsigned long>(size_),
             static_cast<unsigned long>(device.Size()));
    return false;
  }
  return true;
}

ssize_t SnapshotReader::ReadAt(void* buffer, size_t bytes, uint64_t offset) {
  size_t done = 0;
  while (done < bytes) {
    ssize_t n = pread(fd_.get(), static_cast<char*>(buffer) + done, bytes - done, static_cast<off_t>(offset + done));
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace orv
