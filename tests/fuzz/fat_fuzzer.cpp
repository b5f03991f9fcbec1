// The used-block map of FAT32 file systems (boot sector, FAT) from hostile images.
#include <cstddef>
#include <cstdint>

#include "fsmaps/fat_reader.h"
#include "tests/fuzz/used_block_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::FuzzUsedBlockBitmap(data, size, &orv::FatReader::Probe);
  return 0;
}
