#ifndef ORV_API_BACKUP_START_H_
#define ORV_API_BACKUP_START_H_

#include <cstdint>
#include <string>
#include <vector>

namespace orv {

// One quiesce script named in a backup request.
struct ScriptRequest {
  std::string scriptname;
  int64_t timeout = 0;  // seconds; 0 or less takes the scripts' default
};

// One volume of a backup request and where its image goes.
struct VolumeRequest {
  std::string guid;           // file-system UUID of the volume
  int64_t offset = 0;         // byte offset of the image in the LUN
  std::string qualifiedName;  // iSCSI qualified name (initiator and target name)
  std::string target;         // iSCSI portal
  int32_t lun = 0;
  std::string username;  // CHAP, empty when absent
  std::string password;
  std::vector<ScriptRequest> scripts;
};

// The body of "POST /backup": the volumes and the two strategy flags. Only the JSON
// shape is checked here; the job refuses what it cannot back up, with a reason the
// appliance can read.
class BackupStart {
 public:
  BackupStart() = default;
  virtual ~BackupStart() = default;

  // Throws JsonError (or std::runtime_error) when the body is not a start document.
  void parse(const std::string& body);

  std::vector<VolumeRequest> volumes;
  bool forceDiffMerge = false;
  bool forceCopyFull = false;
};

}  // namespace orv

#endif  // ORV_API_BACKUP_START_H_
