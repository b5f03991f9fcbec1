#include "api/host.h"

#include <ifaddrs.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <list>

#include "backup/driver_info.h"
#include "backup/pre_post_script.h"
#include "daemon/entry.h"
#include "daemon/logger.h"

namespace orv {

namespace {

void TrimLineEnd(std::string& text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
}

std::string WithoutQuotes(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '"'), text.end());
  return text;
}

// Lines as fgets with a 255-byte buffer gives them (longer lines come in pieces).
std::vector<std::string> ReadLines(const std::string& path, bool& readable) {
  std::vector<std::string> lines;
  FILE* file = fopen(path.c_str(), "re");
  readable = file != nullptr;
  if (file == nullptr) return lines;
  char buffer[255];
  while (fgets(buffer, sizeof(buffer), file) != nullptr) {
    std::string line = buffer;
    TrimLineEnd(line);
    lines.push_back(line);
  }
  fclose(file);
  return lines;
}

// The first line of /etc/issue without getty's escapes ("\n", "\l", ...) and with its
// blanks collapsed.
std::string CleanIssueLine(const std::string& line) {
  std::string text;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\\') {
      ++i;
      continue;
    }
    char c = (line[i] == '\t') ? ' ' : line[i];
    if (c == ' ' && (text.empty() || text.back() == ' ')) continue;
    text += c;
  }
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

}  // namespace

bool Host::ReadOsBuild(std::string& build, const std::string& osRelease, const std::string& lsbRelease,
                       const std::string& redhatRelease, const std::string& issue) {
  build.clear();
  bool readable = false;
  std::string name;
  std::string version;
  bool haveName = false;
  bool haveVersion = false;
  for (const std::string& line : ReadLines(osRelease, readable)) {
    if (!haveName && line.compare(0, 5, "NAME=") == 0) {
      name = WithoutQuotes(line.substr(5));
      haveName = true;
    } else if (!haveVersion && line.compare(0, 8, "VERSION=") == 0) {
      version = WithoutQuotes(line.substr(8));
      haveVersion = true;
    }
  }
  if (!name.empty()) {
    build = version.empty() ? name : name + " " + version;
    return true;
  }
  for (const std::string& line : ReadLines(lsbRelease, readable)) {
    size_t at = line.find("DISTRIB_DESCRIPTION=");
    if (at == std::string::npos) continue;
    build = WithoutQuotes(line.substr(at + strlen("DISTRIB_DESCRIPTION=")));
    if (!build.empty()) return true;
    break;
  }
  std::vector<std::string> lines = ReadLines(redhatRelease, readable);
  if (!lines.empty() && !lines[0].empty()) {
    build = lines[0];
    return true;
  }
  lines = ReadLines(issue, readable);
  if (!lines.empty()) {
    build = CleanIssueLine(lines[0]);
    if (!build.empty()) return true;
  }
  return false;
}

JsonValue Host::Build() {
  Host host;
  host.gather();
  return host.render();
}

void Host::gather() {
  long cpus = sysconf(_SC_NPROCESSORS_ONLN);
  if (cpus < 1) {
    LogEvent(kError, "", "Host: Could not retrieve number of cpus.");
  } else {
    cpus_ = cpus;
  }

  struct sysinfo info;
  if (sysinfo(&info) != 0) {
    LogEvent(kError, "", "Host: Could not retrieve system ram info.");
  } else {
    ram_ = static_cast<uint64_t>(info.totalram) * info.mem_unit;
    freeRam_ = static_cast<uint64_t>(info.freeram) * info.mem_unit;
  }

  std::list<PrePostScript> scripts;
  if (!PrePostScript::loadScripts(scripts)) {
    LogEvent(kError, "", "Host: Could not retrieve pre-post scripts.");
  } else {
    for (const PrePostScript& script : scripts) scripts_.push_back({script.displayName(), script.fileName()});
  }

  BlockDevices blockDevices;
  if (!blockDevices.GetBlockDevices(volumes_)) {
    volumes_.clear();
    LogEvent(kError, "", "Host: Could not retrieve block devices.");
  }

  if (!ReadOsBuild(os_)) LogEvent(kError, "", "Host: Could not retrieve os build.");

  struct utsname names;
  if (uname(&names) != 0) {
    LogEvent(kError, "", "Host: Could not retrieve kernel information.");
  } else {
    kernel_ = std::string(names.release) + " " + names.version;
    osArch_ = names.machine;
  }

  char hostname[1024] = {0};
  if (gethostname(hostname, sizeof(hostname) - 1) != 0) {
    LogEvent(kError, "", "Host: Could not retrieve host name.");
  } else {
    hostname_ = hostname;
  }

  struct ifaddrs* addresses = nullptr;
  if (getifaddrs(&addresses) != 0) {
    LogEvent(kError, "", "Host: Unable to retrieve network interface list, error: %d", errno);
  } else {
    // One entry per address family and address: each interface is listed once.
    for (struct ifaddrs* address = addresses; address != nullptr; address = address->ifa_next) {
      if (address->ifa_name == nullptr) continue;
      std::string name = address->ifa_name;
      if (std::find(interfaces_.begin(), interfaces_.end(), name) == interfaces_.end()) interfaces_.push_back(name);
    }
    freeifaddrs(addresses);
  }

  DriverInfo driverInfo;
  driverInfo.reset();
  if (driverInfo.load(nullptr) && driverInfo.version() != nullptr) {
    driverVersion_ = driverInfo.version()->ToString();
  }
}

