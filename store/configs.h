#ifndef ORV_STORE_CONFIGS_H_
#define ORV_STORE_CONFIGS_H_

#include <string>

namespace orv {

// Named configuration values kept in the database. A missing key and a database error
// both read as false: callers then use their own defaults.
class Configs {
 public:
  Configs() = default;
  virtual ~Configs() = default;

  bool set(const std::string& name, const std::string& value);
  bool get(const std::string& name, std::string& value);
};

}  // namespace orv

#endif  // ORV_STORE_CONFIGS_H_
