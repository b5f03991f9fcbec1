#include "transfer/writer_pipeline.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <thread>
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

  // The writer's rows since the test began, login failures without libiscsi's words.
  std::vector<std::string> Rows() const {
    std::vector<std::string> rows;
    for (std::string message : LoggedMessages()) {
      if (message.rfind("Connect or Login failed", 0) == 0) message = "Connect or Login failed";
      if (message.rfind("Set backup of volume", 0) == 0 || message.rfind("Set error", 0) == 0 ||
          message.find("iscsi") != std::string::npos || message == "Connect or Login failed") {
        rows.push_back(message);
      }
    }
    return rows;
  }

  static std::string ProgressRow(uint64_t bytes) {
    return "Set backup of volume " + std::string(kVolume) + " 'BYTES TRANSFERRED' to " + std::to_string(bytes) +
           " bytes.";
  }

  AllBackupStatus status_{kBackupId};
  std::unique_ptr<IscsiBlockDevice> device_;
};

// Chunks land at their image offsets; each chunk's progress is reported beside the next
// write, yet the rows keep the writer's order and all come before the failure's rows.
TEST_F(WriterPipelineTest, ChunksLandInOrderAndAFailureComesAfterTheirProgress) {
  WriterPipeline pipeline(*device_, kBackupId, kVolume, &status_);
  ASSERT_TRUE(pipeline.Start());
  for (size_t i = 0; i < 8; ++i) ASSERT_TRUE(pipeline.Push(Chunk(i * kChunk, kChunk, (i + 1) * kChunk)));
  ASSERT_TRUE(pipeline.Push(Chunk(static_cast<int64_t>(lunBytes_) + 4096, kChunk, 9 * kChunk)));
  // Whatever follows is pushed until the writer's failure shows, then freed unwritten.
  for (int i = 0; i < 6 && pipeline.Push(Chunk(10 * kChunk, kChunk, kChunk)); ++i) {
  }
  EXPECT_FALSE(pipeline.Finish());
  EXPECT_FALSE(pipeline.Finish());
  std::vector<unsigned char> written(8 * kChunk);
  FillPattern(written.data(), written.size(), 42, 0);
  EXPECT_TRUE(ReadBacking(lunPath_, 0, written.size()) == written);
  EXPECT_TRUE(ReadBacking(lunPath_, 10 * kChunk, kChunk) == std::vector<unsigned char>(kChunk, 0));
  std::vector<std::string> expected;
  for (size_t i = 1; i <= 8; ++i) expected.push_back(ProgressRow(i * kChunk));
  expected.push_back("Set error Could not seek on target device. to 108.");
  EXPECT_EQ(LoggedMessages("Set "), expected);
  EXPECT_EQ(status_.volumes().at(0).bytesTransferred, 8 * kChunk);
  EXPECT_EQ(status_.errorCode(), kErrorTargetWrite);
  EXPECT_EQ(LoggedMessages("Iscsi seek to 16781312 failed: 22").size(), 1u);
  EXPECT_GE(LoggedMessages("Error from async write thread: Error performing iscsi target write: 22").size(), 1u);
}

TEST_F(WriterPipelineTest, ATargetThatRefusesWritesStopsTheProducerAndFreesEveryChunk) {
  ASSERT_EQ(tgtd_.Tgtadm({"--lld", "iscsi", "--op", "update", "--mode", "logicalunit", "--tid", "1", "--lun", "1",
                          "--params", "readonly=1"}),
            0);
  ASSERT_TRUE(device_->Connect());
  WriterPipeline pipeline(*device_, kBackupId, kVolume, &status_);
  ASSERT_TRUE(pipeline.Start());
  size_t pushed = 0;
  while (pushed < 16 && pipeline.Push(Chunk(static_cast<int64_t>(pushed * kChunk), kChunk, (pushed + 1) * kChunk))) {
    ++pushed;
  }
  // At least the first chunk in the writer's hands and two waiting, at most as many
  // writes as may be in flight: a later push sees the failure.
  EXPECT_GE(pushed, 1 + WriterPipeline::kQueueCapacity);
  EXPECT_LE(pushed, AsyncWriterThread::kMostWritesAhead + WriterPipeline::kQueueCapacity);
  EXPECT_FALSE(pipeline.Finish());
  EXPECT_EQ(LoggedMessages("Error from async write thread: Error performing iscsi target write: 5").size(), 2u);
  EXPECT_EQ(LoggedMessages("Write iscsi failed, sleeping, reconnecting, and retrying").size(), 5u);
  EXPECT_EQ(LoggedMessages("Write to iscsi target failed: 5, write returned -1").size(), 1u);
  EXPECT_EQ(status_.errorMessage(), "Could not write to target device.");
  EXPECT_EQ(status_.errorCode(), kErrorTargetWrite);
  EXPECT_EQ(status_.volumes().at(0).bytesTransferred, 0u);
}

