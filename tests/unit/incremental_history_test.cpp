#include "backup/incremental_history.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <vector>

#include "daemon/unique_fd.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

// Writes a COW-like file: a header of `headerByte` and the given map words.
void WriteCow(const std::string& path, char headerByte, const std::vector<uint64_t>& words) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  std::string header(4096, headerByte);
  out.write(header.data(), header.size());
  out.write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(words.size() * 8));
}

std::vector<uint64_t> MapOf(const std::string& path) {
  std::string bytes = ReadText(path);
  std::vector<uint64_t> words((bytes.size() - 4096) / 8);
  memcpy(words.data(), bytes.data() + 4096, words.size() * 8);
  return words;
}

class IncrementalHistoryTest : public AgentRootTest {
 protected:
  IncrementalHistory history_{root_.root(), "uuid-1", "backup-1"};
};

TEST_F(IncrementalHistoryTest, MergeCreatesThenOrs) {
  std::string cow = root_.root() + "/.zelko";
  // Large enough to take two passes of the 8 MiB buffers.
  std::vector<uint64_t> first(1048576 + 10, 0), second(1048576 + 10, 0);
  first[0] = 5;
  first[1048576 + 3] = 1;
  second[1] = 9;
  second[1048576 + 9] = 2;
  WriteCow(cow, 'A', first);
  ASSERT_EQ(history_.merge_incremental_history(cow), 0);
  std::string merged = ReadText(history_.path());
  ASSERT_EQ(merged.size(), 4096u + first.size() * 8);
  EXPECT_EQ(merged.substr(0, 4096), std::string(4096, 'A'));
  EXPECT_EQ(MapOf(history_.path()), first);
  EXPECT_TRUE(history_.incrementalHistoryExists());

  WriteCow(cow, 'B', second);
  ASSERT_EQ(history_.merge_incremental_history(cow), 0);
  std::vector<uint64_t> map = MapOf(history_.path());
  EXPECT_EQ(map[0], 5u);
  EXPECT_EQ(map[1], 9u);
  EXPECT_EQ(map[1048576 + 3], 1u);
  EXPECT_EQ(map[1048576 + 9], 2u);
  EXPECT_EQ(ReadText(history_.path())[0], 'B');  // the newest header

  ASSERT_EQ(history_.remove_incremental_history(), 0);
  EXPECT_NE(access(history_.path().c_str(), F_OK), 0);
  EXPECT_FALSE(history_.incrementalHistoryExists());
  EXPECT_EQ(history_.remove_incremental_history(), 0);  // already gone
}

TEST_F(IncrementalHistoryTest, CowWithoutHeaderOrMissingFails) {
  std::string cow = root_.root() + "/short";
  std::ofstream(cow) << "tiny";
  EXPECT_EQ(history_.merge_incremental_history(cow), -1);
  EXPECT_TRUE(Logged("existing incremental cow " + cow + " file missing header."));
  EXPECT_EQ(history_.merge_incremental_history(root_.root() + "/absent"), ENOENT);
}

TEST_F(IncrementalHistoryTest, OverlayOrsAndRefusesAShortHistory) {
  std::string cow = root_.root() + "/.zelko1";
  WriteCow(cow, 'C', {0, 4, 0, 8});
  ASSERT_EQ(history_.merge_incremental_history(cow), 0);
  UniqueFd fd(open(history_.path().c_str(), O_RDONLY));
  ASSERT_TRUE(fd.valid());
  std::vector<uint64_t> map = {1, 0, 0, 0};
  ASSERT_EQ(history_.overlay(map.data(), 32, 4096, fd.get()), 0);
  EXPECT_EQ(map, (std::vector<uint64_t>{1, 4, 0, 8}));
  std::vector<uint64_t> beyond = {0, 0, 0, 0, 0};
  EXPECT_EQ(history_.overlay(beyond.data(), 40, 4096, fd.get()), EIO);
  EXPECT_EQ(history_.overlay(map.data(), 32, 4096, -1), 0);  // no history: nothing to add
}

TEST_F(IncrementalHistoryTest, IncrementalOkFollowsTheLatestRecord) {
  EXPECT_FALSE(history_.incrementalOk());
  history_.setIncrementalOk(true);
  EXPECT_TRUE(history_.incrementalOk());
  IncrementalHistory other(root_.root(), "uuid-2", "backup-1");
  EXPECT_FALSE(other.incrementalOk());
  history_.setIncrementalOk(false);
  EXPECT_FALSE(history_.incrementalOk());
}

}  // namespace
}  // namespace orv
