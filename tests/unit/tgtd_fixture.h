#ifndef ORV_TESTS_UNIT_TGTD_FIXTURE_H_
#define ORV_TESTS_UNIT_TGTD_FIXTURE_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace orv {

// A private tgtd on a free loopback port and control port, serving file-backed LUNs from a
// temporary directory; the destructor stops it by pid and removes its sockets and files.
// tgtd dies with the thread that started it (parent-death signal): call Start and Restart
// from the thread that lives as long as the fixture.
class TgtdFixture {
 public:
  TgtdFixture();
  virtual ~TgtdFixture();
  TgtdFixture(const TgtdFixture&) = delete;
  TgtdFixture& operator=(const TgtdFixture&) = delete;

  bool Start();
  bool AddTarget(int tid, const std::string& iqn);
  // LUN `lun` of target `tid`, backed by a new sparse file of `bytes` (its path in `path`).
  bool AddLun(int tid, int lun, uint64_t bytes, std::string* path = nullptr);
  bool AddChap(int tid, const std::string& user, const std::string& password);
  // Ends tgtd cleanly (sessions are cut); the backing files stay.
  bool Stop();
  // Ends tgtd at once, as a crash would.
  bool Kill();
  // Starts tgtd again on the same portal with the same targets, LUNs and accounts.
  bool Restart();

  pid_t Pid() const { return pid_; }
  std::string Portal() const { return "127.0.0.1:" + std::to_string(port_); }
  // Runs tgtadm on this instance's control port; its exit status.
  int Tgtadm(const std::vector<std::string>& arguments);

 private:
  bool Running() const { return pid_ > 0; }
  bool Spawn();
  bool WaitReady();
  bool WaitExit(int milliseconds);
  void RemoveSockets();
  bool Configure(const std::vector<std::string>& arguments);

  std::string directory_;
  int port_ = 0;
  int controlPort_ = 0;
  pid_t pid_ = -1;
  // Replayed by Restart: tgtd keeps no configuration.
  std::vector<std::vector<std::string>> configuration_;
  std::vector<int> targets_;
};

}  // namespace orv

#endif  // ORV_TESTS_UNIT_TGTD_FIXTURE_H_
