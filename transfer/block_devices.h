#ifndef ORV_TRANSFER_BLOCK_DEVICES_H_
#define ORV_TRANSFER_BLOCK_DEVICES_H_

#include <blkid/blkid.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace orv {

// One local block device holding a file system (or swap), as the host inventory lists
// it and as the backup job finds a volume by its UUID.
class BlockDevice {
 public:
  BlockDevice() = default;
  virtual ~BlockDevice();

  std::string path;  // device node, symbolic links resolved once
  std::string name;  // path without "/dev/"
  std::string uuid;
  std::string type;
  std::string label;
  std::string mountPoint;  // "<swap>" for active swap, "(mounted, mtpt unknown)"
  bool mounted = false;
  bool readOnly = false;
  bool root = false;  // mounted on "/"
  int64_t sizeBytes = 0;
  int32_t sectorSize = 0;
  int64_t sectorCount = 0;
  uint64_t deviceNumber = 0;
  uint8_t minor = 0;  // deviceNumber & 255
  uint64_t wholeDiskNumber = 0;
  std::string wholeDiskPath;
  std::string partitionScheme;  // "MBR", "GPT", another libblkid PTTYPE, or empty
  bool removable = false;

  // Derived for the host inventory:
  // "partition" when the device is a partition of a disk (sysfs "partition" entry),
  // "mapped" for a device-mapper device, else "disk" (a file system on a whole disk).
  std::string volumeType;
  // The file system's serial: the hex digits of its UUID read as a number when there
  // are at most 16 (the FAT and NTFS serials), else the first 8 of them (the classic
  // 32-bit volume serial); 0 without a hex UUID.
  uint64_t serialNumber = 0;
  // Sectors in front of the partition on its disk (sysfs "start", converted from
  // 512-byte units to the device's sectors); 0 for a whole disk.
  int64_t hiddenSectors = 0;
  // The file system's block size: statvfs of a mounted one, else libblkid's
  // BLOCK_SIZE tag, else 0.
  int64_t blockSize = 0;
  // Space of a mounted file system (statvfs); an unmounted one reports its device size
  // as total and 0 free.
  uint64_t spaceTotal = 0;
  uint64_t spaceFree = 0;
};

// Discovers the host's block devices through libblkid (enumeration, tags, probes),
// sysfs (whole disk, partition start, removable), /etc/mtab and /proc/swaps (mount
// state) and block-device ioctls (size, sector size). Failures return false or null
// and are logged with an empty backup id; nothing here throws.
class BlockDevices {
 public:
  // Mount flags of CheckMountPoint.
  static constexpr int kMounted = 1;
  static constexpr int kIsRoot = 2;
  static constexpr int kReadOnly = 4;
  static constexpr size_t kMountPointMax = 80;  // bytes, terminator included
  static constexpr const char* kRootProbeFile = "/.ismount-test-file";

  BlockDevices() = default;
  virtual ~BlockDevices();

  // Every device with a file system; one record per UUID, the mounted one preferred.
  bool GetBlockDevices(std::vector<BlockDevice>& devices);
  // The record of one libblkid device, or null (snapshot devices, vanished devices).
  std::unique_ptr<BlockDevice> GetBlockDevice(blkid_dev device);
  // The device of the file system with this UUID; with wantMounted, an unmounted
  // clone found first is passed over for a mounted one.
  std::unique_ptr<BlockDevice> GetBlockDeviceFromUUID(const std::string& uuid, bool wantMounted);
  std::unique_ptr<BlockDevice> GetBlockDeviceFromUUIDScan(const std::string& uuid);

  bool GetSectorSize(const std::string& path, int32_t& size);
  bool GetDeviceNumber(const std::string& path, uint64_t& number);
  // The disk that holds the device: its name under /sys/block and its number.
  bool GetWholeDisk(uint64_t deviceNumber, std::string& diskName, uint64_t& wholeDiskNumber);
  bool IsRemovable(const std::string& diskName);
  bool IsSwap(const std::string& path);
  // Mount flags and the mount directory, cut to kMountPointMax - 1 bytes.
  bool CheckMountPoint(const std::string& path, int& flags, std::string& mountPoint);

 private:
  // CheckMountPoint with the whole directory.
  bool FindMount(const std::string& path, int& flags, std::string& mountPoint);
  // "/sys/block/<name>/dev", or "/sys/block/<parent>/<name>/dev" for a partition
  // named with its disk, read as "%d:%d".
  bool DiskNumberFromName(const std::string& name, const std::string& parent, uint64_t& number);
  std::string PartitionScheme(const std::string& diskPath);
  void Derive(BlockDevice& device);
};

}  // namespace orv

#endif  // ORV_TRANSFER_BLOCK_DEVICES_H_
