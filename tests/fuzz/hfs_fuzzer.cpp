// The used-block map of HFS+ and HFSX file systems (volume header, allocation file) from hostile images.
#include <cstddef>
#include <cstdint>

#include "fsmaps/hfs_reader.h"
#include "tests/fuzz/used_block_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::FuzzUsedBlockBitmap(data, size, &orv::HfsReader::Probe);
  return 0;
}
