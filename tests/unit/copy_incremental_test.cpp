#include "transfer/copy_incremental.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "api/all_backup_status.h"
#include "daemon/file_util.h"
#include "tests/unit/iscsi_test_support.h"
#include "transfer/iscsi_block_device.h"

namespace orv {
namespace {

constexpr uint64_t kBlock = 4096;
constexpr uint64_t kVolumeBlocks = 4096;  // a 16 MiB volume

// A change map: the driver's 4096-byte header, then one word per block.
std::string Map(uint64_t entries, const std::set<uint64_t>& changed) {
  std::string bytes(4096 + entries * 8, '\0');
  for (uint64_t block : changed) bytes[4096 + block * 8] = 1;
  return bytes;
}

void WriteMap(const std::string& path, uint64_t entries, const std::set<uint64_t>& changed) {
  ASSERT_EQ(WriteWholeFile(path, Map(entries, changed)), 0);
}

class CopyIncrementalTest : public IscsiTargetTest {
 protected:
  // Only the first 4096 blocks of the snapshot hold data; the rest reads as zeros.
  explicit CopyIncrementalTest(uint64_t blocks = kVolumeBlocks) : IscsiTargetTest(blocks * kBlock), blocks_(blocks) {}

  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(IscsiTargetTest::SetUp());
    snapshot_ = root_.root() + "/snapshot";
    std::string data(kVolumeBlocks * kBlock, '\0');
    std::mt19937 random(7);
    for (char& c : data) c = static_cast<char>(random());
    ASSERT_EQ(WriteWholeFile(snapshot_, data), 0);
    ASSERT_EQ(truncate(snapshot_.c_str(), static_cast<off_t>(blocks_ * kBlock)), 0);
    job_.backupId = "b";
    job_.volumeUuid = "u";
    job_.status = &status_;
    job_.cancelled = &cancelled_;
    job_.snapshotPath = snapshot_;
    job_.volumeSize = blocks_ * kBlock;
    job_.volumeBlockCount = blocks_;
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

  // The volume's bytes-transferred figures in the order the writer set them: one per run.
  std::vector<uint64_t> Progress() {
    std::vector<uint64_t> figures;
    for (const std::string& message : LoggedMessages("Set backup of volume u 'BYTES TRANSFERRED' to ")) {
      figures.push_back(std::stoull(message.substr(message.find(" to ") + 4)));
    }
    return figures;
  }