// A writer started on a queue that already holds every chunk (a queue larger than a
// copy's, so that it finds as many as it may take) while tgtd is stopped: what the writer
// sends stays unanswered until the test lets tgtd go on, or kills it.
class WritesInFlightTest : public WriterPipelineTest {
 protected:
  struct Run {
    int64_t position;
    size_t length;
    uint64_t transferValue;
  };

  ~WritesInFlightTest() override {
    Resume();
    if (started_) writer_.Stop(thread_);
  }

  // Runs of 4 KiB to 512 KiB with gaps between them, as an incremental copy sends them.
  // A writer that will lose its session runs under LibiscsiSessionLossLeaks.
  void Start(size_t count, std::vector<size_t> lengths = {}, bool losesSession = false) {
    int64_t position = 4096;
    uint64_t total = 0;
    for (size_t i = 0; i < count; ++i) {
      size_t length = i < lengths.size() ? lengths[i] : 4096u << (i * 5 % 8);
      total += length;
      runs_.push_back({position, length, total});
      position += static_cast<int64_t>(length + 4096 * (i % 3));
    }
    queue_.SetCapacity(static_cast<uint32_t>(count));
    ASSERT_EQ(queue_.Init(), 0);
    for (const Run& run : runs_) ASSERT_EQ(queue_.Push(Chunk(run.position, run.length, run.transferValue).release()), 0);
    ASSERT_EQ(writer_.Init(&queue_, device_.get(), kBackupId), 0);
    ASSERT_EQ(kill(tgtd_.Pid(), SIGSTOP), 0);
    paused_ = true;
    ASSERT_EQ(pthread_create(&thread_, nullptr, losesSession ? &LosingSession : &AsyncWriterThread::ThreadMain, &writer_),
              0);
    started_ = true;
  }

  static void* LosingSession(void* writer) {
    LibiscsiSessionLossLeaks expected;
    return AsyncWriterThread::ThreadMain(writer);
  }

  // Waits until the writer holds `count` chunks and waits for the first answer.
  bool InFlight(size_t count) {
    auto start = std::chrono::steady_clock::now();
    while (queue_.Size() > runs_.size() - count && SecondsSince(start) < 10) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    return queue_.Size() == runs_.size() - count;
  }

  void Resume() {
    if (paused_) kill(tgtd_.Pid(), SIGCONT);
    paused_ = false;
  }

  // Ends the writer (the marker after every chunk) and returns its failure text.
  std::string Finish() {
    Resume();
    EXPECT_EQ(queue_.Push(nullptr), 0);
    pthread_join(thread_, nullptr);
    started_ = false;
    std::string failure;
    EXPECT_EQ(writer_.GetFailure(failure), 0);
    return failure;
  }

  std::vector<unsigned char> Image() const {
    std::vector<unsigned char> image(static_cast<size_t>(runs_.back().position) + runs_.back().length, 0);
    for (const Run& run : runs_) {
      FillPattern(image.data() + run.position, run.length, 42, static_cast<uint64_t>(run.position));
    }
    return image;
  }

  std::vector<Run> runs_;
  BlockingQueue<queueitem> queue_;
  AsyncWriterThread writer_{kVolume, &status_};
  pthread_t thread_{};
  bool started_ = false;
  bool paused_ = false;
};

