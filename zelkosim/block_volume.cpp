#include "block_volume.h"

#include <blkid/blkid.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "sim_error.h"

namespace orv::zelkosim {

namespace {

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
struct ProbeFreer {
  void operator()(blkid_probe probe) const { ::blkid_free_probe(probe); }
};

// The device node whose file system carries `uuid`, probing every block device the
// kernel lists; empty when none does.
std::string FindByUuid(const std::string& uuid) {
  std::unique_ptr<DIR, DirCloser> dir(::opendir("/sys/class/block"));
  if (!dir) return "";
  while (struct dirent* entry = ::readdir(dir.get())) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    std::string node = "/dev/" + name;
    std::unique_ptr<blkid_struct_probe, ProbeFreer> probe(::blkid_new_probe_from_filename(node.c_str()));
    if (!probe) continue;
    ::blkid_probe_enable_superblocks(probe.get(), 1);
    ::blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_UUID);
    const char* value = nullptr;
    if (::blkid_do_safeprobe(probe.get()) == 0 && ::blkid_probe_lookup_value(probe.get(), "UUID", &value, nullptr) == 0 &&
        value && uuid == value) {
      return node;
    }
  }
  return "";
}

}  // namespace

BlockVolume BlockVolume::Resolve(const std::string& path) {
  std::string node = path;
  struct stat st {};
  if (::stat(node.c_str(), &st) != 0) {
    int err = errno;
    if (err == ENOENT && node.rfind(kByUuid, 0) == 0) {
      node = FindByUuid(node.substr(std::string(kByUuid).size()));
      if (node.empty()) throw SimError(ENOENT, "no block device has the file system uuid of " + path);
      if (::stat(node.c_str(), &st) != 0) SimError::Raise(errno, "cannot use " + node);
    } else {
      SimError::Raise(err, "cannot use " + path);
    }
  }
  if (!S_ISBLK(st.st_mode)) throw SimError(EINVAL, path + " is not a block device");
  UniqueFd fd = UniqueFd::Open(node, O_RDONLY, "block device");
  uint64_t size = 0;
  if (::ioctl(fd.get(), BLKGETSIZE64, &size) != 0) SimError::Raise(errno, "cannot learn the size of " + node);
  if (size == 0) throw SimError(EINVAL, path + " is an empty block device");
  return BlockVolume(node, st.st_rdev, size);
}

bool BlockVolume::findMount(MountEntry& mount) const {
  MountTable table = MountTable::Read();
  const MountEntry* entry = table.findDevice(rdev_, &MountTable::BlockDeviceOf);
  if (!entry) return false;
  mount = *entry;
  return true;
}

MountEntry BlockVolume::requireWritableMount(const std::string& named) const {
  MountEntry mount;
  if (!findMount(mount)) throw SimError(EINVAL, named + " is not mounted");
  if (!mount.readWrite()) throw SimError(EINVAL, named + " is mounted read-only at " + mount.mount_point);
  return mount;
}

UniqueFd BlockVolume::openDirect(int flags) const {
  return UniqueFd::Open(path_, flags | O_DIRECT, "block device");
}

}  // namespace orv::zelkosim
