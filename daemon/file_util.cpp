#include "daemon/file_util.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "daemon/logger.h"

namespace orv {

bool ReadWholeFile(const std::string& path, std::string& text) {
  text.clear();
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    LogSyslog(kError, "Read file open failed [%s - %d].", path.c_str(), errno);
    return false;
  }
  char buffer[65536];
  bool ok = true;
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      LogSyslog(kError, "Read file failed. [%d]", errno);
      ok = false;
      break;
    }
    text.append(buffer, static_cast<size_t>(n));
  }
  if (close(fd) != 0) {
    LogSyslog(kError, "File close failed. [%d]", errno);
    ok = false;
  }
  return ok;
}

int WriteWholeFile(const std::string& path, const std::string& text) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      int error = errno;
      close(fd);
      return error;
    }
    done += static_cast<size_t>(n);
  }
  if (close(fd) != 0) return errno;
  return 0;
}

}  // namespace orv
