#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <random>
#include <set>
#include <vector>

#include "fsmaps/block_source.h"
#include "fsmaps/ext_reader.h"
#include "fsmaps/used_block_bitmap.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

// An ext volume built byte by byte: superblock, one descriptor block, and one block
// bitmap per group in the third block of each group.
class ExtImage {
 public:
  ExtImage(uint32_t blockSize, uint32_t blocks, uint32_t perGroup, uint32_t descriptorSize = 32)
      : blockSize_(blockSize), perGroup_(perGroup), descriptorSize_(descriptorSize),
        firstData_(blockSize == 1024 ? 1 : 0), bytes_(uint64_t{blocks} * blockSize) {
    uint8_t* sb = super();
    PutLe32(sb + 4, blocks);
    PutLe32(sb + 20, firstData_);
    PutLe32(sb + 24, blockSize == 1024 ? 0 : blockSize == 2048 ? 1 : 2);
    PutLe32(sb + 32, perGroup);
    PutLe16(sb + 56, 0xEF53);
    if (descriptorSize != 32) {
      PutLe32(sb + 96, 0x80);
      PutLe16(sb + 254, static_cast<uint16_t>(descriptorSize));
    }
    groups_ = (blocks - firstData_ + perGroup - 1) / perGroup;
    for (uint32_t g = 0; g < groups_; ++g) PutLe32(descriptor(g), firstData_ + g * perGroup + 2);
  }

  uint8_t* super() { return bytes_.data() + 1024; }
  uint8_t* descriptor(uint32_t g) { return bytes_.data() + (firstData_ + 1) * blockSize_ + g * descriptorSize_; }
  uint32_t groups() const { return groups_; }
  void SetUsed(uint64_t block) {
    uint64_t g = (block - firstData_) / perGroup_;
    uint64_t bit = (block - firstData_) % perGroup_;
    uint8_t* bitmap = bytes_.data() + (firstData_ + g * perGroup_ + 2) * blockSize_;
    bitmap[bit / 8] |= 1u << (bit % 8);
  }
  std::vector<uint8_t>& bytes() { return bytes_; }

 private:
  uint32_t blockSize_, perGroup_, descriptorSize_, firstData_, groups_ = 0;
  std::vector<uint8_t> bytes_;
};

TEST(ExtReaderTest, VolumeComesInFullPiecesAndAShortLastOne) {
  // 1 KiB blocks: the groups start at block 1, so no group lines up with a piece.
  ExtImage image(1024, 1 + 4 * 1024 - 100, 1024);
  std::mt19937 random(42);
  std::set<uint64_t> expected;
  for (int i = 0; i < 900; ++i) {
    uint64_t block = 1 + random() % (image.bytes().size() / 1024 - 1);
    image.SetUsed(block);
    expected.insert(block);
  }
  UsedBlockWalk walk = WalkUsedBlocks(image.bytes(), 64);
  EXPECT_EQ(walk.result, 0);
  EXPECT_EQ(walk.blockSize, 1024u);
  EXPECT_EQ(walk.blockCount, 3997u);
  ASSERT_EQ(walk.pieces.size(), 8u);
  for (size_t i = 0; i + 1 < walk.pieces.size(); ++i) EXPECT_EQ(walk.pieces[i], 512);
  EXPECT_EQ(walk.pieces.back(), 3997 - 7 * 512);
  EXPECT_EQ(walk.used, expected);

  // One piece for all: the same map, and the whole-volume form agrees.
  UsedBlockWalk whole = WalkUsedBlocks(image.bytes(), 1 << 20);
  EXPECT_EQ(whole.pieces, std::vector<int64_t>{3997});
  EXPECT_EQ(whole.used, expected);
  MemoryBlockSource source(image.bytes().data(), image.bytes().size());
  ExtReader reader(source);
  ASSERT_TRUE(reader.Open());
  std::vector<uint8_t> bitmap;
  ASSERT_TRUE(reader.ReadVolume(&bitmap));
  ASSERT_EQ(bitmap.size(), (3997u + 7) / 8);
  for (uint64_t b = 0; b < 3997; ++b) EXPECT_EQ(((bitmap[b / 8] >> (b % 8)) & 1) != 0, expected.count(b) != 0) << b;
}

