#include "fsmaps/used_block_bitmap.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "fsmaps/piece_bitmap.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

bool Bit(const std::vector<uint8_t>& buffer, uint64_t k) { return (buffer[k / 8] >> (k % 8)) & 1; }

TEST(PieceBitmapTest, CoversAtMostTheBufferAndNeverPastTheLastBlock) {
  std::vector<uint8_t> buffer(4);
  EXPECT_EQ(PieceBitmap(buffer.data(), 4, 0, 100).covered(), 32u);
  EXPECT_EQ(PieceBitmap(buffer.data(), 4, 96, 100).covered(), 4u);
  EXPECT_EQ(PieceBitmap(buffer.data(), 4, 100, 100).covered(), 0u);
  EXPECT_EQ(PieceBitmap(buffer.data(), 4, 101, 100).covered(), 0u);
}

TEST(PieceBitmapTest, RangesAreClippedToThePieceAndLeastSignificantBitFirst) {
  std::vector<uint8_t> buffer(4, 0);
  PieceBitmap piece(buffer.data(), 4, 100, 1000);  // blocks 100..131
  piece.MarkUsed(90, 13);                           // 100, 101, 102
  piece.MarkUsed(120, 50);                          // 120..131
  piece.MarkFree(125, 2);
  piece.MarkUsed(5000, 10);
  EXPECT_EQ(buffer[0], 0x07);
  EXPECT_EQ(buffer[1], 0x00);
  EXPECT_EQ(buffer[2], 0xF0);
  EXPECT_EQ(buffer[3], 0xF9);
  EXPECT_TRUE(piece.IsUsed(131));
  EXPECT_FALSE(piece.IsUsed(132));
}

TEST(PieceBitmapTest, CopiesOnDiskBitmapsAtAnyBitOffset) {
  // Source bits 0b1011'0001 0b0000'0001 (LSB first): blocks +0, +4, +5, +7, +8.
  const uint8_t lsb[] = {0xB1, 0x01};
  const uint8_t msb[] = {0x8D, 0x80};  // the same bits, most significant first
  for (uint64_t shift = 0; shift < 16; ++shift) {
    std::vector<uint8_t> a(8, 0), b(8, 0);
    PieceBitmap pa(a.data(), 8, 0, 64), pb(b.data(), 8, 0, 64);
    pa.CopyLsbFirst(lsb, 0, shift, 16);
    pb.CopyMsbFirst(msb, 0, shift, 16);
    EXPECT_EQ(a, b) << shift;
    for (uint64_t k = 0; k < 64; ++k) {
      bool expected = k >= shift && k < shift + 16 && ((k - shift) == 0 || (k - shift) == 4 || (k - shift) == 5 ||
                                                       (k - shift) == 7 || (k - shift) == 8);
      EXPECT_EQ(Bit(a, k), expected) << "shift " << shift << " bit " << k;
    }
  }
}

// Images read through their paths are mapped by the used-block system tests.
TEST(UsedBlockBitmapTest, UnknownDeviceCoversNothingAndOneThatCannotBeOpenedIsAnError) {
  std::vector<uint8_t> zeros(1 << 20);
  std::vector<uint8_t> buffer(64, 0xFF);
  uint64_t blockSize = 7, blockCount = 7;
  // A device too short for any header is unknown too.
  for (size_t bytes : {zeros.size(), size_t{3}}) {
    MemoryBlockSource source(zeros.data(), bytes);
    EXPECT_EQ(GetUsedBlockBitmap(64, 0, source, blockSize, blockCount, buffer.data()), 0) << bytes;
    EXPECT_EQ(blockSize, 0u);
    EXPECT_EQ(blockCount, 0u);
  }
  errno = 0;
  EXPECT_EQ(GetUsedBlockBitmap(64, 0, "/nonexistent/orv-device", blockSize, blockCount, buffer.data()), -1);
  EXPECT_EQ(errno, ENOENT);
}

}  // namespace
}  // namespace orv