JsonValue Host::VolumeDocument(const BlockDevice& device) {
  JsonValue volume = JsonValue::Object();
  volume.add("guid", JsonValue::String(device.uuid));
  volume.add("mountpoints", JsonValue::String(device.mountPoint));
  volume.add("device", JsonValue::String(device.path));
  volume.add("diskdevice", JsonValue::String(device.wholeDiskPath));
  volume.add("spaceTotal", JsonValue::Number(device.spaceTotal));
  volume.add("spaceFree", JsonValue::Number(device.spaceFree));
  volume.add("filesystem", JsonValue::String(device.type));
  volume.add("sectorSize", JsonValue::Number(static_cast<int64_t>(device.sectorSize)));
  volume.add("sectorsTotal", JsonValue::Number(device.sectorCount));
  volume.add("hiddenSectors", JsonValue::Number(device.hiddenSectors));
  volume.add("blockSize", JsonValue::Number(device.blockSize));
  volume.add("serialNumber", JsonValue::Number(device.serialNumber));
  volume.add("volumeType", JsonValue::String(device.volumeType));
  volume.add("label", JsonValue::String(device.label));
  volume.add("OSVolume", JsonValue::Boolean(device.mounted && device.mountPoint == "/"));
  volume.add("sysVolume", JsonValue::Boolean(device.mounted && device.mountPoint == "/boot"));
  volume.add("removable", JsonValue::Boolean(device.removable));
  volume.add("mounted", JsonValue::Boolean(device.mounted));
  if (device.mounted) volume.add("readonly", JsonValue::Boolean(device.readOnly));
  volume.add("partScheme", JsonValue::String(device.partitionScheme));
  return volume;
}

JsonValue Host::render() const {
  JsonValue document = JsonValue::Object();
  document.add("cpus", JsonValue::Number(cpus_));
  document.add("ram", JsonValue::Number(ram_));
  document.add("freeram", JsonValue::Number(freeRam_));
  JsonValue& scripts = document.add("scriptsPrePost", JsonValue::Array());
  for (const Script& script : scripts_) {
    JsonValue entry = JsonValue::Object();
    entry.add("displayname", JsonValue::String(script.displayName));
    entry.add("scriptname", JsonValue::String(script.scriptName));
    scripts.push(std::move(entry));
  }
  JsonValue& volumes = document.add("volumes", JsonValue::Array());
  for (const BlockDevice& device : volumes_) volumes.push(VolumeDocument(device));
  document.add("kernel", JsonValue::String(kernel_));
  document.add("os", JsonValue::String(os_));
  document.add("os_arch", JsonValue::String(osArch_));
  document.add("archBits", JsonValue::Number(osArch_ == "x86_64" ? 64 : 32));
  document.add("agentVersion", JsonValue::String(kAgentVersion));
  document.add("apiVersion", JsonValue::String(kApiVersion));
  document.add("driverVersion", JsonValue::String(driverVersion_));
  document.add("hostname", JsonValue::String(hostname_));
  JsonValue& interfaces = document.add("networkInterfaceList", JsonValue::Array());
  for (const std::string& name : interfaces_) {
    JsonValue entry = JsonValue::Object();
    entry.add("name", JsonValue::String(name));
    interfaces.push(std::move(entry));
  }
  JsonValue& capabilities = document.add("capabilities", JsonValue::Array());
  for (const char* capability : {"ISCSI", "backupType", "noDiffmergeTarget", "backupErrorMsg"}) {
    capabilities.push(JsonValue::String(capability));
  }
  return document;
}

}  // namespace orv
