#ifndef ORV_TRANSFER_QUEUEITEM_H_
#define ORV_TRANSFER_QUEUEITEM_H_

#include <cstdint>
#include <cstdlib>

namespace orv {

// One chunk on its way from a copier to the async writer. Whoever holds the record owns
// it and its buffer; the writer finally deletes it. A null queueitem pointer in the
// writer queue is the end-of-backup marker.
struct queueitem {
  queueitem() = default;
  // The buffer was allocated with posix_memalign (page-aligned for O_DIRECT reads).
  ~queueitem() { free(buffer); }
  queueitem(const queueitem&) = delete;
  queueitem& operator=(const queueitem&) = delete;

  unsigned char* buffer = nullptr;
  int64_t writePosition = 0;  // byte offset on the target
  int64_t writeLength = 0;    // bytes to write
  bool updateProgress = false;  // set the volume's bytes transferred after writing
  uint64_t transferValue = 0;   // bytes of the volume done once this chunk is written
};

}  // namespace orv

#endif  // ORV_TRANSFER_QUEUEITEM_H_
