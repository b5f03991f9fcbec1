// The control library's four calls, served by the driver simulator.
#include "zelkobd.h"

#include "driver_call.h"

using orv::zelkosim::DriverCall;
using orv::zelkosim::SimDriver;

extern "C" int zelkobd_setup_snapshot(unsigned int minor, const char* bdev, const char* cow,
                                      unsigned long fallocated_space, unsigned long cache_size) {
  return DriverCall::Run(SimDriver::kSetupSnapshot, [&](SimDriver& driver) {
    driver.setupSnapshot(minor, bdev ? bdev : "", cow ? cow : "", fallocated_space, cache_size);
  });
}

extern "C" int zelkobd_transition_incremental(unsigned int minor) {
  return DriverCall::Run(SimDriver::kTransitionIncremental,
                         [&](SimDriver& driver) { driver.transitionIncremental(minor); });
}

extern "C" int zelkobd_transition_snapshot(unsigned int minor, const char* cow, unsigned long fallocated_space) {
  return DriverCall::Run(SimDriver::kTransitionSnapshot,
                         [&](SimDriver& driver) { driver.transitionSnapshot(minor, cow ? cow : "", fallocated_space); });
}

extern "C" int zelkobd_destroy(unsigned int minor) {
  return DriverCall::Run(SimDriver::kDestroy, [&](SimDriver& driver) { driver.destroy(minor); });
}