  uint64_t blocks_;
  std::string snapshot_;
  AllBackupStatus status_{"b"};
  std::atomic<bool> cancelled_{false};
  CopyJob job_;
};

// Each run of marked blocks is sent in chunk buffers of 12 MiB; the entries of a map
// longer than the volume are not the volume's blocks.
TEST_F(CopyIncrementalTest, WritesExactlyTheMarkedBlocksRunByRun) {
  std::set<uint64_t> changed = {0, 1, 2, 7, 100, 101, 4095};
  for (uint64_t b = 200; b < 200 + 3072 + 5; ++b) changed.insert(b);
  std::set<uint64_t> mapped = changed;
  mapped.insert({4096, 4300});
  WriteMap(job_.changeMapPath, kVolumeBlocks + 500, mapped);
  ASSERT_TRUE(Copy());
  EXPECT_EQ(WrittenBlocks(), changed);
  const uint64_t twelve = 12582912;
  EXPECT_EQ(Progress(), (std::vector<uint64_t>{3 * kBlock, 4 * kBlock, 6 * kBlock, 6 * kBlock + twelve,
                                               11 * kBlock + twelve, 12 * kBlock + twelve}));
  EXPECT_EQ(status_.volumes().at(0).totalSize, static_cast<int64_t>(changed.size() * kBlock));
  EXPECT_FALSE(job_.changeMapBroken);
}

// A volume just over one 10 MiB piece of the change map (1310720 blocks).
class CopyIncrementalPiecesTest : public CopyIncrementalTest {
 protected:
  static constexpr uint64_t kPiece = kChangeMapChunkBytes / 8;
  CopyIncrementalPiecesTest() : CopyIncrementalTest(kPiece + 16) {}
};

TEST_F(CopyIncrementalPiecesTest, ARunNeverCrossesAPieceOfTheMap) {
  // Changed blocks on both sides of the piece boundary and up to the volume's last block.
  std::set<uint64_t> changed = {1, 2, kPiece - 2, kPiece - 1, kPiece, kPiece + 1, kPiece + 15};
  ASSERT_TRUE(WriteBacking(snapshot_, (kPiece - 2) * kBlock, Pattern(5 * kBlock, 3)));
  ASSERT_TRUE(WriteBacking(snapshot_, (kPiece + 15) * kBlock, Pattern(kBlock, 4)));
  WriteMap(job_.changeMapPath, kPiece + 16, changed);
  ASSERT_TRUE(Copy());
  EXPECT_EQ(Progress(), (std::vector<uint64_t>{2 * kBlock, 4 * kBlock, 6 * kBlock, 7 * kBlock}));
  EXPECT_EQ(status_.volumes().at(0).totalSize, static_cast<int64_t>(7 * kBlock));
  for (uint64_t block : changed) {
    EXPECT_EQ(ReadBacking(lunPath_, block * kBlock, kBlock), ReadBacking(snapshot_, block * kBlock, kBlock)) << block;
  }
  // Block kPiece + 2 holds data but did not change: the image keeps what it had.
  EXPECT_EQ(ReadBacking(lunPath_, (kPiece + 2) * kBlock, kBlock), std::vector<unsigned char>(kBlock, 0));
}

// A map that cannot be trusted fails the copy before anything is written and says so. A
// COW file goes on past its map with the driver's copied data: its history must be as long.
TEST_F(CopyIncrementalTest, UntrustedMapsFailAndAWholeHistoryIsOverlaidWhenFlagged) {
  const std::string cow = Map(kVolumeBlocks, {3}) + std::string(4099, 7);
  const struct {
    const char* what;
    std::string map, history;  // none when empty
  } broken[] = {
      {"no map", "", ""},
      {"shorter than its header", std::string(100, 1), ""},
      {"shorter than the volume", Map(kVolumeBlocks - 1, {1}), ""},
      {"a short history", Map(kVolumeBlocks, {1}), Map(10, {2})},
      {"a history ending before its COW file", cow, Map(kVolumeBlocks, {3}) + std::string(4088, 0)},
  };
  for (const auto& c : broken) {
    std::filesystem::remove(job_.changeMapPath);
    ASSERT_TRUE(c.map.empty() || WriteWholeFile(job_.changeMapPath, c.map) == 0);
    ASSERT_TRUE(c.history.empty() || WriteWholeFile(job_.historyPath, c.history) == 0);
    job_.historyExists = !c.history.empty();
    job_.changeMapBroken = false;
    EXPECT_FALSE(Copy()) << c.what;
    EXPECT_TRUE(job_.changeMapBroken) << c.what;
  }
  EXPECT_TRUE(WrittenBlocks().empty());
  // Once for each history that is too short.
  EXPECT_EQ(LoggedMessages("Could not overlay incremental history. errno: 5").size(), 2u);
  // A history as long as its COW file is overlaid on the map, but only when flagged: with an
  // all-zero map there is then nothing to copy, and that is fine.
  ASSERT_EQ(WriteWholeFile(job_.historyPath, Map(kVolumeBlocks, {9, 10}) + std::string(4096, 0)), 0);
  WriteMap(job_.changeMapPath, kVolumeBlocks, {});
  job_.historyExists = false;
  job_.changeMapBroken = false;
  ASSERT_TRUE(Copy());
  EXPECT_EQ(status_.volumes().at(0).totalSize, 0);
  EXPECT_TRUE(WrittenBlocks().empty());
  ASSERT_EQ(WriteWholeFile(job_.changeMapPath, cow), 0);
  job_.historyExists = true;
  EXPECT_TRUE(Copy());
  EXPECT_FALSE(job_.changeMapBroken);
  EXPECT_EQ(WrittenBlocks(), (std::set<uint64_t>{3, 9, 10}));
}

}  // namespace
}  // namespace orv
