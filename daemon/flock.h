#ifndef ORV_DAEMON_FLOCK_H_
#define ORV_DAEMON_FLOCK_H_

#include <string>

namespace orv {

// Holds an exclusive, non-blocking flock on the PID file for the life of the daemon so
// that only one instance runs. A crashed instance's lock dies with it, so a stale file
// is simply taken over.
class Flock {
 public:
  // Opens and locks; throws std::runtime_error ("Unable to lock file", "File already
  // locked", "Unknown lock failure"). Callers tell a running instance by errno EAGAIN.
  explicit Flock(const std::string& path);
  virtual ~Flock();
  Flock(const Flock&) = delete;
  Flock& operator=(const Flock&) = delete;

  // Truncates the file and writes the process id (no newline).
  void writePid();

 private:
  std::string path_;
  int fd_;
};

}  // namespace orv

#endif  // ORV_DAEMON_FLOCK_H_
