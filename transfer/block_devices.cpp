#include "transfer/block_devices.h"

#include <dirent.h>
#include <fcntl.h>
#include <mntent.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "daemon/logger.h"
#include "daemon/paths.h"

namespace orv {

namespace {

// ioctl BLKSSZGET: the logical sector size of a block device.
constexpr unsigned long kBlkSszGet = 0x1268;
constexpr const char* kSnapshotDevicePrefix = "/dev/zelko";
// A private, empty cache: every enumeration probes afresh instead of trusting the
// system's cache file, whose entries may be stale or belong to vanished devices.
constexpr const char* kBlkidCacheFile = "/dev/null";

std::string Dirname(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string Basename(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// The first line of a small sysfs or proc file, without its line feed.
bool ReadFirstLine(const std::string& path, std::string& line) {
  line.clear();
  FILE* file = fopen(path.c_str(), "re");
  if (file == nullptr) return false;
  char buffer[256];
  bool ok = fgets(buffer, sizeof(buffer), file) != nullptr;
  fclose(file);
  if (!ok) return false;
  line = buffer;
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  return true;
}

std::string RealPath(const std::string& path) {
  char* resolved = realpath(path.c_str(), nullptr);
  if (resolved == nullptr) return std::string();
  std::string result = resolved;
  free(resolved);
  return result;
}

// The sysfs directory of a device by its real major and minor.
std::string SysfsDeviceDir(uint64_t deviceNumber) {
  char path[64];
  snprintf(path, sizeof(path), "/sys/dev/block/%u:%u", major(static_cast<dev_t>(deviceNumber)),
           minor(static_cast<dev_t>(deviceNumber)));
  return RealPath(path);
}

uint64_t SerialFromUuid(const std::string& uuid) {
  std::string hex;
  for (char c : uuid) {
    if (isxdigit(static_cast<unsigned char>(c))) {
      hex += c;
    } else if (c != '-') {
      return 0;
    }
  }
  if (hex.empty()) return 0;
  if (hex.size() > 16) hex.resize(8);
  return strtoull(hex.c_str(), nullptr, 16);
}

void RootProbe(int& flags) {
  flags |= BlockDevices::kIsRoot;
  int fd = open(BlockDevices::kRootProbeFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (errno == EROFS) flags |= BlockDevices::kReadOnly;
    return;
  }
  close(fd);
  unlink(BlockDevices::kRootProbeFile);
}

std::string CutMountPoint(const std::string& directory) {
  if (directory.size() < BlockDevices::kMountPointMax) return directory;
  return directory.substr(0, BlockDevices::kMountPointMax - 1);
}

}  // namespace

BlockDevice::~BlockDevice() = default;

BlockDevices::~BlockDevices() = default;

bool BlockDevices::GetBlockDevices(std::vector<BlockDevice>& devices) {
  blkid_cache cache = nullptr;
  if (blkid_get_cache(&cache, kBlkidCacheFile) < 0) return false;
  if (blkid_probe_all(cache) < 0) {
    blkid_put_cache(cache);
    return false;
  }
  blkid_dev_iterate iterator = blkid_dev_iterate_begin(cache);
  blkid_dev device = nullptr;
  while (blkid_dev_next(iterator, &device) == 0) {
    const char* name = blkid_dev_devname(device);
    if (name == nullptr) continue;
    // Floppy drives: probing them is slow and they hold nothing to back up.
    if (strlen(name) >= 7 && strncmp(name, "/dev/fd", 7) == 0) continue;
    // The iterator has already moved on, so a device that verification drops (and
    // frees) does not disturb the walk.
    device = blkid_verify(cache, device);
    if (device == nullptr) continue;
    std::unique_ptr<BlockDevice> record = GetBlockDevice(device);
    if (!record) continue;
    bool duplicate = false;
    if (!record->uuid.empty()) {
      for (BlockDevice& kept : devices) {
        if (kept.uuid != record->uuid) continue;
        duplicate = true;
        if (!kept.mounted && record->mounted) kept = std::move(*record);
        break;
      }
    }
    if (!duplicate) devices.push_back(std::move(*record));
  }
  blkid_dev_iterate_end(iterator);
  blkid_put_cache(cache);
  return true;
}

std::unique_ptr<BlockDevice> BlockDevices::GetBlockDevice(blkid_dev blkidDevice) {
  const char* devname = blkid_dev_devname(blkidDevice);
  if (devname == nullptr) return nullptr;
  std::string path = devname;
  struct stat link;
  if (lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
    char target[1024];
    ssize_t length = readlink(path.c_str(), target, sizeof(target) - 1);
    if (length > 0) {
      std::string resolved(target, static_cast<size_t>(length));
      if (resolved[0] != '/') resolved = Dirname(path) + "/" + resolved;
      path = std::filesystem::path(resolved).lexically_normal().string();
    }
  }

  // The snapshot driver's own devices are views of other volumes, never volumes.
  const std::string driverPrefix = Paths::DriverDev();
  if (path.find(kSnapshotDevicePrefix) != std::string::npos ||
      (!driverPrefix.empty() && path.compare(0, driverPrefix.size(), driverPrefix) == 0)) {
    return nullptr;
  }
  if (!Exists(path)) return nullptr;

  auto record = std::make_unique<BlockDevice>();
  record->path = path;
  if (path.size() > 5) record->name = path.substr(5);

  std::string blockSizeTag;
  blkid_tag_iterate tags = blkid_tag_iterate_begin(blkidDevice);
  const char* tagType = nullptr;
  const char* tagValue = nullptr;
  while (blkid_tag_next(tags, &tagType, &tagValue) == 0) {
    if (strcmp(tagType, "UUID") == 0) {
      record->uuid = tagValue;
    } else if (strcmp(tagType, "TYPE") == 0) {
      record->type = tagValue;
    } else if (strcmp(tagType, "LABEL") == 0) {
      record->label = tagValue;
    } else if (strcmp(tagType, "BLOCK_SIZE") == 0) {
      blockSizeTag = tagValue;
    }
  }
  blkid_tag_iterate_end(tags);

  // The record keeps at most 80 bytes of the mount directory; the space figures are
  // taken from the whole one.
  std::string mountDirectory;
  if (IsSwap(path)) {
    record->mountPoint = "<swap>";
  } else {
    int flags = 0;
    if (FindMount(path, flags, mountDirectory)) {
      record->mounted = (flags & kMounted) != 0;
      record->root = (flags & kIsRoot) != 0;
      record->readOnly = (flags & kReadOnly) != 0;
      record->mountPoint = CutMountPoint(mountDirectory);
      if (record->mounted && mountDirectory.empty()) record->mountPoint = "(mounted, mtpt unknown)";
    }
  }

  // O_NONBLOCK: an empty removable drive is not waited for.
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return nullptr;
  blkid_loff_t size = blkid_get_dev_size(fd);
  close(fd);
  if (size < 0) return nullptr;
  record->sizeBytes = size;

  if (!GetSectorSize(path, record->sectorSize)) return nullptr;
  if (!GetDeviceNumber(path, record->deviceNumber)) return nullptr;
  record->sectorCount = record->sectorSize > 0 ? record->sizeBytes / record->sectorSize : 0;
  record->minor = static_cast<uint8_t>(record->deviceNumber & 255);

  std::string diskName;
  if (GetWholeDisk(record->deviceNumber, diskName, record->wholeDiskNumber)) {
    char* diskPath = blkid_devno_to_devname(static_cast<dev_t>(record->wholeDiskNumber));
    if (diskPath != nullptr) {
      record->wholeDiskPath = diskPath;
      free(diskPath);
      record->partitionScheme = PartitionScheme(record->wholeDiskPath);
    }
    record->removable = IsRemovable(diskName);
  }

  if (record->mounted && !mountDirectory.empty()) {
    struct statvfs space;
    if (statvfs(mountDirectory.c_str(), &space) == 0) {
      record->blockSize = static_cast<int64_t>(space.f_bsize);
      record->spaceTotal = static_cast<uint64_t>(space.f_blocks) * space.f_frsize;
      record->spaceFree = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
    }
  }
  if (record->blockSize == 0) {
    record->blockSize = strtoll(blockSizeTag.c_str(), nullptr, 10);
    if (!record->mounted) record->spaceTotal = static_cast<uint64_t>(record->sizeBytes);
  }
  Derive(*record);
  return record;
}

void BlockDevices::Derive(BlockDevice& device) {
  device.serialNumber = SerialFromUuid(device.uuid);
  device.volumeType = "disk";
  const std::string dir = SysfsDeviceDir(device.deviceNumber);
  if (dir.empty()) return;
  if (Exists(dir + "/partition")) {
    device.volumeType = "partition";
    std::string start;
    if (ReadFirstLine(dir + "/start", start) && device.sectorSize > 0) {
      device.hiddenSectors = strtoll(start.c_str(), nullptr, 10) * 512 / device.sectorSize;
    }
  } else if (Basename(dir).compare(0, 3, "dm-") == 0) {
    device.volumeType = "mapped";
  }
}

std::string BlockDevices::PartitionScheme(const std::string& diskPath) {
  blkid_probe probe = blkid_new_probe_from_filename(diskPath.c_str());
  if (probe == nullptr) return std::string();
  blkid_probe_enable_partitions(probe, 1);
  blkid_do_fullprobe(probe);
  const char* value = nullptr;
  std::string scheme;
  if (blkid_probe_lookup_value(probe, "PTTYPE", &value, nullptr) == 0 && value != nullptr) scheme = value;
  blkid_free_probe(probe);
  if (scheme == "dos") return "MBR";
  if (scheme == "gpt") return "GPT";
  return scheme;
}

std::unique_ptr<BlockDevice> BlockDevices::GetBlockDeviceFromUUID(const std::string& uuid, bool wantMounted) {
  blkid_cache cache = nullptr;
  if (blkid_get_cache(&cache, kBlkidCacheFile) < 0) return nullptr;
  std::unique_ptr<BlockDevice> record;
  blkid_dev device = blkid_find_dev_with_tag(cache, "UUID", uuid.c_str());
  if (device != nullptr) device = blkid_verify(cache, device);
  if (device != nullptr) record = GetBlockDevice(device);
  blkid_put_cache(cache);
  if (record && wantMounted && !record->mounted) {
    record.reset();
    LogEvent(kWarning, "", "GetBlockDeviceFromUUID found UUID %s unmounted. Scanning for another instance that is mounted.",
             uuid.c_str());
    return GetBlockDeviceFromUUIDScan(uuid);
  }
  return record;
}

std::unique_ptr<BlockDevice> BlockDevices::GetBlockDeviceFromUUIDScan(const std::string& uuid) {
  std::vector<BlockDevice> devices;
  if (!GetBlockDevices(devices)) {
    LogEvent(kError, "", "GetBlockDeviceFromUUIDScan: Could not retrieve block devices.");
    return nullptr;
  }
  for (BlockDevice& device : devices) {
    if (device.uuid == uuid && device.mounted) {
      LogEvent(kWarning, "", "Found UUID %s mounted on %s", uuid.c_str(), device.mountPoint.c_str());
      return std::make_unique<BlockDevice>(std::move(device));
    }
  }
  return nullptr;
}

bool BlockDevices::GetSectorSize(const std::string& path, int32_t& size) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  int sectorSize = 0;
  if (fd < 0 || ioctl(fd, kBlkSszGet, &sectorSize) != 0) {
    if (fd >= 0) close(fd);
    LogEvent(kWarning, "", "Could not get sector size for device: %s.", path.c_str());
    return false;
  }
  close(fd);
  size = sectorSize;
  return true;
}

bool BlockDevices::GetDeviceNumber(const std::string& path, uint64_t& number) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat info;
  if (fd < 0 || fstat(fd, &info) != 0) {
    if (fd >= 0) close(fd);
    LogEvent(kWarning, "", "Could not get device number for device: %s.", path.c_str());
    return false;
  }
  close(fd);
  number = info.st_rdev;
  return true;
}

bool BlockDevices::GetWholeDisk(uint64_t deviceNumber, std::string& diskName, uint64_t& wholeDiskNumber) {
  // The sysfs name is formed with the old 8-bit split of the device number; devices
  // whose minor needs more than 8 bits are not found this way.
  char sysPath[64];
  snprintf(sysPath, sizeof(sysPath), "/sys/dev/block/%lu:%lu", static_cast<unsigned long>(deviceNumber >> 8),
           static_cast<unsigned long>(deviceNumber & 255));
  const std::string dir = RealPath(sysPath);
  if (dir.empty()) {
    LogEvent(kWarning, "", "Could not get path from device id: %lu.", static_cast<unsigned long>(deviceNumber));
    return false;
  }
  if (Exists(dir + "/partition")) {
    diskName = Basename(Dirname(dir));
    return DiskNumberFromName(diskName, "", wholeDiskNumber);
  }
  const std::string name = Basename(dir);
  std::string dmUuid;
  if (name.compare(0, 3, "dm-") == 0 && ReadFirstLine(dir + "/dm/uuid", dmUuid) && dmUuid.compare(0, 4, "part") == 0) {
    // A mapped partition: its disk is the one device it maps.
    std::unique_ptr<DIR, int (*)(DIR*)> slaves(opendir((dir + "/slaves").c_str()), closedir);
    if (!slaves) return false;
    std::string slave;
    int count = 0;
    while (struct dirent* entry = readdir(slaves.get())) {
      if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
      slave = entry->d_name;
      ++count;
    }
    if (count != 1) return false;
    diskName = slave;
    std::string parent;
    const std::string slaveDir = RealPath(dir + "/slaves/" + slave);
    if (!slaveDir.empty() && Exists(slaveDir + "/partition")) parent = Basename(Dirname(slaveDir));
    return DiskNumberFromName(diskName, parent, wholeDiskNumber);
  }
  diskName = name;
  return DiskNumberFromName(diskName, "", wholeDiskNumber);
}

bool BlockDevices::DiskNumberFromName(const std::string& name, const std::string& parent, uint64_t& number) {
  auto sysfsName = [](std::string text) {
    for (char& c : text) {
      if (c == '/') c = '!';
    }
    return text;
  };
  char path[512];
  // Device-mapper devices always sit directly under /sys/block; a partition sits
  // under its disk.
  if (!parent.empty() && name.compare(0, 3, "dm-") != 0) {
    snprintf(path, sizeof(path), "/sys/block/%s/%s/dev", sysfsName(parent).c_str(), sysfsName(name).c_str());
  } else {
    snprintf(path, sizeof(path), "/sys/block/%s/dev", sysfsName(name).c_str());
  }
  std::string line;
  int major = 0;
  int minor = 0;
  if (!ReadFirstLine(path, line) || sscanf(line.c_str(), "%d:%d", &major, &minor) != 2) return false;
  number = makedev(static_cast<unsigned>(major), static_cast<unsigned>(minor));
  return true;
}

bool BlockDevices::IsRemovable(const std::string& diskName) {
  std::string line;
  return ReadFirstLine("/sys/block/" + diskName + "/removable", line) && line == "1";
}

bool BlockDevices::IsSwap(const std::string& path) {
  FILE* swaps = fopen("/proc/swaps", "re");
  if (swaps == nullptr) return false;
  struct stat device;
  bool isBlock = stat(path.c_str(), &device) == 0 && S_ISBLK(device.st_mode);
  char line[1024];
  bool first = true;
  bool found = false;
  while (!found && fgets(line, sizeof(line), swaps) != nullptr) {
    if (first) {
      first = false;
      if (strncmp(line, "Filename\t", 9) == 0) continue;
    }
    line[strcspn(line, " \t\n")] = '\0';
    if (line[0] == '\0') continue;
    if (path == line) {
      found = true;
    } else if (isBlock) {
      struct stat entry;
      found = stat(line, &entry) == 0 && S_ISBLK(entry.st_mode) && entry.st_rdev == device.st_rdev;
    }
  }
  fclose(swaps);
  return found;
}

bool BlockDevices::CheckMountPoint(const std::string& path, int& flags, std::string& mountPoint) {
  std::string directory;
  if (!FindMount(path, flags, directory)) return false;
  mountPoint = CutMountPoint(directory);
  return true;
}

bool BlockDevices::FindMount(const std::string& path, int& flags, std::string& mountPoint) {
  flags = 0;
  mountPoint.clear();
  struct stat file;
  dev_t fileRdev = 0;
  bool isBlock = false;
  bool isRegular = false;
  if (stat(path.c_str(), &file) == 0) {
    isBlock = S_ISBLK(file.st_mode);
    isRegular = S_ISREG(file.st_mode);
    if (isBlock) fileRdev = file.st_rdev;
  }

  FILE* table = setmntent("/etc/mtab", "re");
  if (table == nullptr) return false;
  struct mntent entry;
  char buffer[4096];
  bool matched = false;
  while (getmntent_r(table, &entry, buffer, sizeof(buffer)) != nullptr) {
    if (path == entry.mnt_fsname) {
      matched = true;
    } else if (entry.mnt_fsname[0] == '/') {
      // Sources like "proc" or "tmpfs" name no file; only paths are compared.
      struct stat source;
      if (stat(entry.mnt_fsname, &source) != 0) continue;
      if (isBlock && S_ISBLK(source.st_mode) && source.st_rdev == fileRdev) {
        // The table may be out of date: the directory must really hold the device.
        struct stat dir;
        matched = stat(entry.mnt_dir, &dir) == 0 && dir.st_dev == fileRdev;
      } else if (isRegular && S_ISREG(source.st_mode)) {
        matched = source.st_dev == file.st_dev && source.st_ino == file.st_ino;
      }
    }
    if (!matched) continue;
    flags |= kMounted;
    if (hasmntopt(&entry, "ro") != nullptr) flags |= kReadOnly;
    mountPoint = entry.mnt_dir;
    if (strcmp(entry.mnt_dir, "/") == 0) RootProbe(flags);
    break;
  }
  endmntent(table);

  if (!matched && isBlock) {
    // The table may list the root only as "/dev/root"; the device of "/" tells.
    struct stat root;
    if (stat("/", &root) == 0 && root.st_dev == fileRdev) {
      flags |= kMounted;
      mountPoint.assign(1, '/');  // GCC 12 warns falsely (-Wrestrict) on = "/"
      RootProbe(flags);
    }
  }
  return true;
}

}  // namespace orv
