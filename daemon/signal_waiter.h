#ifndef ORV_DAEMON_SIGNAL_WAITER_H_
#define ORV_DAEMON_SIGNAL_WAITER_H_

#include <vector>

namespace orv {

// Waits for the first of a set of signals. The handler only stores the signal number;
// everything else happens on the waiting (main) thread.
class SignalWaiter {
 public:
  explicit SignalWaiter(const std::vector<int>& signals);
  // Restores the default action of every signal.
  virtual ~SignalWaiter();
  SignalWaiter(const SignalWaiter&) = delete;
  SignalWaiter& operator=(const SignalWaiter&) = delete;

  void install();
  // Returns once one of the signals has arrived (also one that arrived before the
  // call), with its number.
  int wait();

 private:
  std::vector<int> signals_;
};

}  // namespace orv

#endif  // ORV_DAEMON_SIGNAL_WAITER_H_
