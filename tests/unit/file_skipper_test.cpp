#include "transfer/file_skipper.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/falloc.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/logger.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

constexpr uint64_t kTmpfsMagic = 0x01021994;

// The list as the skipper built it before it learnt extents: FIBMAP for every block of
// each file, in file order.
struct BlockByBlock {
  std::vector<FileSkipper::Extent> extents;
  std::vector<uint64_t> mapped;  // per file
};
BlockByBlock MapBlockByBlock(const std::vector<std::string>& paths, uint64_t blockSize) {
  BlockByBlock result;
  for (const std::string& path : paths) {
    int fd = open(path.c_str(), O_RDONLY);
    EXPECT_GE(fd, 0) << path;
    struct stat info;
    EXPECT_EQ(fstat(fd, &info), 0);
    uint64_t blocks = (static_cast<uint64_t>(info.st_size) + blockSize - 1) / blockSize;
    uint64_t count = 0;
    // A fresh skipper per file: a file's first block opens an extent, as in LoadFileBlocks.
    FileSkipper single({}, "", false);
    for (uint64_t i = 0; i < blocks; ++i) {
      auto block = static_cast<uint32_t>(i);
      if (ioctl(fd, FIBMAP, &block) == 0) single.AddBlock(block, count);
    }
    close(fd);
    result.extents.insert(result.extents.end(), single.extents().begin(), single.extents().end());
    result.mapped.push_back(count);
  }
  return result;
}

// A file system of each ext flavour on a loop device, mounted in a directory of the
// test's own, with files laid out in every way a COW file can be: plain, sparse, in many
// extents, preallocated, preallocated and then partly written, still in the page cache,
// past its end, inline.
class FileSkipperExtentTest : public AgentRootTest,
                              public ::testing::WithParamInterface<std::tuple<const char*, const char*>> {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(AgentRootTest::SetUp());
    auto [type, options] = GetParam();
    type_ = type;
    std::string image = root_.root() + "/volume.img";
    mountPoint_ = root_.root() + "/mnt";
    std::filesystem::create_directories(mountPoint_);
    ASSERT_EQ(system(("truncate -s 24M " + image).c_str()), 0);
    ASSERT_EQ(system(("mkfs." + type_ + " -q -F " + options + " " + image + " >/dev/null 2>&1").c_str()), 0);
    loop_ = Command("losetup -f --show " + image);
    ASSERT_EQ(loop_.compare(0, 9, "/dev/loop"), 0) << loop_;
    ASSERT_EQ(mount(loop_.c_str(), mountPoint_.c_str(), type_.c_str(), 0, nullptr), 0) << strerror(errno);
    mounted_ = true;
    struct statfs info;
    ASSERT_EQ(statfs(mountPoint_.c_str(), &info), 0);
    blockSize_ = static_cast<uint64_t>(info.f_bsize);
  }
  void TearDown() override {
    if (mounted_) umount2(mountPoint_.c_str(), 0);
    if (!loop_.empty()) Command("losetup -d " + loop_);
  }

  std::string Path(const std::string& name) const { return mountPoint_ + "/" + name; }
  // Writes `blocks` blocks of data at file block `at`; synced when `sync` is set.
  void Write(const std::string& name, uint64_t at, uint64_t blocks, bool sync = true) {
    int fd = open(Path(name).c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    std::vector<char> data(blocks * blockSize_, 'c');
    ASSERT_EQ(pwrite(fd, data.data(), data.size(), static_cast<off_t>(at * blockSize_)),
              static_cast<ssize_t>(data.size()));
    EXPECT_TRUE(!sync || fsync(fd) == 0);
    close(fd);
  }
  // False where the file system cannot preallocate (ext2/3 layouts).
  bool Preallocate(const std::string& name, uint64_t at, uint64_t blocks, int mode = 0) {
    int fd = open(Path(name).c_str(), O_WRONLY | O_CREAT, 0600);
    EXPECT_GE(fd, 0);
    int rc = fallocate(fd, mode, static_cast<off_t>(at * blockSize_), static_cast<off_t>(blocks * blockSize_));
    close(fd);
    return rc == 0;
  }

  std::string type_;
  std::string mountPoint_;
  std::string loop_;
  bool mounted_ = false;
  uint64_t blockSize_ = 0;
};

