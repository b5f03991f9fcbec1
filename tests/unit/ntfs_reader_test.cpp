#include "fsmaps/ntfs_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fsmaps/byte_order.h"
#include "fsmaps/used_block_bitmap.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

// A 1 KiB record of two 512-byte strides with update sequence number 0x0102 and the
// original stride tails 0xAAAA and 0xBBBB.
std::vector<uint8_t> ProtectedRecord() {
  std::vector<uint8_t> record(1024, 0);
  memcpy(record.data(), "FILE", 4);
  record[4] = 48;  // array at 48, three entries
  record[6] = 3;
  const uint8_t array[] = {0x02, 0x01, 0xAA, 0xAA, 0xBB, 0xBB};
  memcpy(record.data() + 48, array, sizeof(array));
  record[510] = record[1022] = 0x02;
  record[511] = record[1023] = 0x01;
  return record;
}

TEST(NtfsReaderTest, FixupsRestoreEveryStrideTail) {
  std::vector<uint8_t> record = ProtectedRecord();
  ASSERT_TRUE(NtfsReader::ApplyFixups(record.data(), record.size()));
  EXPECT_EQ(Le16(record.data() + 510), 0xAAAA);
  EXPECT_EQ(Le16(record.data() + 1022), 0xBBBB);
}

TEST(NtfsReaderTest, FixupsRefuseTornAndMalformedRecords) {
  std::vector<uint8_t> torn = ProtectedRecord();
  torn[1022] = 0x03;  // the second stride was written by another update
  EXPECT_FALSE(NtfsReader::ApplyFixups(torn.data(), torn.size()));
  std::vector<uint8_t> count = ProtectedRecord();
  count[6] = 200;  // more entries than strides
  EXPECT_FALSE(NtfsReader::ApplyFixups(count.data(), count.size()));
  std::vector<uint8_t> offset = ProtectedRecord();
  offset[4] = 0xFE;  // array running into the first stride's tail
  offset[5] = 0x01;
  EXPECT_FALSE(NtfsReader::ApplyFixups(offset.data(), offset.size()));
}

TEST(NtfsReaderTest, DataRunsAreRelativeSignedAndBounded) {
  // 16 clusters at 100, a 4-cluster hole, 8 clusters at 100 - 30 = 70.
  const uint8_t runs[] = {0x21, 0x10, 0x64, 0x00, 0x01, 0x04, 0x11, 0x08, 0xE2, 0x00};
  ExtentMap map(4096, 1000);
  EXPECT_EQ(NtfsReader::DecodeRuns(runs, sizeof(runs), &map), "");
  EXPECT_EQ(map.units(), 28u);

  ExtentMap small(4096, 75);  // the last run ends at cluster 78, past the volume
  EXPECT_NE(NtfsReader::DecodeRuns(runs, sizeof(runs), &small), "");
  const std::vector<std::vector<uint8_t>> bad = {
      {0x11, 0x04, 0x80, 0x00},                    // to cluster -128
      {0x48, 0x01, 0x02},                          // the header promises 12 more bytes
      {0x19, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0x01},  // a 9-byte length field
  };
  for (const auto& run : bad) {
    ExtentMap fresh(4096, 1000);
    EXPECT_NE(NtfsReader::DecodeRuns(run.data(), run.size(), &fresh), "") << int(run[0]);
  }
}

// A small volume formatted by mkntfs, held in memory.
class NtfsImageTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char path[] = "/tmp/orv-ntfs-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 8 << 20), 0);
    close(fd);
    std::string command = std::string("mkntfs -q -F -f ") + path + " >/dev/null 2>&1";
    int rc = system(command.c_str());
    if (rc == 0) {
      image_.resize(8 << 20);
      fd = open(path, O_RDONLY);
      ASSERT_EQ(pread(fd, image_.data(), image_.size(), 0), static_cast<ssize_t>(image_.size()));
      close(fd);
    }
    unlink(path);
    if (rc != 0) GTEST_SKIP() << "mkntfs is not installed";
    mftOffset_ = Le64(image_.data() + 48) * Le16(image_.data() + 11) * image_[13];
  }

  std::vector<uint8_t> image_;
  uint64_t mftOffset_ = 0;
};

// A fresh volume is mapped by the used-block system tests; random damage is the ntfs
// fuzz target's.
TEST_F(NtfsImageTest, DamagedBitmapRecordIsAnErrorNotACrash) {
  std::vector<uint8_t> torn = image_;
  torn[mftOffset_ + 6 * 1024 + 510] ^= 0xFF;  // breaks the update sequence
  EXPECT_EQ(WalkUsedBlocks(torn, 64).result, -1);

  std::vector<uint8_t> huge = image_;
  huge[13] = 0x81;  // 2^127 sectors per cluster
  EXPECT_EQ(WalkUsedBlocks(huge, 64).result, -1);
}

}  // namespace
}  // namespace orv
