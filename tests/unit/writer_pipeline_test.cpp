#include "transfer/writer_pipeline.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "api/all_backup_status.h"
#include "tests/unit/iscsi_test_support.h"
#include "transfer/async_writer_thread.h"
#include "transfer/iscsi_block_device.h"

namespace orv {
namespace {

constexpr const char* kBackupId = "5f0c7a3e-backup";
constexpr const char* kVolume = "0b8e54d2-volume";
constexpr size_t kChunk = 1 << 20;

class WriterPipelineTest : public IscsiTargetTest {
 protected:
  WriterPipelineTest() : IscsiTargetTest(16ull << 20) {}

  void SetUp() override {
    IscsiTargetTest::SetUp();
    ASSERT_TRUE(status_.modifyVolume(kVolume));
    device_ = std::make_unique<IscsiBlockDevice>(kIqn, tgtd_.Portal(), 1, "", "");
    ASSERT_TRUE(device_->Connect());
  }

  // A chunk of the pattern for image bytes [position, position + length).
  std::unique_ptr<queueitem> Chunk(int64_t position, size_t length, uint64_t transferValue) {
    std::unique_ptr<queueitem> item = WriterPipeline::MakeQueueItem(length);
    FillPattern(item->buffer, length, 42, static_cast<uint64_t>(position));
    item->writePosition = position;
    item->updateProgress = true;
    item->transferValue = transferValue;
    return item;
  }

