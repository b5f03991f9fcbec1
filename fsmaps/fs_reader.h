#ifndef ORV_FSMAPS_FS_READER_H_
#define ORV_FSMAPS_FS_READER_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "fsmaps/block_source.h"
#include "fsmaps/piece_bitmap.h"

namespace orv {

// One file system's used-block reader. A reader is made for one call: Open() reads
// and checks the file system's header and learns its geometry, Fill() marks the used
// blocks of one piece. Both report their failures to standard error, leave the reason
// in errno (EUCLEAN for on-disk structures that make no sense, EIO for short reads,
// the system call's own errno otherwise) and return false. No reader trusts a number
// read from the disk before checking it against the source's size and its own
// structures, so a corrupt or hostile image ends in an error, never in a read outside
// a buffer or a walk without end.
class FsReader {
 public:
  explicit FsReader(BlockSource& source) : source_(source) {}
  virtual ~FsReader();
  FsReader(const FsReader&) = delete;
  FsReader& operator=(const FsReader&) = delete;

  virtual const char* Name() const = 0;
  virtual bool Open() = 0;
  // The piece is clear on entry.
  virtual bool Fill(PieceBitmap& piece) = 0;

  // The unit of the bitmap in bytes: block b starts at byte b * blockSize() of the
  // device.
  uint64_t blockSize() const { return blockSize_; }
  uint64_t blockCount() const { return blockCount_; }

 protected:
  // Reads `length` bytes at `offset`, reporting "Can't read <what> at byte <offset>"
  // on failure.
  bool Read(uint64_t offset, void* buffer, size_t length, const char* what);

  BlockSource& source_;
  uint64_t blockSize_ = 0;
  uint64_t blockCount_ = 0;
};

// Prints a reader's message to standard error and leaves `error` in errno.
void ReportFsError(int error, const char* format, ...) __attribute__((format(printf, 2, 3)));
// "Error opening <path>: <errno text>" to standard error, errno left at `error`.
void ReportOpenError(const std::string& path, int error);

}  // namespace orv

#endif  // ORV_FSMAPS_FS_READER_H_
