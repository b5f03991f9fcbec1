#include "daemon/signal_waiter.h"

#include <signal.h>
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
  pause();
  int signo = receivedSignal;
  receivedSignal = 0;
  return signo;
}

}  // namespace orv
