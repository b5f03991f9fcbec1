// The snapshot driver's status document, as a backup job and the host inventory read
// it before every snapshot.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "api/json_value.h"
#include "backup/driver_info.h"
#include "tests/fuzz/fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using orv::FuzzCheck;
  const std::string text(reinterpret_cast<const char*>(data), size);
  orv::DriverInfo info;
  try {
    info.parseText(text);
  } catch (const orv::JsonError&) {
    FuzzCheck(info.deviceCount() == 0 && info.version() == nullptr, "a document that is not JSON reads as empty");
    return 0;
  }
  if (info.version() != nullptr) (void)info.version()->ToString();

  std::set<int> minors;
  for (size_t i = 0; i < info.deviceCount(); ++i) {
    const orv::DriverDevice& device = info.devices()[i];
    FuzzCheck(i == 0 || info.devices()[i - 1].minor <= device.minor, "devices are sorted by minor");
    minors.insert(device.minor);
    // The first device of a path answers for it.
    FuzzCheck(info.minorFor(device.block_device, "") <= device.minor, "lookups find the first device of a path");
    (void)info.cowFileFor(device.block_device, "");
  }
  // A new snapshot takes this minor: it must be free, and the lowest free one.
  int next = info.nextFreeMinor();
  FuzzCheck(next >= 0 && minors.count(next) == 0, "the next free minor is not in use");
  for (int minor = 0; minor < next; ++minor) FuzzCheck(minors.count(minor) == 1, "no lower minor is free");
  return 0;
}
