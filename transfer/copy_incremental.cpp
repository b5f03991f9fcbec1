#include "transfer/copy_incremental.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "api/all_backup_status.h"
#include "backup/incremental_history.h"
#include "daemon/logger.h"
#include "daemon/unique_fd.h"
#include "transfer/copy_full.h"
#include "transfer/iscsi_block_device.h"
#include "transfer/mapped_buffer.h"
#include "transfer/snapshot_reader.h"
#include "transfer/writer_pipeline.h"

namespace orv {

namespace {

constexpr off_t kMapHeaderBytes = 4096;

// Streams the change map in 10 MiB chunks, each overlaid with the history's words at
// the same offset and clipped to the volume. The counting and the copy pass share it.
class ChangeMap {
 public:
  ChangeMap(CopyJob& job, int cowFd, int historyFd)
      : job_(job),
        cowFd_(cowFd),
        historyFd_(historyFd),
        history_("", job.volumeUuid, job.backupId),
        buffer_(kChangeMapChunkBytes),
        words_(reinterpret_cast<uint64_t*>(buffer_.data())) {}

  bool allocate() {
    if (words_ == nullptr) {
      LogEvent(kError, job_.backupId, "Could not allocate incremental map buffer.");
      return false;
    }
    return true;
  }

  bool rewind() {
    if (lseek(cowFd_, kMapHeaderBytes, SEEK_SET) != kMapHeaderBytes) {
      LogEvent(kError, job_.backupId, "Could not offset incremental map header. [%d]", errno);
      job_.changeMapBroken = true;
      return false;
    }
    offset_ = kMapHeaderBytes;
    firstBlock_ = 0;
    return true;
  }

  // Loads the next chunk: entries() and firstBlock() describe it. False at the end
  // (with ok() true) or on an error (ok() false).
  bool next() {
    firstBlock_ += entries_;
    entries_ = 0;
    size_t done = 0;
    char* buffer = reinterpret_cast<char*>(words_);
    while (done < kChangeMapChunkBytes) {
      ssize_t n = read(cowFd_, buffer + done, kChangeMapChunkBytes - done);
      if (n < 0) {
        if (errno == EINTR) continue;
        LogEvent(kError, job_.backupId, "Open cow file %s failed: %d", job_.changeMapPath.c_str(), errno);
        job_.changeMapBroken = true;
        ok_ = false;
        return false;
      }
      if (n == 0) break;
      done += static_cast<size_t>(n);
    }
    if (done == 0) return false;
    size_t entries = done / 8;
    if (historyFd_ >= 0) {
      int error = history_.overlay(words_, entries * 8, offset_, historyFd_);
      if (error != 0) {
        LogEvent(kError, job_.backupId, "Could not overlay incremental history. errno: %d", error);
        job_.changeMapBroken = true;
        ok_ = false;
        return false;
      }
    }
    offset_ += static_cast<off_t>(done);
    // Entries past the volume's end belong to no block of it.
    if (firstBlock_ >= job_.volumeBlockCount) {
      entries = 0;
    } else if (firstBlock_ + entries > job_.volumeBlockCount) {
      entries = static_cast<size_t>(job_.volumeBlockCount - firstBlock_);
    }
    entries_ = entries;
    return entries_ > 0 || done == kChangeMapChunkBytes;
  }

  bool ok() const { return ok_; }
  size_t entries() const { return entries_; }
  uint64_t firstBlock() const { return firstBlock_; }
  bool changed(size_t i) const { return words_[i] != 0; }