TEST(ExtReaderTest, BigallocWithOneKibBlocksReadsTheTableAfterTheSuperblock) {
  // What mkfs.ext4 -b 1024 -O bigalloc -C 4096 writes: the first data block is 0, yet
  // the superblock is block 1 and the descriptor table block 2. Clusters of 4 blocks,
  // one group of 512 clusters, its cluster bitmap in block 8.
  std::vector<uint8_t> image(2048 * 1024);
  uint8_t* sb = image.data() + 1024;
  PutLe32(sb, 64);  // inode count: where a table read from block 1 would find a bitmap
  PutLe32(sb + 4, 2048);
  PutLe32(sb + 28, 2);  // log cluster size: 4 KiB
  PutLe32(sb + 32, 2048);
  PutLe32(sb + 36, 512);
  PutLe16(sb + 56, 0xEF53);
  PutLe32(sb + 100, 0x200);  // bigalloc
  PutLe32(image.data() + 2048, 8);
  uint8_t* bitmap = image.data() + 8 * 1024;
  bitmap[0] = 0x0F;
  bitmap[100 / 8] |= 1u << (100 % 8);
  UsedBlockWalk walk = WalkUsedBlocks(image, 16);
  EXPECT_EQ(walk.result, 0);
  EXPECT_EQ(walk.blockSize, 4096u);
  EXPECT_EQ(walk.blockCount, 512u);
  EXPECT_EQ(walk.used, (std::set<uint64_t>{0, 1, 2, 3, 100}));

  // The same with meta_bg from the first group on: group 0's descriptor block is
  // still block 2.
  PutLe32(sb + 96, 0x10);
  PutLe32(sb + 260, 0);
  walk = WalkUsedBlocks(image, 16);
  EXPECT_EQ(walk.result, 0);
  EXPECT_EQ(walk.used, (std::set<uint64_t>{0, 1, 2, 3, 100}));
}

TEST(ExtReaderTest, StartBlockPastTheEndIsAnError) {
  ExtImage image(1024, 2048, 1024);
  MemoryBlockSource source(image.bytes().data(), image.bytes().size());
  std::vector<uint8_t> buffer(16);
  uint64_t blockSize = 0, blockCount = 0;
  EXPECT_EQ(GetUsedBlockBitmap(16, 2048, source, blockSize, blockCount, buffer.data()), 0);
  errno = 0;
  EXPECT_EQ(GetUsedBlockBitmap(16, 2049, source, blockSize, blockCount, buffer.data()), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(blockCount, 2048u);
  EXPECT_EQ(GetUsedBlockBitmap(16, 0, source, blockSize, blockCount, nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(ExtReaderTest, CorruptSuperblocksAndDescriptorsAreRefused) {
  {
    ExtImage image(1024, 2048, 1024);
    image.super()[56] = 0x54;  // no magic: not recognised at all
    UsedBlockWalk walk = WalkUsedBlocks(image.bytes(), 16);
    EXPECT_EQ(walk.result, 0);
    EXPECT_TRUE(walk.pieces.empty());
  }
  const struct {
    const char* what;
    uint32_t blockSize, blocks, perGroup, descriptorSize;
    std::function<void(ExtImage&)> damage;
  } cases[] = {
      {"zero blocks per group", 1024, 2048, 1024, 32, [](ExtImage& i) { PutLe32(i.super() + 32, 0); }},
      {"more blocks per group than a bitmap holds", 1024, 2048, 1024, 32,
       [](ExtImage& i) { PutLe32(i.super() + 32, 9000); }},
      {"groups not starting after the superblock", 1024, 2048, 1024, 32,
       [](ExtImage& i) { PutLe32(i.super() + 20, 2047); }},
      {"a bitmap outside the volume", 1024, 2048, 1024, 32, [](ExtImage& i) { PutLe32(i.descriptor(1), 5000); }},
      {"a bitmap beyond block 2^32", 4096, 4096, 2048, 64, [](ExtImage& i) { PutLe32(i.descriptor(1) + 0x20, 1); }},
      {"a descriptor size not a power of two", 4096, 4096, 2048, 64,
       [](ExtImage& i) { PutLe16(i.super() + 254, 48); }},
      {"more blocks than the device holds", 1024, 2048, 1024, 32, [](ExtImage& i) { PutLe32(i.super() + 4, 4096); }},
  };
  for (const auto& c : cases) {
    ExtImage image(c.blockSize, c.blocks, c.perGroup, c.descriptorSize);
    c.damage(image);
    EXPECT_EQ(WalkUsedBlocks(image.bytes(), 1 << 20).result, -1) << c.what;
  }
}

}  // namespace
}  // namespace orv
