#include "identity/replacement_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace orv {

ReplacementFile::ReplacementFile(const std::string& path, mode_t mode)
    : path_(path), temporary_(path + "." + std::to_string(getpid()) + ".tmp"), mode_(mode) {}

ReplacementFile::~ReplacementFile() { discard(); }

int ReplacementFile::open() {
  discard();
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  fd_ = ::open(temporary_.c_str(), flags, mode_);
  if (fd_ < 0 && errno == EEXIST) {
    // Left by an earlier process with the same id that died while writing.
    unlink(temporary_.c_str());
    fd_ = ::open(temporary_.c_str(), flags, mode_);
  }
  if (fd_ < 0) return errno;
  created_ = true;
  return 0;
}

int ReplacementFile::write(const std::string& text) {
  if (fd_ < 0) return EBADF;
  size_t done = 0;
  while (done < text.size()) {
    ssize_t n = ::write(fd_, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    done += static_cast<size_t>(n);
  }
  return 0;
}

int ReplacementFile::commit() {
  if (fd_ < 0) return EBADF;
  if (fsync(fd_) != 0) return errno;
  int fd = fd_;
  fd_ = -1;
  if (close(fd) != 0) return errno;
  if (rename(temporary_.c_str(), path_.c_str()) != 0) return errno;
  created_ = false;
  return 0;
}

int ReplacementFile::Replace(const std::string& path, const std::string& text, mode_t mode) {
  ReplacementFile file(path, mode);
  int error = file.open();
  if (error == 0) error = file.write(text);
  if (error == 0) error = file.commit();
  return error;
}

void ReplacementFile::discard() {
  if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
  if (created_) {
    unlink(temporary_.c_str());
    created_ = false;
  }
}

}  // namespace orv
