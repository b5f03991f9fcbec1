#include "sim_driver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fs_freeze.h"
#include "sim_error.h"
#include "status_document.h"
#include "unique_fd.h"

namespace orv::zelkosim {

namespace {

std::string Seconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f s", seconds);
  return text;
}

std::string Mib(uint64_t bytes) { return std::to_string(bytes >> 20) + " MiB"; }

std::string Minor(unsigned minor) { return "minor " + std::to_string(minor); }

std::string StateName(int state) {
  std::string name = (state & kStateSnapshot) ? "snapshot" : "incremental";
  if (state & kStateUnverified) return "unverified " + name;
  if (!(state & kStateActive)) return "dormant " + name;
  return "active " + name;
}

void Unlink(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) SimError::Raise(errno, "cannot remove " + path);
}

void Rename(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) SimError::Raise(errno, "cannot rename " + from + " to " + to);
}

void SyncFileSystem(const std::string& mountPoint) {
  UniqueFd fd = UniqueFd::Open(mountPoint, O_RDONLY | O_DIRECTORY, "mount point");
  if (::syncfs(fd.get()) != 0) SimError::Raise(errno, "cannot sync the file system at " + mountPoint);
}

std::string Directory(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

dev_t FileSystemOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) SimError::Raise(errno, "cannot use " + path);
  return st.st_dev;
}

uint64_t FileSize(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) SimError::Raise(errno, "cannot use " + path);
  return static_cast<uint64_t>(st.st_size);
}

bool Exists(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0;
}

}  // namespace

void SimDriver::takeFault(SimState& state, const std::string& call) {
  if (!state.loaded) throw SimError(ENODEV, "driver not loaded");
  auto it = state.faults.find(call);
  if (it == state.faults.end() || it->second.count == 0) return;
  SimFault fault = it->second;
  if (--it->second.count == 0) state.faults.erase(it);
  store_.save(state);
  throw SimError(fault.err, "injected failure: " + std::string(std::strerror(fault.err)) + " (" +
                                std::to_string(fault.count - 1) + " more to come)");
}

SimDevice& SimDriver::requireDevice(SimState& state, unsigned minor) {
  SimDevice* device = state.find(minor);
  if (!device) throw SimError(ENOENT, "no device has " + Minor(minor));
  return *device;
}

BlockVolume SimDriver::resolveTracked(const SimDevice& device) {
  BlockVolume volume = BlockVolume::Resolve(device.block_device);
  if (device.rdev != 0 && volume.rdev() != device.rdev) {
    throw SimError(ENODEV, device.block_device + " no longer names the volume that " + Minor(device.minor) +
                               " tracks");
  }
  if (volume.sizeBytes() != device.volume_bytes) {
    throw SimError(ENODEV, device.block_device + " changed size from " + std::to_string(device.volume_bytes) +
                               " to " + std::to_string(volume.sizeBytes()) + " bytes");
  }
  return volume;
}

void SimDriver::checkCowPlacement(const std::string& cow, const MountEntry& mount, const std::string& named) {
  if (cow.empty() || cow[0] != '/' || cow.back() == '/') {
    throw SimError(EINVAL, "COW file path '" + cow + "' is not an absolute file path");
  }
  if (FileSystemOf(Directory(cow)) != FileSystemOf(mount.mount_point)) {
    throw SimError(EINVAL, "COW file " + cow + " is not on " + named + " (mounted at " + mount.mount_point + ")");
  }
}

void SimDriver::checkStoreOutside(const MountEntry& mount, const std::string& named) {
  if (FileSystemOf(store_.dir()) == FileSystemOf(mount.mount_point)) {
    throw SimError(EINVAL, "the simulator directory " + store_.dir() + " lies on " + named +
                               ": freezing it for the capture would stop the simulator itself");
  }
}

ScanResult SimDriver::scan(const BlockVolume& volume, const ScanTargets& targets) {
  UniqueFd device = volume.openDirect(O_RDONLY);
  VolumeScanner scanner(device.get(), volume.sizeBytes(), volume.path(),
                        [this](const std::string& line) { store_.log("  " + line); });
  return scanner.run(targets);
}

