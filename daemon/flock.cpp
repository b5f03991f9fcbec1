#include "daemon/flock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace orv {

Flock::Flock(const std::string& path) : path_(path), fd_(-1) {
  fd_ = open(path.c_str(), O_RDWR | O_CREAT, 0644);
  if (fd_ < 0) throw std::runtime_error("Unable to lock file");
  if (flock(fd_, LOCK_EX | LOCK_NB) == 0) return;
  // The descriptor stays open: the process is about to exit, and closing it here
  // would disturb errno, by which the caller recognises a running instance.
  if (errno == EAGAIN) throw std::runtime_error("File already locked");
  throw std::runtime_error("Unknown lock failure");
}

Flock::~Flock() {
  close(fd_);
  unlink(path_.c_str());
}

void Flock::writePid() {
  char text[32];
  snprintf(text, sizeof(text), "%ld", static_cast<long>(getpid()));
  if (ftruncate(fd_, 0) != 0) throw std::runtime_error("Unable to truncate lock file");
  if (write(fd_, text, strlen(text)) == -1) throw std::runtime_error("Unable to write to lock file");
}

}  // namespace orv
