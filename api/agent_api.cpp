#include "api/agent_api.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "api/config_get.h"
#include "api/config_set.h"
#include "api/get_logs.h"
#include "api/http_server.h"
#include "api/json_value.h"
#include "api/pair.h"
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
    default:
      // The host inventory and the backup routes keep their place in the table and are
      // answered as bad requests until their handlers are part of the agent.
      return badRequest(contentType, response);
  }
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
