#include "transfer/copy_full.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "api/all_backup_status.h"
#include "daemon/logger.h"
#include "fsmaps/used_block_bitmap.h"
#include "transfer/file_skipper.h"
#include "transfer/iscsi_block_device.h"
#include "transfer/mapped_buffer.h"
#include "transfer/snapshot_reader.h"
#include "transfer/writer_pipeline.h"

namespace orv {

namespace {

bool BitSet(const uint8_t* bitmap, uint64_t k) { return (bitmap[k / 8] >> (k % 8)) & 1; }

// Walks the used-block map piece by piece. The counting pass and the copy pass both
// use it, so they see the same blocks.
class UsedBlockWalk {
 public:
  UsedBlockWalk(CopyJob& job, FileSkipper& skipper) : job_(job), skipper_(skipper), bitmap_(kBitmapBufferBytes) {}

  bool ready() const { return bitmap_.data() != nullptr; }

  // Calls onPiece(start, count) after each piece is loaded; false on a bitmap error or
  // when onPiece returns false.
  template <typename OnPiece>
  bool run(OnPiece onPiece) {
    uint64_t start = 0;
    for (;;) {
      if (IsCancelled(job_)) return false;
      uint64_t blockSize = 0;
      uint64_t blockCount = 0;
      errno = 0;
      int64_t count = GetUsedBlockBitmap(kBitmapBufferBytes, start, job_.snapshotPath, blockSize, blockCount,
                                         bitmap_.data());
      if (count < 0) {
        LogEvent(kError, job_.backupId, "Error while retrieving used block bitmap, error %llu, errno %d",
                 static_cast<unsigned long long>(count), errno);
        job_.bitmapFailure = true;
        return false;
      }
      if (count < 1) return true;
      blockSize_ = blockSize;
      if (!onPiece(start, static_cast<uint64_t>(count))) return false;
      start += static_cast<uint64_t>(count);
    }
  }

  // Whether block k of the loaded piece (block number start + k) is to be copied.
  bool wanted(uint64_t start, uint64_t k) {
    return BitSet(bitmap_.data(), k) && !skipper_.IsCowFileBlock(start + k, blockSize_);
  }
  // The next used bit at or after k below `end`, or `end`: whole zero bytes are skipped.
  uint64_t nextUsed(uint64_t k, uint64_t end) const {
    while (k < end) {
      if (k % 8 == 0) {
        while (k + 8 <= end && bitmap_.data()[k / 8] == 0) k += 8;
        if (k >= end) break;
      }
      if (BitSet(bitmap_.data(), k)) return k;
      ++k;
    }
    return end;
  }
  uint64_t blockSize() const { return blockSize_; }

