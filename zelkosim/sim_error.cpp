#include "sim_error.h"

#include <cstring>

namespace orv::zelkosim {

SimError::SimError(int err, const std::string& message) : std::runtime_error(message), err_(err) {}

SimError::~SimError() = default;

void SimError::Raise(int err, const std::string& what) {
  throw SimError(err, what + ": " + std::strerror(err));
}

}  // namespace orv::zelkosim
