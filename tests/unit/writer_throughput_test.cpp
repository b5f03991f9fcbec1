#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

extern "C" {
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>
}

#include "api/all_backup_status.h"
#include "tests/unit/iscsi_test_support.h"
#include "transfer/iscsi_block_device.h"
#include "transfer/writer_pipeline.h"

namespace orv {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kChunk = 12582912;  // the copies' chunk size
constexpr size_t kLunChunks = 20;
constexpr size_t kRunChunks = 40;  // each run writes the LUN twice: steady state, not start-up
constexpr const char* kVolume = "9a1d0c6e-volume";

double MiBPerSecond(Clock::time_point start) {
  return kChunk * kRunChunks / std::chrono::duration<double>(Clock::now() - start).count() / 1048576;
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The writer path's throughput against a tuned tgtd, compared with the plainest loop
// libiscsi allows: one session, one warm buffer, back-to-back WRITE(16) commands of the
// same size. The machine's speed swings over minutes, so the two are interleaved and the
// medians of three runs each are compared.
class WriterThroughputTest : public IscsiTargetTest {
 protected:
  WriterThroughputTest() : IscsiTargetTest(kChunk * kLunChunks, true) {}

  void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "throughput is measured on a build without sanitizers, whose allocator maps every chunk afresh";
#endif
    IscsiTargetTest::SetUp();
    source_ = Pattern(kChunk, 21);
  }

  // MiB/s of sequential writes straight through libiscsi; 0 on failure.
  double PlainLoop() {
    std::unique_ptr<iscsi_context, int (*)(iscsi_context*)> context(iscsi_create_context(kIqn), iscsi_destroy_context);
    iscsi_context* c = context.get();
    iscsi_set_targetname(c, kIqn);
    iscsi_set_session_type(c, ISCSI_SESSION_NORMAL);
    iscsi_set_header_digest(c, ISCSI_HEADER_DIGEST_NONE_CRC32C);
    iscsi_set_immediate_data(c, ISCSI_IMMEDIATE_DATA_YES);
    iscsi_set_initial_r2t(c, ISCSI_INITIAL_R2T_NO);
    if (iscsi_full_connect_sync(c, tgtd_.Portal().c_str(), 1) != 0) return 0;
    auto start = Clock::now();
    for (size_t i = 0; i < kRunChunks; ++i) {
      uint64_t lba = (i % kLunChunks) * kChunk / 512;
      scsi_task* task = iscsi_write16_sync(c, 1, lba, source_.data(), kChunk, 512, 0, 0, 0, 0, 0);
      bool good = task != nullptr && task->status == SCSI_STATUS_GOOD;
      if (task != nullptr) scsi_free_scsi_task(task);
      if (!good) return 0;
    }
    double result = MiBPerSecond(start);
    iscsi_logout_sync(c);
    return result;
  }

  // MiB/s of the same writes through the copies' machinery: a page-aligned buffer per
  // chunk from the allocator, queued, written and freed by the writer thread. `fill`
  // makes the producer copy the data in first (as a copy reads the snapshot into it);
  // with a status holder the writer also sets the progress after every chunk.
  double ThroughTheQueue(IscsiBlockDevice& device, bool fill, AllBackupStatus* status) {
    auto start = Clock::now();
    WriterPipeline pipeline(device, "throughput", kVolume, status);
    if (!pipeline.Start()) return 0;
    for (size_t i = 0; i < kRunChunks; ++i) {
      std::unique_ptr<queueitem> item = WriterPipeline::MakeQueueItem(kChunk);
      if (!item) return 0;
      if (fill) memcpy(item->buffer, source_.data(), kChunk);
      item->writePosition = static_cast<int64_t>((i % kLunChunks) * kChunk);
      item->updateProgress = true;
      item->transferValue = (i + 1) * kChunk;
      if (!pipeline.Push(std::move(item))) return 0;
    }
    if (!pipeline.Finish()) return 0;
    return MiBPerSecond(start);
  }

  std::vector<unsigned char> source_;
};

TEST_F(WriterThroughputTest, TheQueueKeepsNinetyPercentOfAPlainLibiscsiLoop) {
  IscsiBlockDevice device(kIqn, tgtd_.Portal(), 1, "", "");
  ASSERT_TRUE(device.Connect());
  // Untimed first runs: tgtd's backing file and the chunk buffers get their pages.
  ASSERT_GT(PlainLoop(), 0);
  ASSERT_GT(ThroughTheQueue(device, true, nullptr), 0);
  std::vector<double> plain;
  std::vector<double> queued;
  for (int round = 0; round < 3; ++round) {
    // Alternating the order cancels a drift of the machine's speed within a round.
    if (round % 2 == 0) plain.push_back(PlainLoop());
    queued.push_back(ThroughTheQueue(device, false, nullptr));
    if (round % 2 == 1) plain.push_back(PlainLoop());
    ASSERT_GT(plain.back(), 0);
    ASSERT_GT(queued.back(), 0);
  }
  // What a copy adds around the machinery, for the record: the producer's copy into each
  // chunk, and the progress setter, which logs every chunk to the database.
  double filled = ThroughTheQueue(device, true, nullptr);
  AllBackupStatus status("throughput");
  double withProgress = ThroughTheQueue(device, true, &status);
  double ratio = Median(queued) / Median(plain);
  printf("12 MiB writes, %zu MiB per run: plain libiscsi %.0f / %.0f / %.0f MiB/s (median %.0f); "
         "queue and writer %.0f / %.0f / %.0f MiB/s (median %.0f), ratio %.2f; "
         "with the producer filling each chunk %.0f MiB/s, and with per-chunk progress %.0f MiB/s\n",
         kChunk * kRunChunks >> 20, plain[0], plain[1], plain[2], Median(plain), queued[0], queued[1], queued[2],
         Median(queued), ratio, filled, withProgress);
  RecordProperty("plain_mib_s", static_cast<int>(Median(plain)));
  RecordProperty("queued_mib_s", static_cast<int>(Median(queued)));
  RecordProperty("filled_mib_s", static_cast<int>(filled));
  RecordProperty("progress_mib_s", static_cast<int>(withProgress));
  EXPECT_GE(ratio, 0.9);
  EXPECT_GT(filled, 0);
  EXPECT_GT(withProgress, 0);
  EXPECT_EQ(status.volumes().at(0).bytesTransferred, kChunk * kRunChunks);
}

}  // namespace
}  // namespace orv
