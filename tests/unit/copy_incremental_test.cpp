#include "transfer/copy_incremental.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <set>
#include <string>

#include "api/all_backup_status.h"
#include "daemon/file_util.h"
#include "tests/unit/iscsi_test_support.h"
#include "transfer/iscsi_block_device.h"

namespace orv {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kVolumeBlocks = 4096;  // a 16 MiB volume

// A change map: the driver's 4096-byte header, then one word per block.
void WriteMap(const std::string& path, uint64_t entries, const std::set<uint64_t>& changed) {
  std::string bytes(4096 + entries * 8, '\0');
  for (uint64_t block : changed) bytes[4096 + block * 8] = 1;
  ASSERT_EQ(WriteWholeFile(path, bytes), 0);
}

class CopyIncrementalTest : public IscsiTargetTest {
 protected:
  CopyIncrementalTest() : IscsiTargetTest(kVolumeBlocks * kBlock) {}

  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(IscsiTargetTest::SetUp());
    snapshot_ = root_.root() + "/snapshot";
    std::string data(kVolumeBlocks * kBlock, '\0');
    std::mt19937 random(7);
    for (char& c : data) c = static_cast<char>(random());
    ASSERT_EQ(WriteWholeFile(snapshot_, data), 0);
    job_.backupId = "b";
    job_.volumeUuid = "u";
    job_.status = &status_;
    job_.cancelled = &cancelled_;
    job_.snapshotPath = snapshot_;
    job_.volumeSize = kVolumeBlocks * kBlock;
    job_.volumeBlockCount = kVolumeBlocks;
    job_.changeMapPath = root_.root() + "/.zelko";
    job_.historyPath = root_.root() + "/.zelko.inc";
  }

  bool Copy() {
    IscsiBlockDevice device(kIqn, tgtd_.Portal(), 1, "", "");
    if (!device.Connect()) return false;
    bool ok = CopyIncrementalAllBlocks(job_, device);
    device.Disconnect();
    return ok;
  }

  // The blocks of the LUN that now hold the snapshot's data.
  std::set<uint64_t> WrittenBlocks() {
    std::string lun = ReadText(lunPath_);
    std::string snapshot = ReadText(snapshot_);
    std::set<uint64_t> written;
    for (uint64_t b = 0; b < kVolumeBlocks; ++b) {
      if (lun.compare(b * kBlock, kBlock, snapshot, b * kBlock, kBlock) == 0) written.insert(b);
    }
    return written;
  }

  std::string snapshot_;
  AllBackupStatus status_{"b"};
  std::atomic<bool> cancelled_{false};
  CopyJob job_;
};

TEST_F(CopyIncrementalTest, WritesExactlyTheMarkedBlocksAndIgnoresEntriesPastTheVolume) {
  std::set<uint64_t> changed = {0, 1, 2, 7, 100, 101, 4095};
  // A map longer than the volume: the entries beyond it are not the volume's blocks.
  WriteMap(job_.changeMapPath, kVolumeBlocks + 500, {0, 1, 2, 7, 100, 101, 4095, 4096, 4300});
  ASSERT_TRUE(Copy());
  EXPECT_EQ(WrittenBlocks(), changed);
  auto volume = status_.volumes().at(0);
  EXPECT_EQ(volume.totalSize, static_cast<int64_t>(changed.size() * kBlock));
  EXPECT_EQ(volume.bytesTransferred, changed.size() * kBlock);
  EXPECT_FALSE(job_.changeMapBroken);
}

TEST_F(CopyIncrementalTest, HistoryIsOverlaidOnlyWhenFlagged) {
  WriteMap(job_.changeMapPath, kVolumeBlocks, {5});
  WriteMap(job_.historyPath, kVolumeBlocks, {9, 10});
  job_.historyExists = false;
  ASSERT_TRUE(Copy());
  EXPECT_EQ(WrittenBlocks(), (std::set<uint64_t>{5}));
  job_.historyExists = true;
  ASSERT_TRUE(Copy());
  EXPECT_EQ(WrittenBlocks(), (std::set<uint64_t>{5, 9, 10}));
}

TEST_F(CopyIncrementalTest, AnAllZeroMapCopiesNothingAndSucceeds) {
  WriteMap(job_.changeMapPath, kVolumeBlocks, {});
  ASSERT_TRUE(Copy());
  EXPECT_TRUE(WrittenBlocks().empty());
  EXPECT_EQ(status_.volumes().at(0).totalSize, 0);
}

TEST_F(CopyIncrementalTest, MapsThatCannotBeTrustedFailAndSaySo) {
  // Shorter than its header, shorter than the volume, a short history, no map at all.
  ASSERT_EQ(WriteWholeFile(job_.changeMapPath, std::string(100, 1)), 0);
  EXPECT_FALSE(Copy());
  EXPECT_TRUE(job_.changeMapBroken);

  job_.changeMapBroken = false;
  WriteMap(job_.changeMapPath, kVolumeBlocks - 1, {1});
  EXPECT_FALSE(Copy());
  EXPECT_TRUE(job_.changeMapBroken);

  job_.changeMapBroken = false;
  WriteMap(job_.changeMapPath, kVolumeBlocks, {1});
  WriteMap(job_.historyPath, 10, {2});
  job_.historyExists = true;
  EXPECT_FALSE(Copy());
  EXPECT_TRUE(job_.changeMapBroken);

  job_.changeMapBroken = false;
  job_.changeMapPath += ".missing";
  EXPECT_FALSE(Copy());
  EXPECT_TRUE(job_.changeMapBroken);
  EXPECT_TRUE(WrittenBlocks().empty());
}

}  // namespace
}  // namespace orv
