#ifndef ORV_API_AGENT_API_H_
#define ORV_API_AGENT_API_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace orv {

class BackupManager;
class HttpServer;

// The router of the REST interface and the paired-device check. Called by the HTTPS
// server on each request's connection thread, after the TLS session named the caller's
// device id. "/basichost" and "/pair" are open to any caller whose certificate passed
// the session check; everything else needs the paired device.
class AgentAPI {
 public:
  // Bodies checked as JSON are at most this long; a longer one is refused unread.
  static constexpr size_t kMaxJsonBody = 33554432;

  enum class Route {
    kBasicHost,
    kPair,
    kHost,
    kBackupStart,
    kBackupStatusAll,
    kBackupStatus,
    kBackupCancel,
    kEvent,
    kConfigGet,
    kConfigSet,
    kBadRequest,
  };

  struct RouteEntry {
    const char* method;
    const char* url;
    bool prefix;  // the URL only has to start with `url`
    bool open;    // no pairing needed
    const char* contentType;
    bool clearsCache;
    Route route;
  };

  // `manager` runs the backups; without one (unit tests of the router) the backup
  // routes are answered as bad requests.
  explicit AgentAPI(BackupManager* manager);
  virtual ~AgentAPI() = default;
  AgentAPI(const AgentAPI&) = delete;
  AgentAPI& operator=(const AgentAPI&) = delete;

  // The server whose restart a configuration write arms; null for none.
  void setServer(HttpServer* server) { server_ = server; }

  // Routes one request: fills the content type and the response body, returns the
  // HTTP status. Never throws.
  int route(uint32_t deviceId, const std::string& method, const std::string& url,
            const std::map<std::string, std::string>& args, const std::string& body, std::string* contentType,
            std::string* response);

  // True when `deviceId` is the paired device. The paired id is cached until the next
  // clearCache(), so that status polls cost no database read.
  bool isAuthorized(uint32_t deviceId);
  void clearCache();

  // The first entry of the route table that matches, or the bad-request entry.
  static const RouteEntry& Match(const std::string& method, const std::string& url);
  // The JSON body check of the pair, backup start and configuration write handlers:
  // at most kMaxJsonBody bytes and valid JSON as sent or once stripped of blanks.
  static bool CheckJsonBody(const std::string& body);

 private:
  int badRequest(std::string* contentType, std::string* response);
  int pair(const std::string& body);
  int getLogs(const std::map<std::string, std::string>& args, std::string* response);
  int getConfig(std::string* response);
  int setConfig(const std::string& body);
  int basicHost(std::string* response);
  int host(std::string* response);
  int backupStart(const std::string& body, std::string* response);
  int backupStatus(const std::string& id, bool all, std::string* response);
  int backupCancel(const std::string& id, std::string* response);

  BackupManager* manager_;
  HttpServer* server_ = nullptr;
  // Read and written by concurrent requests without a lock: a race costs at most one
  // more database read.
  std::atomic<bool> cached_{false};
  std::atomic<int32_t> pairedId_{0};
};

}  // namespace orv

#endif  // ORV_API_AGENT_API_H_
