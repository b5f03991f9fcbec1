#include "fs_freeze.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>

#include "sim_error.h"

namespace orv::zelkosim {

FsFreeze::FsFreeze(const std::string& mountPoint) : mount_point_(mountPoint) {
  fd_ = UniqueFd::Open(mountPoint, O_RDONLY | O_DIRECTORY, "mount point");
  if (::syncfs(fd_.get()) != 0) SimError::Raise(errno, "cannot sync the file system at " + mountPoint);
  if (::ioctl(fd_.get(), FIFREEZE, 0) == 0) {
    frozen_ = true;
    return;
  }
  int err = errno;
  if (err != EOPNOTSUPP && err != ENOTTY) {
    SimError::Raise(err, "cannot freeze the file system at " + mountPoint);
  }
  // Not freezable: the best we can do is to have everything written before the capture.
  ::sync();
}

FsFreeze::~FsFreeze() {
  if (frozen_) ::ioctl(fd_.get(), FITHAW, 0);
}

}  // namespace orv::zelkosim
