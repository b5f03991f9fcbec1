#include "api/agent_api.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>

#include "api/backup_cancel.h"
#include "api/backup_start.h"
#include "api/basic_host.h"
#include "api/config_get.h"
#include "api/config_set.h"
#include "api/get_logs.h"
#include "api/host.h"
#include "api/http_server.h"
#include "api/json_value.h"
#include "api/pair.h"
#include "backup/backup.h"
#include "backup/backup_manager.h"
#include "daemon/logger.h"
#include "store/config_table.h"

namespace orv {

namespace {

constexpr const char* kJson = "application/json";
constexpr const char* kText = "text/plain";

// Matched top to bottom; the first match wins. The open routes come first, so checking
// the pairing after matching refuses exactly what the table says.
constexpr AgentAPI::RouteEntry kRoutes[] = {
    {"GET", "/basichost", false, true, kJson, true, AgentAPI::Route::kBasicHost},
    {"POST", "/pair", false, true, kText, true, AgentAPI::Route::kPair},
    {"GET", "/host", false, false, kJson, true, AgentAPI::Route::kHost},
    {"POST", "/backup", false, false, kText, true, AgentAPI::Route::kBackupStart},
    {"GET", "/backup", false, false, kJson, false, AgentAPI::Route::kBackupStatusAll},
    {"GET", "/backup/", true, false, kJson, false, AgentAPI::Route::kBackupStatus},
    {"DELETE", "/backup/", true, false, kJson, true, AgentAPI::Route::kBackupCancel},
    {"GET", "/event", true, false, kJson, true, AgentAPI::Route::kEvent},
    {"GET", "/config", true, false, kJson, true, AgentAPI::Route::kConfigGet},
    {"POST", "/config", true, false, kText, true, AgentAPI::Route::kConfigSet},
};
constexpr AgentAPI::RouteEntry kBadRequestRoute = {"", "", true, false, kText, false, AgentAPI::Route::kBadRequest};

bool Matches(const AgentAPI::RouteEntry& entry, const std::string& method, const std::string& url) {
  if (method != entry.method) return false;
  if (entry.prefix) return url.compare(0, strlen(entry.url), entry.url) == 0;
  return url == entry.url;
}

std::string Argument(const std::map<std::string, std::string>& args, const char* key, const char* fallback) {
  auto it = args.find(key);
  return it == args.end() ? std::string(fallback) : it->second;
}

}  // namespace

AgentAPI::AgentAPI(BackupManager* manager) : manager_(manager) {}

const AgentAPI::RouteEntry& AgentAPI::Match(const std::string& method, const std::string& url) {
  for (const RouteEntry& entry : kRoutes) {
    if (Matches(entry, method, url)) return entry;
  }
  return kBadRequestRoute;
}

bool AgentAPI::CheckJsonBody(const std::string& body) {
  if (body.size() <= kMaxJsonBody && (JsonValue::Validate(body) || JsonValue::Validate(JsonValue::Strip(body)))) {
    return true;
  }
  LogEvent(kWarning, "", "Invalid JSON: %s", body.c_str());
  return false;
}

void AgentAPI::clearCache() {
  cached_ = false;
  pairedId_ = 0;
}

bool AgentAPI::isAuthorized(uint32_t deviceId) {
  int32_t paired;
  if (cached_) {
    paired = pairedId_;
    LogEvent(kDebug, "", "in isauthorized using cached value %d.", paired);
  } else {
    LogEvent(kDebug, "", "in isauthorized calling select.");
    int id = 0;
    if (!get_device_id(&id)) return false;
    LogEvent(kDebug, "", "select returned true.");
    paired = id;
    pairedId_ = id;
    cached_ = true;
  }
  if (paired < 1) return false;
  if (static_cast<uint32_t>(paired) == deviceId) return true;
  LogEvent(kWarning, "", "Unauthorized device id: %d", static_cast<int>(deviceId));
  return false;
}

int AgentAPI::route(uint32_t deviceId, const std::string& method, const std::string& url,
                    const std::map<std::string, std::string>& args, const std::string& body, std::string* contentType,
                    std::string* response) {
  LogEvent(kInfo, "", "Request from device id: %d", static_cast<int>(deviceId));
  LogEvent(kInfo, "", "\tMethod: %s", method.c_str());
  LogEvent(kInfo, "", "\tUrl: %s", url.c_str());
  contentType->clear();
  response->clear();

  const RouteEntry& entry = Match(method, url);
  if (!entry.open && !isAuthorized(deviceId)) {
    LogEvent(kInfo, "", "401 - Unauthorized");
    return 401;
  }
  // Sets the route's content type and, where the table says so, makes the next
  // authorisation read the pairing afresh.
  auto enter = [&]() {
    *contentType = entry.contentType;
    if (entry.clearsCache) clearCache();
  };
  switch (entry.route) {
    case Route::kPair:
      enter();
      return pair(body);
    case Route::kEvent:
      enter();
      return getLogs(args, response);
    case Route::kConfigGet:
      enter();
      return getConfig(response);
    case Route::kConfigSet: {
      enter();
      int status = setConfig(body);
      if (status == 200 && server_ != nullptr) server_->scheduleRestart();
      return status;
    }
    case Route::kBasicHost:
      enter();
      return basicHost(response);
    case Route::kHost:
      enter();
      return host(response);
    case Route::kBackupStart:
      if (manager_ == nullptr) break;
      enter();
      return backupStart(body, response);
    case Route::kBackupStatusAll:
      if (manager_ == nullptr) break;
      enter();
      return backupStatus("", true, response);
    case Route::kBackupStatus:
      if (manager_ == nullptr) break;
      enter();
      return backupStatus(url.substr(strlen("/backup/")), false, response);
    case Route::kBackupCancel:
      if (manager_ == nullptr) break;
      enter();
      return backupCancel(url.substr(strlen("/backup/")), response);
    case Route::kBadRequest:
      break;
  }
  return badRequest(contentType, response);
}

int AgentAPI::badRequest(std::string* contentType, std::string* response) {
  *contentType = kText;
  *response = "Bad request.";
  LogEvent(kInfo, "", "400 - Bad request");
  return 400;
}

int AgentAPI::pair(const std::string& body) {
  try {
    if (!CheckJsonBody(body)) return 400;
    Pair request;
    if (!request.parse(body)) return 400;
    request.save();
    return 201;
  } catch (const std::exception& e) {
    LogEvent(kError, "", "Pair handler exception: %s", e.what());
    return 500;
  }
}

int AgentAPI::getLogs(const std::map<std::string, std::string>& args, std::string* response) {
  try {
    int severity = static_cast<int>(strtol(Argument(args, "severity", "3").c_str(), nullptr, 10));
    int lines = static_cast<int>(strtol(Argument(args, "lines", "0").c_str(), nullptr, 10));
    std::string backupId = Argument(args, "backupid", "");
    std::string after = Argument(args, "dttmafter", "");
    LogEvent(kInfo, "", "Get logs request. Level %d", severity);
    GetLogs logs(severity, lines, backupId, after);
    logs.load();
    *response = logs.render().WriteFormatted();
    return 200;
  } catch (const std::exception& e) {
    LogEvent(kError, "", "Get logs handler exception: %s", e.what());
    return 500;
  }
}

int AgentAPI::getConfig(std::string* response) {
  try {
    LogEvent(kInfo, "", "Get configurations request.");
    ConfigGet config;
    config.load();
    *response = config.render().WriteFormatted();
    return 200;
  } catch (const std::exception& e) {
    // The configuration read reports its failures with the logs handler's line.
    LogEvent(kError, "", "Get logs handler exception: %s", e.what());
    return 500;
  }
}

int AgentAPI::setConfig(const std::string& body) {
  try {
    LogEvent(kInfo, "", "Set configurations request.");
    if (!CheckJsonBody(body)) return 400;
    ConfigSet config;
    if (!config.parse(body)) return 400;
    config.save();
    return 200;
  } catch (const std::exception& e) {
    LogEvent(kError, "", "Set configs handler exception: %s", e.what());
    return 500;
  }
}

}  // namespace orv

