#include "api/all_backup_status.h"

#include <cstdio>

#include "daemon/logger.h"

namespace orv {

AllBackupStatus::AllBackupStatus(const std::string& backupId) : backupId_(backupId), startTime_(time(nullptr)) {}

AllBackupStatus::VolumeRecord* AllBackupStatus::findLocked(const std::string& uuid) {
  for (VolumeRecord& record : volumes_) {
    if (record.volume == uuid) return &record;
  }
  VolumeRecord record;
  record.volume = uuid;
  record.status = "waiting";
  volumes_.push_back(record);
  return &volumes_.back();
}

bool AllBackupStatus::setStatus(const std::string& status) {
  MutexLock lock(statusLock_);
  if (!lock.locked()) {
    LogEvent(kError, backupId_, "Could not set backup status.");
    return false;
  }
  LogEvent(kInfo, backupId_, "Set backup %s to %s.", backupId_.c_str(), status.c_str());
  if (status_ == "active") elapsedTime_ = static_cast<int64_t>(time(nullptr) - startTime_);
  status_ = status;
  return true;
}

bool AllBackupStatus::setAllFailed() {
  MutexLock status(statusLock_);
  if (!status.locked()) {
    LogEvent(kError, backupId_, "Could not set all backup status to failed. (lock status)");
    return false;
  }
  MutexLock list(listLock_);
  if (!list.locked()) {
    LogEvent(kError, backupId_, "Could not set all backup status to failed. (lock list)");
    return false;
  }
  MutexLock volume(volumeLock_);
  if (!volume.locked()) {
    LogEvent(kError, backupId_, "Could not set all backup status to failed. (lock volume)");
    return false;
  }
  if (status_ == "active") elapsedTime_ = static_cast<int64_t>(time(nullptr) - startTime_);
  status_ = "failed";
  for (VolumeRecord& record : volumes_) record.status = "failed";
  return true;
}

bool AllBackupStatus::modifyVolume(const std::string& uuid) {
  MutexLock lock(listLock_);
  if (!lock.locked()) {
    LogEvent(kError, backupId_, "Could not modify volume record in backup status.");
    return false;
  }
  findLocked(uuid);
  return true;
}

bool AllBackupStatus::setVolumeUuid(const std::string& oldUuid, const std::string& newUuid) {
  MutexLock list(listLock_);
  if (!list.locked()) {
    LogEvent(kError, backupId_, "Could not set backup volume UUID.");
    return false;
  }
  VolumeRecord* record = findLocked(oldUuid);
  MutexLock volume(volumeLock_);
  if (!volume.locked()) {
    LogEvent(kError, backupId_, "Could not set backup volume UUID.");
    return false;
  }
  record->volume = newUuid;
  return true;
}

bool AllBackupStatus::setVolumeStatus(const std::string& uuid, const std::string& status) {
  VolumeRecord* record;
  {
    MutexLock list(listLock_);
    if (!list.locked()) {
      LogEvent(kError, backupId_, "Could not set backup volume status.");
      return false;
    }
    record = findLocked(uuid);
  }
  MutexLock volume(volumeLock_);
  if (!volume.locked()) {
    LogEvent(kError, backupId_, "Could not set backup volume status.");
    return false;
  }
  LogEvent(kInfo, backupId_, "Setting backup status of volume %s to %s.", uuid.c_str(), status.c_str());
  record->status = status;
  return true;
}

bool AllBackupStatus::setVolumeType(const std::string& uuid, const std::string& type) {
  VolumeRecord* record;
  {
    MutexLock list(listLock_);
    if (!list.locked()) {
      LogEvent(kError, backupId_, "Could not set backup volume type.");
      return false;
    }
    record = findLocked(uuid);
  }
  MutexLock volume(volumeLock_);
  if (!volume.locked()) {
    LogEvent(kError, backupId_, "Could not set backup volume type.");
    return false;
  }
  LogEvent(kInfo, backupId_, "Setting backup type of volume %s to %s.", uuid.c_str(), type.c_str());
  record->type = type;
  return true;
}

namespace {

std::string BytesTransferredRow(const std::string& uuid, uint64_t bytes) {
  char text[1024];
  snprintf(text, sizeof(text), "Set backup of volume %s 'BYTES TRANSFERRED' to %lu bytes.", uuid.c_str(),
           static_cast<unsigned long>(bytes));
  return text;
}

}  // namespace

bool AllBackupStatus::setBytesTransferred(const std::string& uuid, uint64_t bytes) {
  return setBytesTransferred(uuid, std::vector<uint64_t>{bytes});
}

bool AllBackupStatus::setBytesTransferred(const std::string& uuid, const std::vector<uint64_t>& figures) {
  if (figures.empty()) return true;
  VolumeRecord* record;
  {
    MutexLock list(listLock_);
    if (!list.locked()) {
      LogEvent(kError, backupId_, "Could not set backup volume bytes transferred status.");
      return false;
    }
    record = findLocked(uuid);
  }
  // Set once a chunk: the rows are stored before the volume lock is taken, so that a
  // status document being rendered never waits for them to reach the database, and the
  // rows still come before the figure shows.
  std::vector<std::string> rows;
  rows.reserve(figures.size());
  for (uint64_t bytes : figures) rows.push_back(BytesTransferredRow(uuid, bytes));
  LogEvents(kDebug, backupId_, rows);
  MutexLock volume(volumeLock_);
  if (!volume.locked()) {
    LogEvent(kError, backupId_, "Could not set backup volume bytes transferred status.");
    return false;
  }
  record->bytesTransferred = figures.back();
  return true;
}

bool AllBackupStatus::setTotalSize(const std::string& uuid, int64_t bytes) {
  VolumeRecord* record;
  {
    MutexLock list(listLock_);
    if (!list.locked()) {
      LogEvent(kError, backupId_, "Could not set backup volume bytes total transfer size status.");
      return false;
    }
    record = findLocked(uuid);
  }
  MutexLock volume(volumeLock_);
  if (!volume.locked()) {
    LogEvent(kError, backupId_, "Could not set backup volume bytes total transfer size status.");
    return false;
  }
  LogEvent(kInfo, backupId_, "Set backup of volume %s 'TOTAL SIZE' to %ld bytes.", uuid.c_str(),
           static_cast<long>(bytes));
  LogEvent(kInfo, backupId_, "Total transfer size for this volume %ld", static_cast<long>(bytes));
  record->totalSize = bytes;
  return true;
}

bool AllBackupStatus::setError(const std::string& message, int code, const std::vector<std::string>& params) {
  MutexLock lock(statusLock_);
  if (!lock.locked()) {
    LogEvent(kError, backupId_, "Could not set backup error.");
    return false;
  }
  LogEvent(kInfo, backupId_, "Set error %s to %d.", message.c_str(), code);
  LogEvent(kError, backupId_, "Error to taloq: %d, %s", code, message.c_str());
  for (const std::string& param : params) LogEvent(kError, backupId_, "error parameter: %s", param.c_str());
  errorMessage_ = message;
  errorCode_ = code;
  errorParams_ = params;
  return true;
}

std::string AllBackupStatus::status() {
  MutexLock lock(statusLock_);
  return status_;
}

int AllBackupStatus::errorCode() {
  MutexLock lock(statusLock_);
  return errorCode_;
}

std::string AllBackupStatus::errorMessage() {
  MutexLock lock(statusLock_);
  return errorMessage_;
}

std::vector<AllBackupStatus::VolumeRecord> AllBackupStatus::volumes() {
  std::vector<VolumeRecord> copy;
  MutexLock list(listLock_);
  MutexLock volume(volumeLock_);
  copy.assign(volumes_.begin(), volumes_.end());
  return copy;
}

JsonValue AllBackupStatus::render() {
  JsonValue document = JsonValue::Object();
  {
    MutexLock lock(statusLock_);
    document.add("status", JsonValue::String(status_));
    // While the job runs, the appliance sees the time so far.
    int64_t elapsed = status_ == "active" ? static_cast<int64_t>(time(nullptr) - startTime_) : elapsedTime_;
    document.add("elapsedTime", JsonValue::Number(elapsed));
    JsonValue error = JsonValue::Object();
    error.add("errorMsg", JsonValue::String(errorMessage_));
    error.add("errorCode", JsonValue::Number(errorCode_));
    JsonValue params = JsonValue::Array();
    for (const std::string& param : errorParams_) params.push(JsonValue::String(param));
    error.add("errorParams", params);
    document.add("errorData", error);
  }
  JsonValue details = JsonValue::Array();
  for (const VolumeRecord& record : volumes()) {
    JsonValue volume = JsonValue::Object();
    volume.add("volume", JsonValue::String(record.volume));
    volume.add("status", JsonValue::String(record.status));
    volume.add("type", JsonValue::String(record.type));
    JsonValue transfer = JsonValue::Object();
    transfer.add("bytesTransferred", JsonValue::Number(record.bytesTransferred));
    transfer.add("totalSize", JsonValue::Number(record.totalSize));
    volume.add("transfer", transfer);
    details.push(volume);
  }
  document.add("details", details);
  return document;
}

}  // namespace orv
