#include "backup/driver_info.h"

#include <cstdio>
#include <cstdlib>

#include <algorithm>

#include "api/all_backup_status.h"
#include "api/json_value.h"
#include "daemon/file_util.h"
#include "daemon/logger.h"
#include "daemon/paths.h"

namespace orv {

namespace {

int32_t ToInt32(const JsonValue& value) {
  return static_cast<int32_t>(strtol(value.text().c_str(), nullptr, 10));
}

}  // namespace

DriverVersion DriverVersion::Parse(const std::string& text) {
  DriverVersion version;
  sscanf(text.c_str(), "%d.%d.%d-%d", &version.major, &version.minor, &version.patch, &version.build);
  return version;
}

std::string DriverVersion::ToString() const {
  char text[64];
  snprintf(text, sizeof(text), "%d.%d.%d-%d", major, minor, patch, build);
  return text;
}

bool DriverVersion::operator<(const DriverVersion& other) const {
  if (major != other.major) return major < other.major;
  if (minor != other.minor) return minor < other.minor;
  if (patch != other.patch) return patch < other.patch;
  return build < other.build;
}

DriverInfo::~DriverInfo() = default;

void DriverInfo::reset() {
  devices_.clear();
  version_.reset();
}

void DriverInfo::parse(const JsonValue& document) {
  for (const JsonValue& member : document.children()) {
    if (member.name() == "version") {
      version_ = DriverVersion::Parse(member.text());
    } else if (member.name() == "devices") {
      for (const JsonValue& entry : member.children()) {
        if (!entry.isObject()) continue;
        DriverDevice device;
        for (const JsonValue& field : entry.children()) {
          const std::string& name = field.name();
          if (name == "minor") {
            device.minor = ToInt32(field);
          } else if (name == "state") {
            device.state = ToInt32(field);
          } else if (name == "error") {
            device.error = ToInt32(field);
          } else if (name == "cow_file") {
            device.cow_file = field.text();
          } else if (name == "block_device") {
            device.block_device = field.text();
          }
        }
        devices_.push_back(std::move(device));
      }
    }
  }
}

void DriverInfo::parseText(const std::string& text) {
  parse(JsonValue::Parse(text));
  std::stable_sort(devices_.begin(), devices_.end(),
                   [](const DriverDevice& a, const DriverDevice& b) { return a.minor < b.minor; });
}

bool DriverInfo::load(AllBackupStatus* status) {
  const std::string backupId = status != nullptr ? status->backupId() : std::string();
  std::string text;
  if (!ReadWholeFile(Paths::DriverInfo(), text)) {
    if (status != nullptr) {
      status->setError("Driver not loaded. Kernel headers are probably incorrect, fix that and reinstall zelkobd.",
                       kErrorDriverNotLoaded);
    }
    LogEvent(kCritical, "", "Could not load driver info. Driver not loaded or installed.");
    return false;
  }

  // A document that does not parse is taken as empty: without a version it ends in
  // the invalid-version failure below.
  try {
    parseText(text);
    LogEvent(kInfo, backupId, "Driver information parsed");
  } catch (const JsonError& error) {
    LogEvent(kError, backupId, "Driver information is not valid JSON: %s", error.what());
  }

  const DriverVersion required = DriverVersion::Parse(kRequiredVersion);
  if (!version_) {
    LogEvent(kCritical, "", "Could not load driver info: Invalid driver version.");
    return false;
  }
  if (*version_ < required) {
    LogEvent(kCritical, "", "Could not load driver info: Incompatible driver version.");
    return false;
  }

  for (const DriverDevice& device : devices_) {
    LogEvent(kDebug, backupId, "DRIVER DEVICE:");
    LogEvent(kDebug, backupId, "\tMINOR: %d", device.minor);
    LogEvent(kDebug, backupId, "\tSTATE: %d", device.state);
    LogEvent(kDebug, backupId, "\tCOWFILE: %s", device.cow_file.c_str());
    LogEvent(kDebug, backupId, "\tBLOCKDEVICE: %s", device.block_device.c_str());
    LogEvent(kDebug, backupId, "\tERROR: %d", device.error);
  }
  return true;
}

int DriverInfo::nextFreeMinor() const {
  // The devices are sorted; a document may still repeat a minor or hold a negative
  // one (a number out of range wraps), and neither may hand out a minor in use.
  int next = 0;
  for (const DriverDevice& device : devices_) {
    if (device.minor > next) break;
    if (device.minor == next) ++next;
  }
  return next;
}

const DriverDevice* DriverInfo::find(const std::string& blockDevice, const std::string& uuid) const {
  const std::string byUuid = kByUuidPrefix + uuid;
  for (const DriverDevice& device : devices_) {
    if (device.block_device == blockDevice || device.block_device == byUuid) return &device;
  }
  return nullptr;
}

int DriverInfo::minorFor(const std::string& blockDevice, const std::string& uuid) const {
  const DriverDevice* device = find(blockDevice, uuid);
  return device != nullptr ? device->minor : -1;
}

int DriverInfo::stateFor(const std::string& blockDevice, const std::string& uuid) const {
  const DriverDevice* device = find(blockDevice, uuid);
  return device != nullptr ? device->state : -1;
}

int DriverInfo::errorFor(const std::string& blockDevice, const std::string& uuid) const {
  const DriverDevice* device = find(blockDevice, uuid);
  return device != nullptr ? device->error : 0;
}

std::string DriverInfo::cowFileFor(const std::string& blockDevice, const std::string& uuid) const {
  const DriverDevice* device = find(blockDevice, uuid);
  return device != nullptr ? device->cow_file : std::string();
}

}  // namespace orv
