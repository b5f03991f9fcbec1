#include "backup/driver_info.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "daemon/file_util.h"
#include "daemon/logger.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

class DriverInfoTest : public AgentRootTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(AgentRootTest::SetUp());
    infoPath_ = root_.root() + "/zelko-info";
    setenv("ORVD_DRIVER_INFO", infoPath_.c_str(), 1);
  }
  void TearDown() override { unsetenv("ORVD_DRIVER_INFO"); }

  bool LoadText(const std::string& text) {
    EXPECT_EQ(WriteWholeFile(infoPath_, text), 0);
    info_.reset();
    return info_.load(nullptr);
  }
  bool LoadVersion(const std::string& version) {
    return LoadText("{\"version\":\"" + version + "\",\"devices\":[]}");
  }
  std::string infoPath_;
  DriverInfo info_;
};

TEST_F(DriverInfoTest, SortsDevicesByMinorAndDumpsThem) {
  ASSERT_TRUE(LoadText(R"({"version":"0.10.0","devices":[
      {"minor":3,"state":2,"cow_file":"/mnt/c/.zelko","block_device":"/dev/loop3","error":0},
      {"minor":0,"state":3,"cow_file":"/.zelko","block_device":"/dev/vda","error":0},
      {"minor":3,"state":4,"cow_file":"second","block_device":"/dev/other","error":0},
      {"minor":1,"state":2,"cow_file":"/mnt/b/.zelko","block_device":"/dev/loop1","error":-5}]})"));
  ASSERT_EQ(info_.deviceCount(), 4u);
  EXPECT_EQ(info_.devices()[0].minor, 0);
  EXPECT_EQ(info_.devices()[1].minor, 1);
  // Equal minors keep their document order.
  EXPECT_EQ(info_.devices()[2].block_device, "/dev/loop3");
  EXPECT_EQ(info_.devices()[3].block_device, "/dev/other");
  EXPECT_EQ(info_.nextFreeMinor(), 2);
  EXPECT_EQ(info_.errorFor("/dev/loop1", "x"), -5);
  EXPECT_TRUE(Logged("Driver information parsed", kInfo));
  std::vector<std::string> debug = LoggedMessages("", kDebug);
  ASSERT_GE(debug.size(), 6u);
  EXPECT_EQ(std::vector<std::string>(debug.begin(), debug.begin() + 6),
            (std::vector<std::string>{"DRIVER DEVICE:", "\tMINOR: 0", "\tSTATE: 3", "\tCOWFILE: /.zelko",
                                      "\tBLOCKDEVICE: /dev/vda", "\tERROR: 0"}));
}

TEST_F(DriverInfoTest, ReadsQuotedNumbersAndSkipsOddEntries) {
  ASSERT_TRUE(LoadText(R"({"other":1,"version":"0.10.0","devices":[
      7, "text", [1,2], null,
      {"minor":"7","state":"2","error":"x","cow_file":"/v/.zelko","block_device":"/dev/loop7","extra":{"a":1}},
      {"block_device":"/dev/loop9"},
      {"minor":2,"minor":5,"block_device":"/dev/loop5"}]})"));
  ASSERT_EQ(info_.deviceCount(), 3u);
  // Missing keys keep their defaults; a repeated key overwrites.
  EXPECT_EQ(info_.minorFor("/dev/loop9", ""), 0);
  EXPECT_EQ(info_.stateFor("/dev/loop9", ""), 0);
  EXPECT_EQ(info_.cowFileFor("/dev/loop9", ""), "");
  EXPECT_EQ(info_.minorFor("/dev/loop5", ""), 5);
  EXPECT_EQ(info_.minorFor("/dev/loop7", ""), 7);
  EXPECT_EQ(info_.stateFor("/dev/loop7", ""), 2);
  EXPECT_EQ(info_.errorFor("/dev/loop7", ""), 0);
  EXPECT_EQ(info_.cowFileFor("/dev/loop7", ""), "/v/.zelko");
  EXPECT_EQ(info_.nextFreeMinor(), 1);
}