ScanResult SimDriver::capture(const BlockVolume& volume, const MountEntry& mount, unsigned minor,
                              const ScanTargets& extra) {
  checkStoreOutside(mount, volume.path());
  UniqueFd image = UniqueFd::Open(store_.capturePath(minor), O_RDWR | O_CREAT | O_TRUNC, "image", 0644);
  ScanTargets targets = extra;
  targets.image_fd = image.get();
  try {
    FsFreeze freeze(mount.mount_point);
    store_.log("  capturing " + volume.path() + (freeze.frozen() ? " (file system frozen)" : " (file system synced, "
                                                                                               "cannot be frozen)"));
    return scan(volume, targets);
  } catch (...) {
    ::unlink(store_.capturePath(minor).c_str());
    throw;
  }
}

ChangeMap SimDriver::readMapFile(unsigned minor, uint64_t blocks) {
  bool missing = false;
  std::string entries = store_.readFile(store_.mapPath(minor), missing);
  return ChangeMap::DecodeEntries(entries, blocks);
}

void SimDriver::writeMapFile(unsigned minor, const ChangeMap& map) {
  store_.writeAtomically(store_.mapPath(minor), map.encodeEntries());
}

ChangeMap SimDriver::cowBlocks(const std::vector<CowSpan>& cows, uint64_t volumeBytes) {
  ChangeMap blocks(CowHeader::BlocksFor(volumeBytes));
  for (const CowSpan& span : cows) {
    uint64_t bytes = span.whole ? FileSize(span.cow->path()) : CowHeader::RegionBytes(volumeBytes);
    span.cow->extents(bytes).markCoveredBlocks(blocks);
  }
  return blocks;
}

void SimDriver::removeImages(unsigned minor) {
  Unlink(store_.devicePath(minor));
  Unlink(store_.capturePath(minor));
  Unlink(store_.baselinePath(minor));
  Unlink(store_.mapPath(minor));
}

void SimDriver::setupSnapshot(unsigned minor, const std::string& device, const std::string& cow, uint64_t mib,
                              uint64_t cacheMib) {
  SimLock lock(store_);
  SimState state = store_.load();
  takeFault(state, kSetupSnapshot);
  if (minor > kMaxMinor) throw SimError(EINVAL, Minor(minor) + " is above " + std::to_string(kMaxMinor));
  if (const SimDevice* used = state.find(minor)) {
    throw SimError(EEXIST, Minor(minor) + " is in use (" + StateName(used->state) + " of " + used->block_device + ")");
  }
  BlockVolume volume = BlockVolume::Resolve(device);
  if (const SimDevice* other = state.findTracking(volume.rdev())) {
    throw SimError(EBUSY, device + " is already tracked by " + Minor(other->minor));
  }
  MountEntry mount = volume.requireWritableMount(device);
  checkCowPlacement(cow, mount, device);
  checkStoreOutside(mount, device);
  for (const auto& [number, other] : state.devices) {
    if (other.cow_file == cow) throw SimError(EBUSY, cow + " is the COW file of " + Minor(number));
  }

  // A COW file always holds at least its header and the whole map.
  uint64_t fileMib = std::max<uint64_t>(mib, CowHeader::MinimumMib(volume.sizeBytes()));
  CowHeader header;
  header.use = CowHeader::kSnapshot;
  header.minor = minor;
  header.volume_bytes = volume.sizeBytes();
  header.file_bytes = fileMib << 20;
  CowFile cowFile(cow);
  cowFile.create(header.file_bytes, header);
  try {
    ScanResult result = capture(volume, mount, minor, ScanTargets{});
    Rename(store_.capturePath(minor), store_.devicePath(minor));
    SimDevice& added = state.devices[minor];
    added.minor = minor;
    added.state = kStateSnapshot | kStateActive;
    added.error = 0;
    added.block_device = device;
    added.rdev = volume.rdev();
    added.cow_file = cow;
    added.cow_mib = fileMib;
    added.cache_mib = cacheMib;
    added.volume_bytes = volume.sizeBytes();
    store_.save(state);
    store_.log("setup_snapshot " + Minor(minor) + " " + device + ": snapshot of " + Mib(volume.sizeBytes()) + " (" +
               Mib(result.data_bytes) + " of data) in " + Seconds(result.seconds) + ", COW file " + cow + " " +
               std::to_string(fileMib) + " MiB");
  } catch (...) {
    ::unlink(store_.devicePath(minor).c_str());
    ::unlink(cow.c_str());
    throw;
  }
}

