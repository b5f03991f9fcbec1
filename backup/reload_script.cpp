#include "backup/reload_script.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "daemon/logger.h"
#include "daemon/paths.h"
#include "daemon/unique_fd.h"

namespace orv {

std::string ReloadScript::Path(int minor) { return Paths::EtcDir() + "/reload_" + std::to_string(minor); }

std::string ReloadScript::Text(int minor, const std::string& uuid, const std::string& cowFile) {
  std::string text = "#!/bin/sh\n\n";
  text += "echo \"Reloading incremental - " + std::to_string(minor) + " ...\" > /dev/kmsg\n";
  // The tool's path follows the installation (tests relocate it); the text keeps the
  // production path otherwise.
  std::string command = "/usr/bin/zbdctl reload-incremental ";
  command.replace(0, strlen(Paths::kDefaultZbdctl), Paths::Zbdctl());
  text += command + "/dev/disk/by-uuid/" + uuid + " " + cowFile + " " + std::to_string(minor) + "\n";
  return text;
}

int ReloadScript::Write(int minor, const std::string& uuid, const std::string& cowFile) {
  std::string path = Path(minor);
  std::string text = Text(minor, uuid, cowFile);
  // Written beside it and renamed into place: a full disk or a crash must not leave a
  // cut script (a cut minor or COW path) for the next boot to run. The dot keeps the
  // file out of the stray-script sweep, which looks for "reload_" names.
  std::string staged = Paths::EtcDir() + "/.reload_" + std::to_string(minor) + ".new";
  int error = 0;
  {
    UniqueFd fd(open(staged.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0700));
    if (!fd.valid()) return errno;
    if (fchmod(fd.get(), 0700) != 0) error = errno;
    size_t done = 0;
    while (error == 0 && done < text.size()) {
      ssize_t n = write(fd.get(), text.data() + done, text.size() - done);
      if (n < 0) {
        if (errno != EINTR) error = errno;
        continue;
      }
      done += static_cast<size_t>(n);
    }
    if (error == 0 && fsync(fd.get()) != 0) error = errno;
    if (close(fd.release()) != 0 && error == 0) error = errno;
  }
  if (error == 0 && rename(staged.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) unlink(staged.c_str());
  return error;
}

int ReloadScript::Delete(int minor) {
  if (unlink(Path(minor).c_str()) != 0 && errno != ENOENT) return errno;
  return 0;
}

int ReloadScript::RemoveStray(const std::function<bool(int minor)>& tracksIncrementally,
                              const std::string& backupId) {
  std::string directory = Paths::EtcDir();
  DIR* dir = opendir(directory.c_str());
  if (dir == nullptr) {
    LogEvent(kWarning, backupId, "Could not open configuration directory.");
    return 0;
  }
  std::vector<std::string> scripts;
  while (struct dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name == "." || name.rfind("reload_", 0) != 0) continue;
    std::string path = directory + "/" + name;
    struct stat info;
    if (stat(path.c_str(), &info) != 0) {
      LogEvent(kWarning, backupId, "Could not stat reload script %s.", path.c_str());
      continue;
    }
    if (S_ISREG(info.st_mode) && (info.st_mode & S_IXUSR)) scripts.push_back(name);
  }
  closedir(dir);

  int removed = 0;
  for (const std::string& name : scripts) {
    // A script is kept only while the driver still tracks its minor incrementally
    // (active or dormant after a reboot): that is what the script re-attaches.
    const char* digits = name.c_str() + strlen("reload_");
    char* end = nullptr;
    long minor = strtol(digits, &end, 10);
    bool numbered = *digits != '\0' && end != nullptr && *end == '\0' && minor >= 0 && minor <= 255;
    if (numbered && tracksIncrementally(static_cast<int>(minor))) continue;
    std::string path = directory + "/" + name;
    LogEvent(kInfo, backupId, "Removing stray reload script: %s.", path.c_str());
    if (unlink(path.c_str()) == 0) ++removed;
  }
  return removed;
}

}  // namespace orv
