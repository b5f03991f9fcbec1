#ifndef ORV_BACKUP_BACKUP_MANAGER_H_
#define ORV_BACKUP_BACKUP_MANAGER_H_

#include <pthread.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "api/json_value.h"

namespace orv {

class Backup;

// Ids of the known backups by their status text.
struct BackupIdLists {
  std::vector<std::string> active;
  std::vector<std::string> failed;
  std::vector<std::string> finished;
};

// The registry of backup jobs: the REST handlers create, find, watch and cancel them;
// shutdown cancels all and waits for their threads. Beside it a process-wide map from
// run-thread id to job lets a running thread find its own job (the signal handler does).
class BackupManager {
 public:
  static constexpr size_t kKeptBackups = 5;

  BackupManager();
  virtual ~BackupManager();
  BackupManager(const BackupManager&) = delete;
  BackupManager& operator=(const BackupManager&) = delete;

  // Registers a new job; throws std::runtime_error when it cannot.
  Backup* createBackup(bool forceCopyFull, bool forceDiffMerge);
  Backup* getBackup(const std::string& id);
  bool cancelBackup(const std::string& id);
  // The job's status document, or false when the id is unknown.
  bool getBackupStatus(const std::string& id, JsonValue& document);
  std::unique_ptr<BackupIdLists> allBackupStatus();
  void cancelAll();
  void waitForAllThreads();

  // The thread map, shared by every manager of the process.
  static bool addThread(pthread_t thread, Backup* backup);
  static bool removeThread(pthread_t thread);
  static Backup* backupForThread(pthread_t thread);
  // False when the count could not be read.
  static bool threadCount(size_t& count);
  // Runs a job on its own thread: the function handed to pthread_create.
  static void* RunThread(void* backup);

 private:
  void pruneLocked();

  std::map<std::string, std::unique_ptr<Backup>> backups_;
  std::list<std::string> recentIds_;
};

}  // namespace orv

#endif  // ORV_BACKUP_BACKUP_MANAGER_H_