void SimDriver::transitionIncremental(unsigned minor) {
  SimLock lock(store_);
  SimState state = store_.load();
  takeFault(state, kTransitionIncremental);
  SimDevice& device = requireDevice(state, minor);
  if (device.error != 0) {
    throw SimError(-device.error, Minor(minor) + " has failed with driver error " + std::to_string(device.error));
  }
  if (device.state != (kStateSnapshot | kStateActive)) {
    throw SimError(EINVAL, Minor(minor) + " is not an active snapshot (state " + std::to_string(device.state) + ", " +
                               StateName(device.state) + ")");
  }
  BlockVolume volume = resolveTracked(device);
  MountEntry mount = volume.requireWritableMount(device.block_device);
  CowFile cow(device.cow_file);
  CowHeader header = cow.readHeader();
  ChangeMap excluded = cowBlocks({{&cow, false}}, device.volume_bytes);
  SyncFileSystem(mount.mount_point);
  UniqueFd snapshot = UniqueFd::Open(store_.devicePath(minor), O_RDONLY, "snapshot image");
  ScanResult result = scan(volume, ScanTargets{-1, snapshot.get(), &excluded});
  uint64_t capacity = CowHeader::CapacityBlocks(header.file_bytes, device.volume_bytes);
  if (result.changed.count() > capacity) {
    device.error = -EFBIG;
    store_.save(state);
    throw SimError(EFBIG, "too many writes while snapshotted: " + std::to_string(result.changed.count()) +
                              " blocks changed, COW file " + device.cow_file + " holds " + std::to_string(capacity));
  }
  header.use = CowHeader::kIncremental;
  header.changed_blocks = result.changed.count();
  UniqueFd writer = volume.openDirect(O_WRONLY);
  cow.writeRegion(header, result.changed, {writer.get()});
  writeMapFile(minor, result.changed);
  Rename(store_.devicePath(minor), store_.baselinePath(minor));
  device.state = kStateActive;
  store_.save(state);
  store_.log("transition_incremental " + Minor(minor) + ": tracking " + device.block_device + ", " +
             std::to_string(result.changed.count()) + " blocks changed while snapshotted (compared in " +
             Seconds(result.seconds) + ")");
}

void SimDriver::transitionSnapshot(unsigned minor, const std::string& cow, uint64_t mib) {
  SimLock lock(store_);
  SimState state = store_.load();
  takeFault(state, kTransitionSnapshot);
  SimDevice& device = requireDevice(state, minor);
  if (device.error != 0) {
    throw SimError(-device.error, Minor(minor) + " has failed with driver error " + std::to_string(device.error));
  }
  if (device.state != kStateActive) {
    throw SimError(EINVAL, Minor(minor) + " is not an active incremental tracker (state " +
                               std::to_string(device.state) + ", " + StateName(device.state) + ")");
  }
  if (cow == device.cow_file) throw SimError(EINVAL, "the new COW file must differ from the current one, " + cow);
  BlockVolume volume = resolveTracked(device);
  MountEntry mount = volume.requireWritableMount(device.block_device);
  checkCowPlacement(cow, mount, device.block_device);
  checkStoreOutside(mount, device.block_device);
  for (const auto& [number, other] : state.devices) {
    if (other.cow_file == cow) throw SimError(EBUSY, cow + " is the COW file of " + Minor(number));
  }
  CowFile oldCow(device.cow_file);
  CowHeader oldHeader = oldCow.readHeader();

  uint64_t fileMib = std::max<uint64_t>(mib, CowHeader::MinimumMib(device.volume_bytes));
  CowHeader header;
  header.use = CowHeader::kSnapshot;
  header.minor = minor;
  header.volume_bytes = device.volume_bytes;
  header.file_bytes = fileMib << 20;
  CowFile newCow(cow);
  newCow.create(header.file_bytes, header);
  ChangeMap map(0);
  ScanResult result;
  try {
    ChangeMap excluded = cowBlocks({{&oldCow, false}, {&newCow, true}}, device.volume_bytes);
    UniqueFd baseline = UniqueFd::Open(store_.baselinePath(minor), O_RDONLY, "baseline image");
    result = capture(volume, mount, minor, ScanTargets{-1, baseline.get(), &excluded});
    map = readMapFile(minor, result.changed.blocks());
    map.merge(result.changed);
    // The retired map goes to the device and into the new snapshot alike, so the next
    // tracker does not see the old COW file's blocks as changed once the agent frees them.
    oldHeader.use = CowHeader::kRetired;
    oldHeader.changed_blocks = map.count();
    UniqueFd writer = volume.openDirect(O_WRONLY);
    UniqueFd image = UniqueFd::Open(store_.capturePath(minor), O_WRONLY, "image");
    oldCow.writeRegion(oldHeader, map, {writer.get(), image.get()});
    Rename(store_.capturePath(minor), store_.devicePath(minor));
  } catch (...) {
    ::unlink(store_.capturePath(minor).c_str());
    ::unlink(cow.c_str());
    throw;
  }
  Unlink(store_.baselinePath(minor));
  Unlink(store_.mapPath(minor));
  std::string oldPath = device.cow_file;
  device.cow_file = cow;
  device.cow_mib = fileMib;
  device.state = kStateSnapshot | kStateActive;
  store_.save(state);
  store_.log("transition_snapshot " + Minor(minor) + ": " + std::to_string(map.count()) +
             " changed blocks left in " + oldPath + "; snapshot of " + Mib(device.volume_bytes) + " (" +
             Mib(result.data_bytes) + " of data) in " + Seconds(result.seconds) + ", COW file " + cow + " " +
             std::to_string(fileMib) + " MiB");
}