TEST_P(FileSkipperExtentTest, ExtentListEqualsTheBlockByBlockList) {
  std::vector<std::string> names;
  Write("plain", 0, 300);
  names.push_back("plain");
  Write("sparse", 3, 5);
  Write("sparse", 40, 1);
  Write("sparse", 41, 20);
  Write("sparse", 400, 2);
  names.push_back("sparse");
  // Interleaved with another file block by block: many one-block extents.
  for (uint64_t b = 0; b < 24; ++b) {
    Write("interleaved", b, 1);
    Write("other", b, 1);
  }
  names.push_back("interleaved");
  if (Preallocate("preallocated", 0, 150)) {
    names.push_back("preallocated");
    ASSERT_TRUE(Preallocate("partly", 0, 150));
    Write("partly", 10, 7);
    Write("partly", 100, 1, false);  // still in the page cache when the list is built
    names.push_back("partly");
    Write("beyond", 0, 4);
    ASSERT_TRUE(Preallocate("beyond", 4, 60, FALLOC_FL_KEEP_SIZE));
    names.push_back("beyond");
  }
  // Never synced: delayed allocation where the file system has it.
  Write("unsynced", 0, 33, false);
  Write("unsynced", 50, 2, false);
  names.push_back("unsynced");
  // Shorter than a block: inline in the inode where the file system allows it.
  int fd = open(Path("tiny").c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_EQ(write(fd, "tiny", 4), 4);
  fsync(fd);
  close(fd);
  names.push_back("tiny");
  // Not a whole number of blocks.
  Write("ragged", 0, 9);
  ASSERT_EQ(truncate(Path("ragged").c_str(), static_cast<off_t>(8 * blockSize_ + 100)), 0);
  names.push_back("ragged");

  std::vector<std::string> paths;
  for (const std::string& name : names) paths.push_back(Path(name));
  // The list is built on the first question, before the block-by-block list, so that it is
  // the one that meets the unsynced file; holes map to physical 0, never a COW block.
  FileSkipper skipper(paths, "backup-x", false);
  EXPECT_FALSE(skipper.built());
  EXPECT_FALSE(skipper.IsCowFileBlock(0, blockSize_));
  EXPECT_TRUE(skipper.built());
  BlockByBlock expected = MapBlockByBlock(paths, blockSize_);
  EXPECT_EQ(skipper.extents(), expected.extents) << type_;
  EXPECT_EQ(skipper.extentCount(), expected.extents.size());
  for (const auto& [lo, hi] : expected.extents) {
    EXPECT_TRUE(skipper.IsCowFileBlock(lo, blockSize_) && skipper.IsCowFileBlock(hi, blockSize_)) << lo;
  }
  EXPECT_TRUE(Logged("Creating cow file block list...", kDebug));
  EXPECT_TRUE(Logged("Finished creating cow file block list.", kDebug));
  std::vector<std::string> skipping = LoggedMessages("Skipping ", kDebug, "backup-x");
  ASSERT_EQ(skipping.size(), paths.size());
  for (size_t i = 0; i < paths.size(); ++i) {
    struct stat info;
    ASSERT_EQ(stat(paths[i].c_str(), &info), 0);
    uint64_t blocks = (static_cast<uint64_t>(info.st_size) + blockSize_ - 1) / blockSize_;
    EXPECT_EQ(skipping[i], "Skipping " + std::to_string(expected.mapped[i]) + " out of " + std::to_string(blocks) +
                               " blocks " + std::to_string(expected.mapped[i] * blockSize_) + " out of " +
                               std::to_string(blocks * blockSize_) + " bytes")
        << names[i];
  }
  // The layouts that matter were there: mapped blocks, more extents than files.
  EXPECT_EQ(expected.mapped[0], 300u);
  EXPECT_GT(expected.extents.size(), paths.size() + 10);

  // A block-size mismatch, a disabled skipper, a missing file and a file system without
  // block mapping each skip nothing and say why; the next file still loads.
  uint64_t other = blockSize_ == 1024 ? 4096 : 1024;
  FileSkipper mismatch({paths[0]}, "backup-1", false);
  EXPECT_FALSE(mismatch.IsCowFileBlock(expected.extents[0].first, other));
  EXPECT_TRUE(mismatch.extents().empty());
  EXPECT_TRUE(Logged("Unable to skip blocks for " + paths[0] + ", error: Block size mismatch, device: " +
                     std::to_string(other) + " fibgetbz: " + std::to_string(blockSize_), kError));
  FileSkipper disabled({paths[0]}, "backup-2", true);
  EXPECT_FALSE(disabled.IsCowFileBlock(expected.extents[0].first, blockSize_));
  EXPECT_FALSE(disabled.built());
  EXPECT_TRUE(LoggedMessages("", 0, "backup-2").empty());
  std::string missing = Path("missing");
  FileSkipper oneMissing({missing, paths[0]}, "backup-1", false);
  EXPECT_TRUE(oneMissing.IsCowFileBlock(expected.extents[0].first, blockSize_));
  EXPECT_TRUE(Logged("Unable to skip blocks for " + missing + ", error: Unable to open: " + missing, kError));
  struct statfs info;
  ASSERT_EQ(statfs("/dev/shm", &info), 0);
  ASSERT_EQ(static_cast<uint64_t>(info.f_type), kTmpfsMagic);
  char name[] = "/dev/shm/orv-cow-XXXXXX";
  fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, "data", 4), 4);
  close(fd);
  FileSkipper tmpfs({name}, "backup-1", false);
  EXPECT_FALSE(tmpfs.IsCowFileBlock(1, blockSize_));
  unlink(name);
  EXPECT_TRUE(tmpfs.extents().empty());
  EXPECT_TRUE(Logged("File block identification not supported. Not skipping files on backup.", kInfo));
}

