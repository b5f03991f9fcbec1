#ifndef ORV_TESTS_UNIT_ISCSI_TEST_SUPPORT_H_
#define ORV_TESTS_UNIT_ISCSI_TEST_SUPPORT_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "tests/unit/test_support.h"
#include "tests/unit/tgtd_fixture.h"

namespace orv {

// libiscsi loses up to ~200 bytes per session that dies under a synchronous command or
// login, out of any caller's reach: tests that cut sessions on purpose run those calls
// under this, so that the leak checker still watches everything else.
class LibiscsiSessionLossLeaks {
 public:
#if defined(__SANITIZE_ADDRESS__)
  LibiscsiSessionLossLeaks() { __lsan_disable(); }
  ~LibiscsiSessionLossLeaks() { __lsan_enable(); }
#else
  LibiscsiSessionLossLeaks() {}
  ~LibiscsiSessionLossLeaks() {}
#endif
  LibiscsiSessionLossLeaks(const LibiscsiSessionLossLeaks&) = delete;
  LibiscsiSessionLossLeaks& operator=(const LibiscsiSessionLossLeaks&) = delete;
};

// Deterministic content: bytes [start, start + length) of a pattern seeded with `seed`.
inline void FillPattern(unsigned char* buffer, size_t length, uint64_t seed, uint64_t start = 0) {
  uint64_t state = seed * 0x9E3779B97F4A7C15ULL + 1;
  for (size_t i = 0; i < length; ++i) {
    uint64_t x = (start + i) ^ state;
    x ^= x >> 29;
    x *= 0xBF58476D1CE4E5B9ULL;
    buffer[i] = static_cast<unsigned char>(x >> 32);
  }
}

inline std::vector<unsigned char> Pattern(size_t length, uint64_t seed) {
  std::vector<unsigned char> data(length);
  FillPattern(data.data(), length, seed);
  return data;
}

// Bytes of a file (a LUN's backing file, a snapshot), read or written beside tgtd.
inline std::vector<unsigned char> ReadBacking(const std::string& path, uint64_t offset, size_t length) {
  std::vector<unsigned char> data(length);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ssize_t n = fd >= 0 ? pread(fd, data.data(), length, static_cast<off_t>(offset)) : -1;
  if (fd >= 0) close(fd);
  data.resize(n > 0 ? static_cast<size_t>(n) : 0);
  return data;
}

inline bool WriteBacking(const std::string& path, uint64_t offset, const std::vector<unsigned char>& data) {
  int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ssize_t n = pwrite(fd, data.data(), data.size(), static_cast<off_t>(offset));
  close(fd);
  return n == static_cast<ssize_t>(data.size());
}

// An agent root (so that log lines can be read back) and a private tgtd serving target 1
// with one file-backed LUN 1 of `lunBytes`.
class IscsiTargetTest : public AgentRootTest {
 protected:
  static constexpr const char* kIqn = "iqn.2024-01.net.orv.test:image";

  explicit IscsiTargetTest(uint64_t lunBytes = 32ull << 20) : lunBytes_(lunBytes) {}

  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(AgentRootTest::SetUp());
    ASSERT_TRUE(tgtd_.Start());
    ASSERT_TRUE(tgtd_.AddTarget(1, kIqn));
    ASSERT_TRUE(tgtd_.AddLun(1, 1, lunBytes_, &lunPath_));
  }

  uint64_t lunBytes_;
  TgtdFixture tgtd_;
  std::string lunPath_;
};

}  // namespace orv

#endif  // ORV_TESTS_UNIT_ISCSI_TEST_SUPPORT_H_
