#include "transfer/copy_full.h"

#include <unistd.h>

#include <algorithm>
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

// Bit k of a piece is block start + k, least significant bit first.
bool BitSet(const uint8_t* bitmap, uint64_t k) { return (bitmap[k / 8] >> (k % 8)) & 1; }

uint64_t Word(const uint8_t* bitmap, uint64_t k) {
  uint64_t word;
  memcpy(&word, bitmap + k / 8, sizeof(word));
  return word;
}

// The first k in [from, end) whose bit is `value`, or `end`; 64 bits at a time.
uint64_t NextBit(const uint8_t* bitmap, uint64_t from, uint64_t end, bool value) {
  uint64_t k = from;
  while (k < end && k % 64 != 0) {
    if (BitSet(bitmap, k) == value) return k;
    ++k;
  }
  uint64_t skip = value ? 0 : ~uint64_t{0};
  while (k + 64 <= end && Word(bitmap, k) == skip) k += 64;
  while (k < end && BitSet(bitmap, k) != value) ++k;
  return k;
}

void ClearBits(uint8_t* bitmap, uint64_t from, uint64_t to) {
  while (from < to && from % 8 != 0) {
    bitmap[from / 8] &= static_cast<uint8_t>(~(1u << (from % 8)));
    ++from;
  }
  if (to - from >= 8) {
    memset(bitmap + from / 8, 0, (to - from) / 8);
    from += (to - from) / 8 * 8;
  }
  while (from < to) {
    bitmap[from / 8] &= static_cast<uint8_t>(~(1u << (from % 8)));
    ++from;
  }
}

// Walks the used-block map piece by piece. The counting pass and the copy pass both
// use it, so they see the same blocks. Each piece is loaded with the COW files' blocks
// already taken out, so a set bit is a block to copy: the passes work on whole words
// and runs instead of asking block by block.
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
      TakeOutCowBlocks(start, static_cast<uint64_t>(count));
      if (!onPiece(start, static_cast<uint64_t>(count))) return false;
      start += static_cast<uint64_t>(count);
    }
  }

  // The next block to copy at or after k below `end`, or `end`.
  uint64_t nextUsed(uint64_t k, uint64_t end) const { return NextBit(bitmap_.data(), k, end, true); }
  // The next block not to copy at or after k below `end`, or `end`.
  uint64_t nextUnused(uint64_t k, uint64_t end) const { return NextBit(bitmap_.data(), k, end, false); }
  // Blocks to copy in [0, count) of the loaded piece.
  uint64_t countUsed(uint64_t count) const {
    uint64_t used = 0;
    uint64_t k = 0;
    for (; k + 64 <= count; k += 64) used += static_cast<uint64_t>(__builtin_popcountll(Word(bitmap_.data(), k)));
    for (; k < count; ++k) used += BitSet(bitmap_.data(), k) ? 1 : 0;
    return used;
  }
  uint64_t blockSize() const { return blockSize_; }

 private:
  // Clears the bits of the COW files' blocks in the piece just loaded. The list is
  // built when the first used block is met, as a block-by-block question would build it.
  void TakeOutCowBlocks(uint64_t start, uint64_t count) {
    if (nextUsed(0, count) >= count) return;
    const std::vector<FileSkipper::Extent>* extents = skipper_.CowExtents(blockSize_);
    if (extents == nullptr) return;
    uint64_t end = start + count;
    for (const FileSkipper::Extent& extent : *extents) {
      uint64_t from = std::max(extent.first, start);
      uint64_t to = std::min(extent.second + 1, end);
      if (from < to) ClearBits(bitmap_.data(), from - start, to - start);
    }
  }

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
  bool counted = walk.run([&](uint64_t, uint64_t count) {
    usedBlocks += walk.countUsed(count);
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
    // Each run of blocks to copy goes in chunks of as many whole blocks as fit in one;
    // a run ends at the piece's end even when the next piece continues it.
    uint64_t blockSize = walk.blockSize();
    uint64_t perChunk = std::max<uint64_t>(1, kCopyChunkBytes / blockSize);
    for (uint64_t k = walk.nextUsed(0, count); k < count; k = walk.nextUsed(k, count)) {
      uint64_t end = walk.nextUnused(k, count);
      while (k < end) {
        if (IsCancelled(job)) return false;
        uint64_t blocks = std::min(perChunk, end - k);
        runStart = static_cast<int64_t>(start + k);
        runBytes = blocks * blockSize;
        if (!flush()) return false;
        k += blocks;
      }
    }
    return true;
  });
  bool written = pipeline.Finish();
  if (ok && written) LogDisplay(kDebug, "Total bytes transferred: %llu", static_cast<unsigned long long>(totalRead));
  return ok && written && !IsCancelled(job);
}

}  // namespace orv
