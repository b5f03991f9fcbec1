// Shows what the agent sees of the host's block devices, for the system tests: one
// line "RESULT <json>" after the agent's own log lines ("[LEVEL] text").
//   orv_blockdev_probe list
//   orv_blockdev_probe uuid <uuid> <wantMounted 0|1>
//   orv_blockdev_probe mountcheck <path>
//   orv_blockdev_probe host | basichost
// The agent directory comes from ORVD_ETC_DIR, as for the daemon.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "api/basic_host.h"
#include "api/host.h"
#include "api/json_value.h"
#include "daemon/logger.h"
#include "store/database_maintainer.h"
#include "transfer/block_devices.h"

namespace {

using orv::BlockDevice;
using orv::JsonValue;

JsonValue Record(const BlockDevice& device) {
  JsonValue record = JsonValue::Object();
  record.add("path", JsonValue::String(device.path));
  record.add("name", JsonValue::String(device.name));
  record.add("uuid", JsonValue::String(device.uuid));
  record.add("type", JsonValue::String(device.type));
  record.add("label", JsonValue::String(device.label));
  record.add("mountPoint", JsonValue::String(device.mountPoint));
  record.add("mounted", JsonValue::Boolean(device.mounted));
  record.add("readOnly", JsonValue::Boolean(device.readOnly));
  record.add("root", JsonValue::Boolean(device.root));
  record.add("sizeBytes", JsonValue::Number(device.sizeBytes));
  record.add("sectorSize", JsonValue::Number(static_cast<int64_t>(device.sectorSize)));
  record.add("sectorCount", JsonValue::Number(device.sectorCount));
  record.add("deviceNumber", JsonValue::Number(device.deviceNumber));
  record.add("minor", JsonValue::Number(static_cast<int64_t>(device.minor)));
  record.add("wholeDiskNumber", JsonValue::Number(device.wholeDiskNumber));
  record.add("wholeDiskPath", JsonValue::String(device.wholeDiskPath));
  record.add("partitionScheme", JsonValue::String(device.partitionScheme));
  record.add("removable", JsonValue::Boolean(device.removable));
  record.add("volumeType", JsonValue::String(device.volumeType));
  record.add("serialNumber", JsonValue::Number(device.serialNumber));
  record.add("hiddenSectors", JsonValue::Number(device.hiddenSectors));
  record.add("blockSize", JsonValue::Number(device.blockSize));
  record.add("spaceTotal", JsonValue::Number(device.spaceTotal));
  record.add("spaceFree", JsonValue::Number(device.spaceFree));
  return record;
}

int Usage() {
  fprintf(stderr, "usage: orv_blockdev_probe list | uuid <uuid> <0|1> | mountcheck <path> | host | basichost\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  orv::LogSettings::display = true;
  orv::LogSettings::displayThreshold = orv::kDebug;
  orv::DatabaseMaintainer maintainer;
  if (!maintainer.initialise()) {
    fprintf(stderr, "cannot open the agent database\n");
    return 1;
  }
  maintainer.close();

  const std::string command = argv[1];
  JsonValue result;
  orv::BlockDevices blockDevices;
  if (command == "list" && argc == 2) {
    std::vector<BlockDevice> devices;
    if (!blockDevices.GetBlockDevices(devices)) return 1;
    result = JsonValue::Array();
    for (const BlockDevice& device : devices) result.push(Record(device));
  } else if (command == "uuid" && argc == 4) {
    auto device = blockDevices.GetBlockDeviceFromUUID(argv[2], strcmp(argv[3], "1") == 0);
    result = device ? Record(*device) : JsonValue::Null();
  } else if (command == "mountcheck" && argc == 3) {
    int flags = 0;
    std::string mountPoint;
    if (!blockDevices.CheckMountPoint(argv[2], flags, mountPoint)) return 1;
    result = JsonValue::Object();
    result.add("flags", JsonValue::Number(flags));
    result.add("mountPoint", JsonValue::String(mountPoint));
  } else if (command == "host" && argc == 2) {
    result = orv::Host::Build();
  } else if (command == "basichost" && argc == 2) {
    result = orv::BasicHost::Build();
  } else {
    return Usage();
  }
  printf("RESULT %s\n", result.WriteCompact().c_str());
  return 0;
}
