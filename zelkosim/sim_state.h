#ifndef ORV_ZELKOSIM_SIM_STATE_H_
#define ORV_ZELKOSIM_SIM_STATE_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>

namespace orv::zelkosim {

// State code bits of a driver device, as the status document reports them.
constexpr int kStateSnapshot = 1;    // set: snapshot; clear: incremental tracker
constexpr int kStateActive = 2;      // the device is attached and working
constexpr int kStateUnverified = 4;  // reloaded, waiting for its volume and COW file to be checked

// The highest minor number the driver hands out.
constexpr unsigned kMaxMinor = 255;

// One driver device as the simulator remembers it between calls.
struct SimDevice {
  unsigned minor = 0;
  int state = 0;
  int error = 0;             // negative errno the driver reports for the device, 0 when none
  std::string block_device;  // the path the caller named, reported unchanged
  dev_t rdev = 0;            // device number it resolved to, 0 when never resolved
  std::string cow_file;
  uint64_t cow_mib = 0;
  uint64_t cache_mib = 0;
  uint64_t volume_bytes = 0;
};

// A pending injected failure: the next `count` calls of one kind fail with `err`.
struct SimFault {
  int err = 0;
  unsigned count = 0;
};

// Everything the simulated driver knows: its version, whether it is loaded, its devices
// and the failures queued for its calls. Kept in a line-based text file so that it
// survives the processes that use it.
class SimState {
 public:
  static constexpr const char* kDefaultVersion = "0.10.0-1";

  SimState() = default;
  virtual ~SimState() = default;

  // Parses the state file's text; malformed text throws SimError(EUCLEAN) naming the line.
  static SimState Parse(const std::string& text);
  std::string Format() const;

  std::string version = kDefaultVersion;
  bool loaded = true;
  std::map<unsigned, SimDevice> devices;
  std::map<std::string, SimFault> faults;  // by call name, e.g. "destroy"

  SimDevice* find(unsigned minor);
  // The device that tracks block device number `rdev`, or null.
  const SimDevice* findTracking(dev_t rdev) const;
};

// Escapes backslashes and line breaks so that any path fits on one line of the state file.
std::string EscapeValue(const std::string& value);
// Reverses EscapeValue; returns false on a dangling or unknown escape.
bool UnescapeValue(const std::string& text, std::string& value);

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_SIM_STATE_H_
