#include "transfer/file_skipper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "daemon/logger.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

constexpr uint64_t kExt4Magic = 0xEF53;
constexpr uint64_t kTmpfsMagic = 0x01021994;

// COW-like files on the real file system under /tmp, and a private agent database
// so that the skipper's log lines can be read back.
class FileSkipperTest : public AgentRootTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(AgentRootTest::SetUp());
    dir_ = root_.root();
    struct statfs info;
    ASSERT_EQ(statfs(dir_.c_str(), &info), 0);
    if (static_cast<uint64_t>(info.f_type) != kExt4Magic) GTEST_SKIP() << "/tmp is not ext2/3/4 here";
    blockSize_ = static_cast<uint64_t>(info.f_bsize);
  }

  // Writes one block of data at each of `blocks` (file block numbers), leaving
  // holes in between, and makes sure every block has its place on disk.
  std::string WriteFile(const std::string& name, const std::vector<uint64_t>& blocks) {
    std::string path = dir_ + "/" + name;
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    EXPECT_GE(fd, 0);
    std::vector<char> data(blockSize_, 'x');
    for (uint64_t b : blocks) {
      EXPECT_EQ(pwrite(fd, data.data(), data.size(), static_cast<off_t>(b * blockSize_)),
                static_cast<ssize_t>(data.size()));
    }
    EXPECT_EQ(fsync(fd), 0);
    close(fd);
    return path;
  }

  static uint64_t Physical(const std::string& path, uint64_t block) {
    int fd = open(path.c_str(), O_RDONLY);
    auto b = static_cast<int>(block);
    int rc = ioctl(fd, FIBMAP, &b);
    close(fd);
    return rc == 0 ? static_cast<uint64_t>(b) : 0;
  }

  std::string dir_;
  uint64_t blockSize_ = 0;
};

TEST_F(FileSkipperTest, SkipsTheBlocksOfASparseFileButNeverItsHoles) {
  std::string path = WriteFile("cow", {0, 1, 2, 10, 11});
  FileSkipper skipper({path}, "backup-1", false);
  EXPECT_FALSE(skipper.built());
  uint64_t first = Physical(path, 0);
  ASSERT_NE(first, 0u);
  EXPECT_TRUE(skipper.IsCowFileBlock(first, blockSize_));
  EXPECT_TRUE(skipper.built());
  for (uint64_t b : {0, 1, 2, 10, 11}) EXPECT_TRUE(skipper.IsCowFileBlock(Physical(path, b), blockSize_)) << b;
  // Holes map to physical 0, which is never a COW block.
  EXPECT_FALSE(skipper.IsCowFileBlock(0, blockSize_));
  uint64_t extentBlocks = 0;
  for (const auto& [lo, hi] : skipper.extents()) extentBlocks += hi - lo + 1;
  EXPECT_EQ(extentBlocks, 5u);
  EXPECT_EQ(skipper.extentCount(), skipper.extents().size());
  EXPECT_TRUE(Logged("Creating cow file block list...", kDebug));
  EXPECT_TRUE(Logged("Loading block list for " + path, kDebug));
  EXPECT_TRUE(Logged("Skipping 5 out of 12 blocks " + std::to_string(5 * blockSize_) + " out of " +
                                 std::to_string(12 * blockSize_) + " bytes", kDebug));
  EXPECT_TRUE(Logged("Finished creating cow file block list.", kDebug));
}

TEST_F(FileSkipperTest, BlockSizeMismatchSkipsNothing) {
  std::string path = WriteFile("cow", {0, 1});
  FileSkipper skipper({path}, "backup-1", false);
  uint64_t other = blockSize_ == 1024 ? 4096 : 1024;
  EXPECT_FALSE(skipper.IsCowFileBlock(Physical(path, 0), other));
  EXPECT_TRUE(skipper.extents().empty());
  EXPECT_TRUE(Logged("Unable to skip blocks for " + path + ", error: Block size mismatch, device: " +
                                 std::to_string(other) + " fibgetbz: " + std::to_string(blockSize_), kError));
}

TEST_F(FileSkipperTest, DisabledSkipperNeverBuilds) {
  std::string path = WriteFile("cow", {0});
  FileSkipper skipper({path}, "backup-1", true);
  EXPECT_FALSE(skipper.IsCowFileBlock(Physical(path, 0), blockSize_));
  EXPECT_FALSE(skipper.built());
  EXPECT_TRUE(LoggedMessages("", 0, "backup-1").empty());
}

TEST_F(FileSkipperTest, UnreadableFileIsLoggedAndTheNextOneStillLoads) {
  std::string missing = dir_ + "/missing";
  std::string path = WriteFile("cow1", {3});
  FileSkipper skipper({missing, path}, "backup-1", false);
  EXPECT_TRUE(skipper.IsCowFileBlock(Physical(path, 3), blockSize_));
  EXPECT_TRUE(Logged("Unable to skip blocks for " + missing + ", error: Unable to open: " + missing, kError));
}

TEST_F(FileSkipperTest, FileSystemWithoutBlockMappingSkipsNothing) {
  struct statfs info;
  if (statfs("/dev/shm", &info) != 0 || static_cast<uint64_t>(info.f_type) != kTmpfsMagic) {
    GTEST_SKIP() << "no tmpfs at /dev/shm";
  }
  char name[] = "/dev/shm/orv-cow-XXXXXX";
  int fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "data", 4), 4);
  close(fd);
  FileSkipper skipper({name}, "backup-1", false);
  EXPECT_FALSE(skipper.IsCowFileBlock(1, blockSize_));
  unlink(name);
  EXPECT_TRUE(skipper.extents().empty());
  EXPECT_TRUE(Logged("File block identification not supported. Not skipping files on backup.", kInfo));
}

TEST(FileSkipperExtentsTest, BlocksMergeOnlyWithTheBlockBeforeThemInFileOrder) {
  FileSkipper skipper({}, "", false);
  uint64_t count = 0;
  for (uint64_t block : {5, 6, 7, 0, 8, 3, 2, 1, 9}) skipper.AddBlock(block, count);
  EXPECT_EQ(count, 8u);
  std::vector<FileSkipper::Extent> expected = {{5, 8}, {3, 3}, {2, 2}, {1, 1}, {9, 9}};
  EXPECT_EQ(skipper.extents(), expected);
  EXPECT_EQ(skipper.extentCount(), 5u);
}

}  // namespace
}  // namespace orv
