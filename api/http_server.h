#ifndef ORV_API_HTTP_SERVER_H_
#define ORV_API_HTTP_SERVER_H_

#include <microhttpd.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace orv {

class AgentAPI;

// The agent's only network listener: HTTPS with mutual certificate authentication over
// libmicrohttpd, one thread per connection, on the port of "rest_port" (25567 when it is
// unset or unusable). A request gets an HTTP answer only when its method is one the
// agent serves and its TLS session names a device from the agent's authority; anything
// else is dropped without a response. After a configuration write the server restarts
// itself five seconds later, on its own timer thread, so that a new port takes effect.
//
// The restart timer is a POSIX timer whose expiry is delivered as a signal to a thread
// the server starts itself (SIGEV_THREAD_ID) rather than to a thread that the C library
// creates on its own (SIGEV_THREAD): a thread the program does not know of can't be
// joined at destruction, and the thread sanitizer can't follow it.
class HttpServer {
 public:
  static constexpr uint16_t kDefaultPort = 25567;

  // `api` routes the requests and must outlive the server. The restart timer is made
  // here; a failure to make it is logged and the server works without restarts.
  explicit HttpServer(AgentAPI* api);
  // Deletes the timer, waits for a restart in progress to end and stops the daemon.
  virtual ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Reads the port and the certificates and starts the daemon; false after logging why.
  bool start();
  // Stops the daemon and drops a pending restart.
  void stop();
  // Arms the one-shot restart timer for five seconds from now.
  bool scheduleRestart();
  // Stops and starts again; after a failure on a configured port the configuration goes
  // back to "25567", and with `retry` the restart is tried again five seconds later.
  void restart(bool retry);

  bool running();
  uint16_t port();

 private:
  bool startLocked();
  void stopLocked();
  // What a request keeps between the library's calls: its body so far, and the caller's
  // device id once its TLS session has been checked.
  struct RequestContext {
    std::string body;
    bool sessionChecked = false;
    uint32_t deviceId = 0;
  };

  MHD_Result handle(MHD_Connection* connection, const char* url, const char* method, const char* uploadData,
                    size_t* uploadDataSize, void** context);
  // The session check with its log lines; false when the caller is to be dropped.
  static bool CheckSession(MHD_Connection* connection, RequestContext* request);

  static MHD_Result AccessHandler(void* cls, MHD_Connection* connection, const char* url, const char* method,
                                  const char* version, const char* uploadData, size_t* uploadDataSize,
                                  void** context);
  static void RequestCompleted(void* cls, MHD_Connection* connection, void** context,
                               MHD_RequestTerminationCode toe);
  // The timer thread: waits for the timer's signal and restarts, until closing.
  void timerLoop();

  AgentAPI* api_;
  // Start, stop and restart run on the main thread and the timer's thread; this lock
  // keeps them from overlapping on the daemon handle.
  std::mutex lifecycle_;
  MHD_Daemon* daemon_ = nullptr;
  uint16_t port_ = kDefaultPort;
  // "using default port": no valid configured port was taken at the last start.
  bool usingDefaultPort_ = true;
  bool stopped_ = false;  // by stop(), until the next start()
  // The PEM texts handed to the daemon, kept for as long as it runs.
  std::string key_;
  std::string cert_;
  std::string trust_;
  timer_t restartTimer_{};
  bool timerCreated_ = false;
  std::thread timerThread_;
  std::atomic<bool> closing_{false};
};

}  // namespace orv

#endif  // ORV_API_HTTP_SERVER_H_
