#include "daemon/paths.h"

#include <cstdlib>

namespace orv {

namespace {

std::string FromEnv(const char* name, const char* fallback) {
  const char* value = getenv(name);
  if (value != nullptr && value[0] != '\0') return value;
  return fallback;
}

}  // namespace

std::string Paths::EtcDir() { return FromEnv("ORVD_ETC_DIR", kDefaultEtcDir); }
std::string Paths::DatabasePath() { return EtcDir() + "/orvd.sqlite"; }
std::string Paths::CertDir() { return EtcDir() + "/certs"; }
std::string Paths::ScriptsDir() { return EtcDir() + "/pps"; }
std::string Paths::PidFile() { return FromEnv("ORVD_PID_FILE", kDefaultPidFile); }
std::string Paths::DriverInfo() { return FromEnv("ORVD_DRIVER_INFO", kDefaultDriverInfo); }
std::string Paths::DriverDev() { return FromEnv("ORVD_DRIVER_DEV", kDefaultDriverDev); }
std::string Paths::Zbdctl() { return FromEnv("ORVD_ZBDCTL", kDefaultZbdctl); }
std::string Paths::CaUrl() { return FromEnv("ORVD_CA_URL", ORV_CA_URL_DEFAULT); }

std::string Paths::Relocate(const std::string& text) {
  const std::string from = kDefaultEtcDir;
  const std::string to = EtcDir();
  if (from == to) return text;
  std::string out;
  size_t pos = 0;
  for (;;) {
    size_t hit = text.find(from, pos);
    if (hit == std::string::npos) break;
    out.append(text, pos, hit - pos);
    out.append(to);
    pos = hit + from.size();
  }
  out.append(text, pos, std::string::npos);
  return out;
}

}  // namespace orv