INSTANTIATE_TEST_SUITE_P(ExtFlavours, FileSkipperExtentTest,
                         ::testing::Values(std::make_tuple("ext2", "-b 1024"), std::make_tuple("ext3", ""),
                                           std::make_tuple("ext4", ""), std::make_tuple("ext4", "-O inline_data"),
                                           std::make_tuple("ext4", "-b 1024")));

// Blocks merge only with the block before them in file order; a run is its blocks one by one.
TEST(FileSkipperExtentsTest, BlocksAndRunsMergeOnlyWithTheBlockBefore) {
  FileSkipper skipper({}, "", false);
  uint64_t count = 0;
  for (uint64_t block : {5, 6, 7, 0, 8, 3, 2, 1, 9}) skipper.AddBlock(block, count);
  EXPECT_EQ(count, 8u);
  EXPECT_EQ(skipper.extents(), (std::vector<FileSkipper::Extent>{{5, 8}, {3, 3}, {2, 2}, {1, 1}, {9, 9}}));
  EXPECT_EQ(skipper.extentCount(), 5u);

  FileSkipper byRun({}, "", false), byBlock({}, "", false);
  uint64_t runCount = 0, blockCount = 0;
  // (first, blocks): continuing the last block, a fresh start, one from block 0, an empty run.
  for (auto [first, blocks] : std::vector<std::pair<uint64_t, uint64_t>>{
           {10, 3}, {13, 2}, {0, 4}, {4, 1}, {20, 0}, {7, 1}, {100, 5}}) {
    byRun.AddBlocks(first, blocks, runCount);
    for (uint64_t b = first; b < first + blocks; ++b) byBlock.AddBlock(b, blockCount);
  }
  EXPECT_EQ(byRun.extents(), byBlock.extents());
  EXPECT_EQ(byRun.extentCount(), byBlock.extentCount());
  EXPECT_EQ(runCount, blockCount);
  EXPECT_EQ(byRun.extents(), (std::vector<FileSkipper::Extent>{{10, 14}, {1, 4}, {7, 7}, {100, 104}}));
}

}  // namespace
}  // namespace orv
