#include "backup/backup_manager.h"

#include <unistd.h>

#include <stdexcept>

#include "backup/backup.h"
#include "daemon/logger.h"
#include "daemon/thread_priority.h"

namespace orv {

namespace {

// Guards backup creation, pruning and the thread map.
pthread_mutex_t createBackupMutex = PTHREAD_MUTEX_INITIALIZER;
// Makes concurrent waits for all threads run one at a time.
pthread_mutex_t waitMutex = PTHREAD_MUTEX_INITIALIZER;
std::map<uint64_t, Backup*> threadMap;

uint64_t ThreadKey(pthread_t thread) { return static_cast<uint64_t>(thread); }

}  // namespace

BackupManager::BackupManager() = default;

BackupManager::~BackupManager() {
  for (auto& [id, backup] : backups_) {
    LogEvent(kDebug, "", "Deleting backup: %s", id.c_str());
    backup.reset();
  }
}

Backup* BackupManager::createBackup(bool forceCopyFull, bool forceDiffMerge) {
  auto backup = std::make_unique<Backup>(forceCopyFull, forceDiffMerge);
  if (pthread_mutex_lock(&createBackupMutex) != 0) {
    LogEvent(kError, "", "Could not lock createbackup mutex");
    throw std::runtime_error("Could not lock createbackup mutex.");
  }
  std::string id = backup->id();
  Backup* created = backup.get();
  if (!backups_.emplace(id, std::move(backup)).second) {
    pthread_mutex_unlock(&createBackupMutex);
    throw std::runtime_error("Manager could not create backup.");
  }
  recentIds_.push_back(id);
  pruneLocked();
  pthread_mutex_unlock(&createBackupMutex);
  return created;
}

void BackupManager::pruneLocked() {
  while (recentIds_.size() > kKeptBackups) {
    std::string oldest = recentIds_.front();
    recentIds_.pop_front();
    auto it = backups_.find(oldest);
    // A job that still runs is never destroyed; its id merely leaves the list.
    if (it != backups_.end() && it->second->statusText() != "active") backups_.erase(it);
  }
}

Backup* BackupManager::getBackup(const std::string& id) {
  auto it = backups_.find(id);
  return it == backups_.end() ? nullptr : it->second.get();
}

bool BackupManager::cancelBackup(const std::string& id) {
  Backup* backup = getBackup(id);
  if (backup == nullptr || backup->statusText() != "active") return false;
  return backup->cancel();
}

bool BackupManager::getBackupStatus(const std::string& id, JsonValue& document) {
  Backup* backup = getBackup(id);
  if (backup == nullptr) return false;
  document = backup->status().render();
  return true;
}

std::unique_ptr<BackupIdLists> BackupManager::allBackupStatus() {
  auto lists = std::make_unique<BackupIdLists>();
  for (auto& [id, backup] : backups_) {
    std::string status = backup->statusText();
    if (status == "active") {
      lists->active.push_back(id);
    } else if (status == "failed") {
      lists->failed.push_back(id);
    } else if (status == "finished") {
      lists->finished.push_back(id);
    }
  }
  return lists;
}

void BackupManager::cancelAll() {
  for (auto& [id, backup] : backups_) backup->cancel();
  LogEvent(kInfo, "", "All backups cancelled");
}

void BackupManager::waitForAllThreads() {
  if (pthread_mutex_lock(&waitMutex) != 0) return;
  size_t count = 0;
  while (threadCount(count) && count != 0) sleep(1);
  pthread_mutex_unlock(&waitMutex);
}

bool BackupManager::addThread(pthread_t thread, Backup* backup) {
  if (pthread_mutex_lock(&createBackupMutex) != 0) {
    LogEvent(kError, "", "Could not add thread id [%lu] to backup entry.", static_cast<unsigned long>(thread));
    return false;
  }
  threadMap[ThreadKey(thread)] = backup;
  pthread_mutex_unlock(&createBackupMutex);
  return true;
}

bool BackupManager::removeThread(pthread_t thread) {
  if (pthread_mutex_lock(&createBackupMutex) != 0) {
    LogEvent(kError, "", "Could not remove thread id [%lu] from thread id to backup map.",
             static_cast<unsigned long>(thread));
    return false;
  }
  if (threadMap.erase(ThreadKey(thread)) == 0) {
    LogEvent(kWarning, "", "Remove thread id: Could not find %lu.", static_cast<unsigned long>(thread));
  }
  pthread_mutex_unlock(&createBackupMutex);
  return true;
}

Backup* BackupManager::backupForThread(pthread_t thread) {
  if (pthread_mutex_lock(&createBackupMutex) != 0) {
    LogEvent(kError, "", "Could not get backup from thread to backup map.");
    return nullptr;
  }
  auto it = threadMap.find(ThreadKey(thread));
  Backup* backup = it == threadMap.end() ? nullptr : it->second;
  pthread_mutex_unlock(&createBackupMutex);
  return backup;
}

bool BackupManager::threadCount(size_t& count) {
  if (pthread_mutex_lock(&createBackupMutex) != 0) {
    LogEvent(kError, "", "Could not get backup thread count.");
    count = 0;
    return false;
  }
  count = threadMap.size();
  pthread_mutex_unlock(&createBackupMutex);
  return true;
}

void* BackupManager::RunThread(void* argument) {
  // Named for the admin's `top -H` and the scheduler's traces: otherwise it carries the
  // name of the server thread that took the request.
  pthread_setname_np(pthread_self(), "orvd-backup");
  // Started from a server thread: the copy and its scripts run at the daemon's priority.
  RestoreProcessPriority();
  Backup* backup = static_cast<Backup*>(argument);
  if (backup == nullptr) {
    LogEvent(kError, "", "Invalid backup pointer.");
    pthread_exit(nullptr);
  }
  try {
    backup->run();
  } catch (const std::exception& e) {
    LogEvent(kError, backup != nullptr ? backup->id() : "", "Exception caught in Backup Run %s", e.what());
  }
  removeThread(pthread_self());
  pthread_exit(nullptr);
}

}  // namespace orv