void SimDriver::destroy(unsigned minor) {
  SimLock lock(store_);
  SimState state = store_.load();
  takeFault(state, kDestroy);
  SimDevice& device = requireDevice(state, minor);
  std::string what = StateName(device.state) + " of " + device.block_device;
  removeImages(minor);
  state.devices.erase(minor);
  store_.save(state);
  store_.log("destroy " + Minor(minor) + ": removed the " + what);
}

std::string SimDriver::activateTracker(SimDevice& device, const BlockVolume& volume, const MountEntry& mount) {
  checkCowPlacement(device.cow_file, mount, device.block_device);
  CowFile cow(device.cow_file);
  CowHeader header = cow.readHeader();
  if (header.volume_bytes != volume.sizeBytes()) {
    throw SimError(EINVAL, device.cow_file + " belongs to a volume of " + std::to_string(header.volume_bytes) +
                               " bytes, " + device.block_device + " has " + std::to_string(volume.sizeBytes()));
  }
  // The map the COW file carries stays: changes it recorded before the reload still count.
  ChangeMap map = cow.readMap(header);
  std::string how;
  if (Exists(store_.baselinePath(device.minor)) && device.volume_bytes == volume.sizeBytes()) {
    map.merge(readMapFile(device.minor, map.blocks()));
    how = "kept its baseline";
  } else {
    ScanResult result = capture(volume, mount, device.minor, ScanTargets{});
    Rename(store_.capturePath(device.minor), store_.baselinePath(device.minor));
    how = "captured a new baseline in " + Seconds(result.seconds);
  }
  writeMapFile(device.minor, map);
  device.volume_bytes = volume.sizeBytes();
  device.state = kStateActive;
  return how + ", " + std::to_string(map.count()) + " blocks marked";
}

std::string SimDriver::reload(const std::string& deviceName, const std::string& cow, unsigned minor, bool snapshot) {
  SimLock lock(store_);
  SimState state = store_.load();
  if (!state.loaded) throw SimError(ENODEV, "driver not loaded");
  if (minor > kMaxMinor) throw SimError(EINVAL, Minor(minor) + " is above " + std::to_string(kMaxMinor));
  const int dormant = snapshot ? kStateSnapshot : 0;
  SimDevice* existing = state.find(minor);
  if (existing && existing->state != dormant) {
    throw SimError(EEXIST, Minor(minor) + " is in use (" + StateName(existing->state) + " of " +
                               existing->block_device + ")");
  }
  BlockVolume volume = BlockVolume::Resolve(deviceName);
  if (const SimDevice* other = state.findTracking(volume.rdev()); other && other->minor != minor) {
    throw SimError(EBUSY, deviceName + " is already tracked by " + Minor(other->minor));
  }
  if (existing && existing->rdev != 0 && existing->rdev != volume.rdev()) {
    throw SimError(EINVAL, Minor(minor) + " tracked another volume, " + existing->block_device);
  }
  if (cow.empty() || cow[0] != '/') throw SimError(EINVAL, "COW file path '" + cow + "' is not absolute");
  SimDevice device = existing ? *existing : SimDevice{};
  if (!existing) removeImages(minor);
  device.minor = minor;
  device.error = 0;
  device.block_device = deviceName;
  device.rdev = volume.rdev();
  device.cow_file = cow;
  std::string outcome;
  MountEntry mount;
  if (snapshot) {
    // What the snapshot held died with the reboot; only a destroy gets the minor back.
    device.volume_bytes = volume.sizeBytes();
    device.state = kStateSnapshot | kStateUnverified;
    outcome = "unverified snapshot: its content did not survive the reboot";
  } else if (volume.findMount(mount) && mount.readWrite()) {
    outcome = "active incremental: " + activateTracker(device, volume, mount);
  } else {
    device.volume_bytes = volume.sizeBytes();
    device.state = kStateUnverified;
    outcome = "unverified incremental: " + deviceName + " is not mounted read-write; sync verifies it once it is";
  }
  state.devices[minor] = device;
  store_.save(state);
  std::string line = std::string(snapshot ? "reload-snapshot " : "reload-incremental ") + Minor(minor) + " " +
                     deviceName + " " + cow + ": " + outcome;
  store_.log(line);
  return line;
}

