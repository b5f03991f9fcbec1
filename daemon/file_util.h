#ifndef ORV_DAEMON_FILE_UTIL_H_
#define ORV_DAEMON_FILE_UTIL_H_

#include <string>

namespace orv {

// Reads a whole file into `text`; failures are logged to syslog and return false.
bool ReadWholeFile(const std::string& path, std::string& text);
// Replaces the file's content with `text`; returns 0 or an errno value.
int WriteWholeFile(const std::string& path, const std::string& text);

}  // namespace orv

#endif  // ORV_DAEMON_FILE_UTIL_H_
