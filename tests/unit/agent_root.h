#ifndef ORV_TESTS_UNIT_AGENT_ROOT_H_
#define ORV_TESTS_UNIT_AGENT_ROOT_H_

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "store/database_maintainer.h"

namespace orv {

// A temporary agent root with a fresh database, reached through ORVD_ETC_DIR so that
// the code under test uses it exactly as the daemon uses /etc/zelko/orv.
class AgentRoot {
 public:
  AgentRoot() {
    char pattern[] = "/tmp/orv-unit-XXXXXX";
    root_ = mkdtemp(pattern);
    etc_ = root_ + "/etc";
    std::filesystem::create_directories(etc_ + "/certs");
    setenv("ORVD_ETC_DIR", etc_.c_str(), 1);
  }
  ~AgentRoot() {
    unsetenv("ORVD_ETC_DIR");
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  AgentRoot(const AgentRoot&) = delete;
  AgentRoot& operator=(const AgentRoot&) = delete;

  bool initialiseDatabase() {
    DatabaseMaintainer maintainer;
    bool ok = maintainer.initialise();
    maintainer.close();
    return ok;
  }
  const std::string& root() const { return root_; }
  const std::string& etc() const { return etc_; }
  std::string databasePath() const { return etc_ + "/orvd.sqlite"; }

 private:
  std::string root_;
  std::string etc_;
};

}  // namespace orv

#endif  // ORV_TESTS_UNIT_AGENT_ROOT_H_
