#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "change_map.h"
#include "extent_list.h"
#include "unique_fd.h"
#include "volume_scanner.h"

using orv::zelkosim::ChangeMap;
using orv::zelkosim::ExtentList;
using orv::zelkosim::ScanResult;
using orv::zelkosim::ScanTargets;
using orv::zelkosim::UniqueFd;
using orv::zelkosim::VolumeScanner;

namespace {

// A volume stand-in: a file in a fresh temporary directory, read like a device.
class ZelkosimScannerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zelkosim-scanner-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    for (const char* name : {"volume", "image", "baseline"}) ::unlink(path(name).c_str());
    ::rmdir(dir_.c_str());
  }

  std::string path(const char* name) const { return dir_ + "/" + name; }

  void write(const char* name, const std::string& data) {
    UniqueFd fd(::open(path(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    ASSERT_TRUE(fd.valid());
    ASSERT_EQ(::pwrite(fd.get(), data.data(), data.size(), 0), static_cast<ssize_t>(data.size()));
  }

  ScanResult scan(const std::string& volume, const ScanTargets& targets) {
    write("volume", volume);
    UniqueFd device(::open(path("volume").c_str(), O_RDONLY | O_DIRECT));
    EXPECT_TRUE(device.valid());
    std::vector<std::string> progress;
    VolumeScanner scanner(device.get(), volume.size(), "volume",
                          [&](const std::string& line) { progress.push_back(line); });
    ScanResult result = scanner.run(targets);
    EXPECT_FALSE(progress.empty());
    EXPECT_NE(progress.back().find("100%"), std::string::npos);
    return result;
  }

  std::string dir_;
};

std::string Pattern(size_t bytes, unsigned seed) {
  std::string data(bytes, '\0');
  for (size_t i = 0; i < bytes; ++i) data[i] = static_cast<char>((i * 131 + seed * 7 + (i >> 12)) % 251 + 1);
  return data;
}

}  // namespace

// The capture of a volume, zero blocks left as holes, is checked end to end by the
// simulator's system tests; the edges of the comparison are checked here.
TEST_F(ZelkosimScannerTest, CompareMarksExactlyTheDifferingBlocksOutsideTheExcluded) {
  const size_t size = (20u << 20) + 3 * 512;  // a partial last block, as a 512-byte-sector device may have
  std::string baseline = Pattern(size, 3);
  write("baseline", baseline);
  std::string volume = baseline;
  const uint64_t kBlocks = (size + 4095) / 4096;
  for (uint64_t block : {0ull, 4095ull, 4096ull, 5000ull}) volume[block * 4096 + 17] ^= 0x5a;
  volume[size - 1] ^= 1;                     // the partial last block
  volume[(4096ull << 12) - 1] ^= 1;          // the last byte of block 4095, at the chunk boundary
  volume[7 * 4096 + 100] ^= 1;               // excluded below
  ChangeMap excluded(kBlocks);
  excluded.mark(7);
  excluded.mark(8);
  UniqueFd base(::open(path("baseline").c_str(), O_RDONLY));
  ScanResult result = scan(volume, ScanTargets{-1, base.get(), &excluded});
  EXPECT_EQ(result.changed.blocks(), kBlocks);
  EXPECT_EQ(result.changed.markedBlocks(), (std::vector<uint64_t>{0, 4095, 4096, 5000, kBlocks - 1}));
  EXPECT_EQ(result.data_bytes, 0u);
}

TEST_F(ZelkosimScannerTest, ADeviceShorterThanItsSizeFails) {
  write("volume", Pattern(1u << 20, 4));
  UniqueFd device(::open(path("volume").c_str(), O_RDONLY | O_DIRECT));
  VolumeScanner scanner(device.get(), 2u << 20, "volume", nullptr);
  EXPECT_THROW(scanner.run(ScanTargets{}), std::exception);
}

TEST_F(ZelkosimScannerTest, ExtentsCoverAWrittenFileAndRefuseHoles) {
  write("volume", Pattern(1u << 20, 5));
  UniqueFd fd(::open(path("volume").c_str(), O_RDONLY));
  ::fsync(fd.get());
  ExtentList list = ExtentList::OfFile(fd.get(), 1u << 20, path("volume"));
  uint64_t covered = 0;
  for (const auto& e : list.extents()) {
    EXPECT_EQ(e.logical, covered);
    EXPECT_NE(e.physical, 0u);
    covered += e.length;
  }
  EXPECT_GE(covered, 1u << 20);

  UniqueFd sparse(::open(path("image").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
  ASSERT_EQ(::ftruncate(sparse.get(), 1 << 20), 0);
  EXPECT_THROW(ExtentList::OfFile(sparse.get(), 1u << 20, path("image")), std::exception);
}
