#include "fsmaps/hfs_reader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <random>
#include <set>
#include <vector>

#include "fsmaps/used_block_bitmap.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

// An HFS+ volume as the on-disk format describes it, reduced to what the allocation
// map needs: the volume header at byte 1024 and an allocation file (one bit per
// allocation block, most significant bit first) in two extents, blocks 10 and 20.
class HfsImage {
 public:
  static constexpr uint32_t kBlockSize = 512;
  static constexpr uint32_t kBlocks = 4100;  // 513 bytes of bitmap: two allocation blocks

  explicit HfsImage(bool hfsx = false) : bytes_(uint64_t{kBlocks} * kBlockSize) {
    uint8_t* h = header();
    PutBe16(h, hfsx ? 0x4858 : 0x482B);
    PutBe16(h + 2, hfsx ? 5 : 4);
    PutBe32(h + 40, kBlockSize);
    PutBe32(h + 44, kBlocks);
    uint8_t* fork = h + 112;
    PutBe64(fork, 2 * kBlockSize);
    PutBe32(fork + 12, 2);
    PutBe32(fork + 16, 10);
    PutBe32(fork + 20, 1);
    PutBe32(fork + 24, 20);
    PutBe32(fork + 28, 1);
    // The volume header's blocks, the allocation file and the last block (the
    // alternate volume header) are in use.
    for (uint64_t b : {0, 1, 2, 3, 10, 20, static_cast<int>(kBlocks - 1)}) SetUsed(b);
  }

  uint8_t* header() { return bytes_.data() + 1024; }
  void SetUsed(uint64_t block) {
    used_.insert(block);
    uint64_t byte = block / 8;
    uint64_t fileBlock = byte / kBlockSize;
    uint64_t deviceBlock = fileBlock == 0 ? 10 : 20;
    bytes_[deviceBlock * kBlockSize + byte % kBlockSize] |= 0x80 >> (block % 8);
  }
  const std::set<uint64_t>& used() const { return used_; }
  std::vector<uint8_t>& bytes() { return bytes_; }

 private:
  std::vector<uint8_t> bytes_;
  std::set<uint64_t> used_;
};

TEST(HfsReaderTest, ReadsTheAllocationFileAcrossItsExtents) {
  for (bool hfsx : {false, true}) {
    HfsImage image(hfsx);
    std::mt19937 random(3);
    for (int i = 0; i < 300; ++i) image.SetUsed(random() % HfsImage::kBlocks);
    UsedBlockWalk walk = WalkUsedBlocks(image.bytes(), 16);
    EXPECT_EQ(walk.result, 0);
    EXPECT_EQ(walk.blockCount, HfsImage::kBlocks);
    EXPECT_EQ(walk.used, image.used()) << (hfsx ? "HFSX" : "HFS+");
  }
}

TEST(HfsReaderTest, RefusesWhatItCannotReadWhole) {
  {
    HfsImage image;  // the allocation file continues in the extents overflow file
    PutBe32(image.header() + 112 + 12, 3);
    PutBe64(image.header() + 112, 3 * HfsImage::kBlockSize);
    PutBe32(image.header() + 112 + 28, 0);
    errno = 0;
    EXPECT_EQ(WalkUsedBlocks(image.bytes(), 16).result, -1);
    EXPECT_EQ(errno, EOPNOTSUPP);
  }
  const struct {
    const char* what;
    std::function<void(uint8_t*)> damage;
  } cases[] = {
      {"an allocation file too small for the volume", [](uint8_t* h) { PutBe64(h + 112, 100); }},
      {"an extent past the last block", [](uint8_t* h) { PutBe32(h + 112 + 24, HfsImage::kBlocks); }},
      {"a block size not a power of two", [](uint8_t* h) { PutBe32(h + 40, 1000); }},
  };
  for (const auto& c : cases) {
    HfsImage image;
    c.damage(image.header());
    EXPECT_EQ(WalkUsedBlocks(image.bytes(), 16).result, -1) << c.what;
  }
  HfsImage wrapper;  // an HFS standard wrapper is not HFS+
  PutBe16(wrapper.header(), 0x4244);
  UsedBlockWalk walk = WalkUsedBlocks(wrapper.bytes(), 16);
  EXPECT_EQ(walk.result, 0);
  EXPECT_TRUE(walk.used.empty());
}

}  // namespace
}  // namespace orv
