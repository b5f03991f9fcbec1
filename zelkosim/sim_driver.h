#ifndef ORV_ZELKOSIM_SIM_DRIVER_H_
#define ORV_ZELKOSIM_SIM_DRIVER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "block_volume.h"
#include "change_map.h"
#include "cow_file.h"
#include "sim_state.h"
#include "sim_store.h"
#include "volume_scanner.h"

namespace orv::zelkosim {

// The snapshot driver, played in user space over a SimStore. Every operation takes the
// store's lock, reads the state, acts and writes the state back, so that any number of
// processes can share one simulated driver. Failures throw SimError with the errno a
// driver call would give.
//
// A snapshot is a captured image of the volume (taken with the file system frozen),
// published as dev/zelko<minor>. Turned into an incremental tracker, that image becomes
// the baseline; the tracker's map marks every block that differs from it, found by
// comparing the volume with the baseline whenever the map must be current (at the turn
// back to a snapshot, and on sync). The COW files' own blocks never count as changed.
class SimDriver {
 public:
  // Call names, as fault injection knows them.
  static constexpr const char* kSetupSnapshot = "setup_snapshot";
  static constexpr const char* kTransitionIncremental = "transition_incremental";
  static constexpr const char* kTransitionSnapshot = "transition_snapshot";
  static constexpr const char* kDestroy = "destroy";

  explicit SimDriver(SimStore store) : store_(std::move(store)) {}
  virtual ~SimDriver() = default;

  // The control library's four calls.
  void setupSnapshot(unsigned minor, const std::string& device, const std::string& cow, uint64_t mib,
                     uint64_t cacheMib);
  void transitionIncremental(unsigned minor);
  void transitionSnapshot(unsigned minor, const std::string& cow, uint64_t mib);
  void destroy(unsigned minor);

  // zbdctl's commands. Each returns what it did, in words.
  std::string reloadIncremental(const std::string& device, const std::string& cow, unsigned minor);
  std::string reloadSnapshot(const std::string& device, const std::string& cow, unsigned minor);
  // Brings every device's map up to date; `failed` tells whether any device could not be.
  std::vector<std::string> sync(bool& failed);
  std::string reboot();
  std::string unload();
  std::string load();
  std::string setVersion(const std::string& version);
  std::string setFault(const std::string& call, int err, unsigned count);
  std::string setError(unsigned minor, int error);
  std::string info();

 private:
  void takeFault(SimState& state, const std::string& call);
  SimDevice& requireDevice(SimState& state, unsigned minor);
  BlockVolume resolveTracked(const SimDevice& device);
  void checkCowPlacement(const std::string& cow, const MountEntry& mount, const std::string& named);
  void checkStoreOutside(const MountEntry& mount, const std::string& named);
  ScanResult scan(const BlockVolume& volume, const ScanTargets& targets);
  ScanResult capture(const BlockVolume& volume, const MountEntry& mount, unsigned minor, const ScanTargets& extra);
  ChangeMap readMapFile(unsigned minor, uint64_t blocks);
  void writeMapFile(unsigned minor, const ChangeMap& map);
  // A COW file whose blocks a comparison leaves out: only its header and map (all that
  // changes in a COW file that existed when the baseline was taken), or all of it (one
  // written since).
  struct CowSpan {
    const CowFile* cow;
    bool whole;
  };
  ChangeMap cowBlocks(const std::vector<CowSpan>& cows, uint64_t volumeBytes);
  std::string activateTracker(SimDevice& device, const BlockVolume& volume, const MountEntry& mount);
  std::string syncDevice(SimDevice& device);
  std::vector<std::string> syncAll(SimState& state, bool& failed);
  std::string reload(const std::string& device, const std::string& cow, unsigned minor, bool snapshot);
  void removeImages(unsigned minor);

  SimStore store_;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_SIM_DRIVER_H_
