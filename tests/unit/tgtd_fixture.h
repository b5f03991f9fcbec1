#ifndef ORV_TESTS_UNIT_TGTD_FIXTURE_H_
#define ORV_TESTS_UNIT_TGTD_FIXTURE_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace orv {

// A private tgtd on a free loopback port with its own control port, serving file-backed
// LUNs from a temporary directory: the iSCSI target the agent writes images to.
//
// Everything it starts it tears down by pid, also when a test fails: the destructor stops
// tgtd (forced target deletion, "--op delete --mode system", wait, SIGKILL as a last
// resort) and removes its control sockets and the backing files. A crash of the test
// process takes tgtd with it (parent-death signal), so call Start and Restart from the
// thread that lives as long as the fixture.
//
// Tuned mode raises the session parameters before any login and starts tgtd with larger
// malloc thresholds, which brings tgtd from about 150 to about 700 MiB/s on these machines.
class TgtdFixture {
 public:
  explicit TgtdFixture(bool tuned = false);
  virtual ~TgtdFixture();
  TgtdFixture(const TgtdFixture&) = delete;
  TgtdFixture& operator=(const TgtdFixture&) = delete;

  // Starts tgtd and waits until its control socket and portal answer.
  bool Start();
  // A target `tid` named `iqn` that every initiator may log in to.
  bool AddTarget(int tid, const std::string& iqn);
  // LUN `lun` of target `tid`, backed by a new sparse file of `bytes`; its path in `path`.
  bool AddLun(int tid, int lun, uint64_t bytes, std::string* path = nullptr);
  // Requires CHAP with this user and secret for target `tid`.
  bool AddChap(int tid, const std::string& user, const std::string& password);
  // Ends tgtd cleanly (sessions are cut); the backing files stay.
  bool Stop();
  // Ends tgtd at once, as a crash would.
  bool Kill();
  // Starts tgtd again on the same ports with the same targets, LUNs and accounts.
  bool Restart();

  bool Running() const { return pid_ > 0; }
  pid_t Pid() const { return pid_; }
  int Port() const { return port_; }
  int ControlPort() const { return controlPort_; }
  std::string Portal() const { return "127.0.0.1:" + std::to_string(port_); }
  const std::string& Directory() const { return directory_; }

  // Runs tgtadm on this instance's control port; the exit status, output in `output`.
  int Tgtadm(const std::vector<std::string>& arguments, std::string* output = nullptr);

 private:
  bool Spawn();
  bool WaitReady();
  bool WaitExit(int milliseconds);
  void RemoveSockets();
  bool Replay();
  bool Configure(const std::vector<std::string>& arguments);

  bool tuned_;
  std::string directory_;
  int port_ = 0;
  int controlPort_ = 0;
  pid_t pid_ = -1;
  // The configuration commands in order, replayed by Restart (tgtd keeps none).
  std::vector<std::vector<std::string>> configuration_;
  std::vector<int> targets_;
};

// Runs a program and waits for it; its exit status (-1 when it could not run), standard
// output and error together in `output`.
int RunProgram(const std::vector<std::string>& argv, std::string* output = nullptr);

}  // namespace orv

#endif  // ORV_TESTS_UNIT_TGTD_FIXTURE_H_
