#ifndef ORV_ZELKOSIM_MOUNT_TABLE_H_
#define ORV_ZELKOSIM_MOUNT_TABLE_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace orv::zelkosim {

// One line of /proc/self/mountinfo.
struct MountEntry {
  dev_t dev = 0;  // the file system's device number (a FUSE block mount shows its block device)
  std::string root;
  std::string mount_point;
  std::string options;  // per-mount options
  std::string fs_type;
  std::string source;
  std::string super_options;

  bool readWrite() const;
};

// The mounts the simulator sees, to find where a volume is mounted and whether it is
// mounted read-write.
class MountTable {
 public:
  explicit MountTable(std::vector<MountEntry> entries) : entries_(std::move(entries)) {}
  virtual ~MountTable() = default;

  static MountTable Read();  // /proc/self/mountinfo
  // Parses mountinfo text; lines it cannot read are skipped.
  static MountTable Parse(const std::string& text);

  // The mount of the block device `rdev`: an entry whose device number is `rdev`, or whose
  // source names that device (`sourceDev` tells a source's device number, 0 if none).
  // Read-write mounts of the file system's root are preferred. Null when not mounted.
  const MountEntry* findDevice(dev_t rdev, dev_t (*sourceDev)(const std::string&)) const;
  const std::vector<MountEntry>& entries() const { return entries_; }

  // The device number of a block device node, 0 when `path` names none.
  static dev_t BlockDeviceOf(const std::string& path);

 private:
  std::vector<MountEntry> entries_;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_MOUNT_TABLE_H_
