#ifndef ORV_ZELKOSIM_BLOCK_VOLUME_H_
#define ORV_ZELKOSIM_BLOCK_VOLUME_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "mount_table.h"
#include "unique_fd.h"

namespace orv::zelkosim {

// A block device the driver is asked to track, and where its file system is mounted.
class BlockVolume {
 public:
  static constexpr const char* kByUuid = "/dev/disk/by-uuid/";

  virtual ~BlockVolume() = default;

  // Resolves `path`: a device node, or /dev/disk/by-uuid/<uuid> (found by probing the
  // system's block devices where no udev links exist). A missing path throws
  // SimError(ENOENT), one that is not a block device SimError(EINVAL).
  static BlockVolume Resolve(const std::string& path);

  const std::string& path() const { return path_; }  // the device node
  dev_t rdev() const { return rdev_; }
  uint64_t sizeBytes() const { return size_bytes_; }

  // The volume's mount, or nothing when it is not mounted.
  bool findMount(MountEntry& mount) const;
  // Like findMount, but an unmounted or read-only volume throws SimError(EINVAL).
  MountEntry requireWritableMount(const std::string& named) const;

  // The device opened for direct I/O, bypassing the page cache.
  UniqueFd openDirect(int flags) const;

 private:
  BlockVolume(std::string path, dev_t rdev, uint64_t size) : path_(std::move(path)), rdev_(rdev), size_bytes_(size) {}

  std::string path_;
  dev_t rdev_;
  uint64_t size_bytes_;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_BLOCK_VOLUME_H_
