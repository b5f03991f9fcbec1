#include "transfer/iscsi_block_device.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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

class IscsiBlockDeviceTest : public IscsiTargetTest {
 protected:
  // An odd number of blocks: nothing about the end of the LUN lines up with a chunk.
  IscsiBlockDeviceTest() : IscsiTargetTest((24ull << 20) + 3 * 512) {}

  IscsiTarget Target() const { return IscsiTarget{kIqn, tgtd_.Portal(), 1, "", ""}; }
};

TEST_F(IscsiBlockDeviceTest, ConnectLearnsTheGeometryOfTheLun) {
  IscsiBlockDevice device(Target());
  EXPECT_FALSE(device.Connected());
  EXPECT_FALSE(device.Disconnect());
  ASSERT_TRUE(device.Connect());
  EXPECT_EQ(device.BlockSize(), 512u);
  EXPECT_EQ(device.BlockCount(), lunBytes_ / 512);
  EXPECT_EQ(device.Size(), static_cast<int64_t>(lunBytes_));
  EXPECT_EQ(device.Position(), 0);
  EXPECT_TRUE(device.Disconnect());
  EXPECT_FALSE(device.Connected());
  // A second session on the same device object starts over at position 0.
  ASSERT_TRUE(device.Connect());
  ASSERT_EQ(device.Seek(4096, 0), 4096);
  ASSERT_TRUE(device.Connect());
  EXPECT_EQ(device.Position(), 0);
}

TEST_F(IscsiBlockDeviceTest, DataWrittenReachesTheLunAndReadsBack) {
  IscsiBlockDevice device(Target());
  ASSERT_TRUE(device.Connect());
  std::vector<unsigned char> data = Pattern(3 << 20, 7);
  ASSERT_EQ(device.Seek(1 << 20, 0), 1 << 20);
  ASSERT_EQ(device.WriteRetry(data.data(), data.size()), static_cast<int64_t>(data.size()));
  EXPECT_EQ(device.Position(), (1 << 20) + static_cast<int64_t>(data.size()));
  EXPECT_EQ(ReadBacking(lunPath_, 1 << 20, data.size()), data);

  std::vector<unsigned char> back(data.size());
  ASSERT_EQ(device.Seek(-static_cast<int64_t>(data.size()), 1), 1 << 20);
  ASSERT_EQ(device.ReadRetry(back.data(), back.size()), static_cast<int64_t>(back.size()));
  EXPECT_EQ(back, data);

  // A read from inside a block starts at that byte, not at the block boundary.
  unsigned char piece[100];
  ASSERT_EQ(device.Seek((1 << 20) + 1000, 0), (1 << 20) + 1000);
  ASSERT_EQ(device.ReadRetry(piece, sizeof(piece)), 100);
  EXPECT_EQ(0, memcmp(piece, data.data() + 1000, sizeof(piece)));
  EXPECT_EQ(device.Position(), (1 << 20) + 1100);
}

TEST_F(IscsiBlockDeviceTest, SeekStaysWithinTheLun) {
  IscsiBlockDevice device(Target());
  ASSERT_TRUE(device.Connect());
  const int64_t size = device.Size();
  EXPECT_EQ(device.Seek(size, 0), size);
  EXPECT_EQ(device.Seek(0, 2), size);
  EXPECT_EQ(device.Seek(-512, 1), size - 512);
  for (auto [offset, whence] : {std::pair<int64_t, int>{size + 1, 0}, {-1, 0}, {1, 2}, {-size - 1, 2}, {513, 1},
                                {0, 3}, {INT64_MAX, 1}}) {
    errno = 0;
    EXPECT_EQ(device.Seek(offset, whence), -1) << offset << " from " << whence;
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(device.Position(), size - 512);
  }
}