  AllBackupStatus status_{kBackupId};
  std::unique_ptr<IscsiBlockDevice> device_;
};

TEST_F(WriterPipelineTest, ChunksReachTheirImageOffsetsAndAdvanceTheProgress) {
  const int64_t imageOffset = 3 << 20;
  {
    WriterPipeline pipeline(*device_, kBackupId, kVolume, &status_);
    ASSERT_TRUE(pipeline.Start());
    for (size_t i = 0; i < 6; ++i) {
      ASSERT_TRUE(pipeline.Push(Chunk(imageOffset + static_cast<int64_t>(i * kChunk), kChunk, (i + 1) * kChunk)));
    }
    EXPECT_TRUE(pipeline.Finish());
    EXPECT_TRUE(pipeline.Finish());
  }
  std::vector<unsigned char> expected(6 * kChunk);
  FillPattern(expected.data(), expected.size(), 42, imageOffset);
  EXPECT_TRUE(ReadBacking(lunPath_, imageOffset, expected.size()) == expected);
  EXPECT_EQ(status_.volumes().at(0).bytesTransferred, 6 * kChunk);
  EXPECT_EQ(LoggedMessages("Set backup of volume " + std::string(kVolume) +
                                      " 'BYTES TRANSFERRED' to 6291456 bytes.").size(), 1u);
  EXPECT_EQ(status_.errorCode(), 0);
}

TEST_F(WriterPipelineTest, AChunkBeyondTheLunFailsTheWriterWithTheSeekError) {
  WriterPipeline pipeline(*device_, kBackupId, kVolume, &status_);
  ASSERT_TRUE(pipeline.Start());
  ASSERT_TRUE(pipeline.Push(Chunk(static_cast<int64_t>(lunBytes_) + 4096, kChunk, kChunk)));
  // Whatever follows is pushed until the writer's failure shows, then freed unwritten.
  bool pushed = true;
  for (int i = 0; i < 6 && pushed; ++i) pushed = pipeline.Push(Chunk(0, kChunk, kChunk));
  EXPECT_FALSE(pipeline.Finish());
  EXPECT_EQ(status_.errorMessage(), "Could not seek on target device.");
  EXPECT_EQ(status_.errorCode(), kErrorTargetWrite);
  EXPECT_EQ(LoggedMessages("Iscsi seek to 16781312 failed: 22").size(), 1u);
  EXPECT_GE(LoggedMessages("Error from async write thread: Error performing iscsi target write: 22").size(), 1u);
  // Nothing after the failed chunk reached the LUN.
  EXPECT_TRUE(ReadBacking(lunPath_, 0, kChunk) == std::vector<unsigned char>(kChunk, 0));
}

// The progress of each chunk is reported beside the next write, yet the rows keep the
// writer's order: every chunk's row, in turn, and all of them before the failure's rows.
TEST_F(WriterPipelineTest, ProgressRowsKeepTheirOrderAndComeBeforeTheFailure) {
  WriterPipeline pipeline(*device_, kBackupId, kVolume, &status_);
  ASSERT_TRUE(pipeline.Start());
  for (size_t i = 0; i < 8; ++i) {
    ASSERT_TRUE(pipeline.Push(Chunk(static_cast<int64_t>(i * kChunk), kChunk, (i + 1) * kChunk)));
  }
  ASSERT_TRUE(pipeline.Push(Chunk(static_cast<int64_t>(lunBytes_) + 4096, kChunk, 9 * kChunk)));
  EXPECT_FALSE(pipeline.Finish());
  std::vector<std::string> expected;
  for (size_t i = 1; i <= 8; ++i) {
    expected.push_back("Set backup of volume " + std::string(kVolume) + " 'BYTES TRANSFERRED' to " +
                       std::to_string(i * kChunk) + " bytes.");
  }
  expected.push_back("Set error Could not seek on target device. to 108.");
  std::vector<std::string> rows;
  for (const std::string& message : LoggedMessages()) {
    if (message.rfind("Set backup of volume", 0) == 0 || message.rfind("Set error", 0) == 0) rows.push_back(message);
  }
  EXPECT_EQ(rows, expected);
  EXPECT_EQ(status_.volumes().at(0).bytesTransferred, 8 * kChunk);
}

TEST_F(WriterPipelineTest, ATargetThatRefusesWritesStopsTheProducerAndFreesEveryChunk) {
  ASSERT_EQ(tgtd_.Tgtadm({"--lld", "iscsi", "--op", "update", "--mode", "logicalunit", "--tid", "1", "--lun", "1",
                          "--params", "readonly=1"}),
            0);
  ASSERT_TRUE(device_->Connect());
  WriterPipeline pipeline(*device_, kBackupId, kVolume, &status_);
  ASSERT_TRUE(pipeline.Start());
  int pushed = 0;
  while (pushed < 10 && pipeline.Push(Chunk(static_cast<int64_t>(pushed * kChunk), kChunk, (pushed + 1) * kChunk))) {
    ++pushed;
  }
  // One chunk in the writer's hands and two waiting: the fourth push sees the failure.
  EXPECT_EQ(pushed, 3);
  EXPECT_FALSE(pipeline.Finish());
  EXPECT_EQ(LoggedMessages("Error from async write thread: Error performing iscsi target write: 5").size(), 2u);
  EXPECT_EQ(LoggedMessages("Write iscsi failed, sleeping, reconnecting, and retrying").size(), 5u);
  EXPECT_EQ(LoggedMessages("Write to iscsi target failed: 5, write returned -1").size(), 1u);
  EXPECT_EQ(status_.errorMessage(), "Could not write to target device.");
  EXPECT_EQ(status_.errorCode(), kErrorTargetWrite);
  EXPECT_EQ(status_.volumes().at(0).bytesTransferred, 0u);
}

TEST(AsyncWriterThreadTest, SanityFailuresEndUpInTheFailureText) {
  AsyncWriterThread writer(kVolume, nullptr);
  std::string failure;
  // Before Init there is no flag mutex to read the text under.
  EXPECT_EQ(writer.GetFailure(failure), EINVAL);
  writer.Run();
  BlockingQueue<queueitem> queue;
  queue.SetCapacity(2);
  ASSERT_EQ(queue.Init(), 0);
  EXPECT_EQ(writer.Init(&queue, nullptr, kBackupId), 0);
  EXPECT_NE(writer.Init(&queue, nullptr, kBackupId), 0);
  ASSERT_EQ(writer.GetFailure(failure), 0);
  EXPECT_EQ(failure,
            "sanity failure: can't run thread until initted. -1"
            "sanity failure: asyncwriterthread already initted: -1");
}

TEST(AsyncWriterThreadTest, StopEndsAnIdleWriterThroughTheMarker) {
  AsyncWriterThread writer(kVolume, nullptr);
  BlockingQueue<queueitem> queue;
  queue.SetCapacity(2);
  ASSERT_EQ(queue.Init(), 0);
  ASSERT_EQ(writer.Init(&queue, nullptr, kBackupId), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, &AsyncWriterThread::ThreadMain, &writer), 0);
  writer.Stop(thread);
  std::string failure;
  ASSERT_EQ(writer.GetFailure(failure), 0);
  EXPECT_EQ(failure, "");
  EXPECT_EQ(queue.Size(), 0u);
}

TEST(AsyncWriterThreadTest, StopCancelsAWriterWhoseQueueIsGone) {
  AsyncWriterThread writer(kVolume, nullptr);
  BlockingQueue<queueitem> queue;
  ASSERT_EQ(writer.Init(&queue, nullptr, kBackupId), 0);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, nullptr, &AsyncWriterThread::ThreadMain, &writer), 0);
  writer.Stop(thread);
  std::string failure;
  ASSERT_EQ(writer.GetFailure(failure), 0);
  // The thread either saw the missing queue itself or was cancelled before it could.
  EXPECT_TRUE(failure.empty() || failure == "Error pulling item from queue, error: 22") << failure;
}

}  // namespace
}  // namespace orv
