#include "transfer/copy_diff_merge.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>

#include "api/all_backup_status.h"
#include "daemon/logger.h"
#include "transfer/copy_full.h"
#include "transfer/iscsi_block_device.h"
#include "transfer/queueitem.h"
#include "transfer/snapshot_reader.h"

namespace orv {

namespace {

void TargetError(CopyJob& job, const char* text) {
  if (job.status) job.status->setError(text, kErrorTargetWrite);
}

// A chunk buffer from the process's pool of warm buffers, given back when it leaves scope.
class ChunkBuffer {
 public:
  ChunkBuffer() : data_(AllocateChunkBuffer(kChunkBytes)) {}
  virtual ~ChunkBuffer() { ReleaseChunkBuffer(data_); }
  ChunkBuffer(const ChunkBuffer&) = delete;
  ChunkBuffer& operator=(const ChunkBuffer&) = delete;
  unsigned char* get() const { return data_; }

 private:
  unsigned char* data_;
};

// Reads the snapshot ahead of the comparison on a thread of its own, chunk after chunk,
// into a ring of kRing buffers: while the copy's thread waits for chunk k of the target,
// the snapshot's chunk k + 1 is read, so the two devices are read at the same time
// instead of by turns (the snapshot reads far faster than the target: one chunk ahead
// keeps it out of the way, and the copy holds four chunk buffers as before). The copy
// takes the chunks in order and gives each back once it is settled. Without a thread
// (none could be started) each chunk is read when taken.
class SnapshotAhead {
 public:
  explicit SnapshotAhead(int fd) : fd_(fd) {}
  virtual ~SnapshotAhead() { Stop(); }
  SnapshotAhead(const SnapshotAhead&) = delete;
  SnapshotAhead& operator=(const SnapshotAhead&) = delete;

  bool Ready() const {
    for (const ChunkBuffer& buffer : buffers_) {
      if (buffer.get() == nullptr) return false;
    }
    return true;
  }

  void Start() {
    try {
      thread_ = std::thread([this] {
        pthread_setname_np(pthread_self(), "orvd-snapshot");
        Run();
      });
    } catch (const std::system_error&) {
      // Reading by turns is slower, not wrong.
    }
  }

  // Chunk k of the snapshot: its length, 0 at the end, -1 with *error set.
  ssize_t Take(uint64_t k, const unsigned char** data, int* error) {
    Slot& slot = slots_[k % kRing];
    *data = buffers_[k % kRing].get();
    if (!thread_.joinable()) {
      slot.length = read(fd_, buffers_[k % kRing].get(), kCopyChunkBytes);
      slot.error = errno;
    } else {
      std::unique_lock<std::mutex> hold(lock_);
      changed_.wait(hold, [&] { return read_ > k; });
    }
    *error = slot.error;
    return slot.length;
  }

  // Chunk k is settled: its buffer may take chunk k + kRing.
  void Give(uint64_t k) {
    std::lock_guard<std::mutex> hold(lock_);
    given_ = k + 1;
    changed_.notify_all();
  }

  void Stop() {
    {
      std::lock_guard<std::mutex> hold(lock_);
      stop_ = true;
      changed_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
  }

 private:
  static constexpr uint64_t kRing = 2;

  struct Slot {
    ssize_t length = 0;
    int error = 0;
  };

  void Run() {
    for (uint64_t k = 0;; ++k) {
      {
        std::unique_lock<std::mutex> hold(lock_);
        changed_.wait(hold, [&] { return stop_ || k < given_ + kRing; });
        if (stop_) return;
      }
      ssize_t n = read(fd_, buffers_[k % kRing].get(), kCopyChunkBytes);
      int error = errno;
      std::lock_guard<std::mutex> hold(lock_);
      slots_[k % kRing] = Slot{n, error};
      read_ = k + 1;
      changed_.notify_all();
      if (n <= 0) return;
    }
  }

  int fd_;
  ChunkBuffer buffers_[kRing];
  Slot slots_[kRing];
  std::thread thread_;
  std::mutex lock_;
  std::condition_variable changed_;
  uint64_t read_ = 0;   // chunks read so far
  uint64_t given_ = 0;  // chunks settled so far
  bool stop_ = false;
};

// Keeps the target reading the image's next chunk while the copy compares and writes
// the current one: the read of chunk k + kAhead is sent on the device's session before
// chunk k is read, into a ring of kAhead + 1 buffers, and the device's Read of chunk k
// takes its answer (failures included) when the copy comes to it. A chunk's write never
// meets a read of its own blocks: the reads ahead are of later chunks. Whatever is still
// in flight when the copy ends, for any reason, is waited for and forgotten.
class TargetAhead {
 public:
  TargetAhead(IscsiBlockDevice& device, int64_t imageOffset, uint64_t imageBytes)
      : device_(device), imageOffset_(imageOffset), imageBytes_(imageBytes) {}
  virtual ~TargetAhead() { device_.DropReadsAhead(); }
  TargetAhead(const TargetAhead&) = delete;
  TargetAhead& operator=(const TargetAhead&) = delete;

