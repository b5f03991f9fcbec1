#include "fsmaps/xfs_reader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <set>
#include <utility>
#include <vector>

#include "fsmaps/used_block_bitmap.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

// Two allocation groups of 256 blocks of 4 KiB, laid out as XFS does: superblock,
// AGF (sector 1) and AGFL (sector 3) at the start of each AG, and a free-space btree
// by block number of two levels: a root node in block 4 over leaves in blocks 5 and 6.
class XfsImage {
 public:
  static constexpr uint32_t kBlockSize = 4096;
  static constexpr uint32_t kAgBlocks = 256;

  explicit XfsImage(bool v5) : v5_(v5), bytes_(2 * kAgBlocks * kBlockSize) {
    uint8_t* sb = bytes_.data();
    PutBe32(sb, 0x58465342);
    PutBe32(sb + 4, kBlockSize);
    PutBe64(sb + 8, 2 * kAgBlocks);
    PutBe32(sb + 84, kAgBlocks);
    PutBe32(sb + 88, 2);
    PutBe16(sb + 100, v5 ? 5 : 4);
    PutBe16(sb + 102, 512);
    for (uint32_t ag = 0; ag < 2; ++ag) {
      uint8_t* agf = block(ag, 0) + 512;
      PutBe32(agf, 0x58414746);
      PutBe32(agf + 8, ag);
      PutBe32(agf + 12, kAgBlocks);
      PutBe32(agf + 16, 4);  // bno root
      PutBe32(agf + 28, 2);  // two levels
      Node(ag, 4, {5, 6});
      Leaf(ag, 5, {{10, 5}, {20, 1}});
      Leaf(ag, 6, {{100, 50}});
      FreeList(ag, 0, {7, 8});
    }
  }

  uint8_t* block(uint32_t ag, uint32_t agBlock) {
    return bytes_.data() + (uint64_t{ag} * kAgBlocks + agBlock) * kBlockSize;
  }
  uint64_t header() const { return v5_ ? 56 : 16; }

  void Header(uint32_t ag, uint32_t agBlock, uint16_t level, uint16_t records) {
    uint8_t* b = block(ag, agBlock);
    PutBe32(b, v5_ ? 0x41423342 : 0x41425442);
    PutBe16(b + 4, level);
    PutBe16(b + 6, records);
    if (v5_) {
      PutBe64(b + 16, (uint64_t{ag} * kAgBlocks + agBlock) * (kBlockSize / 512));
      PutBe32(b + 48, ag);
    }
  }
  void Node(uint32_t ag, uint32_t agBlock, const std::vector<uint32_t>& children) {
    Header(ag, agBlock, 1, static_cast<uint16_t>(children.size()));
    uint64_t maxRecords = (kBlockSize - header()) / 12;
    for (size_t i = 0; i < children.size(); ++i) {
      PutBe32(block(ag, agBlock) + header() + maxRecords * 8 + i * 4, children[i]);
    }
  }
  void Leaf(uint32_t ag, uint32_t agBlock, const std::vector<std::pair<uint32_t, uint32_t>>& extents) {
    Header(ag, agBlock, 0, static_cast<uint16_t>(extents.size()));
    for (size_t i = 0; i < extents.size(); ++i) {
      PutBe32(block(ag, agBlock) + header() + i * 8, extents[i].first);
      PutBe32(block(ag, agBlock) + header() + i * 8 + 4, extents[i].second);
    }
  }
  void FreeList(uint32_t ag, uint32_t first, const std::vector<uint32_t>& blocks) {
    uint8_t* agf = block(ag, 0) + 512;
    PutBe32(agf + 40, first);
    PutBe32(agf + 44, static_cast<uint32_t>(first + blocks.size() - 1));
    PutBe32(agf + 48, static_cast<uint32_t>(blocks.size()));
    uint8_t* agfl = block(ag, 0) + 3 * 512;
    uint64_t slots = v5_ ? 36 : 0;
    if (v5_) {
      PutBe32(agfl, 0x5841464C);
      PutBe32(agfl + 4, ag);
    }
    for (size_t i = 0; i < blocks.size(); ++i) PutBe32(agfl + slots + (first + i) * 4, blocks[i]);
  }
  std::vector<uint8_t>& bytes() { return bytes_; }

