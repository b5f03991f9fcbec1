#include "api/http_server.h"

#include <gnutls/gnutls.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <system_error>

#include "api/agent_api.h"
#include "api/cert_utils.h"
#include "daemon/file_util.h"
#include "daemon/logger.h"
#include "daemon/paths.h"
#include "daemon/thread_priority.h"
#include "store/configs.h"

namespace orv {

namespace {

// The signal that carries the restart timer's expiry to the server's timer thread. It
// is blocked in that thread, which takes it with sigwaitinfo, and is sent to no other.
int RestartSignal() { return SIGRTMIN + 3; }

// GnuTLS priorities of every session: the library's defaults, TLS 1.2 and 1.3 only.
constexpr const char* kTlsPriorities = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

// The name the kernel's and newer C libraries' headers give the target thread's id.
#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

struct ResponseRelease {
  void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using ResponsePtr = std::unique_ptr<MHD_Response, ResponseRelease>;

MHD_Result CollectArgument(void* cls, MHD_ValueKind kind, const char* key, const char* value) {
  (void)kind;
  auto* args = static_cast<std::map<std::string, std::string>*>(cls);
  if (key != nullptr) args->emplace(key, value != nullptr ? value : "");
  return MHD_YES;
}

}  // namespace

HttpServer::HttpServer(AgentAPI* api) : api_(api) {
  // The thread starts with the signal blocked (it inherits this mask), so an expiry can
  // never reach it before it waits, nor take its default action.
  sigset_t only;
  sigset_t previous;
  sigemptyset(&only);
  sigaddset(&only, RestartSignal());
  pthread_sigmask(SIG_BLOCK, &only, &previous);
  std::promise<pid_t> threadId;
  std::future<pid_t> knownThreadId = threadId.get_future();
  int error = 0;
  try {
    timerThread_ = std::thread([this, &threadId] {
      threadId.set_value(gettid());
      timerLoop();
    });
  } catch (const std::system_error& e) {
    error = e.code().value();
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (error == 0) {
    struct sigevent event = {};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = RestartSignal();
    event.sigev_value.sival_ptr = this;
    event.sigev_notify_thread_id = knownThreadId.get();
    if (timer_create(CLOCK_REALTIME, &event, &restartTimer_) == 0) {
      timerCreated_ = true;
    } else {
      error = errno;
    }
  }
  if (!timerCreated_) LogEvent(kError, "", "Error: Restart timer create - %d", error);
  if (api_ != nullptr) api_->setServer(this);
}

HttpServer::~HttpServer() {
  closing_ = true;
  if (timerCreated_ && timer_delete(restartTimer_) != 0) {
    LogEvent(kWarning, "", "Error: Restart timer delete - %d", errno);
  }
  if (timerThread_.joinable()) {
    // Wakes the thread, which sees the closing flag; a restart it is running ends first.
    pthread_kill(timerThread_.native_handle(), RestartSignal());
    timerThread_.join();
  }
  std::lock_guard<std::mutex> lock(lifecycle_);
  stopLocked();
  // Only now that no connection thread is left may the router forget the server.
  if (api_ != nullptr) api_->setServer(nullptr);
}

bool HttpServer::start() {
  std::lock_guard<std::mutex> lock(lifecycle_);
  stopped_ = false;
  return startLocked();
}

void HttpServer::stop() {
  if (timerCreated_) {
    struct itimerspec disarm = {};
    timer_settime(restartTimer_, 0, &disarm, nullptr);
  }
  std::lock_guard<std::mutex> lock(lifecycle_);
  // A restart whose timer fired just before the disarm must not bring back a server
  // that was stopped on purpose.
  stopped_ = true;
  stopLocked();
}

bool HttpServer::running() {
  std::lock_guard<std::mutex> lock(lifecycle_);
  return daemon_ != nullptr;
}

uint16_t HttpServer::port() {
  std::lock_guard<std::mutex> lock(lifecycle_);
  return port_;
}

bool HttpServer::startLocked() {
  port_ = kDefaultPort;
  usingDefaultPort_ = true;
  std::string keyPath = Paths::CertDir() + "/server.key";
  std::string certPath = Paths::CertDir() + "/server.pem";
  std::string trustPath = Paths::CertDir() + "/ca.crt";

  Configs configs;
  std::string configured;
  if (configs.get("rest_port", configured)) {
    int value = static_cast<int>(strtol(configured.c_str(), nullptr, 10));
    if (!configured.empty() && value > 0 && value < 65536) {
      port_ = static_cast<uint16_t>(value);
      usingDefaultPort_ = false;
      LogEvent(kInfo, "", "Setting server port to configuration: %s", configured.c_str());
    } else {
      configs.set("rest_port", "25567");
      LogEvent(kWarning, "", "Invalid port configuration - using default.");
    }
  } else {
    LogEvent(kInfo, "", "Port configuration not set - using default.");
  }

  if (!ReadWholeFile(keyPath, key_)) {
    LogEvent(kCritical, "", "%s",
             Paths::Relocate("Could not start Zelko Linux Agent. Certificate key (server.key) not found in /etc/zelko/orv/certs.\n")
                 .c_str());
    return false;
  }
  if (!ReadWholeFile(certPath, cert_)) {
    LogEvent(kCritical, "", "%s",
             Paths::Relocate("Could not start Zelko Linux Agent. PEM format certificate (server.pem) not found in /etc/zelko/orv/certs.\n")
                 .c_str());
    return false;
  }
  if (!ReadWholeFile(trustPath, trust_)) {
    LogEvent(kCritical, "", "%s",
             Paths::Relocate("Could not start Zelko Linux Agent. Authority certificate (ca.crt) not found in /etc/zelko/orv/certs.\n")
                 .c_str());
    return false;
  }

  // Only the library release 0.9.34 gets the short timeout; the exact match is kept.
  unsigned int timeout = strcmp(MHD_get_version(), "0.9.34") == 0 ? 30 : 120;
  // With a trust list the library asks each caller for its certificate; the session
  // check of every request then decides. The library's default priorities still
  // accept TLS 1.0 and 1.1, which no appliance needs: only 1.2 and 1.3 are offered.
  // The listener and its connection threads start from here and keep this priority.
  ScopedServerPriority priority;
  daemon_ = MHD_start_daemon(MHD_USE_TLS | MHD_USE_THREAD_PER_CONNECTION, port_, nullptr, nullptr,
                             &HttpServer::AccessHandler, this,
                             MHD_OPTION_NOTIFY_COMPLETED, &HttpServer::RequestCompleted, nullptr,
                             MHD_OPTION_HTTPS_MEM_KEY, key_.c_str(),
                             MHD_OPTION_HTTPS_MEM_CERT, cert_.c_str(),
                             MHD_OPTION_HTTPS_MEM_TRUST, trust_.c_str(),
                             MHD_OPTION_HTTPS_CRED_TYPE, GNUTLS_CRD_CERTIFICATE,
                             MHD_OPTION_CONNECTION_TIMEOUT, timeout,
                             MHD_OPTION_HTTPS_PRIORITIES, kTlsPriorities,
                             MHD_OPTION_END);
  if (daemon_ == nullptr) {
    LogEvent(kCritical, "", "Api server failed to start: %d", errno);
    return false;
  }
  return true;
}

void HttpServer::stopLocked() {
  if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
  daemon_ = nullptr;
}

bool HttpServer::scheduleRestart() {
  if (closing_) return false;
  struct itimerspec when = {};
  when.it_value.tv_sec = 5;
  if (!timerCreated_ || timer_settime(restartTimer_, 0, &when, nullptr) != 0) {
    LogEvent(kError, "", "Error: Restart timer set - %d", timerCreated_ ? errno : EINVAL);
    return false;
  }
  LogEvent(kInfo, "", "Http server restart in 5 secs...");
  return true;
}

void HttpServer::restart(bool retry) {
  std::lock_guard<std::mutex> lock(lifecycle_);
  if (closing_ || stopped_) return;
  stopLocked();
  bool started = startLocked();
  if (started) return;
  // A configured port that can't be served is given up, so that the next attempt
  // listens on the default.
  if (!usingDefaultPort_) Configs().set("rest_port", "25567");
  if (retry) {
    LogEvent(kWarning, "", "Could not restart api server. Trying again in 5 seconds...");
    scheduleRestart();
  }
}

void HttpServer::timerLoop() {
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, RestartSignal());
  while (!closing_) {
    siginfo_t info;
    if (sigwaitinfo(&only, &info) < 0) continue;  // EINTR: a handled signal came in between
    if (closing_) break;
    // Only an expiry of this server's timer restarts; the destructor's wake-up does not.
    if (info.si_code == SI_TIMER && info.si_value.sival_ptr == this) restart(true);
  }
}

void HttpServer::RequestCompleted(void* cls, MHD_Connection* connection, void** context,
                                  MHD_RequestTerminationCode toe) {
  (void)cls;
  (void)connection;
  (void)toe;
  if (context == nullptr) return;
  delete static_cast<RequestContext*>(*context);
  *context = nullptr;
}

MHD_Result HttpServer::AccessHandler(void* cls, MHD_Connection* connection, const char* url, const char* method,
                                     const char* version, const char* uploadData, size_t* uploadDataSize,
                                     void** context) {
  (void)version;
  return static_cast<HttpServer*>(cls)->handle(connection, url, method, uploadData, uploadDataSize, context);
}

bool HttpServer::CheckSession(MHD_Connection* connection, RequestContext* request) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_GNUTLS_SESSION);
  if (info == nullptr || info->tls_session == nullptr) {
    LogEvent(kWarning, "", "Invalid TLS session during request.");
    return false;
  }
  CertUtils certUtils;
  if (!certUtils.checkSession(static_cast<gnutls_session_t>(info->tls_session), &request->deviceId)) return false;
  request->sessionChecked = true;
  return true;
}