std::string SimDriver::reloadIncremental(const std::string& device, const std::string& cow, unsigned minor) {
  return reload(device, cow, minor, false);
}

std::string SimDriver::reloadSnapshot(const std::string& device, const std::string& cow, unsigned minor) {
  return reload(device, cow, minor, true);
}

std::string SimDriver::syncDevice(SimDevice& device) {
  std::string name = "zelko" + std::to_string(device.minor) + ": ";
  if (device.state == kStateActive) {
    BlockVolume volume = resolveTracked(device);
    MountEntry mount;
    if (!volume.findMount(mount)) return name + "incremental, volume not mounted, map left as it was";
    CowFile cow(device.cow_file);
    CowHeader header = cow.readHeader();
    ChangeMap excluded = cowBlocks({{&cow, false}}, device.volume_bytes);
    SyncFileSystem(mount.mount_point);
    UniqueFd baseline = UniqueFd::Open(store_.baselinePath(device.minor), O_RDONLY, "baseline image");
    ScanResult result = scan(volume, ScanTargets{-1, baseline.get(), &excluded});
    ChangeMap map = readMapFile(device.minor, result.changed.blocks());
    uint64_t before = map.count();
    map.merge(result.changed);
    header.use = CowHeader::kIncremental;
    header.changed_blocks = map.count();
    UniqueFd writer = volume.openDirect(O_WRONLY);
    cow.writeRegion(header, map, {writer.get()});
    writeMapFile(device.minor, map);
    return name + "incremental, " + std::to_string(map.count()) + " blocks marked (" +
           std::to_string(map.count() - before) + " new)";
  }
  if (device.state == (kStateSnapshot | kStateActive)) {
    if (device.error != 0) return name + "snapshot, failed with driver error " + std::to_string(device.error);
    BlockVolume volume = resolveTracked(device);
    MountEntry mount;
    if (volume.findMount(mount)) SyncFileSystem(mount.mount_point);
    CowFile cow(device.cow_file);
    CowHeader header = cow.readHeader();
    ChangeMap excluded = cowBlocks({{&cow, false}}, device.volume_bytes);
    UniqueFd snapshot = UniqueFd::Open(store_.devicePath(device.minor), O_RDONLY, "snapshot image");
    ScanResult result = scan(volume, ScanTargets{-1, snapshot.get(), &excluded});
    uint64_t capacity = CowHeader::CapacityBlocks(header.file_bytes, device.volume_bytes);
    if (result.changed.count() > capacity) {
      // The COW file overflowed: the snapshot is lost, reads of it fail from now on.
      device.error = -EFBIG;
      if (::truncate(store_.devicePath(device.minor).c_str(), 0) != 0) {
        SimError::Raise(errno, "cannot invalidate " + store_.devicePath(device.minor));
      }
      return name + "snapshot overflowed: " + std::to_string(result.changed.count()) + " blocks changed, COW file holds " +
             std::to_string(capacity) + "; driver error -27";
    }
    return name + "snapshot, " + std::to_string(result.changed.count()) + " of " + std::to_string(capacity) +
           " COW blocks used";
  }
  if (device.state == kStateUnverified) {
    BlockVolume volume = resolveTracked(device);
    MountEntry mount;
    if (!volume.findMount(mount) || !mount.readWrite()) return name + "unverified incremental, volume not mounted";
    return name + "verified, active incremental: " + activateTracker(device, volume, mount);
  }
  return name + StateName(device.state) + ", nothing to do";
}

