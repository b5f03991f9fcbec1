#ifndef ORV_TESTS_FUZZ_SPARSE_BLOCK_SOURCE_H_
#define ORV_TESTS_FUZZ_SPARSE_BLOCK_SOURCE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "fsmaps/block_source.h"

namespace orv {

// A device described by a fuzz input: its size and the runs of bytes that are not
// zero. A file system of tens of MiB (XFS and FAT32 have no smaller form) is then an
// input of a few KiB that the fuzzer can mutate field by field. All numbers are little
// endian:
//
//   u32 device size in bytes (at most kMaxDeviceBytes; larger values are cut to it)
//   then runs, each: u32 byte offset, u16 length, that many bytes
//
// A run past the device's end keeps only its part within the device; a truncated last
// run keeps what is there; a later run overwrites an earlier one where they overlap.
// fs_seed (fs_seed.cpp) writes this form from an image file.
class SparseBlockSource : public BlockSource {
 public:
  // Large enough for two XFS allocation groups and for FAT32 with 1 KiB clusters (at
  // least 65525 of them), small enough that a walk over every block stays cheap.
  static constexpr uint64_t kMaxDeviceBytes = 128 << 20;

  SparseBlockSource(const uint8_t* data, size_t size);
  ~SparseBlockSource() override;

  Result ReadAt(uint64_t offset, void* buffer, size_t length) override;
  uint64_t Size() const override { return size_; }

 private:
  static constexpr uint64_t kPageBytes = 4096;

  void Write(uint64_t offset, const uint8_t* data, size_t length);

  uint64_t size_ = 0;
  std::map<uint64_t, std::vector<uint8_t>> pages_;  // page number -> kPageBytes bytes
};

}  // namespace orv

#endif  // ORV_TESTS_FUZZ_SPARSE_BLOCK_SOURCE_H_
