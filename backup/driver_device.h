#ifndef ORV_BACKUP_DRIVER_DEVICE_H_
#define ORV_BACKUP_DRIVER_DEVICE_H_

#include <cstdint>
#include <string>

namespace orv {

// One device of the snapshot driver's status document: a volume the driver tracks,
// under the minor number of its /dev/zelko<minor> node. Keys the document leaves out
// keep these defaults.
class DriverDevice {
 public:
  DriverDevice() = default;
  virtual ~DriverDevice();

  int32_t minor = 0;
  int32_t state = 0;
  std::string cow_file;
  std::string block_device;
  int32_t error = 0;
};

}  // namespace orv

#endif  // ORV_BACKUP_DRIVER_DEVICE_H_
