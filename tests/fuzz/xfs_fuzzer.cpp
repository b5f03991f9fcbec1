// The used-block map of XFS file systems (superblock, AGFs, free-space btrees, AGFLs) from hostile images.
#include <cstddef>
#include <cstdint>

#include "fsmaps/xfs_reader.h"
#include "tests/fuzz/used_block_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::FuzzUsedBlockBitmap(data, size, &orv::XfsReader::Probe);
  return 0;
}
