#ifndef ORV_TESTS_FUZZ_USED_BLOCK_FUZZ_H_
#define ORV_TESTS_FUZZ_USED_BLOCK_FUZZ_H_

#include <cstddef>
#include <cstdint>

#include "fsmaps/block_source.h"

namespace orv {

// The body of every file-system target: reads the used-block map of the device an
// input describes (see SparseBlockSource) the way a copy does, through
// GetUsedBlockBitmap, and checks what a copy relies on:
//   - the geometry is the same on every call and fits the device;
//   - each piece covers exactly the blocks it says, in a buffer of exactly its size;
//   - the map read in three pieces equals the map read in one;
//   - the call after the last block answers 0, the one beyond it fails with EINVAL.
// `probe` keeps each target on its own reader: inputs it does not recognise are
// skipped.
void FuzzUsedBlockBitmap(const uint8_t* data, size_t size, bool (*probe)(BlockSource&));

}  // namespace orv

#endif  // ORV_TESTS_FUZZ_USED_BLOCK_FUZZ_H_