 private:
  CopyJob& job_;
  int cowFd_;
  int historyFd_;
  IncrementalHistory history_;
  MappedBuffer buffer_;  // only the pages of the map read so far count
  uint64_t* words_;
  off_t offset_ = kMapHeaderBytes;
  uint64_t firstBlock_ = 0;
  size_t entries_ = 0;
  bool ok_ = true;
};

}  // namespace

bool CopyIncrementalAllBlocks(CopyJob& job, IscsiBlockDevice& device) {
  LogEvent(kInfo, job.backupId, "Performing copy incremental on all blocks.");
  UniqueFd cow(open(job.changeMapPath.c_str(), O_RDONLY | O_CLOEXEC));
  if (!cow.valid()) {
    LogEvent(kError, job.backupId, "Open cow file %s failed: %d", job.changeMapPath.c_str(), errno);
    job.changeMapBroken = true;
    return false;
  }
  // A map that ends before the volume does cannot say which of the remaining blocks
  // changed: copying only what it shows would leave a stale image reported as good.
  struct stat info;
  uint64_t needed = static_cast<uint64_t>(kMapHeaderBytes) + job.volumeBlockCount * 8;
  if (fstat(cow.get(), &info) != 0 || static_cast<uint64_t>(info.st_size) < needed) {
    LogEvent(kError, job.backupId, "Incremental map %s is shorter than the volume: %lld of %llu bytes",
             job.changeMapPath.c_str(), static_cast<long long>(info.st_size), static_cast<unsigned long long>(needed));
    job.changeMapBroken = true;
    return false;
  }
  UniqueFd history;
  if (job.historyExists) {
    history.reset(open(job.historyPath.c_str(), O_RDONLY | O_CLOEXEC));
    if (!history.valid()) {
      LogEvent(kError, job.backupId, "Open incremental history file %s failed: %d", job.historyPath.c_str(), errno);
      job.changeMapBroken = true;
      return false;
    }
  }
  SnapshotReader snapshot;
  if (!snapshot.Open(job, device, "Open snapshot device %s failed: %d\n")) return false;

  ChangeMap map(job, cow.get(), history.get());
  if (!map.allocate() || !map.rewind()) return false;
  uint64_t changed = 0;
  while (map.next()) {
    for (size_t i = 0; i < map.entries(); ++i) changed += map.changed(i) ? 1 : 0;
  }
  if (!map.ok()) return false;
  if (job.status) job.status->setTotalSize(job.volumeUuid, static_cast<int64_t>(changed * kChangeBlockBytes));

  if (!map.rewind()) return false;
  WriterPipeline pipeline(device, job.backupId, job.volumeUuid, job.status);
  if (!pipeline.Start()) return false;

  uint64_t total = 0;
  int64_t runStart = -1;
  uint64_t runBytes = 0;
  auto flush = [&]() -> bool {
    std::unique_ptr<queueitem> item = WriterPipeline::MakeQueueItem(kCopyChunkBytes);
    if (!item) {
      LogEvent(kError, job.backupId, "Could not allocate chunk copy buffer, error %d", errno);
      return false;
    }
    uint64_t offset = static_cast<uint64_t>(runStart) * kChangeBlockBytes;
    errno = 0;
    ssize_t n = snapshot.ReadAt(item->buffer, runBytes, offset);
    if (n < 1) {
      int error = errno;
      if (n == 0) {
        // The run lies beyond the snapshot's end: the map and the device disagree.
        LogEvent(kError, job.backupId, "Seek to bitmap sector %llu on snapshot failed: %d\n",
                 static_cast<unsigned long long>(runStart), error);
      }
      int driverError = job.driverError ? job.driverError(job.driverErrorContext) : 0;
      if (driverError != 0) {
        LogEvent(kError, job.backupId, "Reading %llu bytes from snapshot failed: Return = %d, errno = %d, driver error = %d",
                 static_cast<unsigned long long>(runBytes), static_cast<int>(n), error, driverError);
      } else {
        LogEvent(kError, job.backupId, "Reading %llu bytes from snapshot failed: Return = %d, errno = %d",
                 static_cast<unsigned long long>(runBytes), static_cast<int>(n), error);
      }
      if ((error == EFBIG || driverError == -EFBIG) && job.status) {
        job.status->setError("Too many writes while snapshotted", kErrorTooManyWrites, {job.volumeUuid});
      }
      return false;
    }
    total += static_cast<uint64_t>(n);
    item->writePosition = job.imageOffset + static_cast<int64_t>(offset);
    item->writeLength = n;
    item->updateProgress = true;
    item->transferValue = total;
    if (!pipeline.Push(std::move(item))) return false;
    runStart = -1;
    runBytes = 0;
    return true;
  };

  bool ok = true;
  while (ok && map.next()) {
    size_t entries = map.entries();
    for (size_t i = 0; i < entries; ++i) {
      if (IsCancelled(job)) {
        ok = false;
        break;
      }
      if (!map.changed(i)) {
        if (runStart >= 0 && !flush()) {
          ok = false;
          break;
        }
        continue;
      }
      if (runStart < 0) runStart = static_cast<int64_t>(map.firstBlock() + i);
      runBytes += kChangeBlockBytes;
      // A run never crosses a map chunk, and never outgrows a chunk buffer.
      if ((runBytes >= kCopyChunkBytes || i + 1 == entries) && !flush()) {
        ok = false;
        break;
      }
    }
  }
  if (!map.ok()) ok = false;
  bool written = pipeline.Finish();
  return ok && written && !IsCancelled(job);
}

}  // namespace orv