namespace orv {

int AgentAPI::basicHost(std::string* response) {
  try {
    LogEvent(kInfo, "", "Basic host request.");
    *response = BasicHost::Build().WriteFormatted();
    return 200;
  } catch (const std::exception& e) {
    LogEvent(kError, "", "Basic host handler exception: %s", e.what());
    return 500;
  }
}

int AgentAPI::host(std::string* response) {
  try {
    LogEvent(kInfo, "", "Host request.");
    *response = Host::Build().WriteFormatted();
    return 200;
  } catch (const std::exception& e) {
    LogEvent(kError, "", "Host handler exception: %s", e.what());
    return 500;
  }
}

int AgentAPI::backupStart(const std::string& body, std::string* response) {
  try {
    LogEvent(kInfo, "", "Backup request.");
    if (!CheckJsonBody(body)) return 400;
    BackupStart request;
    try {
      request.parse(body);
    } catch (const std::exception& e) {
      LogEvent(kWarning, "", "Invalid JSON: %s", body.c_str());
      return 400;
    }
    size_t count = 0;
    if (!BackupManager::threadCount(count)) {
      *response = "Internal server error.";
      return 500;
    }
    if (count != 0) {
      *response = "A backup is currently in progress.";
      return 400;
    }
    for (const VolumeRequest& volume : request.volumes) {
      LogEvent(kInfo, "", "Adding volume to backup:");
      LogEvent(kInfo, "", "\tUUID: %s", volume.guid.c_str());
      LogEvent(kInfo, "", "\tQNAME: %s", volume.qualifiedName.c_str());
      LogEvent(kInfo, "", "\tTARGET: %s", volume.target.c_str());
      LogEvent(kInfo, "", "\tLUN: %d", volume.lun);
    }
    Backup* backup = manager_->createBackup(request.forceCopyFull, request.forceDiffMerge);
    for (const VolumeRequest& volume : request.volumes) backup->addVolume(volume);
    if (!backup->start()) {
      backup->status().setAllFailed();
      *response = "Internal server error.";
      return 500;
    }
    // The appliance polls the job by this id.
    *response = backup->id();
    return 201;
  } catch (const std::exception& e) {
    LogEvent(kError, "", "Backup handler exception: %s", e.what());
    return 500;
  }
}

int AgentAPI::backupStatus(const std::string& id, bool all, std::string* response) {
  try {
    if (all) {
      LogEvent(kInfo, "", "Backup status request. All.");
      std::unique_ptr<BackupIdLists> lists = manager_->allBackupStatus();
      JsonValue document = JsonValue::Object();
      JsonValue backups = JsonValue::Array();
      auto addList = [&](const char* name, const std::vector<std::string>& ids) {
        JsonValue list = JsonValue::Array();
        for (const std::string& backupId : ids) {
          list.push(JsonValue::String(backupId));
          JsonValue status;
          if (manager_->getBackupStatus(backupId, status)) {
            JsonValue entry = JsonValue::Object();
            entry.add("backupId", JsonValue::String(backupId));
            for (const JsonValue& member : status.children()) entry.add(member.name(), member);
            backups.push(entry);
          }
        }
        document.add(name, list);
      };
      addList("active", lists->active);
      addList("failed", lists->failed);
      addList("finished", lists->finished);
      document.add("backups", backups);
      *response = document.WriteFormatted();
      return 200;
    }
    LogEvent(kInfo, "", "Backup status request. Backup %s", id.c_str());
    JsonValue status;
    if (!manager_->getBackupStatus(id, status)) throw std::runtime_error("Could not retrieve backup status.");
    *response = status.WriteFormatted();
    return 200;
  } catch (const std::exception& e) {
    LogEvent(kError, "", "Backup status handler exception: %s\n", e.what());
    return 500;
  }
}

int AgentAPI::backupCancel(const std::string& id, std::string* response) {
  try {
    LogEvent(kInfo, "", "Backup cancel request. Backup id %s.", id.c_str());
    *response = BackupCancel(manager_->cancelBackup(id)).render().WriteFormatted();
    return 200;
  } catch (const std::exception& e) {
    LogEvent(kError, "", "Backup cancel handler exception: %s", e.what());
    return 500;
  }
}

}  // namespace orv
