#include "api/basic_host.h"

#include <sys/utsname.h>
#include <unistd.h>

#include "api/host.h"
#include "daemon/logger.h"

namespace orv {

JsonValue BasicHost::Build() {
  BasicHost host;
  host.gather();
  return host.render();
}

void BasicHost::gather() {
  if (!Host::ReadOsBuild(os_)) LogEvent(kError, "", "BasicHost: Could not retrieve os build.");

  struct utsname names;
  if (uname(&names) != 0) {
    LogEvent(kError, "", "BasicHost: Could not retrieve kernel information.");
  } else {
    osArch_ = names.machine;
  }

  char hostname[1024] = {0};
  if (gethostname(hostname, sizeof(hostname) - 1) != 0) {
    LogEvent(kError, "", "BasicHost: Could not retrieve hostname.");
  } else {
    hostname_ = hostname;
  }
}

JsonValue BasicHost::render() const {
  JsonValue document = JsonValue::Object();
  document.add("os", JsonValue::String(os_));
  document.add("os_arch", JsonValue::String(osArch_));
  document.add("hostName", JsonValue::String(hostname_));
  return document;
}

}  // namespace orv
