#include "tests/unit/test_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "fsmaps/block_source.h"
#include "fsmaps/used_block_bitmap.h"
#include "store/log_table.h"

namespace orv {

std::vector<std::string> LoggedMessages(const std::string& prefix, int level, const std::string& backupId) {
  std::vector<LogRow> rows;
  EXPECT_TRUE(list_logs(&rows, level, 0, backupId, ""));
  std::sort(rows.begin(), rows.end(), [](const LogRow& a, const LogRow& b) { return a.id < b.id; });
  std::vector<std::string> messages;
  for (const LogRow& row : rows) {
    if ((level == 0 || row.level == level) && row.message.compare(0, prefix.size(), prefix) == 0) {
      messages.push_back(row.message);
    }
  }
  return messages;
}

bool Logged(const std::string& message, int level) {
  std::vector<std::string> messages = LoggedMessages(message, level);
  return std::find(messages.begin(), messages.end(), message) != messages.end();
}

bool LoggedContaining(const std::string& part, int level) {
  std::vector<std::string> messages = LoggedMessages("", level);
  return std::any_of(messages.begin(), messages.end(),
                     [&](const std::string& message) { return message.find(part) != std::string::npos; });
}

UsedBlockWalk WalkUsedBlocks(std::vector<uint8_t>& image, uint64_t bufferBytes) {
  MemoryBlockSource source(image.data(), image.size());
  UsedBlockWalk walk;
  // Stale bits in the buffer must never show through.
  std::vector<uint8_t> buffer(bufferBytes, 0xA5);
  for (uint64_t start = 0;;) {
    walk.result = GetUsedBlockBitmap(bufferBytes, start, source, walk.blockSize, walk.blockCount, buffer.data());
    if (walk.result <= 0) return walk;
    walk.pieces.push_back(walk.result);
    for (int64_t k = 0; k < walk.result; ++k) {
      if ((buffer[k / 8] >> (k % 8)) & 1) walk.used.insert(start + k);
    }
    start += walk.result;
  }
}

std::string Command(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  char buffer[256];
  while (fgets(buffer, sizeof(buffer), pipe) != nullptr) output += buffer;
  pclose(pipe);
  while (!output.empty() && output.back() == '\n') output.pop_back();
  return output;
}

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

int FreePort() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return 0;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

}  // namespace orv
