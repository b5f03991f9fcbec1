#include "transfer/copy_diff_merge.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "api/all_backup_status.h"
#include "tests/unit/iscsi_test_support.h"
#include "transfer/copy_full.h"
#include "transfer/iscsi_block_device.h"

namespace orv {
namespace {

constexpr const char* kVolume = "7d1e40aa-volume";
constexpr uint64_t kChunk = kCopyChunkBytes;
constexpr int64_t kImageOffset = 1 << 20;

const std::string kProgress = "Set backup of volume " + std::string(kVolume) + " 'BYTES TRANSFERRED' to ";

std::string ProgressRow(uint64_t bytes) { return kProgress + std::to_string(bytes) + " bytes."; }

// Volumes of mostly zeros kept as sparse files, so that images of many chunks cost no
// disk: the snapshot beside the agent root, the image in the LUN's backing file.
class CopyDiffMergeTest : public IscsiTargetTest {
 protected:
  static constexpr uint64_t kVolumeBytes = 40 * kChunk + (4 << 20);  // a short last chunk

  CopyDiffMergeTest() : IscsiTargetTest(kVolumeBytes + kImageOffset + (1 << 20)) {}

  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(IscsiTargetTest::SetUp());
    ASSERT_TRUE(status_.modifyVolume(kVolume));
    snapshot_ = root_.root() + "/snapshot";
    int fd = open(snapshot_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, static_cast<off_t>(kVolumeBytes)), 0);
    close(fd);
    job_.backupId = "b";
    job_.volumeUuid = kVolume;
    job_.status = &status_;
    job_.cancelled = &cancelled_;
    job_.snapshotPath = snapshot_;
    job_.imageOffset = kImageOffset;
    job_.volumeSize = kVolumeBytes;
  }

  // One byte of the snapshot (at volume offset `at`), or of the image on the LUN.
  void SetSnapshotByte(uint64_t at, unsigned char value) {
    ASSERT_TRUE(WriteBacking(snapshot_, at, {value}));
  }
  void SetImageByte(uint64_t at, unsigned char value) {
    ASSERT_TRUE(WriteBacking(lunPath_, kImageOffset + at, {value}));
  }

  // Runs the copy on a thread of its own over device_; `during` runs on this thread
  // meanwhile (tgtd is stopped and started from the thread that started it).
  bool Copy(const std::function<void()>& during = nullptr, bool losesSession = false) {
    std::optional<LibiscsiSessionLossLeaks> expected;
    if (losesSession) expected.emplace();
    device_ = std::make_unique<IscsiBlockDevice>(kIqn, tgtd_.Portal(), 1, "", "");
    if (!device_->Connect()) return false;
    bool ok = false;
    std::thread copy([&] {
      std::optional<LibiscsiSessionLossLeaks> expected;
      if (losesSession) expected.emplace();
      ok = CopyDiffMergeAllBlocks(job_, *device_);
    });
    if (during) during();
    copy.join();
    return ok;
  }

