#ifndef ORV_BACKUP_DRIVER_INFO_H_
#define ORV_BACKUP_DRIVER_INFO_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "backup/driver_device.h"

namespace orv {

class AllBackupStatus;
class JsonValue;

// A driver version: major.minor.patch-build, missing parts 0.
struct DriverVersion {
  int32_t major = 0;
  int32_t minor = 0;
  int32_t patch = 0;
  int32_t build = 0;

  // Reads "%d.%d.%d-%d"; whatever does not match stays 0.
  static DriverVersion Parse(const std::string& text);
  std::string ToString() const;  // "0.10.0-0"
  bool operator<(const DriverVersion& other) const;
};

// The snapshot driver's status document (/proc/zelko-info): its version and the
// devices it tracks. A backup job loads its own copy before it snapshots and asks it,
// per volume, for the minor, state, COW file and error; the host inventory loads one
// for the version. Used by one thread only.
class DriverInfo {
 public:
  // The oldest driver this agent can drive.
  static constexpr const char* kRequiredVersion = "0.10.0";
  static constexpr const char* kByUuidPrefix = "/dev/disk/by-uuid/";

  DriverInfo() = default;
  virtual ~DriverInfo();

  // Reads, parses and checks the document. The caller resets first. With a status,
  // an unreadable document is reported to the appliance as error 101.
  bool load(AllBackupStatus* status);
  // The parse step of load(): reads the document's text into this object, devices
  // sorted by minor, and leaves checking the version to the caller. Throws JsonError
  // when the text is not a JSON document. The caller resets first.
  void parseText(const std::string& text);
  void reset();

  // The lowest minor not in use, counting from 0 over the sorted devices.
  int nextFreeMinor() const;
  // The first device tracking `blockDevice` itself or "/dev/disk/by-uuid/" + `uuid`
  // answers; -1, -1, 0 and "" when none does.
  int minorFor(const std::string& blockDevice, const std::string& uuid) const;
  int stateFor(const std::string& blockDevice, const std::string& uuid) const;
  int errorFor(const std::string& blockDevice, const std::string& uuid) const;
  std::string cowFileFor(const std::string& blockDevice, const std::string& uuid) const;

  // Null until a document with a "version" key was parsed.
  const DriverVersion* version() const { return version_ ? &*version_ : nullptr; }
  const std::vector<DriverDevice>& devices() const { return devices_; }
  size_t deviceCount() const { return devices_.size(); }

 private:
  void parse(const JsonValue& document);
  const DriverDevice* find(const std::string& blockDevice, const std::string& uuid) const;

  std::optional<DriverVersion> version_;
  std::vector<DriverDevice> devices_;
};

}  // namespace orv

#endif  // ORV_BACKUP_DRIVER_INFO_H_
