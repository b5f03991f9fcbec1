#ifndef ORV_TESTS_UNIT_TEST_SUPPORT_H_
#define ORV_TESTS_UNIT_TEST_SUPPORT_H_

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tests/unit/agent_root.h"

namespace orv {

// A test on an agent root of its own with a fresh database, so that the log lines the
// code under test writes can be read back.
class AgentRootTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(root_.initialiseDatabase()); }

  AgentRoot root_;
};

// The messages of the agent's log (oldest first) at exactly `level` (any level when 0),
// of `backupId` when it is not empty, that start with `prefix`.
std::vector<std::string> LoggedMessages(const std::string& prefix = "", int level = 0,
                                        const std::string& backupId = "");
// Whether `message` was logged word for word (at exactly `level` when it is not 0).
bool Logged(const std::string& message, int level = 0);
// Whether a logged message (at exactly `level` when it is not 0) contains `part`.
bool LoggedContaining(const std::string& part, int level = 0);

// Little- and big-endian fields of hand-built file-system images.
inline void PutLe16(uint8_t* p, uint16_t v) { p[0] = v & 0xFF; p[1] = v >> 8; }
inline void PutLe32(uint8_t* p, uint32_t v) { PutLe16(p, v & 0xFFFF); PutLe16(p + 2, v >> 16); }
inline void PutBe16(uint8_t* p, uint16_t v) { p[0] = v >> 8; p[1] = v & 0xFF; }
inline void PutBe32(uint8_t* p, uint32_t v) { PutBe16(p, v >> 16); PutBe16(p + 2, v & 0xFFFF); }
inline void PutBe64(uint8_t* p, uint64_t v) { PutBe32(p, v >> 32); PutBe32(p + 4, v & 0xFFFFFFFF); }

// A whole image walked through GetUsedBlockBitmap in pieces of `bufferBytes`.
struct UsedBlockWalk {
  int64_t result = 0;  // the last call's: 0 at the end, below 0 on failure
  uint64_t blockSize = 0;
  uint64_t blockCount = 0;
  std::vector<int64_t> pieces;
  std::set<uint64_t> used;
};
UsedBlockWalk WalkUsedBlocks(std::vector<uint8_t>& image, uint64_t bufferBytes);

// What a shell command prints on standard output, without its trailing newlines.
std::string Command(const std::string& command);

// The whole content of a file ("" when it cannot be read).
std::string ReadText(const std::string& path);

// Seconds since `start`.
double SecondsSince(std::chrono::steady_clock::time_point start);

// A loopback port that nobody listens on right now.
int FreePort();

}  // namespace orv

#endif  // ORV_TESTS_UNIT_TEST_SUPPORT_H_
