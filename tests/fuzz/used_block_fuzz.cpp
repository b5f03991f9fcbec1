#include "tests/fuzz/used_block_fuzz.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "fsmaps/used_block_bitmap.h"
#include "tests/fuzz/fuzz_check.h"
#include "tests/fuzz/sparse_block_source.h"

namespace orv {

namespace {

bool BitAt(const std::vector<uint8_t>& bits, uint64_t k) { return (bits[k / 8] >> (k % 8)) & 1; }

}  // namespace

void FuzzUsedBlockBitmap(const uint8_t* data, size_t size, bool (*probe)(BlockSource&)) {
  SparseBlockSource source(data, size);
  if (!probe(source)) return;

  // The first piece, one byte long, tells the geometry.
  uint64_t blockSize = 0;
  uint64_t blockCount = 0;
  std::vector<uint8_t> first(1);
  int64_t n = GetUsedBlockBitmap(first.size(), 0, source, blockSize, blockCount, first.data());
  if (n <= 0) return;
  FuzzCheck(blockSize > 0 && blockCount > 0, "a readable file system has a block size and blocks");
  FuzzCheck(blockCount <= source.Size() / blockSize, "the file system fits its device");
  FuzzCheck(static_cast<uint64_t>(n) == std::min<uint64_t>(8, blockCount), "a one-byte piece covers 8 blocks");

  // The whole volume in one piece.
  const uint64_t totalBlocks = blockCount;
  const uint64_t unit = blockSize;
  std::vector<uint8_t> whole((totalBlocks + 7) / 8);
  n = GetUsedBlockBitmap(whole.size(), 0, source, blockSize, blockCount, whole.data());
  if (n < 0) return;
  FuzzCheck(blockSize == unit && blockCount == totalBlocks, "every call reports the same geometry");
  FuzzCheck(static_cast<uint64_t>(n) == totalBlocks, "a volume-sized piece covers the volume");

  // The same in three pieces (the last one shorter), each in a buffer of its own size.
  uint64_t pieceBytes = std::max<uint64_t>(1, ((totalBlocks + 2) / 3 + 7) / 8);
  for (uint64_t start = 0; start < totalBlocks; start += pieceBytes * 8) {
    std::vector<uint8_t> piece(pieceBytes);
    n = GetUsedBlockBitmap(piece.size(), start, source, blockSize, blockCount, piece.data());
    FuzzCheck(n >= 0, "a piece of a volume that was read whole reads too");
    FuzzCheck(blockSize == unit && blockCount == totalBlocks, "every call reports the same geometry");
    FuzzCheck(static_cast<uint64_t>(n) == std::min(pieceBytes * 8, totalBlocks - start),
              "a piece covers its buffer or the rest of the volume");
    for (uint64_t k = 0; k < static_cast<uint64_t>(n); ++k) {
      FuzzCheck(BitAt(piece, k) == BitAt(whole, start + k), "pieces agree with the whole volume");
    }
  }

  std::vector<uint8_t> after(1);
  n = GetUsedBlockBitmap(after.size(), totalBlocks, source, blockSize, blockCount, after.data());
  FuzzCheck(n == 0, "the piece after the last block is empty");
  errno = 0;
  n = GetUsedBlockBitmap(after.size(), totalBlocks + 1, source, blockSize, blockCount, after.data());
  FuzzCheck(n == -1 && errno == EINVAL, "a start beyond the volume is refused");
}

}  // namespace orv
