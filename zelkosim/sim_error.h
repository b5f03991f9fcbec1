#ifndef ORV_ZELKOSIM_SIM_ERROR_H_
#define ORV_ZELKOSIM_SIM_ERROR_H_

#include <stdexcept>
#include <string>

namespace orv::zelkosim {

// A failed simulator operation: the errno the driver call reports and a readable account
// of why, which zbdctl prints and the simulator log keeps.
class SimError : public std::runtime_error {
 public:
  SimError(int err, const std::string& message);
  virtual ~SimError();

  int err() const { return err_; }

  // Throws a SimError for `err` whose message ends in ": " and strerror(err).
  [[noreturn]] static void Raise(int err, const std::string& what);

 private:
  int err_;
};

}  // namespace orv::zelkosim

#endif  // ORV_ZELKOSIM_SIM_ERROR_H_
