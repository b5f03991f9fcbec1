#include "fsmaps/used_block_bitmap.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
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

TEST(UsedBlockBitmapTest, UnknownDeviceCoversNothing) {
  std::vector<uint8_t> zeros(1 << 20);
  MemoryBlockSource source(zeros.data(), zeros.size());
  std::vector<uint8_t> buffer(64, 0xFF);
  uint64_t blockSize = 7, blockCount = 7;
  EXPECT_EQ(GetUsedBlockBitmap(64, 0, source, blockSize, blockCount, buffer.data()), 0);
  EXPECT_EQ(blockSize, 0u);
  EXPECT_EQ(blockCount, 0u);
  // A device too short for any header is unknown too.
  MemoryBlockSource tiny(zeros.data(), 3);
  EXPECT_EQ(GetUsedBlockBitmap(64, 0, tiny, blockSize, blockCount, buffer.data()), 0);
}

TEST(UsedBlockBitmapTest, DeviceThatCannotBeOpenedIsAnError) {
  std::vector<uint8_t> buffer(64);
  uint64_t blockSize = 0, blockCount = 0;
  errno = 0;
  EXPECT_EQ(GetUsedBlockBitmap(64, 0, "/nonexistent/orv-device", blockSize, blockCount, buffer.data()), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(UsedBlockBitmapTest, ReadsAnImageFileThroughItsPath) {
  // A one-group ext volume of 64 1 KiB blocks whose bitmap (block 3) marks 1, 2, 3, 40.
  std::vector<uint8_t> image(64 * 1024);
  auto put32 = [&](size_t at, uint32_t v) { PutLe32(image.data() + at, v); };
  put32(1024 + 4, 64);
  put32(1024 + 20, 1);
  put32(1024 + 32, 8192);
  image[1024 + 56] = 0x53;
  image[1024 + 57] = 0xEF;
  put32(2048, 3);
  image[3 * 1024] = 0x07;
  image[3 * 1024 + 4] = 0x80;  // group bit 39 = block 40
  char path[] = "/tmp/orv-ext-image-XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, image.data(), image.size()), static_cast<ssize_t>(image.size()));
  close(fd);
  std::vector<uint8_t> buffer(16, 0xFF);
  uint64_t blockSize = 0, blockCount = 0;
  int64_t n = GetUsedBlockBitmap(16, 0, path, blockSize, blockCount, buffer.data());
  unlink(path);
  ASSERT_EQ(n, 64);
  EXPECT_EQ(blockSize, 1024u);
  EXPECT_EQ(blockCount, 64u);
  for (uint64_t k = 0; k < 64; ++k) EXPECT_EQ(Bit(buffer, k), k == 1 || k == 2 || k == 3 || k == 40) << k;
  for (size_t i = 8; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], 0) << "the whole buffer is cleared";
}

}  // namespace
}  // namespace orv
