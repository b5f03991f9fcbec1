#ifndef ORV_API_CONFIG_SET_H_
#define ORV_API_CONFIG_SET_H_

#include <cstdint>
#include <string>

namespace orv {

// The body of "POST /config": the REST port, the days of logs kept and the log level.
// Each member is read with strtol of its text, so a number and a numeric string are
// both accepted; a missing member reads as 0. Ranges are not checked here: an unusable
// port is replaced by the default when the server restarts.
class ConfigSet {
 public:
  ConfigSet() = default;
  virtual ~ConfigSet() = default;

  // False when the text is not a JSON object (the caller answers 400).
  bool parse(const std::string& body);
  // Writes all three keys in order; throws, naming the key, on the first failure.
  void save() const;

  int32_t restPort() const { return restPort_; }
  int32_t logDaysToKeep() const { return logDaysToKeep_; }
  int32_t logLevel() const { return logLevel_; }

 private:
  int32_t restPort_ = 0;
  int32_t logDaysToKeep_ = 0;
  int32_t logLevel_ = 0;
};

}  // namespace orv

#endif  // ORV_API_CONFIG_SET_H_
