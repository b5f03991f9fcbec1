#include "volume_scanner.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>

#include "aligned_buffer.h"
#include "cow_header.h"
#include "sim_error.h"
#include "unique_fd.h"

namespace orv::zelkosim {

namespace {

constexpr uint64_t kBlock = CowHeader::kBlockSize;

// Two chunk buffers handed between the reading thread and the scanning thread.
class ChunkPipe {
 public:
  ChunkPipe() : buffers_{AlignedBuffer(VolumeScanner::kChunk), AlignedBuffer(VolumeScanner::kChunk)} {}

  char* buffer(int slot) { return buffers_[slot].data(); }

  void put(int slot, size_t length) {
    std::unique_lock<std::mutex> lock(mutex_);
    lengths_[slot] = length;
    full_[slot] = true;
    changed_.notify_all();
  }
  // Waits for the slot to be filled; false when the reader stopped.
  bool take(int slot, size_t& length) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return full_[slot] || stopped_; });
    if (!full_[slot]) return false;
    length = lengths_[slot];
    return true;
  }
  void release(int slot) {
    std::unique_lock<std::mutex> lock(mutex_);
    full_[slot] = false;
    changed_.notify_all();
  }
  // Waits until the slot is free; false when the consumer gave up.
  bool waitFree(int slot) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return !full_[slot] || cancelled_; });
    return !cancelled_;
  }
  void stop(std::exception_ptr error) {
    std::unique_lock<std::mutex> lock(mutex_);
    stopped_ = true;
    error_ = error;
    changed_.notify_all();
  }
  void cancel() {
    std::unique_lock<std::mutex> lock(mutex_);
    cancelled_ = true;
    changed_.notify_all();
  }
  std::exception_ptr error() {
    std::unique_lock<std::mutex> lock(mutex_);
    return error_;
  }

 private:
  AlignedBuffer buffers_[2];
  std::mutex mutex_;
  std::condition_variable changed_;
  size_t lengths_[2] = {0, 0};
  bool full_[2] = {false, false};
  bool stopped_ = false;
  bool cancelled_ = false;
  std::exception_ptr error_;
};

}  // namespace

VolumeScanner::VolumeScanner(int deviceFd, uint64_t volumeBytes, std::string name,
                             std::function<void(const std::string&)> progress)
    : device_fd_(deviceFd), volume_bytes_(volumeBytes), name_(std::move(name)), progress_(std::move(progress)) {}

bool VolumeScanner::IsZero(const char* data, size_t length) {
  static const char kZeros[kBlock] = {};
  while (length >= kBlock) {
    if (std::memcmp(data, kZeros, kBlock) != 0) return false;
    data += kBlock;
    length -= kBlock;
  }
  return std::memcmp(data, kZeros, length) == 0;
}

ScanResult VolumeScanner::run(const ScanTargets& targets) {
  auto start = std::chrono::steady_clock::now();
  ScanResult result{ChangeMap(CowHeader::BlocksFor(volume_bytes_))};
  if (targets.image_fd >= 0 && ::ftruncate(targets.image_fd, static_cast<off_t>(volume_bytes_)) != 0) {
    SimError::Raise(errno, "cannot size the image of " + name_);
  }
  ChunkPipe pipe;
  std::thread reader([&] {
    try {
      int slot = 0;
      for (uint64_t offset = 0; offset < volume_bytes_; offset += kChunk) {
        if (!pipe.waitFree(slot)) return;
        size_t want = static_cast<size_t>(std::min<uint64_t>(kChunk, volume_bytes_ - offset));
        size_t got = PreadFull(device_fd_, pipe.buffer(slot), want, static_cast<off_t>(offset), name_);
        if (got != want) throw SimError(EIO, name_ + " ended at byte " + std::to_string(offset + got));
        pipe.put(slot, got);
        slot ^= 1;
      }
      pipe.stop(nullptr);
    } catch (...) {
      pipe.stop(std::current_exception());
    }
  });
  std::unique_ptr<AlignedBuffer> baseline;
  if (targets.baseline_fd >= 0) baseline = std::make_unique<AlignedBuffer>(kChunk);
  try {
    int slot = 0;
    uint64_t reported = 0;
    for (uint64_t offset = 0; offset < volume_bytes_; offset += kChunk) {
      size_t length = 0;
      if (!pipe.take(slot, length)) break;
      process(pipe.buffer(slot), length, offset, baseline ? baseline->data() : nullptr, targets, result);
      pipe.release(slot);
      slot ^= 1;
      uint64_t done = offset + length;
      if (progress_ && (done * 10 / volume_bytes_ > reported || done == volume_bytes_)) {
        reported = done * 10 / volume_bytes_;
        progress_(name_ + ": " + std::to_string(done * 100 / volume_bytes_) + "% (" + std::to_string(done >> 20) +
                  " of " + std::to_string(volume_bytes_ >> 20) + " MiB)");
      }
    }
  } catch (...) {
    pipe.cancel();
    reader.join();
    throw;
  }
  reader.join();
  if (std::exception_ptr error = pipe.error()) std::rethrow_exception(error);
  if (targets.image_fd >= 0 && ::fdatasync(targets.image_fd) != 0) {
    SimError::Raise(errno, "cannot sync the image of " + name_);
  }
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return result;
}

void VolumeScanner::process(const char* chunk, size_t length, uint64_t offset, char* baseline,
                            const ScanTargets& targets, ScanResult& result) {
  if (baseline) {
    size_t got = PreadFull(targets.baseline_fd, baseline, length, static_cast<off_t>(offset), "baseline image");
    std::memset(baseline + got, 0, length - got);
  }
  size_t runStart = 0;
  size_t runLength = 0;
  auto flush = [&] {
    if (runLength == 0) return;
    PwriteFull(targets.image_fd, chunk + runStart, runLength, static_cast<off_t>(offset + runStart), "image");
    result.data_bytes += runLength;
    runLength = 0;
  };
  for (size_t at = 0; at < length; at += kBlock) {
    size_t size = std::min<size_t>(kBlock, length - at);
    uint64_t block = (offset + at) / kBlock;
    if (baseline && std::memcmp(chunk + at, baseline + at, size) != 0 &&
        !(targets.excluded && targets.excluded->marked(block))) {
      result.changed.mark(block);
    }
    if (targets.image_fd < 0) continue;
    if (IsZero(chunk + at, size)) {
      flush();
    } else {
      if (runLength == 0) runStart = at;
      runLength += size;
    }
  }
  if (targets.image_fd >= 0) flush();
}

}  // namespace orv::zelkosim