std::vector<std::string> SimDriver::syncAll(SimState& state, bool& failed) {
  if (!state.loaded) throw SimError(ENODEV, "driver not loaded");
  std::vector<std::string> lines;
  failed = false;
  for (auto& [minor, device] : state.devices) {
    try {
      lines.push_back(syncDevice(device));
    } catch (const SimError& e) {
      failed = true;
      lines.push_back("zelko" + std::to_string(minor) + ": " + e.what());
    }
    store_.log("sync " + lines.back());
  }
  return lines;
}

std::vector<std::string> SimDriver::sync(bool& failed) {
  SimLock lock(store_);
  SimState state = store_.load();
  std::vector<std::string> lines = syncAll(state, failed);
  store_.save(state);
  if (lines.empty()) lines.push_back("no devices");
  return lines;
}

std::string SimDriver::reboot() {
  SimLock lock(store_);
  SimState state = store_.load();
  // Like a driver at shutdown, write every tracker's map before going dormant.
  bool failed = false;
  syncAll(state, failed);
  for (auto& [minor, device] : state.devices) {
    if (device.state & kStateSnapshot) {
      Unlink(store_.devicePath(minor));
      Unlink(store_.capturePath(minor));
      device.state = kStateSnapshot;
    } else {
      device.state = 0;
    }
    device.error = 0;
  }
  store_.save(state);
  std::string line = "reboot: " + std::to_string(state.devices.size()) + " devices now dormant" +
                     (failed ? " (some maps could not be written first)" : "");
  store_.log(line);
  return line;
}

std::string SimDriver::unload() {
  SimLock lock(store_);
  SimState state = store_.load();
  if (!state.loaded) return "driver already unloaded";
  if (!state.devices.empty()) {
    throw SimError(EBUSY, "driver in use by " + std::to_string(state.devices.size()) + " devices; destroy them first");
  }
  state.loaded = false;
  store_.save(state);
  store_.log("unload: status document withdrawn");
  return "driver unloaded";
}

std::string SimDriver::load() {
  SimLock lock(store_);
  SimState state = store_.load();
  state.loaded = true;
  store_.save(state);
  store_.log("load: status document at " + store_.infoPath());
  return "driver loaded, status document at " + store_.infoPath();
}

std::string SimDriver::setVersion(const std::string& version) {
  SimLock lock(store_);
  SimState state = store_.load();
  state.version = version;
  store_.save(state);
  store_.log("version set to '" + version + "'");
  return "version " + version;
}

std::string SimDriver::setFault(const std::string& call, int err, unsigned count) {
  std::string name = call.rfind("zelkobd_", 0) == 0 ? call.substr(8) : call;
  if (name != kSetupSnapshot && name != kTransitionIncremental && name != kTransitionSnapshot && name != kDestroy) {
    throw SimError(EINVAL, "unknown call '" + call + "' (setup_snapshot, transition_incremental, " +
                               "transition_snapshot or destroy)");
  }
  if (err < 0 || err > 4095) throw SimError(EINVAL, "errno " + std::to_string(err) + " is out of range");
  SimLock lock(store_);
  SimState state = store_.load();
  std::string line;
  if (err == 0 || count == 0) {
    state.faults.erase(name);
    line = "fault " + name + " cleared";
  } else {
    state.faults[name] = SimFault{err, count};
    line = "fault " + name + ": the next " + std::to_string(count) + " calls fail with errno " + std::to_string(err) +
           " (" + std::strerror(err) + ")";
  }
  store_.save(state);
  store_.log(line);
  return line;
}

std::string SimDriver::setError(unsigned minor, int error) {
  if (error > 0 || error < -4095) throw SimError(EINVAL, "driver errors are negative errno values, not " +
                                                             std::to_string(error));
  SimLock lock(store_);
  SimState state = store_.load();
  SimDevice& device = requireDevice(state, minor);
  device.error = error;
  store_.save(state);
  std::string line = "set-error " + Minor(minor) + ": driver error " + std::to_string(error);
  store_.log(line);
  return line;
}

std::string SimDriver::info() {
  SimLock lock(store_);
  SimState state = store_.load();
  if (!state.loaded) throw SimError(ENODEV, "driver not loaded (zbdctl load brings it back)");
  return StatusDocument::Render(state);
}

}  // namespace orv::zelkosim
