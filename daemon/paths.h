#ifndef ORV_DAEMON_PATHS_H_
#define ORV_DAEMON_PATHS_H_

#include <string>

namespace orv {

// Every fixed path of the agent comes from here. Each has its production default and
// can be moved by an environment variable, so that many agents can run side by side
// without touching the real system:
//   ORVD_ETC_DIR      /etc/zelko/orv     database, certs/, pps/, reload scripts
//   ORVD_PID_FILE     /var/run/orvd.pid
//   ORVD_DRIVER_INFO  /proc/zelko-info
//   ORVD_DRIVER_DEV   /dev/zelko          snapshot device prefix (minor appended)
//   ORVD_CA_URL       build default ORV_CA_URL
//   ORVD_ZBDCTL       /usr/bin/zbdctl     the driver's tool, named in reload scripts
class Paths {
 public:
  static constexpr const char* kDefaultEtcDir = "/etc/zelko/orv";
  static constexpr const char* kDefaultPidFile = "/var/run/orvd.pid";
  static constexpr const char* kDefaultDriverInfo = "/proc/zelko-info";
  static constexpr const char* kDefaultDriverDev = "/dev/zelko";
  static constexpr const char* kDefaultZbdctl = "/usr/bin/zbdctl";

  static std::string EtcDir();
  static std::string DatabasePath();  // EtcDir() + "/orvd.sqlite"
  static std::string CertDir();       // EtcDir() + "/certs"
  static std::string ScriptsDir();    // EtcDir() + "/pps"
  static std::string PidFile();
  static std::string DriverInfo();
  static std::string DriverDev();
  static std::string CaUrl();
  static std::string Zbdctl();

  // Rewrites a text that names the default configuration directory so that it names
  // the effective one. Messages keep their production wording in the source and show
  // the paths the agent really uses.
  static std::string Relocate(const std::string& text);
};

}  // namespace orv

#endif  // ORV_DAEMON_PATHS_H_
