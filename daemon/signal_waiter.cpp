#include "daemon/signal_waiter.h"

#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

namespace orv {

namespace {

// The handler runs on whichever thread the kernel picks (the server's threads do not
// block these signals), so the main thread reads what another thread wrote: that needs
// an atomic, not just a volatile sig_atomic_t. A lock-free atomic is safe in a handler.
std::atomic<int> receivedSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs a lock-free atomic");

void StoreSignal(int signo) { receivedSignal.store(signo); }

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
  while (receivedSignal.load() == 0) {
    struct timespec interval = {0, 200 * 1000 * 1000};
    nanosleep(&interval, nullptr);
  }
  return receivedSignal.exchange(0);
}

}  // namespace orv
