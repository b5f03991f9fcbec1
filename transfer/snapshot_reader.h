#ifndef ORV_TRANSFER_SNAPSHOT_READER_H_
#define ORV_TRANSFER_SNAPSHOT_READER_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "daemon/unique_fd.h"
#include "transfer/copy_job.h"

namespace orv {

class IscsiBlockDevice;

// The snapshot device of a copy, opened for direct I/O, with the checks every copy
// makes before data moves: the target positioned at the image, the snapshot's size,
// and room for it on the target.
class SnapshotReader {
 public:
  SnapshotReader() = default;
  virtual ~SnapshotReader() = default;
  SnapshotReader(const SnapshotReader&) = delete;
  SnapshotReader& operator=(const SnapshotReader&) = delete;

  // Seeks the target to the image offset, opens the snapshot and checks that it fits.
  bool Open(CopyJob& job, IscsiBlockDevice& device, const char* openFailureFormat);
  int fd() const { return fd_.get(); }
  uint64_t size() const { return size_; }

  // Reads `bytes` at `offset` (whole, unless the device ends first); the bytes read or
  // -1 with errno.
  ssize_t ReadAt(void* buffer, size_t bytes, uint64_t offset);

 private:
  UniqueFd fd_;
  uint64_t size_ = 0;
};

}  // namespace orv

#endif  // ORV_TRANSFER_SNAPSHOT_READER_H_
