#include "transfer/iscsi_block_device.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "tests/unit/iscsi_test_support.h"

namespace orv {
namespace {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

class IscsiBlockDeviceTest : public IscsiTargetTest {
 protected:
  // An odd number of blocks: the end of the LUN lines up with no chunk.
  explicit IscsiBlockDeviceTest(uint64_t lunBytes = (24ull << 20) + 3 * 512) : IscsiTargetTest(lunBytes) {}
  IscsiBlockDevice Device() const { return IscsiBlockDevice(kIqn, tgtd_.Portal(), 1, "", ""); }
};

TEST_F(IscsiBlockDeviceTest, GeometrySeekAndDataRoundTrip) {
  IscsiBlockDevice device = Device();
  EXPECT_FALSE(device.Disconnect());
  ASSERT_TRUE(device.Connect());
  EXPECT_EQ(device.BlockSize(), 512u);
  EXPECT_EQ(device.BlockCount(), lunBytes_ / 512);
  const int64_t size = device.Size();
  EXPECT_EQ(size, static_cast<int64_t>(lunBytes_));
  // A second session on the same object starts over at position 0.
  ASSERT_EQ(device.Seek(4096, 0), 4096);
  ASSERT_TRUE(device.Connect());
  EXPECT_EQ(device.Position(), 0);

  Bytes data = Pattern(3 << 20, 7);
  ASSERT_EQ(device.Seek(1 << 20, 0), 1 << 20);
  ASSERT_EQ(device.WriteRetry(data.data(), data.size()), static_cast<int64_t>(data.size()));
  EXPECT_EQ(ReadBacking(lunPath_, 1 << 20, data.size()), data);
  Bytes back(data.size());
  ASSERT_EQ(device.Seek(-static_cast<int64_t>(data.size()), 1), 1 << 20);
  ASSERT_EQ(device.ReadRetry(back.data(), back.size()), static_cast<int64_t>(back.size()));
  EXPECT_EQ(back, data);
  // A read from inside a block starts at that byte.
  unsigned char piece[100];
  ASSERT_EQ(device.Seek((1 << 20) + 1000, 0), (1 << 20) + 1000);
  ASSERT_EQ(device.ReadRetry(piece, sizeof(piece)), 100);
  EXPECT_EQ(0, memcmp(piece, data.data() + 1000, sizeof(piece)));
  EXPECT_EQ(device.Position(), (1 << 20) + 1100);

  EXPECT_EQ(device.Seek(0, 2), size);
  EXPECT_EQ(device.Seek(-512, 1), size - 512);
  for (auto [offset, whence] : {std::pair<int64_t, int>{size + 1, 0}, {-1, 0}, {1, 2}, {-size - 1, 2}, {513, 1},
                                {0, 3}, {INT64_MAX, 1}}) {
    errno = 0;
    EXPECT_EQ(device.Seek(offset, whence), -1) << offset << " from " << whence;
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(device.Position(), size - 512);
  }
  EXPECT_TRUE(device.Disconnect());
  EXPECT_FALSE(device.Connected());
}

TEST_F(IscsiBlockDeviceTest, ReadsAndWritesAreCutAtTheEndOfTheLun) {
  IscsiBlockDevice device = Device();
  ASSERT_TRUE(device.Connect());
  const int64_t size = device.Size();
  Bytes data = Pattern(8192, 3);
  bool retry = false;
  // A write past the end is cut at the last block; a read at the end gives 0, one past it the rest.
  ASSERT_EQ(device.Seek(size - 1536, 0), size - 1536);
  EXPECT_EQ(device.Write(data.data(), data.size(), retry), 1536);
  EXPECT_EQ(ReadBacking(lunPath_, lunBytes_ - 1536, 1536), Bytes(data.begin(), data.begin() + 1536));
  Bytes back(8192);
  EXPECT_EQ(device.Read(back.data(), back.size(), retry), 0);
  ASSERT_EQ(device.Seek(size - 1536, 0), size - 1536);
  EXPECT_EQ(device.Read(back.data(), back.size(), retry), 1536);
  EXPECT_EQ(0, memcmp(back.data(), data.data(), 1536));
  errno = 0;
  EXPECT_EQ(device.Write(data.data(), 512, retry), -1);
  EXPECT_EQ(errno, ENOSPC);
  // Writes must be whole blocks in place and size; the retrying form does not retry them.
  for (auto [at, length] : {std::pair<int64_t, size_t>{100, 512}, {512, 1000}}) {
    ASSERT_EQ(device.Seek(at, 0), at);
    errno = 0;
    EXPECT_EQ(device.WriteRetry(data.data(), length), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(device.Position(), at);
  }
  EXPECT_FALSE(retry);
  EXPECT_TRUE(LoggedMessages("Write iscsi failed").empty());
  // Without a session nothing is sent and nothing is retried.
  device.Disconnect();
  EXPECT_EQ(device.WriteRetry(data.data(), 512), -1);
  EXPECT_EQ(errno, ENOTCONN);
  EXPECT_EQ(device.ReadRetry(back.data(), 512), -1);
  EXPECT_EQ(errno, ENOTCONN);
}

// Writes sent ahead are on the wire together; a read of their blocks waits for them, and
// the Write that comes to each takes its answer instead of sending it again.
TEST_F(IscsiBlockDeviceTest, WritesAheadLandAndTheirWritesTakeTheAnswers) {
  IscsiBlockDevice device = Device();
  ASSERT_TRUE(device.Connect());
  std::vector<std::pair<int64_t, std::shared_ptr<Bytes>>> runs;
  int64_t offset = 512;
  for (size_t i = 0; i < 8; ++i) {
    auto data = std::make_shared<Bytes>(Pattern(4096u << (i % 5), i + 1));
    runs.emplace_back(offset, data);
    ASSERT_TRUE(device.WriteAhead(data->data(), data->size(), offset, data)) << i;
    offset += static_cast<int64_t>(data->size()) + 8192;
  }
  // Not sent ahead: over another write ahead, past the end, not whole blocks.
  Bytes other = Pattern(4096, 99);
  EXPECT_FALSE(device.WriteAhead(other.data(), 4096, runs[2].first + 512, nullptr));
  EXPECT_FALSE(device.WriteAhead(other.data(), 4096, device.Size() - 512, nullptr));
  EXPECT_FALSE(device.WriteAhead(other.data(), 1000, 0, nullptr));
  EXPECT_EQ(device.WritesAhead(), 8u);

  Bytes back(runs[4].second->size());
  ASSERT_EQ(device.Seek(runs[4].first, 0), runs[4].first);
  ASSERT_EQ(device.ReadRetry(back.data(), back.size()), static_cast<int64_t>(back.size()));
  EXPECT_TRUE(back == *runs[4].second);
  Bytes expected(static_cast<size_t>(offset), 0);
  for (size_t i = 0; i < runs.size(); ++i) {
    auto& [at, data] = runs[i];
    ASSERT_EQ(device.Seek(at, 0), at);
    ASSERT_EQ(device.WriteRetry(data->data(), data->size()), static_cast<int64_t>(data->size()));
    EXPECT_EQ(device.WritesAhead(), runs.size() - i - 1);
    EXPECT_EQ(data.use_count(), 1) << "the device let go of the buffer with the answer";
    std::copy(data->begin(), data->end(), expected.begin() + at);
  }
  EXPECT_TRUE(ReadBacking(lunPath_, 0, expected.size()) == expected);
}

bool WaitFor(const std::function<bool()>& condition, double seconds) {
  for (auto start = Clock::now(); !condition(); std::this_thread::sleep_for(std::chrono::milliseconds(5))) {
    if (SecondsSince(start) > seconds) return false;
  }
  return true;
}

class IscsiReconnectTest : public IscsiBlockDeviceTest {
 protected:
  IscsiReconnectTest() : IscsiBlockDeviceTest(8ull << 20) {}
};

// A clean restart under a copy is drilled end to end by the target system drill; a crash
// is cut here, under a stream of 256 KiB writes over the whole LUN, pass after pass.
TEST_F(IscsiReconnectTest, WritesResumeAtTheSameByteAfterTgtdIsKilled) {
  constexpr size_t kPiece = 256 << 10;
  IscsiBlockDevice device = Device();
  ASSERT_TRUE(device.Connect());
  std::atomic<bool> stop{false};
  std::atomic<int> writes{0}, failures{0};
  std::atomic<uint64_t> lastPass{0};
  std::thread writer([&] {
    LibiscsiSessionLossLeaks expected;
    Bytes piece(kPiece);
    for (uint64_t pass = 1; !stop && failures == 0; ++pass) {
      if (device.Seek(0, 0) != 0) failures++;
      for (uint64_t at = 0; failures == 0 && at + kPiece <= lunBytes_; at += kPiece, writes++) {
        FillPattern(piece.data(), kPiece, pass, at);
        if (device.WriteRetry(piece.data(), kPiece) != static_cast<int64_t>(kPiece) ||
            device.Position() != static_cast<int64_t>(at + kPiece)) {
          failures++;
        }
      }
      if (failures == 0) lastPass = pass;
    }
  });
  bool ok = WaitFor([&] { return writes >= 20 || failures > 0; }, 20) && tgtd_.Kill();
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  ok = ok && tgtd_.Restart();
  int before = writes;
  ok = ok && WaitFor([&] { return writes >= before + 40 || failures > 0; }, 20);
  stop = true;
  writer.join();
  ASSERT_TRUE(ok);
  ASSERT_EQ(failures, 0);
  ASSERT_GE(lastPass, 1u);
  Bytes expected(lunBytes_ / kPiece * kPiece);
  FillPattern(expected.data(), expected.size(), lastPass, 0);
  EXPECT_TRUE(ReadBacking(lunPath_, 0, expected.size()) == expected);
  EXPECT_GE(LoggedMessages("Write iscsi failed, sleeping, reconnecting, and retrying").size(), 1u);
}

TEST_F(IscsiReconnectTest, ReadResumesAtTheSameByteAfterTgtdRestarts) {
  Bytes data = Pattern(lunBytes_, 11);
  ASSERT_TRUE(WriteBacking(lunPath_, 0, data));
  IscsiBlockDevice device = Device();
  ASSERT_TRUE(device.Connect());
  Bytes first(1 << 20), second(1 << 20);
  ASSERT_EQ(device.ReadRetry(first.data(), first.size()), 1 << 20);
  ASSERT_TRUE(tgtd_.Kill());
  int64_t result = 0;
  std::thread reader([&] {
    LibiscsiSessionLossLeaks expected;
    result = device.ReadRetry(second.data(), second.size());
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  bool restarted = tgtd_.Restart();
  reader.join();
  ASSERT_TRUE(restarted);
  ASSERT_EQ(result, 1 << 20);
  EXPECT_EQ(device.Position(), 2 << 20);
  EXPECT_EQ(0, memcmp(second.data(), data.data() + (1 << 20), second.size()));
  EXPECT_GE(LoggedMessages("Read iscsi failed, sleeping, reconnecting, and retrying").size(), 1u);
}

TEST_F(IscsiReconnectTest, AWriteFailsAfterFiveReconnectsWhenTgtdIsGone) {
  IscsiBlockDevice device = Device();
  ASSERT_TRUE(device.Connect());
  ASSERT_EQ(device.Seek(4096, 0), 4096);
  ASSERT_TRUE(tgtd_.Stop());
  Bytes data = Pattern(65536, 5);
  auto start = Clock::now();
  LibiscsiSessionLossLeaks expected;
  errno = 0;
  EXPECT_EQ(device.WriteRetry(data.data(), data.size()), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_GE(SecondsSince(start), 5.0);
  EXPECT_LT(SecondsSince(start), 15.0);
  EXPECT_EQ(device.Position(), 4096);
  EXPECT_EQ(LoggedMessages("Failed during iscsi write command.").size(), 1u);
  EXPECT_EQ(LoggedMessages("Write iscsi failed, sleeping, reconnecting, and retrying").size(), 5u);
  EXPECT_EQ(LoggedMessages("Connect or Login failed: Qname: " + std::string(kIqn) + " Target: " + tgtd_.Portal() +
                           " LUN: 1. Error: ").size(), 5u);
}

TEST_F(IscsiBlockDeviceTest, ChapLoginNeedsTheRightSecret) {
  ASSERT_TRUE(tgtd_.AddChap(1, "orvagent", "s3cret-for-chap"));
  EXPECT_TRUE(IscsiBlockDevice(kIqn, tgtd_.Portal(), 1, "orvagent", "s3cret-for-chap").Connect());
  IscsiBlockDevice wrong(kIqn, tgtd_.Portal(), 1, "orvagent", "not-the-secret");
  EXPECT_FALSE(wrong.Connect());
  EXPECT_FALSE(wrong.Connected());
  EXPECT_FALSE(Device().Connect());
  EXPECT_EQ(LoggedMessages("Connect or Login failed: Qname: " + std::string(kIqn)).size(), 2u);
}

TEST_F(IscsiBlockDeviceTest, ASessionOnADescriptorAbove254IsRefused) {
  // Every descriptor up to 300 taken: the session's socket lands above them.
  std::vector<int> held;
  for (int fd = dup(0); fd >= 0; fd = dup(0)) {
    held.push_back(fd);
    if (fd >= 300) break;
  }
  IscsiBlockDevice device = Device();
  bool connected = device.Connect();
  for (int fd : held) close(fd);
  EXPECT_FALSE(connected);
  EXPECT_FALSE(device.Connected());
  EXPECT_EQ(LoggedMessages("Iscsi socket error - too many files open.").size(), 1u);
  EXPECT_TRUE(device.Connect());
}

// A portal that reads the start of each login request and hangs up: a target that goes
// away in the middle of a command.
class HangingUpPortal {
 public:
  HangingUpPortal() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof(address);
    bind(fd_, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    portal_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    listen(fd_, 4);
    thread_ = std::thread([this] {
      for (pollfd waiting{fd_, POLLIN, 0}; !stop_;) {
        int connection = poll(&waiting, 1, 50) == 1 ? accept(fd_, nullptr, nullptr) : -1;
        if (connection < 0) continue;
        char header[48];
        [[maybe_unused]] ssize_t ignored = recv(connection, header, sizeof(header), MSG_WAITALL);
        close(connection);
      }
    });
  }
  ~HangingUpPortal() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  const std::string& Portal() const { return portal_; }

 private:
  int fd_;
  std::string portal_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST_F(IscsiBlockDeviceTest, BadTargetsFailQuicklyWithAClearLine) {
  HangingUpPortal hangingUp;
  const std::string freePortal = "127.0.0.1:" + std::to_string(FreePort());
  const struct {
    std::string name, portal;
    int lun;
  } cases[] = {
      {kIqn, "no-such-portal.invalid:3260", 1}, {kIqn, freePortal, 1}, {kIqn, hangingUp.Portal(), 1},
      {"iqn.2024-01.net.orv.test:no-such-target", tgtd_.Portal(), 1}, {kIqn, tgtd_.Portal(), 7}, {kIqn, "", 1},
  };
  for (const auto& c : cases) {
    size_t before = LoggedMessages().size();
    IscsiBlockDevice device(c.name, c.portal, c.lun, "", "");
    auto start = Clock::now();
    {
      LibiscsiSessionLossLeaks expected;
      EXPECT_FALSE(device.Connect()) << c.portal << " lun " << c.lun;
    }
    EXPECT_LT(SecondsSince(start), 10.0) << c.portal;
    std::vector<std::string> lines = LoggedMessages();
    ASSERT_GT(lines.size(), before) << c.portal;
    EXPECT_EQ(lines[before].rfind("Connect or Login failed: Qname: ", 0), 0u) << lines[before];
    bool retry = false;
    char buffer[512];
    errno = 0;
    EXPECT_EQ(device.Read(buffer, sizeof(buffer), retry), -1);
    EXPECT_EQ(errno, ENOTCONN);
  }
}

}  // namespace
}  // namespace orv
