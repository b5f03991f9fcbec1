#ifndef ORV_API_HOST_H_
#define ORV_API_HOST_H_

#include <cstdint>
#include <string>
#include <vector>

#include "api/json_value.h"
#include "transfer/block_devices.h"

namespace orv {

// The description of this machine that the appliance reads with "GET /host":
// processors, memory, pre/post scripts, volumes, kernel and OS, versions, network
// interfaces and capabilities. Built afresh for every request; a fact that cannot be
// gathered is logged and left empty, so the document is always served.
class Host {
 public:
  static constexpr const char* kApiVersion = "1.0.0";
  static constexpr const char* kDriverUnavailable = "unavailable";

  struct Script {
    std::string displayName;
    std::string scriptName;
  };

  Host() = default;
  virtual ~Host() = default;

  // Gathers and renders: what the "GET /host" handler answers.
  static JsonValue Build();

  void gather();
  JsonValue render() const;

  // The OS build name from os-release (NAME and VERSION), else lsb-release
  // (DISTRIB_DESCRIPTION), else the first line of redhat-release, else of issue.
  // False when none of them gives a name.
  static bool ReadOsBuild(std::string& build, const std::string& osRelease = "/etc/os-release",
                          const std::string& lsbRelease = "/etc/lsb-release",
                          const std::string& redhatRelease = "/etc/redhat-release",
                          const std::string& issue = "/etc/issue");
  // One element of "volumes".
  static JsonValue VolumeDocument(const BlockDevice& device);

 private:
  int64_t cpus_ = 0;
  uint64_t ram_ = 0;
  uint64_t freeRam_ = 0;
  std::vector<Script> scripts_;
  std::vector<BlockDevice> volumes_;
  std::string kernel_;
  std::string os_;
  std::string osArch_;
  std::string driverVersion_ = kDriverUnavailable;
  std::string hostname_;
  std::vector<std::string> interfaces_;
};

}  // namespace orv

#endif  // ORV_API_HOST_H_