TEST_F(WritesInFlightTest, WritesGoOutTogetherAndAreReportedOnlyOnceAnswered) {
  ASSERT_NO_FATAL_FAILURE(Start(40));
  EXPECT_TRUE(InFlight(AsyncWriterThread::kMostWritesAhead));
  // Nothing has reached the target, so nothing is reported.
  EXPECT_EQ(status_.volumes().at(0).bytesTransferred, 0u);
  EXPECT_EQ(Finish(), "");
  EXPECT_TRUE(ReadBacking(lunPath_, 0, Image().size()) == Image());
  std::vector<std::string> expected;
  for (const Run& run : runs_) expected.push_back(ProgressRow(run.transferValue));
  EXPECT_EQ(Rows(), expected);
}

TEST_F(WritesInFlightTest, WritesInFlightHoldAtMostOneFullChunk) {
  // The second would take the two past a chunk's bytes: it waits for the first.
  ASSERT_NO_FATAL_FAILURE(Start(3, {kChunkBytes / 2 + 4096, kChunkBytes / 2, 4096}));
  EXPECT_TRUE(InFlight(1));
  EXPECT_EQ(Finish(), "");
  EXPECT_TRUE(ReadBacking(lunPath_, 0, Image().size()) == Image());
}

// The target dies under writes in flight: the rows are those of one write sent on its own.
TEST_F(WritesInFlightTest, ATargetThatDiesUnderManyWritesFailsAsUnderOne) {
  ASSERT_NO_FATAL_FAILURE(Start(12, {}, true));
  ASSERT_TRUE(InFlight(AsyncWriterThread::kMostWritesAhead));
  paused_ = false;
  ASSERT_TRUE(tgtd_.Kill());
  EXPECT_EQ(Finish(), "Error performing iscsi target write: 5");
  std::vector<std::string> rows = {"Failed during iscsi write command."};
  for (int i = 0; i < 5; ++i) {
    rows.push_back("Write iscsi failed, sleeping, reconnecting, and retrying");
    rows.push_back("Connect or Login failed");
  }
  rows.push_back("Set error Could not write to target device. to 108.");
  rows.push_back("Write to iscsi target failed: 5, write returned -1");
  EXPECT_EQ(Rows(), rows);
  EXPECT_EQ(status_.volumes().at(0).bytesTransferred, 0u);
}

// The target comes back: the writes lost with the session are sent again, in order, and
// every chunk is reported once.
TEST_F(WritesInFlightTest, WritesLostWithTheSessionAreSentAgainInOrder) {
  ASSERT_NO_FATAL_FAILURE(Start(24, {}, true));
  ASSERT_TRUE(InFlight(AsyncWriterThread::kMostWritesAhead));
  paused_ = false;
  ASSERT_TRUE(tgtd_.Kill());
  ASSERT_TRUE(tgtd_.Restart());
  EXPECT_EQ(Finish(), "");
  EXPECT_TRUE(ReadBacking(lunPath_, 0, Image().size()) == Image());
  std::vector<std::string> expected;
  for (const Run& run : runs_) expected.push_back(ProgressRow(run.transferValue));
  EXPECT_EQ(LoggedMessages("Set backup of volume"), expected);
  // Only the first write's failure is told (none when libiscsi's own single attempt to
  // log in again found the target already back); the others are sent again silently.
  EXPECT_LE(LoggedMessages("Failed during iscsi write command.").size(), 1u);
  EXPECT_EQ(status_.errorCode(), 0);
}

// An idle writer ends through the marker; one whose queue is gone is cancelled.
TEST(AsyncWriterThreadTest, StopEndsAnIdleWriter) {
  for (bool queueInitialised : {true, false}) {
    AsyncWriterThread writer(kVolume, nullptr);
    BlockingQueue<queueitem> queue;
    queue.SetCapacity(2);
    ASSERT_EQ(queueInitialised ? queue.Init() : 0, 0);
    ASSERT_EQ(writer.Init(&queue, nullptr, kBackupId), 0);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, nullptr, &AsyncWriterThread::ThreadMain, &writer), 0);
    writer.Stop(thread);
    std::string failure;
    ASSERT_EQ(writer.GetFailure(failure), 0);
    EXPECT_EQ(queue.Size(), 0u);
    // Without a queue the thread either saw that itself or was cancelled before it could.
    EXPECT_TRUE(failure.empty() || (!queueInitialised && failure == "Error pulling item from queue, error: 22"))
        << failure;
  }
}

}  // namespace
}  // namespace orv