MHD_Result HttpServer::handle(MHD_Connection* connection, const char* url, const char* method,
                              const char* uploadData, size_t* uploadDataSize, void** context) {
  const std::string verb = method;
  if (verb != "GET" && verb != "POST" && verb != "PUT" && verb != "DELETE") {
    LogEvent(kWarning, "", "Invalid method during request.");
    return MHD_NO;
  }
  if (*context == nullptr) {
    *context = new RequestContext();
    return MHD_YES;
  }
  auto* request = static_cast<RequestContext*>(*context);
  std::string* body = &request->body;
  if (*uploadDataSize != 0) {
    if (verb == "GET") {
      LogEvent(kWarning, "", "Invalid GET request. Data exists in body.");
      return MHD_NO;
    }
    // The session is checked at the first piece of a body rather than after the last, so
    // that a caller the agent would drop anyway can't make it hold a body of up to 32 MiB
    // first. The lines logged are the same, once per request.
    if (!request->sessionChecked && !CheckSession(connection, request)) return MHD_NO;
    // Every body the agent reads is JSON of at most kMaxJsonBody bytes; keeping one byte
    // more is enough for the refusal of a longer one, and a caller streaming gigabytes
    // costs no memory.
    size_t room = AgentAPI::kMaxJsonBody + 1 - std::min(body->size(), AgentAPI::kMaxJsonBody + 1);
    body->append(uploadData, std::min(*uploadDataSize, room));
    *uploadDataSize = 0;
    return MHD_YES;
  }

  if (!request->sessionChecked && !CheckSession(connection, request)) return MHD_NO;
  uint32_t deviceId = request->deviceId;

  std::map<std::string, std::string> args;
  std::string requestBody;
  if (verb == "GET") {
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, &CollectArgument, &args);
    delete request;
    *context = nullptr;
  } else {
    // The context is freed when the request completes; the body is the router's now.
    requestBody = std::move(*body);
  }

  std::string contentType;
  std::string response;
  int status = api_->route(deviceId, verb, url, args, requestBody, &contentType, &response);
  LogEvent(kInfo, "", "Response:");
  LogEvent(kInfo, "", "\tStatus: %d", status);
  LogEvent(kInfo, "", "\tData: %s", response.c_str());

  char* buffer = static_cast<char*>(calloc(response.size() + 1, 1));
  if (buffer == nullptr) {
    LogEvent(kError, "", "Could not allocate response buffer.");
    return MHD_NO;
  }
  memcpy(buffer, response.data(), response.size());
  ResponsePtr reply(MHD_create_response_from_buffer(strlen(buffer), buffer, MHD_RESPMEM_MUST_FREE));
  if (!reply) {
    free(buffer);
    return MHD_NO;
  }
  MHD_add_response_header(reply.get(), "Content-Type", contentType.c_str());
  return MHD_queue_response(connection, static_cast<unsigned int>(status), reply.get());
}

}  // namespace orv
