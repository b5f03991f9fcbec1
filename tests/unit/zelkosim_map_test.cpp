#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "change_map.h"
#include "cow_header.h"
#include "extent_list.h"
#include "mount_table.h"
#include "sim_error.h"

using orv::zelkosim::ChangeMap;
using orv::zelkosim::CowHeader;
using orv::zelkosim::Extent;
using orv::zelkosim::ExtentList;
using orv::zelkosim::MountTable;
using orv::zelkosim::SimError;

// The change map's entries, their merge on reload, zero blocks left as holes and the COW
// file's sizing are checked end to end by the simulator's system tests.
TEST(ZelkosimMapTest, HeaderRoundTripsAndRejectsForeignFiles) {
  CowHeader header;
  header.use = CowHeader::kRetired;
  header.minor = 9;
  header.volume_bytes = 300 << 20;
  header.file_bytes = 40 << 20;
  header.changed_blocks = 77;
  std::string bytes = header.encode();
  ASSERT_EQ(bytes.size(), 4096u);
  CowHeader decoded = CowHeader::Decode(bytes);
  EXPECT_EQ(decoded.use, CowHeader::kRetired);
  EXPECT_EQ(decoded.minor, 9u);
  EXPECT_EQ(decoded.volume_bytes, 300u << 20);
  EXPECT_EQ(decoded.changed_blocks, 77u);

  auto errnoOf = [](const std::string& text) {
    try {
      CowHeader::Decode(text);
    } catch (const SimError& e) {
      return e.err();
    }
    return 0;
  };
  EXPECT_EQ(errnoOf(bytes.substr(0, 100)), EINVAL);
  std::string foreign = bytes;
  foreign[0] = 'X';
  EXPECT_EQ(errnoOf(foreign), EINVAL);
  std::string inconsistent = bytes;
  inconsistent[32] ^= 1;  // block count no longer matches the volume size
  EXPECT_EQ(errnoOf(inconsistent), EINVAL);
}

TEST(ZelkosimMapTest, OnlyWhollyCoveredBlocksAreExcluded) {
  ChangeMap blocks(16);
  // Bytes 1024..13311 on the device: block 0 and block 3 only partly, blocks 1 and 2 wholly.
  ExtentList({Extent{0, 1024, 12288}, Extent{12288, 40960, 4096}, Extent{16384, 61440, 8192}})
      .markCoveredBlocks(blocks);
  EXPECT_EQ(blocks.markedBlocks(), (std::vector<uint64_t>{1, 2, 10, 15}));
}

TEST(ZelkosimMapTest, MountInfoFindsTheVolumeAndItsMode) {
  const std::string text =
      "22 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
      "41 26 7:3 / /tmp/with\\040space rw,relatime - fuseblk /dev/loop3 rw,user_id=0,blksize=4096\n"
      "42 26 7:4 /sub /tmp/bind rw - ext4 /dev/loop4 rw\n"
      "43 26 7:4 / /tmp/ro ro,relatime - ext4 /dev/loop4 ro\n"
      "44 26 7:4 / /tmp/main rw,relatime - ext4 /dev/loop4 rw\n"
      "45 26 0:52 / /tmp/btrfs rw - btrfs /dev/loop5 rw\n"
      "garbage line\n";
  MountTable table = MountTable::Parse(text);
  ASSERT_EQ(table.entries().size(), 6u);
  const auto* fuse = table.findDevice(makedev(7, 3), nullptr);
  ASSERT_NE(fuse, nullptr);
  EXPECT_EQ(fuse->mount_point, "/tmp/with space");
  EXPECT_TRUE(fuse->readWrite());
  const auto* ext = table.findDevice(makedev(7, 4), nullptr);
  ASSERT_NE(ext, nullptr);
  EXPECT_EQ(ext->mount_point, "/tmp/main");  // read-write, whole file system
  EXPECT_FALSE(table.entries()[3].readWrite());
  EXPECT_EQ(table.findDevice(makedev(7, 9), nullptr), nullptr);
  // A file system with an anonymous device number is found by its source.
  auto loop5 = [](const std::string& source) -> dev_t { return source == "/dev/loop5" ? makedev(7, 5) : 0; };
  const auto* btrfs = table.findDevice(makedev(7, 5), loop5);
  ASSERT_NE(btrfs, nullptr);
  EXPECT_EQ(btrfs->fs_type, "btrfs");
}
