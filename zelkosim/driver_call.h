#ifndef ORV_ZELKOSIM_DRIVER_CALL_H_
#define ORV_ZELKOSIM_DRIVER_CALL_H_

#include <functional>
#include <string>

#include "sim_driver.h"

namespace orv::zelkosim {

// The boundary of the control library's C calls: runs one operation on the simulator
// named by ZELKO_SIM_DIR and turns its outcome into 0, or -1 with errno set, as the
// driver's library does. Nothing escapes as an exception.
class DriverCall {
 public:
  virtual ~DriverCall() = default;

  static int Run(const std::string& call, const std::function<void(SimDriver&)>& operation);
  // Why the calling thread's last call failed; empty after a success.
  static const std::string& LastMessage();
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_DRIVER_CALL_H_