 private:
  CopyJob& job_;
  FileSkipper& skipper_;
  MappedBuffer bitmap_;  // zeros until the first piece is read
  uint64_t blockSize_ = 0;
};

}  // namespace

bool CopyFullAllBlocks(CopyJob& job, IscsiBlockDevice& device) {
  if (job.snapshotPath.empty()) return false;
  LogEvent(kInfo, job.backupId, "Performing copy full on all blocks.");
  LogDisplay(kDebug, "Copying full all blocks: %s", job.snapshotPath.c_str());
  SnapshotReader snapshot;
  if (!snapshot.Open(job, device, "Open snapshot device %s failed: %d")) return false;
  if (job.status) job.status->setTotalSize(job.volumeUuid, static_cast<int64_t>(job.volumeSize));
  WriterPipeline pipeline(device, job.backupId, job.volumeUuid, job.status);
  if (!pipeline.Start()) return false;

  bool ok = true;
  uint64_t done = 0;
  for (;;) {
    if (IsCancelled(job)) {
      ok = false;
      break;
    }
    std::unique_ptr<queueitem> item = WriterPipeline::MakeQueueItem(kCopyChunkBytes);
    if (!item) {
      LogEvent(kError, job.backupId, "Could not allocate read buffer.");
      ok = false;
      break;
    }
    ssize_t n = read(snapshot.fd(), item->buffer, kCopyChunkBytes);
    if (n == 0) break;
    if (n < 0) {
      LogEvent(kError, job.backupId, "Error reading from snapshot, errno %d", errno);
      ok = false;
      break;
    }
    item->writePosition = job.imageOffset + static_cast<int64_t>(done);
    item->writeLength = n;
    item->updateProgress = true;
    item->transferValue = done + static_cast<uint64_t>(n);
    done += static_cast<uint64_t>(n);
    if (!pipeline.Push(std::move(item))) {
      ok = false;
      break;
    }
  }
  bool written = pipeline.Finish();
  return ok && written && !IsCancelled(job);
}

bool CopyFullUsedBlocks(CopyJob& job, IscsiBlockDevice& device) {
  if (job.snapshotPath.empty()) return false;
  LogEvent(kInfo, job.backupId, "Performing copy full on used blocks.");
  LogDisplay(kDebug, "Copying full/used blocks. [%s]", job.snapshotPath.c_str());
  SnapshotReader snapshot;
  if (!snapshot.Open(job, device, "Open snapshot device %s failed: %d")) return false;

  FileSkipper skipper(job.cowFiles, job.backupId, job.cowSkipDisabled);
  UsedBlockWalk walk(job, skipper);
  if (!walk.ready()) {
    LogEvent(kError, job.backupId, "Error while retrieving used block bitmap, error %llu, errno %d", 0ULL, errno);
    return false;
  }

  // Counting pass: the total the appliance sees before any data moves.
  uint64_t usedBlocks = 0;
  bool counted = walk.run([&](uint64_t start, uint64_t count) {
    for (uint64_t k = walk.nextUsed(0, count); k < count; k = walk.nextUsed(k + 1, count)) {
      if (walk.wanted(start, k)) ++usedBlocks;
    }
    return true;
  });
  if (!counted) return false;
  if (job.status) job.status->setTotalSize(job.volumeUuid, static_cast<int64_t>(usedBlocks * walk.blockSize()));

  WriterPipeline pipeline(device, job.backupId, job.volumeUuid, job.status);
  if (!pipeline.Start()) return false;

  uint64_t totalRead = 0;
  int64_t runStart = -1;
  uint64_t runBytes = 0;
  auto flush = [&]() -> bool {
    uint64_t blockSize = walk.blockSize();
    if (runBytes > kCopyChunkBytes) {
      // Only a file system whose block is larger than a chunk gets here.
      LogEvent(kError, job.backupId, "Error while retrieving used block bitmap, error %llu, errno %d",
               static_cast<unsigned long long>(blockSize), EINVAL);
      return false;
    }
    std::unique_ptr<queueitem> item = WriterPipeline::MakeQueueItem(kCopyChunkBytes);
    if (!item) {
      LogEvent(kError, job.backupId, "Could not allocate chunk copy buffer, error %d", errno);
      return false;
    }
    uint64_t offset = static_cast<uint64_t>(runStart) * blockSize;
    ssize_t n = snapshot.ReadAt(item->buffer, runBytes, offset);
    if (n < 1) {
      int error = errno;
      if (n == 0) {
        LogEvent(kError, job.backupId, "Seek to bitmap block %llu on snapshot failed: %d\n",
                 static_cast<unsigned long long>(runStart), error);
      }
      LogEvent(kError, job.backupId, "Error reading from snapshot, errno %d", error);
      LogDisplay(kError, "Could not read %llu bytes from snapshot. Err = %d", static_cast<unsigned long long>(runBytes),
                 error);
      return false;
    }
    // A run that reaches past the device's end keeps zeros there, never stale memory.
    if (static_cast<uint64_t>(n) < runBytes) memset(item->buffer + n, 0, runBytes - static_cast<uint64_t>(n));
    totalRead += static_cast<uint64_t>(n);
    item->writePosition = job.imageOffset + static_cast<int64_t>(offset);
    item->writeLength = static_cast<int64_t>(runBytes);
    item->updateProgress = true;
    item->transferValue = totalRead;
    if (!pipeline.Push(std::move(item))) return false;
    runStart = -1;
    runBytes = 0;
    return true;
  };

  bool ok = walk.run([&](uint64_t start, uint64_t count) {
    uint64_t blockSize = walk.blockSize();
    for (uint64_t k = 0; k < count; ++k) {
      if (IsCancelled(job)) return false;
      if (runStart < 0) {
        // Outside a run nothing happens until the next used block.
        k = walk.nextUsed(k, count);
        if (k >= count) break;
      }
      bool last = k + 1 == count;
      if (walk.wanted(start, k)) {
        runBytes += blockSize;
        if (runStart < 0) runStart = static_cast<int64_t>(start + k);
        if (runBytes + blockSize <= kCopyChunkBytes && !last) continue;
        if (!flush()) return false;
      } else if (runStart >= 0) {
        if (!flush()) return false;
      }
    }
    return true;
  });
  bool written = pipeline.Finish();
  if (ok && written) LogDisplay(kDebug, "Total bytes transferred: %llu", static_cast<unsigned long long>(totalRead));
  return ok && written && !IsCancelled(job);
}

}  // namespace orv
