// The used-block map of NTFS file systems (boot sector, $Bitmap record and runs) from hostile images.
#include <cstddef>
#include <cstdint>

#include "fsmaps/ntfs_reader.h"
#include "tests/fuzz/used_block_fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv::FuzzUsedBlockBitmap(data, size, &orv::NtfsReader::Probe);
  return 0;
}
