#include "transfer/queueitem.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "backup/mutex.h"
#include "transfer/mapped_buffer.h"

namespace orv {

namespace {

// A copy has at most four chunks in flight (one being read, two queued, one being
// written); that many idle buffers (48 MiB) stay warm for the next chunk and the next
// backup.
constexpr size_t kIdleChunkBuffers = 4;

class ChunkBufferPool {
 public:
  unsigned char* Take() {
    {
      MutexLock hold(lock_);
      if (hold.locked() && !idle_.empty()) {
        unsigned char* buffer = idle_.back();
        idle_.pop_back();
        lent_.push_back(buffer);
        return buffer;
      }
    }
    unsigned char* buffer = MappedBuffer::Map(kChunkBytes);
    if (buffer == nullptr) return nullptr;
    MutexLock hold(lock_);
    if (hold.locked()) lent_.push_back(buffer);
    return buffer;
  }

  // False when the buffer is not one of the pool's.
  bool Give(unsigned char* buffer) {
    MutexLock hold(lock_);
    if (!hold.locked()) return false;
    auto found = std::find(lent_.begin(), lent_.end(), buffer);
    if (found == lent_.end()) return false;
    lent_.erase(found);
    if (idle_.size() < kIdleChunkBuffers) {
      idle_.push_back(buffer);
    } else {
      MappedBuffer::Unmap(buffer, kChunkBytes);
    }
    return true;
  }

  static unsigned char* Fresh(size_t bytes) {
    void* buffer = nullptr;
    int result = posix_memalign(&buffer, static_cast<size_t>(getpagesize()), bytes);
    if (result != 0) {
      errno = result;
      return nullptr;
    }
    return static_cast<unsigned char*>(buffer);
  }

 private:
  Mutex lock_;
  std::vector<unsigned char*> idle_;
  std::vector<unsigned char*> lent_;  // a handful at most: a copy's chunks in flight
};

// Never destroyed: chunks may still be released while the process exits.
ChunkBufferPool& Pool() {
  static ChunkBufferPool* pool = new ChunkBufferPool;
  return *pool;
}

}  // namespace

unsigned char* AllocateChunkBuffer(size_t bytes) {
  if (bytes == kChunkBytes) return Pool().Take();
  return ChunkBufferPool::Fresh(bytes);
}

void ReleaseChunkBuffer(unsigned char* buffer) {
  if (buffer == nullptr) return;
  if (!Pool().Give(buffer)) free(buffer);
}

}  // namespace orv
