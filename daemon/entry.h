#ifndef ORV_DAEMON_ENTRY_H_
#define ORV_DAEMON_ENTRY_H_

namespace orv {

class SignalWaiter;

constexpr const char* kAgentVersion = "1.0.16";

// The whole life of the orvd process: options, start-up checks, a configuration
// command or the daemon. Returns the exit status.
int AgentMain(int argc, char** argv);

// Database, root and certificate checks; enrols when certificates are missing.
bool StartupChecks();

// Serves until SIGTERM, SIGINT or SIGALRM, then shuts down in order.
int RunServer(SignalWaiter& waiter);

}  // namespace orv

#endif  // ORV_DAEMON_ENTRY_H_
