#include "backup/cow_size.h"

#include <gtest/gtest.h>

#include "store/configs.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

constexpr uint64_t kGiB = 1ULL << 30;

using CowSizeTest = AgentRootTest;

TEST_F(CowSizeTest, TenPercentCappedPlusTheMapAndFatBelowItsCeiling) {
  // 10 GiB at 10% = 1024 MiB; map = 2621440 blocks * 8 + 8 bytes -> 20 MiB + 1.
  EXPECT_EQ(CowFileSizeMiB(10 * kGiB, 4096, "ext4", ""), 1024u + 21u);
  // A tiny volume still gets at least one MiB of map room.
  EXPECT_EQ(CowFileSizeMiB(1 << 20, 4096, "ext4", ""), 0u + 1u);
  EXPECT_EQ(CowFileSizeMiB(100 * kGiB, 4096, "vfat", ""), 4095u);
  EXPECT_EQ(CowFileSizeMiB(1 * kGiB, 4096, "vfat", ""), 102u + 5u);
}

TEST_F(CowSizeTest, PercentAndMaximumOutsideTheirBoundsAreIgnored) {
  Configs configs;
  const uint64_t size = 100 * kGiB;  // 10% = 10240 MiB, the default cap
  const uint64_t extra = (size / 4096 * 8 + 8) / 1048576 + 1;
  EXPECT_EQ(CowFileSizeMiB(size, 4096, "ext4", ""), 10240u + extra);
  ASSERT_TRUE(configs.set("max_cow_megs", "49"));
  EXPECT_EQ(CowFileSizeMiB(size, 4096, "ext4", ""), 10240u + extra);
  ASSERT_TRUE(configs.set("max_cow_megs", "50"));
  EXPECT_EQ(CowFileSizeMiB(size, 4096, "ext4", ""), 50u + extra);
  ASSERT_TRUE(configs.set("max_cow_megs", "1000000"));
  for (auto [text, percent] : std::initializer_list<std::pair<const char*, double>>{
           {"9.99", 10}, {"50.01", 10}, {"10", 10}, {"50", 50}, {"abc", 10}, {"25.5", 25.5}}) {
    ASSERT_TRUE(configs.set("cow_percent", text));
    uint64_t expected = static_cast<uint64_t>(static_cast<double>(size) * percent / 100.0) >> 20;
    EXPECT_EQ(CowFileSizeMiB(size, 4096, "xfs", ""), expected + extra) << text;
  }
}

}  // namespace
}  // namespace orv
