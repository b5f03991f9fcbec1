#include "sim_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>

#include "sim_error.h"
#include "status_document.h"

namespace orv::zelkosim {

namespace {

void MakeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) SimError::Raise(errno, "cannot create " + path);
}

}  // namespace

SimStore::SimStore(std::string dir) : dir_(std::move(dir)) {
  while (dir_.size() > 1 && dir_.back() == '/') dir_.pop_back();
}

SimStore SimStore::FromEnvironment(bool create) {
  const char* dir = std::getenv(kEnvironment);
  if (!dir || !*dir) throw SimError(ENODEV, "driver not loaded: ZELKO_SIM_DIR is not set");
  SimStore store(dir);
  struct stat st {};
  if (::stat(dir, &st) != 0) {
    if (!create || errno != ENOENT) {
      throw SimError(ENODEV, std::string("driver not loaded: simulator directory ") + dir + " does not exist");
    }
    for (size_t at = 0; at != std::string::npos;) {
      at = store.dir_.find('/', at + 1);
      MakeDirectory(store.dir_.substr(0, at));
    }
  } else if (!S_ISDIR(st.st_mode)) {
    throw SimError(ENODEV, std::string("driver not loaded: ") + dir + " is not a directory");
  }
  MakeDirectory(store.dir_ + "/dev");
  MakeDirectory(store.dir_ + "/images");
  return store;
}

std::string SimStore::devicePath(unsigned minor) const { return dir_ + "/dev/zelko" + std::to_string(minor); }
std::string SimStore::capturePath(unsigned minor) const {
  return dir_ + "/images/zelko" + std::to_string(minor) + ".capture";
}
std::string SimStore::baselinePath(unsigned minor) const {
  return dir_ + "/images/zelko" + std::to_string(minor) + ".baseline";
}
std::string SimStore::mapPath(unsigned minor) const { return dir_ + "/images/zelko" + std::to_string(minor) + ".map"; }

std::string SimStore::readFile(const std::string& path, bool& missing) const {
  missing = false;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT) SimError::Raise(errno, "cannot read " + path);
    missing = true;
    return "";
  }
  UniqueFd file(fd);
  std::string text;
  std::string buffer(1 << 20, '\0');
  for (off_t at = 0;;) {
    size_t n = PreadFull(file.get(), buffer.data(), buffer.size(), at, path);
    text.append(buffer.data(), n);
    at += static_cast<off_t>(n);
    if (n < buffer.size()) break;
  }
  return text;
}

SimState SimStore::load() const {
  bool missing = false;
  std::string text = readFile(statePath(), missing);
  if (missing) return SimState();
  try {
    return SimState::Parse(text);
  } catch (const SimError& e) {
    throw SimError(e.err(), statePath() + ": " + e.what());
  }
}

void SimStore::save(const SimState& state) const {
  writeAtomically(statePath(), state.Format());
  if (state.loaded) {
    writeAtomically(infoPath(), StatusDocument::Render(state));
  } else if (::unlink(infoPath().c_str()) != 0 && errno != ENOENT) {
    SimError::Raise(errno, "cannot remove " + infoPath());
  }
}

void SimStore::writeAtomically(const std::string& path, const std::string& text) const {
  std::string temporary = path + ".tmp" + std::to_string(::getpid());
  {
    UniqueFd fd = UniqueFd::Open(temporary, O_WRONLY | O_CREAT | O_TRUNC, "file", 0644);
    PwriteFull(fd.get(), text.data(), text.size(), 0, temporary);
    if (::fsync(fd.get()) != 0) SimError::Raise(errno, "cannot sync " + temporary);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    int err = errno;
    ::unlink(temporary.c_str());
    SimError::Raise(err, "cannot replace " + path);
  }
}

void SimStore::log(const std::string& line) const {
  int fd = ::open(logPath().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return;
  UniqueFd file(fd);
  auto now = std::chrono::system_clock::now();
  std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  ::localtime_r(&seconds, &local);
  char stamp[64];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  char fraction[8];
  std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(millis));
  std::string text = std::string(stamp) + fraction + " [" + std::to_string(::getpid()) + "] " + line + "\n";
  // One write per line keeps lines of concurrent processes whole (O_APPEND).
  if (::write(file.get(), text.data(), text.size()) < 0) return;
}

SimLock::SimLock(const SimStore& store) {
  fd_ = UniqueFd::Open(store.dir() + "/lock", O_RDWR | O_CREAT, "the simulator lock", 0644);
  while (::flock(fd_.get(), LOCK_EX) != 0) {
    if (errno != EINTR) SimError::Raise(errno, "cannot lock " + store.dir() + "/lock");
  }
}

SimLock::~SimLock() {
  if (fd_.valid()) ::flock(fd_.get(), LOCK_UN);
}

}  // namespace orv::zelkosim
