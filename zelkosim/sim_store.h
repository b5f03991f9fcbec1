#ifndef ORV_ZELKOSIM_SIM_STORE_H_
#define ORV_ZELKOSIM_SIM_STORE_H_

#include <string>

#include "sim_state.h"
#include "unique_fd.h"

namespace orv::zelkosim {

// The simulator's directory ($ZELKO_SIM_DIR): the state file, the published status
// document, the snapshot devices under dev/, captured images and change maps under
// images/, and a log that plays the part of the kernel log.
class SimStore {
 public:
  static constexpr const char* kEnvironment = "ZELKO_SIM_DIR";

  explicit SimStore(std::string dir);
  virtual ~SimStore() = default;

  // The store named by ZELKO_SIM_DIR. Unset, or naming no directory, throws ENODEV (the
  // driver is not there); with `create` a missing directory is made instead.
  static SimStore FromEnvironment(bool create = false);

  const std::string& dir() const { return dir_; }
  std::string statePath() const { return dir_ + "/state"; }
  std::string infoPath() const { return dir_ + "/zelko-info"; }
  std::string logPath() const { return dir_ + "/zelkosim.log"; }
  std::string devicePath(unsigned minor) const;    // the snapshot device, dev/zelko<minor>
  std::string capturePath(unsigned minor) const;   // a capture in progress
  std::string baselinePath(unsigned minor) const;  // an incremental tracker's baseline image
  std::string mapPath(unsigned minor) const;       // an incremental tracker's change map

  // Reads the state; a missing file is a freshly loaded driver without devices.
  SimState load() const;
  // Writes the state and publishes (or, when unloaded, withdraws) the status document;
  // each file is replaced atomically, so readers never see half of one.
  void save(const SimState& state) const;
  // Appends one line to the simulator log; logging never fails an operation.
  void log(const std::string& line) const;
  // Replaces the file at `path` with `text` atomically (temporary file, fsync, rename).
  void writeAtomically(const std::string& path, const std::string& text) const;
  // The whole content of the file at `path`; `missing` tells whether it did not exist.
  std::string readFile(const std::string& path, bool& missing) const;

 private:

  std::string dir_;
};

// Exclusive flock on the store, held for a whole operation, so that the agent, tests and
// zbdctl can act on one simulator from different processes.
class SimLock {
 public:
  explicit SimLock(const SimStore& store);
  virtual ~SimLock();
  SimLock(const SimLock&) = delete;
  SimLock& operator=(const SimLock&) = delete;

 private:
  UniqueFd fd_;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_SIM_STORE_H_
