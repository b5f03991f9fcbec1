#ifndef ORV_ZELKOSIM_FS_FREEZE_H_
#define ORV_ZELKOSIM_FS_FREEZE_H_

#include <string>

#include "unique_fd.h"

namespace orv::zelkosim {

// Holds a mounted file system still while its volume is captured: frozen with FIFREEZE
// (all dirty data written, new writes blocked), thawed when the guard goes, on every
// path. A file system that cannot be frozen (FUSE, such as ntfs-3g) is synced instead.
class FsFreeze {
 public:
  explicit FsFreeze(const std::string& mountPoint);
  virtual ~FsFreeze();
  FsFreeze(const FsFreeze&) = delete;
  FsFreeze& operator=(const FsFreeze&) = delete;

  bool frozen() const { return frozen_; }

 private:
  std::string mount_point_;
  UniqueFd fd_;
  bool frozen_ = false;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_FS_FREEZE_H_
