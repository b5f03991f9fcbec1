#include "daemon/signal_waiter.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

namespace orv {

namespace {

volatile sig_atomic_t receivedSignal = 0;

void StoreSignal(int signo) { receivedSignal = signo; }

}  // namespace

SignalWaiter::SignalWaiter(const std::vector<int>& signals) : signals_(signals) {}

SignalWaiter::~SignalWaiter() {
  for (int signo : signals_) {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(signo, &action, nullptr);
  }
}

void SignalWaiter::install() {
  for (int signo : signals_) {
    struct sigaction action = {};
    action.sa_handler = StoreSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(signo, &action, nullptr);
  }
}

int SignalWaiter::wait() {
  install();
  // A signal may already have arrived while the server was starting, or may land on
  // another thread than this one: pause() alone would then sleep for ever. Short
  // sleeps, each ended early by a signal on this thread, see both.
  while (receivedSignal == 0) {
    struct timespec interval = {0, 200 * 1000 * 1000};
    nanosleep(&interval, nullptr);
  }
  int signo = receivedSignal;
  receivedSignal = 0;
  return signo;
}

}  // namespace orv
