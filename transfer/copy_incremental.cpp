#include "transfer/copy_incremental.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
constexpr size_t kChunkEntries = kChangeMapChunkBytes / 8;
constexpr uint64_t kRunBlocks = kCopyChunkBytes / kChangeBlockBytes;

// The first entry at or after `i` (below `end`) that marks a changed block; `end` when
// none does. Most of a map is zero: eight words are looked at together.
size_t NextChanged(const uint64_t* words, size_t i, size_t end) {
  while (i < end && (i & 7) != 0) {
    if (words[i] != 0) return i;
    ++i;
  }
  while (i + 8 <= end && (words[i] | words[i + 1] | words[i + 2] | words[i + 3] | words[i + 4] | words[i + 5] |
                          words[i + 6] | words[i + 7]) == 0) {
    i += 8;
  }
  while (i < end && words[i] == 0) ++i;
  return i;
}

// The first entry at or after `i` (below `end`) that marks an unchanged block; `end`
// when none does.
size_t NextUnchanged(const uint64_t* words, size_t i, size_t end) {
  while (i < end && words[i] != 0) ++i;
  return i;
}

// The change map in pieces of 10 MiB of entries, each overlaid with the history's words
// at the same offset. Only the entries of the volume's blocks are read: a COW file goes
// on past them with the driver's copied data (a hundred times the map and more), which
// says nothing about what changed. The counting and the copy pass share it.
class ChangeMap {
 public:
  ChangeMap(CopyJob& job, int cowFd, int historyFd)
      : job_(job),
        cowFd_(cowFd),
        historyFd_(historyFd),
        history_("", job.volumeUuid, job.backupId),
        buffer_(kChangeMapChunkBytes),
        words_(reinterpret_cast<uint64_t*>(buffer_.data())),
        scratch_(historyFd >= 0 ? kChangeMapChunkBytes : 0) {}

  bool allocate() {
    if (words_ == nullptr || (historyFd_ >= 0 && scratch_.data() == nullptr)) {
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
    firstBlock_ = 0;
    entries_ = 0;
    ended_ = false;
    return true;
  }

  // Loads the next piece: entries() and firstBlock() describe it. False at the end (with
  // ok() true) or on an error (ok() false).
  bool next() {
    firstBlock_ += entries_;
    entries_ = 0;
    if (ended_ || firstBlock_ >= job_.volumeBlockCount) return false;
    size_t wanted = static_cast<size_t>(std::min<uint64_t>(kChunkEntries, job_.volumeBlockCount - firstBlock_)) * 8;
    off_t offset = kMapHeaderBytes + static_cast<off_t>(firstBlock_ * 8);
    size_t done = 0;
    char* buffer = reinterpret_cast<char*>(words_);
    while (done < wanted) {
      ssize_t n = pread(cowFd_, buffer + done, wanted - done, offset + static_cast<off_t>(done));
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
    // The file was checked to hold every entry of the volume; should it end early all
    // the same, the map ends there.
    if (done < wanted) ended_ = true;
    size_t entries = done / 8;
    if (historyFd_ >= 0) {
      int error =
          history_.overlay(words_, entries * 8, offset, historyFd_, reinterpret_cast<uint64_t*>(scratch_.data()));
      if (error != 0) return overlayFailed(error);
    }
    entries_ = entries;
    return true;
  }

  // After the counting pass: the history must reach as far as the COW file does, as it
  // did when every piece of the file was overlaid.
  bool historyReachesCowEnd(uint64_t cowBytes) {
    if (historyFd_ < 0 || cowBytes <= static_cast<uint64_t>(kMapHeaderBytes)) return true;
    uint64_t end = kMapHeaderBytes + (cowBytes - kMapHeaderBytes) / 8 * 8;
    int error = history_.overlayReaches(static_cast<off_t>(end), historyFd_);
    return error == 0 || overlayFailed(error);
  }

  bool ok() const { return ok_; }
  size_t entries() const { return entries_; }
  uint64_t firstBlock() const { return firstBlock_; }
  const uint64_t* words() const { return words_; }

  // Changed entries of the loaded piece.
  uint64_t countChanged() const {
    uint64_t count = 0;
    for (size_t i = 0; i < entries_; ++i) count += words_[i] != 0 ? 1 : 0;
    return count;
  }

 private:
  bool overlayFailed(int error) {
    LogEvent(kError, job_.backupId, "Could not overlay incremental history. errno: %d", error);
    job_.changeMapBroken = true;
    ok_ = false;
    return false;
  }

  CopyJob& job_;
  int cowFd_;
  int historyFd_;
  IncrementalHistory history_;
  MappedBuffer buffer_;  // only the pages of the map read so far count
  uint64_t* words_;
  MappedBuffer scratch_;  // the history's words of a piece
  uint64_t firstBlock_ = 0;
  size_t entries_ = 0;
  bool ended_ = false;
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
  while (map.next()) changed += map.countChanged();
  if (!map.ok() || !map.historyReachesCowEnd(static_cast<uint64_t>(info.st_size))) return false;
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

  // Runs of changed blocks, each at most a chunk buffer long and never across a piece of
  // the map; the cancel flag is looked at before each.
  bool ok = true;
  while (ok && map.next()) {
    const uint64_t* words = map.words();
    size_t entries = map.entries();
    for (size_t i = NextChanged(words, 0, entries); i < entries; i = NextChanged(words, i, entries)) {
      if (IsCancelled(job)) {
        ok = false;
        break;
      }
      size_t end = NextUnchanged(words, i, static_cast<size_t>(std::min<uint64_t>(entries, i + kRunBlocks)));
      runStart = static_cast<int64_t>(map.firstBlock() + i);
      runBytes = (end - i) * kChangeBlockBytes;
      if (!flush()) {
        ok = false;
        break;
      }
      i = end;
    }
    if (ok && IsCancelled(job)) ok = false;
  }
  if (!map.ok()) ok = false;
  bool written = pipeline.Finish();
  return ok && written && !IsCancelled(job);
}

}  // namespace orv