TEST_F(IscsiBlockDeviceTest, ReadsAndWritesAreCutAtTheEndOfTheLun) {
  IscsiBlockDevice device(Target());
  ASSERT_TRUE(device.Connect());
  const int64_t size = device.Size();
  std::vector<unsigned char> data = Pattern(8192, 3);
  bool retry = false;

  // A write that runs past the end is cut at the last block and says so.
  ASSERT_EQ(device.Seek(size - 1536, 0), size - 1536);
  EXPECT_EQ(device.Write(data.data(), data.size(), retry), 1536);
  EXPECT_EQ(device.Position(), size);
  EXPECT_EQ(ReadBacking(lunPath_, lunBytes_ - 1536, 1536), std::vector<unsigned char>(data.begin(), data.begin() + 1536));

  // Reading at the end gives 0; a read that runs past it gives the bytes up to the end.
  std::vector<unsigned char> back(8192);
  EXPECT_EQ(device.Read(back.data(), back.size(), retry), 0);
  ASSERT_EQ(device.Seek(size - 1536, 0), size - 1536);
  EXPECT_EQ(device.Read(back.data(), back.size(), retry), 1536);
  EXPECT_EQ(0, memcmp(back.data(), data.data(), 1536));
  EXPECT_EQ(device.Position(), size);

  // Writes at or past the end have no room.
  errno = 0;
  EXPECT_EQ(device.Write(data.data(), 512, retry), -1);
  EXPECT_EQ(errno, ENOSPC);

  // Writes must be whole blocks in place and size; the retrying form does not retry them.
  ASSERT_EQ(device.Seek(100, 0), 100);
  errno = 0;
  EXPECT_EQ(device.WriteRetry(data.data(), 512), -1);
  EXPECT_EQ(errno, EINVAL);
  ASSERT_EQ(device.Seek(512, 0), 512);
  errno = 0;
  EXPECT_EQ(device.WriteRetry(data.data(), 1000), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(device.Position(), 512);
  EXPECT_FALSE(retry);
  EXPECT_TRUE(LoggedMessages("Write iscsi failed").empty());

  // Without a session nothing is sent and nothing is retried.
  device.Disconnect();
  errno = 0;
  EXPECT_EQ(device.WriteRetry(data.data(), 512), -1);
  EXPECT_EQ(errno, ENOTCONN);
  EXPECT_EQ(device.ReadRetry(back.data(), 512), -1);
  EXPECT_EQ(errno, ENOTCONN);
}

// Writes sent ahead are all on the wire at once; a read of their blocks waits for them,
// and the Write that comes to each takes its answer instead of sending it again.
TEST_F(IscsiBlockDeviceTest, WritesAheadLandAndTheirWritesTakeTheAnswers) {
  IscsiBlockDevice device(Target());
  ASSERT_TRUE(device.Connect());
  struct Run {
    int64_t offset;
    std::shared_ptr<std::vector<unsigned char>> data;
  };
  std::vector<Run> runs;
  int64_t offset = 512;
  for (size_t i = 0; i < 8; ++i) {
    auto data = std::make_shared<std::vector<unsigned char>>(Pattern(4096u << (i % 5), i + 1));
    runs.push_back({offset, data});
    ASSERT_TRUE(device.WriteAhead(data->data(), data->size(), offset, data)) << i;
    offset += static_cast<int64_t>(data->size()) + 8192;
  }
  EXPECT_EQ(device.WritesAhead(), 8u);
  // Not sent ahead: over the blocks of another write ahead, past the LUN's end, not whole
  // blocks.
  std::vector<unsigned char> other = Pattern(4096, 99);
  EXPECT_FALSE(device.WriteAhead(other.data(), 4096, runs[2].offset + 512, nullptr));
  EXPECT_FALSE(device.WriteAhead(other.data(), 4096, device.Size() - 512, nullptr));
  EXPECT_FALSE(device.WriteAhead(other.data(), 1000, 0, nullptr));
  EXPECT_EQ(device.WritesAhead(), 8u);

  std::vector<unsigned char> back(runs[4].data->size());
  ASSERT_EQ(device.Seek(runs[4].offset, 0), runs[4].offset);
  ASSERT_EQ(device.ReadRetry(back.data(), back.size()), static_cast<int64_t>(back.size()));
  EXPECT_TRUE(back == *runs[4].data);
  for (size_t i = 0; i < runs.size(); ++i) {
    int64_t bytes = static_cast<int64_t>(runs[i].data->size());
    ASSERT_EQ(device.Seek(runs[i].offset, 0), runs[i].offset);
    ASSERT_EQ(device.WriteRetry(runs[i].data->data(), runs[i].data->size()), bytes);
    EXPECT_EQ(device.Position(), runs[i].offset + bytes);
    EXPECT_EQ(device.WritesAhead(), runs.size() - i - 1);
    // The device let go of the buffer with the answer.
    EXPECT_EQ(runs[i].data.use_count(), 1);
  }
  std::vector<unsigned char> expected(static_cast<size_t>(offset), 0);
  for (const Run& run : runs) std::copy(run.data->begin(), run.data->end(), expected.begin() + run.offset);
  EXPECT_TRUE(ReadBacking(lunPath_, 0, expected.size()) == expected);
}

// Writes the whole LUN in 256 KiB pieces, pass after pass, until told to stop at the end
// of a pass; the pattern of each piece depends on the pass and the piece.
class StreamWriter {
 public:
  static constexpr size_t kPiece = 256 << 10;

  StreamWriter(IscsiBlockDevice& device, uint64_t lunBytes) : device_(device), lunBytes_(lunBytes) {}

  void Run() {
    LibiscsiSessionLossLeaks expected;
    std::vector<unsigned char> piece(kPiece);
    for (uint64_t pass = 1; !stop_; ++pass) {
      if (device_.Seek(0, 0) != 0) {
        failures_++;
        return;
      }
      for (uint64_t offset = 0; offset + kPiece <= lunBytes_; offset += kPiece) {
        FillPattern(piece.data(), kPiece, pass, offset);
        if (device_.WriteRetry(piece.data(), kPiece) != static_cast<int64_t>(kPiece) ||
            device_.Position() != static_cast<int64_t>(offset + kPiece)) {
          failures_++;
          return;
        }
        writes_++;
      }
      lastPass_ = pass;
    }
  }

  std::atomic<bool> stop_{false};
  std::atomic<int> writes_{0};
  std::atomic<int> failures_{0};
  std::atomic<uint64_t> lastPass_{0};

 private:
  IscsiBlockDevice& device_;
  uint64_t lunBytes_;
};

bool WaitFor(const std::function<bool()>& condition, double seconds) {
  auto start = Clock::now();
  while (!condition()) {
    if (SecondsSince(start) > seconds) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class IscsiReconnectTest : public IscsiTargetTest {
 protected:
  IscsiReconnectTest() : IscsiTargetTest(8ull << 20) {}
  IscsiTarget Target() const { return IscsiTarget{kIqn, tgtd_.Portal(), 1, "", ""}; }
};

// A clean stop and start of the target under a running copy is drilled end to end by the
// target system drill; a crash is cut here, under a stream of writes that must go on
// where it stopped.
TEST_F(IscsiReconnectTest, WritesResumeAtTheSameByteAfterTgtdIsKilled) {
  IscsiBlockDevice device(Target());
  ASSERT_TRUE(device.Connect());
  StreamWriter writer(device, lunBytes_);
  std::thread thread(&StreamWriter::Run, &writer);
  bool ok = WaitFor([&] { return writer.writes_ >= 20 || writer.failures_ > 0; }, 20);
  ok = ok && tgtd_.Kill();
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  ok = ok && tgtd_.Restart();
  int before = writer.writes_;
  ok = ok && WaitFor([&] { return writer.writes_ >= before + 40 || writer.failures_ > 0; }, 20);
  writer.stop_ = true;
  thread.join();
  ASSERT_TRUE(ok);
  ASSERT_EQ(writer.failures_, 0);
  ASSERT_GE(writer.lastPass_, 1u);
  std::vector<unsigned char> expected(lunBytes_ / StreamWriter::kPiece * StreamWriter::kPiece);
  FillPattern(expected.data(), expected.size(), writer.lastPass_, 0);
  EXPECT_TRUE(ReadBacking(lunPath_, 0, expected.size()) == expected);
  EXPECT_GE(LoggedMessages("Write iscsi failed, sleeping, reconnecting, and retrying").size(), 1u);
}

TEST_F(IscsiReconnectTest, ReadResumesAtTheSameByteAfterTgtdRestarts) {
  std::vector<unsigned char> data = Pattern(lunBytes_, 11);
  ASSERT_TRUE(WriteBacking(lunPath_, 0, data));
  IscsiBlockDevice device(Target());
  ASSERT_TRUE(device.Connect());
  std::vector<unsigned char> first(1 << 20);
  ASSERT_EQ(device.ReadRetry(first.data(), first.size()), 1 << 20);
  ASSERT_TRUE(tgtd_.Kill());
  std::vector<unsigned char> second(1 << 20);
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
  IscsiBlockDevice device(Target());
  ASSERT_TRUE(device.Connect());
  ASSERT_EQ(device.Seek(4096, 0), 4096);
  ASSERT_TRUE(tgtd_.Stop());
  std::vector<unsigned char> data = Pattern(65536, 5);
  auto start = Clock::now();
  LibiscsiSessionLossLeaks expected;
  errno = 0;
  EXPECT_EQ(device.WriteRetry(data.data(), data.size()), -1);
  EXPECT_EQ(errno, EIO);
  double seconds = SecondsSince(start);
  EXPECT_GE(seconds, 5.0);
  EXPECT_LT(seconds, 15.0);
  EXPECT_EQ(device.Position(), 4096);
  EXPECT_EQ(LoggedMessages("Failed during iscsi write command.").size(), 1u);
  EXPECT_EQ(LoggedMessages("Write iscsi failed, sleeping, reconnecting, and retrying").size(), 5u);
  std::string login = "Connect or Login failed: Qname: " + std::string(kIqn) + " Target: " + tgtd_.Portal() +
                      " LUN: 1. Error: ";
  EXPECT_EQ(LoggedMessages(login).size(), 5u);
}

class IscsiConnectTest : public IscsiTargetTest {};

TEST_F(IscsiConnectTest, ChapLoginNeedsTheRightSecret) {
  ASSERT_TRUE(tgtd_.AddChap(1, "orvagent", "s3cret-for-chap"));
  IscsiBlockDevice right(kIqn, tgtd_.Portal(), 1, "orvagent", "s3cret-for-chap");
  EXPECT_TRUE(right.Connect());
  IscsiBlockDevice wrong(kIqn, tgtd_.Portal(), 1, "orvagent", "not-the-secret");
  EXPECT_FALSE(wrong.Connect());
  EXPECT_FALSE(wrong.Connected());
  IscsiBlockDevice none(kIqn, tgtd_.Portal(), 1, "", "");
  EXPECT_FALSE(none.Connect());
  EXPECT_EQ(LoggedMessages("Connect or Login failed: Qname: " + std::string(kIqn)).size(), 2u);
}

TEST_F(IscsiConnectTest, ASessionOnADescriptorAbove254IsRefused) {
  // Every descriptor up to 300 taken: the session's socket lands above them.
  std::vector<int> held;
  for (int fd = dup(0); fd >= 0; fd = dup(0)) {
    held.push_back(fd);
    if (fd >= 300) break;
  }
  IscsiBlockDevice device(kIqn, tgtd_.Portal(), 1, "", "");
  bool connected = device.Connect();
  for (int fd : held) close(fd);
  EXPECT_FALSE(connected);
  EXPECT_FALSE(device.Connected());
  EXPECT_EQ(LoggedMessages("Iscsi socket error - too many files open.").size(), 1u);
  EXPECT_TRUE(device.Connect());
}

// A portal that accepts a connection, reads the start of the login request and hangs up:
// a target that goes away in the middle of a command.
class HangingUpPortal {
 public:
  HangingUpPortal() {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    listen(fd_, 4);
    thread_ = std::thread([this] {
      while (!stop_) {
        pollfd waiting{fd_, POLLIN, 0};
        if (poll(&waiting, 1, 50) != 1) continue;
        int connection = accept(fd_, nullptr, nullptr);
        if (connection < 0) continue;
        char header[48];
        ssize_t ignored = recv(connection, header, sizeof(header), MSG_WAITALL);
        (void)ignored;
        close(connection);
      }
    });
  }
  ~HangingUpPortal() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  std::string Portal() const { return "127.0.0.1:" + std::to_string(port_); }

 private:
  int fd_;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

TEST_F(IscsiConnectTest, BadTargetsFailQuicklyWithAClearLine) {
  HangingUpPortal hangingUp;
  struct Case {
    std::string name;
    std::string portal;
    int lun;
  };
  std::vector<Case> cases = {
      {kIqn, "no-such-portal.invalid:3260", 1},
      {kIqn, "127.0.0.1:" + std::to_string(FreePort()), 1},
      {kIqn, hangingUp.Portal(), 1},
      {"iqn.2024-01.net.orv.test:no-such-target", tgtd_.Portal(), 1},
      {kIqn, tgtd_.Portal(), 7},
      {kIqn, "", 1},
  };
  for (const Case& c : cases) {
    size_t before = LoggedMessages().size();
    IscsiBlockDevice device(c.name, c.portal, c.lun, "", "");
    auto start = Clock::now();
    {
      LibiscsiSessionLossLeaks expected;
      EXPECT_FALSE(device.Connect()) << c.portal << " lun " << c.lun;
    }
    EXPECT_LT(SecondsSince(start), 10.0) << c.portal;
    EXPECT_FALSE(device.Connected());
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
