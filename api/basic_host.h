#ifndef ORV_API_BASIC_HOST_H_
#define ORV_API_BASIC_HOST_H_

#include <string>

#include "api/json_value.h"

namespace orv {

// What "GET /basichost" tells any caller with a valid certificate, before pairing:
// the OS build, the machine name and the host name. Nothing that identifies volumes
// or versions is given to a caller that is not paired.
class BasicHost {
 public:
  BasicHost() = default;
  virtual ~BasicHost() = default;

  // Gathers and renders: what the "GET /basichost" handler answers.
  static JsonValue Build();

  void gather();
  JsonValue render() const;

 private:
  std::string os_;
  std::string osArch_;
  std::string hostname_;
};

}  // namespace orv

#endif  // ORV_API_BASIC_HOST_H_
