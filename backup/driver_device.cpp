#include "backup/driver_device.h"

namespace orv {

DriverDevice::~DriverDevice() = default;

}  // namespace orv
