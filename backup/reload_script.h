#ifndef ORV_BACKUP_RELOAD_SCRIPT_H_
#define ORV_BACKUP_RELOAD_SCRIPT_H_

#include <functional>
#include <string>

namespace orv {

// The scripts that re-attach the driver's incremental trackers after a reboot, one per
// tracked minor: <etc>/reload_<minor>, mode 0700.
class ReloadScript {
 public:
  static std::string Path(int minor);
  // The script's text for a volume tracked in `cowFile` as `minor`.
  static std::string Text(int minor, const std::string& uuid, const std::string& cowFile);
  // 0 or an errno value.
  static int Write(int minor, const std::string& uuid, const std::string& cowFile);
  static int Delete(int minor);
  // Removes every reload script whose minor the driver no longer tracks
  // incrementally; returns how many were removed.
  static int RemoveStray(const std::function<bool(int minor)>& tracksIncrementally, const std::string& backupId);
};

}  // namespace orv

#endif  // ORV_BACKUP_RELOAD_SCRIPT_H_