  // Waits until the copy has compared `chunks` chunks (false when it ended first).
  bool WaitForChunks(uint64_t chunks) {
    auto start = std::chrono::steady_clock::now();
    while (status_.volumes().at(0).bytesTransferred < chunks * kChunk) {
      if (SecondsSince(start) > 60) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return status_.volumes().at(0).bytesTransferred < kVolumeBytes;
  }

  // The progress rows are those of chunks 1, 2, ... m, each once and in order; m.
  uint64_t ProgressRowsInOrder() {
    std::vector<std::string> rows = LoggedMessages(kProgress);
    for (size_t i = 0; i < rows.size(); ++i) {
      uint64_t bytes = std::min<uint64_t>((i + 1) * kChunk, kVolumeBytes);
      EXPECT_EQ(rows[i], ProgressRow(bytes));
    }
    return rows.size();
  }

  // Whether the image on the LUN holds the snapshot, compared in pieces.
  bool ImageMatchesSnapshot() {
    for (uint64_t at = 0; at < kVolumeBytes; at += kChunk) {
      size_t bytes = static_cast<size_t>(std::min<uint64_t>(kChunk, kVolumeBytes - at));
      if (ReadBacking(lunPath_, kImageOffset + at, bytes) != ReadBacking(snapshot_, at, bytes)) return false;
    }
    return true;
  }

  // The start of the first data of the LUN's backing file at or after `from`.
  off_t NextData(off_t from) {
    int fd = open(lunPath_.c_str(), O_RDONLY | O_CLOEXEC);
    off_t at = lseek(fd, from, SEEK_DATA);
    close(fd);
    return at;
  }

  std::string snapshot_;
  AllBackupStatus status_{"b"};
  std::atomic<bool> cancelled_{false};
  CopyJob job_;
  std::unique_ptr<IscsiBlockDevice> device_;
};

// Exactly the chunks that differ are rewritten, whole; a write of an identical chunk,
// even of the zeros already there, would have given the LUN's sparse file data.
TEST_F(CopyDiffMergeTest, ExactlyTheChunksThatDifferAreRewrittenWhole) {
  SetSnapshotByte(2 * kChunk - 1, 7);    // the last byte of chunk 1
  SetImageByte(5 * kChunk, 9);           // the first byte of chunk 5, on the image only
  SetSnapshotByte(kVolumeBytes - 1, 3);  // the short last chunk
  ASSERT_TRUE(Copy());
  EXPECT_TRUE(ImageMatchesSnapshot());
  EXPECT_EQ(NextData(0), static_cast<off_t>(kImageOffset + kChunk));
  EXPECT_EQ(NextData(kImageOffset + 2 * kChunk), static_cast<off_t>(kImageOffset + 5 * kChunk));
  EXPECT_EQ(NextData(kImageOffset + 6 * kChunk), static_cast<off_t>(kImageOffset + 40 * kChunk));
  EXPECT_EQ(ProgressRowsInOrder(), 41u);
  EXPECT_EQ(status_.volumes().at(0).bytesTransferred, kVolumeBytes);
  EXPECT_EQ(status_.volumes().at(0).totalSize, static_cast<int64_t>(kVolumeBytes));
  EXPECT_TRUE(LoggedMessages("", 4).empty());
}

// The target goes away while the next chunk's read is in flight: the copy fails as a
// read of that chunk, with every line of the retries, after the progress of the chunks
// before it and nothing else.
TEST_F(CopyDiffMergeTest, ATargetLostMidwayFailsTheCopyAtTheChunkItsReadWasFor) {
  bool killed = false;
  EXPECT_FALSE(Copy([&] { killed = WaitForChunks(2) && tgtd_.Kill(); }, true));
  ASSERT_TRUE(killed);
  uint64_t chunks = ProgressRowsInOrder();
  EXPECT_GE(chunks, 2u);
  EXPECT_LT(chunks, 41u);
  std::vector<std::string> tail;
  std::vector<std::string> all = LoggedMessages();
  for (auto row = all.rbegin(); row != all.rend() && row->rfind(kProgress, 0) != 0; ++row) {
    tail.insert(tail.begin(), *row);
  }
  std::vector<std::string> expected = {"Failed during iscsi read command."};
  for (int i = 0; i < 5; ++i) {
    expected.push_back("Read iscsi failed, sleeping, reconnecting, and retrying");
    expected.push_back("Connect or Login failed: Qname: " + std::string(kIqn) + " Target: " + tgtd_.Portal() +
                       " LUN: 1. Error: ");
  }
  expected.push_back("Set error Could not read from target device. to 108.");
  expected.push_back("Error to taloq: 108, Could not read from target device.");
  expected.push_back("Read from iscsi target failed: ");
  // Rows that end in libiscsi's or the system's words are compared up to them.
  for (size_t i = 0; i < std::min(tail.size(), expected.size()); ++i) tail[i].resize(expected[i].size());
  EXPECT_EQ(tail, expected);
  EXPECT_EQ(status_.errorCode(), kErrorTargetWrite);
  EXPECT_EQ(status_.volumes().at(0).bytesTransferred, chunks * kChunk);
}

// Reads sent ahead on the lost session are neither taken for answers nor sent again on
// the new one by themselves: the copy goes on where it stopped and ends with the image
// of the snapshot.
TEST_F(CopyDiffMergeTest, ACopyGoesOnWhereItStoppedWhenTheTargetComesBack) {
  for (uint64_t chunk : {1, 3, 4, 17, 39, 40}) {
    SetSnapshotByte(chunk * kChunk + 4096, static_cast<unsigned char>(chunk));
  }
  bool restarted = false;
  EXPECT_TRUE(Copy(
      [&] {
        if (!WaitForChunks(2) || !tgtd_.Kill()) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        restarted = tgtd_.Restart();
      },
      true));
  ASSERT_TRUE(restarted);
  EXPECT_TRUE(ImageMatchesSnapshot());
  EXPECT_EQ(ProgressRowsInOrder(), 41u);
  EXPECT_GE(LoggedMessages("Read iscsi failed, sleeping, reconnecting, and retrying").size() +
                LoggedMessages("Write iscsi failed, sleeping, reconnecting, and retrying").size(),
            1u);
}

// A cancel leaves no read in flight: the session still answers plain reads with the
// bytes they asked for.
TEST_F(CopyDiffMergeTest, ACancelledCopyLeavesNothingInFlight) {
  SetImageByte(kVolumeBytes, 5);  // just past the image
  EXPECT_FALSE(Copy([&] {
    if (WaitForChunks(2)) cancelled_ = true;
  }));
  std::vector<unsigned char> data(1 << 20);
  ASSERT_EQ(device_->Seek(kImageOffset + kVolumeBytes, SEEK_SET), kImageOffset + static_cast<int64_t>(kVolumeBytes));
  ASSERT_EQ(device_->ReadRetry(data.data(), data.size()), 1 << 20);
  EXPECT_EQ(data[0], 5);
  EXPECT_EQ(data[1], 0);
  uint64_t chunks = ProgressRowsInOrder();
  EXPECT_LT(chunks, 41u);
  EXPECT_EQ(status_.volumes().at(0).bytesTransferred, chunks * kChunk);
  EXPECT_TRUE(LoggedMessages("", 4).empty());
  EXPECT_EQ(status_.errorCode(), 0);
}

}  // namespace
}  // namespace orv
