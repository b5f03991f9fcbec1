#ifndef ORV_TRANSFER_QUEUEITEM_H_
#define ORV_TRANSFER_QUEUEITEM_H_

#include <cstddef>
#include <cstdint>

namespace orv {

// The copies' chunk: the largest piece read from a snapshot and written to the target.
constexpr size_t kChunkBytes = 12582912;

// A page-aligned buffer for O_DIRECT reads; null with errno set when none can be had.
// Buffers of kChunkBytes come from a small process-wide pool of warm buffers: a freshly
// mapped 12 MiB buffer costs about 3000 page faults, which measured here cut writes from
// 2 GB/s to 100-250 MiB/s. The pool maps them itself (MappedBuffer), so that the chunks
// it lets go return to the system instead of staying in malloc's arenas.
unsigned char* AllocateChunkBuffer(size_t bytes);
// Gives a buffer back: a pooled one returns to the pool (up to a few are kept), any
// other is released with free.
void ReleaseChunkBuffer(unsigned char* buffer);

// One chunk on its way from a copier to the async writer. Whoever holds the record owns
// it and its buffer; the writer finally deletes it. A null queueitem pointer in the
// writer queue is the end-of-backup marker.
struct queueitem {
  queueitem() = default;
  ~queueitem() { ReleaseChunkBuffer(buffer); }
  queueitem(const queueitem&) = delete;
  queueitem& operator=(const queueitem&) = delete;

  unsigned char* buffer = nullptr;  // from AllocateChunkBuffer or posix_memalign
  int64_t writePosition = 0;        // byte offset on the target
  int64_t writeLength = 0;          // bytes to write
  bool updateProgress = false;      // set the volume's bytes transferred after writing
  uint64_t transferValue = 0;       // bytes of the volume done once this chunk is written
};

}  // namespace orv

#endif  // ORV_TRANSFER_QUEUEITEM_H_
