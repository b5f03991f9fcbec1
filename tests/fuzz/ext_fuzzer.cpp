// The used-block map of ext2/3/4 file systems (superblock, group descriptors, bitmaps) from hostile images.
#include <cstddef>
#include <cstdint>

#include "fsmaps/ext_reader.h"
#include "tests/fuzz/used_block_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::FuzzUsedBlockBitmap(data, size, &orv::ExtReader::Probe);
  return 0;
}