  bool Ready() const {
    for (const ChunkBuffer& buffer : buffers_) {
      if (buffer.get() == nullptr) return false;
    }
    return true;
  }

  unsigned char* Buffer(uint64_t k) const { return buffers_[k % kRing].get(); }

  // Sends the reads of the chunks up to k + kAhead that are not sent yet. The buffer of
  // chunk k + kAhead held chunk k - 1, which is settled.
  void SendAhead(uint64_t k) {
    for (; sent_ <= k + kAhead; ++sent_) {
      uint64_t start = sent_ * kCopyChunkBytes;
      if (start >= imageBytes_) return;
      uint64_t bytes = std::min<uint64_t>(kCopyChunkBytes, imageBytes_ - start);
      device_.ReadAhead(Buffer(sent_), bytes, imageOffset_ + static_cast<int64_t>(start));
    }
  }

  // memcmp in slices, taking in the target's answer to the read ahead between them so
  // that its data does not wait in a full socket while the chunk is compared.
  bool Same(const unsigned char* a, const unsigned char* b, size_t bytes) {
    for (size_t done = 0; done < bytes; done += kSlice) {
      size_t slice = std::min(kSlice, bytes - done);
      if (memcmp(a + done, b + done, slice) != 0) return false;
      device_.ServiceReadsAhead();
    }
    return true;
  }

 private:
  static constexpr uint64_t kAhead = 1;
  static constexpr uint64_t kRing = kAhead + 1;
  static constexpr size_t kSlice = 1 << 20;

  IscsiBlockDevice& device_;
  int64_t imageOffset_;
  uint64_t imageBytes_;
  ChunkBuffer buffers_[kRing];
  uint64_t sent_ = 0;  // chunks whose read was sent (or left to the copy's own Read)
};

}  // namespace

bool CopyDiffMergeAllBlocks(CopyJob& job, IscsiBlockDevice& device) {
  LogEvent(kInfo, job.backupId, "Performing original diffmerge on all blocks.");
  LogDisplay(kDebug, "Copying diff-merge/all blocks: %s", job.snapshotPath.c_str());
  SnapshotReader snapshot;
  if (!snapshot.Open(job, device, "Open snapshot device %s failed: %d")) return false;

  SnapshotAhead ahead(snapshot.fd());
  TargetAhead target(device, job.imageOffset, snapshot.size());
  if (!ahead.Ready() || !target.Ready()) {
    LogEvent(kError, job.backupId, "Could not allocate snapshot read buffer.");
    return false;
  }
  if (job.status) job.status->setTotalSize(job.volumeUuid, static_cast<int64_t>(job.volumeSize));
  ahead.Start();

  uint64_t transferred = 0;
  for (uint64_t k = 0;; ++k) {
    const unsigned char* local = nullptr;
    int readError = 0;
    ssize_t n = ahead.Take(k, &local, &readError);
    if (n < 0) {
      LogEvent(kError, job.backupId, "Error reading from snapshot, errno %d", readError);
      return false;
    }
    if (n == 0) return true;
    if (IsCancelled(job)) return false;
    target.SendAhead(k);
    unsigned char* remote = target.Buffer(k);
    int64_t got = device.ReadRetry(remote, static_cast<size_t>(n));
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
    if (!target.Same(local, remote, static_cast<size_t>(n))) {
      if (device.Seek(-n, SEEK_CUR) < 0) {
        TargetError(job, "Could not seek on target device.");
        LogEvent(kError, job.backupId, "Iscsi backward seek failed: %d", errno);
        return false;
      }
      int64_t written = device.WriteRetry(local, static_cast<size_t>(n));
      if (written < 1) {
        int error = errno;
        TargetError(job, "Could not write to target device.");
        LogEvent(kError, job.backupId, "Write to iscsi target failed: %d write returned %d", error,
                 static_cast<int>(written));
        return false;
      }
    }
    ahead.Give(k);
  }
}

}  // namespace orv
