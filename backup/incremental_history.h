#ifndef ORV_BACKUP_INCREMENTAL_HISTORY_H_
#define ORV_BACKUP_INCREMENTAL_HISTORY_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace orv {

// The per-volume incremental history ".zelko.inc": the change maps of retired COW
// files ORed together, laid out exactly like a COW file (4096-byte header, then one
// u64 per 4096-byte block). Because the COW file name alternates between backups, this
// is what carries changes across a snapshot that was made but never copied
// incrementally. Also the history flags that tell whether incremental copies can be
// trusted.
class IncrementalHistory {
 public:
  static constexpr size_t kHeaderBytes = 4096;
  static constexpr const char* kFileName = ".zelko.inc";

  IncrementalHistory(const std::string& mountPoint, const std::string& deviceUuid, const std::string& backupId);
  virtual ~IncrementalHistory() = default;

  std::string path() const;

  // ORs the retired COW file's change map into the history file (creating it with the
  // COW header); 0 or an error number.
  int merge_incremental_history(const std::string& retiredCowPath);
  // Deletes the history file (a missing file is success); 0 or an error number.
  int remove_incremental_history();

  // Copies the COW file's 4096-byte header to the history file; 0, -1 for a COW file
  // without a header, or errno.
  int copyHeader(int cowFd, int historyFd, const std::string& cowPath);
  // ORs the history words that cover `bytes` bytes of map at file offset `offset` into
  // `map`; 0 or an error number. A shorter history cannot say what changed there, so
  // it is an error (EIO when the read itself reported none).
  int overlay(uint64_t* map, size_t bytes, off_t offset, int historyFd);
  // The same, reading the history's words into `scratch` (room for `bytes` rounded up to
  // whole words) instead of a buffer of its own: a copy overlays every piece of the map.
  int overlay(uint64_t* map, size_t bytes, off_t offset, int historyFd, uint64_t* scratch);
  // 0 when the history holds at least `end` bytes; otherwise what overlaying the map up
  // to `end` would report: EIO (or the error of looking), logged as that overlay does.
  int overlayReaches(off_t end, int historyFd);

  // The latest "incremental_ok" / "incremental_history" records of the volume.
  bool incrementalOk();
  bool incrementalHistoryExists();
  void setIncrementalOk(bool ok = true);

 private:
  std::string mountPoint_;
  std::string deviceUuid_;
  std::string backupId_;
};

}  // namespace orv

#endif  // ORV_BACKUP_INCREMENTAL_HISTORY_H_
