#include "transfer/block_devices.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "daemon/logger.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

class BlockDevicesTest : public AgentRootTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(AgentRootTest::SetUp());
    dir_ = root_.root();
    setenv("ORVD_DRIVER_DEV", (dir_ + "/snap/zelko").c_str(), 1);
  }
  void TearDown() override {
    if (!loop_.empty()) Command("losetup -d " + loop_);
    unsetenv("ORVD_DRIVER_DEV");
  }

  // A loop device holding a fresh ext4 volume; its UUID in `uuid`.
  void MakeVolume(std::string& uuid) {
    const std::string image = dir_ + "/volume.img";
    { std::ofstream(image).close(); }
    std::filesystem::resize_file(image, 16 << 20);
    ASSERT_EQ(system(("mkfs.ext4 -q -F -L unitvol " + image).c_str()), 0);
    loop_ = Command("losetup -f --show " + image);
    ASSERT_EQ(loop_.compare(0, 9, "/dev/loop"), 0) << loop_;
    uuid = Command("blkid -p -s UUID -o value " + loop_);
    ASSERT_FALSE(uuid.empty());
  }
  // A second node for the loop device, at `path`.
  void Alias(const std::string& path) {
    struct stat info;
    ASSERT_EQ(stat(loop_.c_str(), &info), 0);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    ASSERT_EQ(mknod(path.c_str(), S_IFBLK | 0600, info.st_rdev), 0);
  }
  std::unique_ptr<BlockDevice> RecordOf(const std::string& path) {
    blkid_cache cache = nullptr;
    EXPECT_EQ(blkid_get_cache(&cache, "/dev/null"), 0);
    blkid_dev device = blkid_get_dev(cache, path.c_str(), BLKID_DEV_NORMAL);
    std::unique_ptr<BlockDevice> record;
    if (device != nullptr) record = devices_.GetBlockDevice(device);
    blkid_put_cache(cache);
    return record;
  }
  std::string dir_;
  std::string loop_;
  BlockDevices devices_;
};

TEST_F(BlockDevicesTest, LookupsOfMissingThingsFailQuietly) {
  const std::string file = dir_ + "/plain-file";
  std::ofstream(file) << "not a device";
  int32_t sectorSize = 0;
  EXPECT_FALSE(devices_.GetSectorSize(file, sectorSize));
  EXPECT_TRUE(Logged("Could not get sector size for device: " + file + ".", kWarning));
  uint64_t number = 0;
  EXPECT_FALSE(devices_.GetDeviceNumber(dir_ + "/missing", number));
  EXPECT_TRUE(Logged("Could not get device number for device: " + dir_ + "/missing.", kWarning));
  EXPECT_FALSE(devices_.IsRemovable("no-such-disk"));
  EXPECT_FALSE(devices_.IsSwap(dir_ + "/missing"));

  int flags = -1;
  std::string mountPoint = "x";
  EXPECT_TRUE(devices_.CheckMountPoint(dir_ + "/missing", flags, mountPoint));
  EXPECT_EQ(flags, 0);
  EXPECT_EQ(mountPoint, "");
  EXPECT_EQ(devices_.GetBlockDeviceFromUUID("ffffffff-0000-4000-8000-000000000000", true), nullptr);
}

TEST_F(BlockDevicesTest, RootDeviceUnderAnyNameIsTheMountedRoot) {
  std::ifstream mounts("/proc/self/mounts");
  std::string source, target, rest;
  while (mounts >> source >> target && target != "/") std::getline(mounts, rest);
  struct stat root;
  if (stat(source.c_str(), &root) != 0 || !S_ISBLK(root.st_mode)) GTEST_SKIP() << "root is " << source;
  // The root's own node is checked by the block-device system tests; another node of
  // the same device is matched by its device number.
  int flags = 0;
  std::string mountPoint;
  const std::string alias = dir_ + "/root-alias";
  ASSERT_EQ(mknod(alias.c_str(), S_IFBLK | 0600, root.st_rdev), 0);
  ASSERT_TRUE(devices_.CheckMountPoint(alias, flags, mountPoint));
  EXPECT_EQ(flags, BlockDevices::kMounted | BlockDevices::kIsRoot);
  EXPECT_EQ(mountPoint, "/");
}

TEST_F(BlockDevicesTest, LinksAreResolvedSnapshotDevicesSkippedAndVanishedNodesGiveNoRecord) {
  std::string uuid;
  ASSERT_NO_FATAL_FAILURE(MakeVolume(uuid));
  Alias(dir_ + "/nodes/volume");
  std::filesystem::create_directories(dir_ + "/links");
  ASSERT_EQ(symlink("../nodes/volume", (dir_ + "/links/volume").c_str()), 0);

  std::unique_ptr<BlockDevice> record = RecordOf(dir_ + "/links/volume");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->path, dir_ + "/nodes/volume");
  EXPECT_EQ(record->name, record->path.substr(5));
  EXPECT_EQ(record->uuid, uuid);
  EXPECT_EQ(record->label, "unitvol");
  EXPECT_EQ(record->sizeBytes, 16 << 20);
  EXPECT_FALSE(record->mounted);
  EXPECT_EQ(record->wholeDiskPath, loop_);

  // The driver's devices, at their relocated prefix or under any ".../dev/zelko".
  Alias(dir_ + "/snap/zelko3");
  EXPECT_EQ(RecordOf(dir_ + "/snap/zelko3"), nullptr);
  Alias(dir_ + "/dev/zelko7");
  EXPECT_EQ(RecordOf(dir_ + "/dev/zelko7"), nullptr);
  // A link that leads into them is no way around.
  ASSERT_EQ(symlink("../snap/zelko3", (dir_ + "/links/snap").c_str()), 0);
  EXPECT_EQ(RecordOf(dir_ + "/links/snap"), nullptr);

  // A node gone between enumeration and lookup gives no record; the volume is still found by its UUID.
  const std::string node = dir_ + "/nodes/gone";
  Alias(node);
  blkid_cache cache = nullptr;
  ASSERT_EQ(blkid_get_cache(&cache, "/dev/null"), 0);
  blkid_dev device = blkid_get_dev(cache, node.c_str(), BLKID_DEV_NORMAL);
  ASSERT_NE(device, nullptr);
  ASSERT_EQ(unlink(node.c_str()), 0);
  EXPECT_EQ(devices_.GetBlockDevice(device), nullptr);
  blkid_put_cache(cache);
  std::unique_ptr<BlockDevice> found = devices_.GetBlockDeviceFromUUID(uuid, false);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->path, loop_);
}

}  // namespace
}  // namespace orv