 private:
  bool v5_;
  std::vector<uint8_t> bytes_;
};

// The blocks the map leaves unused; empty when the walk fails.
std::set<uint64_t> FreeBlocks(std::vector<uint8_t>& image, uint64_t bufferBytes) {
  UsedBlockWalk walk = WalkUsedBlocks(image, bufferBytes);
  std::set<uint64_t> free;
  for (uint64_t b = 0; walk.result == 0 && b < walk.blockCount; ++b) {
    if (walk.used.count(b) == 0) free.insert(b);
  }
  return free;
}

std::set<uint64_t> ExpectedFree() {
  std::set<uint64_t> free;
  for (uint64_t ag : {0, 256}) {
    for (uint64_t b : {7, 8, 20}) free.insert(ag + b);
    for (uint64_t b = 10; b < 15; ++b) free.insert(ag + b);
    for (uint64_t b = 100; b < 150; ++b) free.insert(ag + b);
  }
  return free;
}

TEST(XfsReaderTest, FreeSpaceBtreeAndFreeListOfEveryAgAreFree) {
  for (bool v5 : {true, false}) {
    XfsImage image(v5);
    EXPECT_EQ(FreeBlocks(image.bytes(), 8), ExpectedFree()) << (v5 ? "v5" : "v4");  // pieces of 64 blocks
  }
}

TEST(XfsReaderTest, WrappedFreeListStaysUsed) {
  XfsImage image(true);
  // A list that wraps past the last slot: the slot count is uncertain, so its blocks
  // are kept.
  uint8_t* agf = image.block(0, 0) + 512;
  PutBe32(agf + 40, 100);
  PutBe32(agf + 44, 1);
  PutBe32(agf + 48, 21);
  std::set<uint64_t> expected = ExpectedFree();
  expected.erase(7);
  expected.erase(8);
  EXPECT_EQ(FreeBlocks(image.bytes(), 1 << 10), expected);
}

TEST(XfsReaderTest, CorruptBtreesEndTheWalk) {
  const struct {
    const char* what;
    bool v5;
    std::function<void(XfsImage&)> damage;
  } cases[] = {
      {"the same leaf twice", true, [](XfsImage& i) { i.Node(0, 4, {5, 5}); }},
      {"a node that points back at itself", true, [](XfsImage& i) { i.Node(0, 4, {5, 4}); }},
      {"a leaf where the root expects level 0", false, [](XfsImage& i) { i.Header(1, 6, 1, 1); }},
      {"a free extent past the end of the AG", true, [](XfsImage& i) { i.Leaf(1, 6, {{200, 100}}); }},
      {"more records than the block holds", true, [](XfsImage& i) { i.Header(0, 6, 0, 2000); }},
      {"a v5 block that is not where it says", true, [](XfsImage& i) { PutBe64(i.block(0, 5) + 16, 0); }},
      {"three AGs in two AGs' worth of blocks", true, [](XfsImage& i) { PutBe32(i.bytes().data() + 88, 3); }},
  };
  for (const auto& c : cases) {
    XfsImage image(c.v5);
    c.damage(image);
    errno = 0;
    EXPECT_EQ(WalkUsedBlocks(image.bytes(), 1 << 10).result, -1) << c.what;
    EXPECT_EQ(errno, EUCLEAN) << c.what;
  }
}

TEST(XfsReaderTest, PiecesOutsideAnAgDoNotReadIt) {
  XfsImage image(true);
  // Damage AG 1's AGF: a piece inside AG 0 does not look at it, one in AG 1 fails.
  image.block(1, 0)[512] = 0;
  MemoryBlockSource source(image.bytes().data(), image.bytes().size());
  std::vector<uint8_t> buffer(8);
  uint64_t blockSize = 0, blockCount = 0;
  EXPECT_EQ(GetUsedBlockBitmap(8, 64, source, blockSize, blockCount, buffer.data()), 64);
  EXPECT_EQ(buffer[4], 0x0F);  // blocks 96..103: 96..99 used, 100.. free
  EXPECT_EQ(GetUsedBlockBitmap(8, 256, source, blockSize, blockCount, buffer.data()), -1);
}

}  // namespace
}  // namespace orv
