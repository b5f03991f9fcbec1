#include "fsmaps/block_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace orv {

BlockSource::~BlockSource() = default;

FileBlockSource::FileBlockSource(const std::string& path) {
  fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_LARGEFILE);
  if (fd_ < 0) {
    openError_ = errno;
    return;
  }
  off64_t end = lseek64(fd_, 0, SEEK_END);
  size_ = end > 0 ? static_cast<uint64_t>(end) : 0;
}

FileBlockSource::~FileBlockSource() {
  if (fd_ >= 0) close(fd_);
}

BlockSource::Result FileBlockSource::ReadAt(uint64_t offset, void* buffer, size_t length) {
  if (fd_ < 0) {
    errno = EBADF;
    return Result::kSeekFailed;
  }
  if (offset > static_cast<uint64_t>(INT64_MAX) || lseek64(fd_, static_cast<off64_t>(offset), SEEK_SET) < 0) {
    if (errno == 0) errno = EINVAL;
    return Result::kSeekFailed;
  }
  auto* out = static_cast<uint8_t*>(buffer);
  size_t done = 0;
  while (done < length) {
    ssize_t n = read(fd_, out + done, length - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return Result::kReadFailed;
    }
    if (n == 0) {
      errno = EIO;
      return Result::kReadFailed;
    }
    done += static_cast<size_t>(n);
  }
  return Result::kOk;
}

MemoryBlockSource::~MemoryBlockSource() = default;

BlockSource::Result MemoryBlockSource::ReadAt(uint64_t offset, void* buffer, size_t length) {
  if (offset > size_) {
    errno = EINVAL;
    return Result::kSeekFailed;
  }
  if (length > size_ - offset) {
    errno = EIO;
    return Result::kReadFailed;
  }
  if (length > 0) memcpy(buffer, data_ + offset, length);
  return Result::kOk;
}

}  // namespace orv
