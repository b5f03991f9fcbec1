#ifndef ORV_API_CONFIG_GET_H_
#define ORV_API_CONFIG_GET_H_

#include <cstdint>

#include "api/json_value.h"

namespace orv {

// The configuration document that "GET /config" answers: the REST port, the days of
// logs kept and the log level, as numbers.
class ConfigGet {
 public:
  ConfigGet() = default;
  virtual ~ConfigGet() = default;

  // Reads the three keys from the configuration store; throws "Could not retrieve
  // configurations." when any of them is missing.
  void load();
  JsonValue render() const;

  int32_t restPort() const { return restPort_; }
  int32_t logDaysToKeep() const { return logDaysToKeep_; }
  int32_t logLevel() const { return logLevel_; }

 private:
  int32_t restPort_ = 0;
  int32_t logDaysToKeep_ = 0;
  int32_t logLevel_ = 0;
};

}  // namespace orv

#endif  // ORV_API_CONFIG_GET_H_
