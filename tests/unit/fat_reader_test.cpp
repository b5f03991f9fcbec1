#include "fsmaps/fat_reader.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "fsmaps/used_block_bitmap.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

// A FAT32 volume of 512-byte sectors: boot sector, reserved sectors, two FATs of 16
// sectors, then the data area.
class FatImage {
 public:
  FatImage(uint32_t sectorsPerCluster, uint32_t reserved, uint32_t totalSectors)
      : perCluster_(sectorsPerCluster), reserved_(reserved), bytes_(uint64_t{totalSectors} * 512) {
    uint8_t* s = bytes_.data();
    s[0] = 0xEB;
    PutLe16(s + 11, 512);
    s[13] = static_cast<uint8_t>(sectorsPerCluster);
    PutLe16(s + 14, static_cast<uint16_t>(reserved));
    s[16] = 2;
    PutLe32(s + 32, totalSectors);
    PutLe32(s + 36, 16);
    PutLe32(s + 44, 2);
    s[510] = 0x55;
    s[511] = 0xAA;
  }

  uint64_t dataStart() const { return reserved_ + 32; }  // in sectors
  void SetEntry(int fat, uint32_t cluster, uint32_t value) {
    PutLe32(bytes_.data() + (reserved_ + fat * 16) * 512 + cluster * 4, value);
  }
  std::vector<uint8_t>& bytes() { return bytes_; }
  uint8_t* boot() { return bytes_.data(); }

 private:
  uint32_t perCluster_, reserved_;
  std::vector<uint8_t> bytes_;
};

std::set<uint64_t> Range(uint64_t first, uint64_t count) {
  std::set<uint64_t> out;
  for (uint64_t b = first; b < first + count; ++b) out.insert(b);
  return out;
}

TEST(FatReaderTest, ClusterIsTheUnitWhenTheDataAreaIsAligned) {
  FatImage image(4, 32, 2000);  // data at sector 64, a multiple of 4
  image.SetEntry(0, 2, 0x0FFFFFFF);     // root directory
  image.SetEntry(0, 5, 6);              // a chain 5 -> 6 -> 5: loops cost nothing
  image.SetEntry(0, 6, 5);
  image.SetEntry(0, 480, 0xF0000000);   // only the top four bits set: free
  image.SetEntry(0, 481, 0x0FFFFFF7);   // bad cluster: kept
  UsedBlockWalk map = WalkUsedBlocks(image.bytes(), 4);
  EXPECT_EQ(map.result, 0);
  EXPECT_EQ(map.blockSize, 2048u);
  EXPECT_EQ(map.blockCount, 16u + (2000 - 64) / 4);
  std::set<uint64_t> expected = Range(0, 16);  // reserved sectors and both FATs
  for (uint64_t cluster : {2, 5, 6, 481}) expected.insert(16 + cluster - 2);
  EXPECT_EQ(map.used, expected);
}

TEST(FatReaderTest, ReadsTheActiveFatWhenMirroringIsOff) {
  FatImage image(1, 32, 2000);
  image.SetEntry(0, 10, 0x0FFFFFFF);  // stale copy
  image.SetEntry(1, 20, 0x0FFFFFFF);
  PutLe16(image.boot() + 40, 0x81);  // mirroring off, FAT 1 active
  UsedBlockWalk map = WalkUsedBlocks(image.bytes(), 1 << 10);
  std::set<uint64_t> expected = Range(0, 64);
  expected.insert(64 + 18);
  EXPECT_EQ(map.used, expected);
  PutLe16(image.boot() + 40, 0x82);  // FAT 2 of two
  EXPECT_EQ(WalkUsedBlocks(image.bytes(), 1 << 10).result, -1);
}

TEST(FatReaderTest, CorruptBootSectorsAreRefused) {
  FatImage shortFat(1, 32, 2000);
  PutLe32(shortFat.boot() + 36, 1);  // a FAT of one sector holds 128 entries, not 1968
  EXPECT_EQ(WalkUsedBlocks(shortFat.bytes(), 64).result, -1);
  FatImage pastTheEnd(1, 32, 2000);
  PutLe16(pastTheEnd.boot() + 14, 2000);  // data area past the end
  EXPECT_EQ(WalkUsedBlocks(pastTheEnd.bytes(), 64).result, -1);
  FatImage notFat(3, 32, 2000);  // three sectors per cluster: not FAT at all
  EXPECT_EQ(WalkUsedBlocks(notFat.bytes(), 64).result, 0);
}

}  // namespace
}  // namespace orv