TEST_F(DriverInfoTest, VersionsBelowTheMinimumAreIncompatibleAndAMissingOneInvalid) {
  for (const char* version : {"0.10.0", "0.10.0-0", "0.10.1-3", "1.0.0"}) EXPECT_TRUE(LoadVersion(version)) << version;
  EXPECT_EQ(info_.version()->ToString(), "1.0.0-0");
  EXPECT_TRUE(LoggedMessages("", kCritical).empty());
  EXPECT_FALSE(LoadVersion("0.9.99"));
  EXPECT_TRUE(Logged("Could not load driver info: Incompatible driver version.", kCritical));
  // Text that does not start with a number reads as 0.0.0-0: incompatible, not invalid.
  EXPECT_FALSE(LoadVersion("v0.10.0"));
  EXPECT_EQ(info_.version()->ToString(), "0.0.0-0");
  EXPECT_FALSE(Logged("Could not load driver info: Invalid driver version.", kCritical));

  EXPECT_FALSE(LoadText(R"({"devices":[{"minor":1}]})"));
  EXPECT_EQ(info_.version(), nullptr);
  EXPECT_TRUE(Logged("Could not load driver info: Invalid driver version.", kCritical));
  EXPECT_FALSE(LoadText(R"({"version":"0.10.0","devices":[{"minor":1},)"));
  EXPECT_EQ(info_.version(), nullptr);
  EXPECT_EQ(info_.deviceCount(), 0u);
  EXPECT_FALSE(LoadText("[\"0.10.0\"]"));
  EXPECT_EQ(LoggedMessages("", kCritical).size(), 5u);
  EXPECT_EQ(LoggedMessages("Driver information parsed", kInfo).size(), 8u);  // all but the broken one
}

TEST_F(DriverInfoTest, MatchesByExactPathOrByUuidPath) {
  ASSERT_TRUE(LoadText(R"({"version":"0.10.0","devices":[
      {"minor":0,"state":2,"block_device":""},
      {"minor":1,"state":3,"block_device":"/dev/disk/by-uuid/1234-ABCD"},
      {"minor":2,"state":2,"block_device":"/dev/loop2"}]})"));
  EXPECT_EQ(info_.minorFor("/dev/loop9", "1234-ABCD"), 1);
  EXPECT_EQ(info_.stateFor("/dev/loop9", "1234-ABCD"), 3);
  EXPECT_EQ(info_.minorFor("/dev/loop2", "other"), 2);
  // No prefix, suffix or case matching.
  EXPECT_EQ(info_.minorFor("/dev/loop", "1234-abcd"), -1);
  EXPECT_EQ(info_.minorFor("/dev/loop22", ""), -1);
  // An empty tracked path matches only an empty path.
  EXPECT_EQ(info_.minorFor("", "x"), 0);
  EXPECT_EQ(info_.nextFreeMinor(), 3);
}

TEST_F(DriverInfoTest, NextFreeMinorSkipsRepeatedNegativeAndWrappedMinors) {
  ASSERT_TRUE(LoadText(R"({"version":"0.10.0","devices":[{"minor":1},{"minor":0},{"minor":0},{"minor":3}]})"));
  EXPECT_EQ(info_.nextFreeMinor(), 2);
  // 4294967296 does not fit a minor and wraps to 0, which is then in use.
  ASSERT_TRUE(LoadText(R"({"version":"0.10.0","devices":[{"minor":-1},{"minor":4294967296}]})"));
  EXPECT_EQ(info_.nextFreeMinor(), 1);
  info_.reset();
  EXPECT_EQ(info_.version(), nullptr);
  EXPECT_EQ(info_.nextFreeMinor(), 0);
  // An empty device list misses everything.
  ASSERT_TRUE(LoadVersion("0.10.0"));
  EXPECT_EQ(info_.minorFor("/dev/loop1", "u"), -1);
  EXPECT_EQ(info_.stateFor("/dev/loop1", "u"), -1);
  EXPECT_EQ(info_.errorFor("/dev/loop1", "u"), 0);
  EXPECT_EQ(info_.cowFileFor("/dev/loop1", "u"), "");
}

}  // namespace
}  // namespace orv
