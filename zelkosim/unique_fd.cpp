#include "unique_fd.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "sim_error.h"

namespace orv::zelkosim {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) {
    reset();
    fd_ = other.release();
  }
  return *this;
}

UniqueFd::~UniqueFd() { reset(); }

UniqueFd UniqueFd::Open(const std::string& path, int flags, const std::string& what, int mode) {
  int fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  if (fd < 0) SimError::Raise(errno, "cannot open " + what + " " + path);
  return UniqueFd(fd);
}

int UniqueFd::release() {
  int fd = fd_;
  fd_ = -1;
  return fd;
}

void UniqueFd::reset() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

size_t PreadFull(int fd, void* buffer, size_t length, off_t offset, const std::string& what) {
  size_t done = 0;
  auto* bytes = static_cast<char*>(buffer);
  while (done < length) {
    ssize_t n = ::pread(fd, bytes + done, length - done, offset + static_cast<off_t>(done));
    if (n < 0) {
      if (errno == EINTR) continue;
      SimError::Raise(errno, "cannot read " + what + " at offset " + std::to_string(offset + done));
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return done;
}

void PwriteFull(int fd, const void* buffer, size_t length, off_t offset, const std::string& what) {
  size_t done = 0;
  const auto* bytes = static_cast<const char*>(buffer);
  while (done < length) {
    ssize_t n = ::pwrite(fd, bytes + done, length - done, offset + static_cast<off_t>(done));
    if (n < 0) {
      if (errno == EINTR) continue;
      SimError::Raise(errno, "cannot write " + what + " at offset " + std::to_string(offset + done));
    }
    if (n == 0) SimError::Raise(EIO, "cannot write " + what + " at offset " + std::to_string(offset + done));
    done += static_cast<size_t>(n);
  }
}

}  // namespace orv::zelkosim
