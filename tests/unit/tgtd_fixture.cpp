#include "tests/unit/tgtd_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "tests/unit/test_support.h"

extern char** environ;

namespace orv {
namespace {

bool PortAnswers(int port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  if (fd >= 0) close(fd);
  return ok;
}

std::string SocketPath(int controlPort) { return "/var/run/tgtd/socket." + std::to_string(controlPort); }

// A control port (tgtd takes up to 32767) whose socket files nobody has made.
int FreeControlPort() {
  static std::mt19937 random(static_cast<unsigned>(getpid()) ^
                             static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
  std::uniform_int_distribution<int> range(10000, 32767);
  for (int i = 0; i < 1000; ++i) {
    int candidate = range(random);
    std::string path = SocketPath(candidate);
    if (access(path.c_str(), F_OK) != 0 && access((path + ".lock").c_str(), F_OK) != 0) return candidate;
  }
  return 0;
}

}  // namespace

TgtdFixture::TgtdFixture() {
  char pattern[] = "/tmp/orv-tgtd-XXXXXX";
  if (mkdtemp(pattern) != nullptr) directory_ = pattern;
}

TgtdFixture::~TgtdFixture() {
  Stop();
  std::error_code ignored;
  if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
}

int TgtdFixture::Tgtadm(const std::vector<std::string>& arguments) {
  std::string command = "tgtadm -C " + std::to_string(controlPort_);
  for (const std::string& argument : arguments) command += " '" + argument + "'";
  std::string text = Command(command + " 2>&1; echo \"exit $?\"");
  size_t at = text.rfind("exit ");
  int status = at == std::string::npos ? -1 : atoi(text.c_str() + at + 5);
  if (status != 0) fprintf(stderr, "tgtd fixture: tgtadm exited %d: %s\n", status, text.c_str());
  return status;
}

bool TgtdFixture::Spawn() {
  std::vector<std::string> arguments = {"/usr/sbin/tgtd", "-f", "-C", std::to_string(controlPort_), "--iscsi",
                                        "portal=" + Portal()};
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  int logFd = open((directory_ + "/tgtd.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (logFd < 0) return false;
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls between fork and exec.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(logFd, 1);
    dup2(logFd, 2);
    execve(argv[0], argv.data(), environ);
    _exit(127);
  }
  close(logFd);
  pid_ = pid;
  return pid > 0;
}

bool TgtdFixture::WaitReady() {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      RemoveSockets();
      return false;
    }
    std::string show = "tgtadm -C " + std::to_string(controlPort_) + " --op show --mode sys >/dev/null 2>&1";
    if (Command(show + " && echo up") == "up" && PortAnswers(port_)) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

bool TgtdFixture::Start() {
  if (Running()) return true;
  if (directory_.empty()) return false;
  bool keepPort = port_ != 0;
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (!keepPort) port_ = FreePort();
    controlPort_ = FreeControlPort();
    if (port_ == 0 || controlPort_ == 0 || !Spawn()) return false;
    if (WaitReady()) return true;
    // Somebody took a port between our look and tgtd's bind, or the portal is still settling.
    Kill();
    if (keepPort) std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  fprintf(stderr, "tgtd fixture: tgtd did not come up:\n%s\n", ReadText(directory_ + "/tgtd.log").c_str());
  return false;
}

bool TgtdFixture::Configure(const std::vector<std::string>& arguments) {
  if (Tgtadm(arguments) != 0) return false;
  configuration_.push_back(arguments);
  return true;
}

bool TgtdFixture::AddTarget(int tid, const std::string& iqn) {
  std::string id = std::to_string(tid);
  if (!Configure({"--lld", "iscsi", "--op", "new", "--mode", "target", "--tid", id, "-T", iqn})) return false;
  targets_.push_back(tid);
  return Configure({"--lld", "iscsi", "--op", "bind", "--mode", "target", "--tid", id, "-I", "ALL"});
}

bool TgtdFixture::AddLun(int tid, int lun, uint64_t bytes, std::string* path) {
  std::string file = directory_ + "/lun-" + std::to_string(tid) + "-" + std::to_string(lun) + ".img";
  int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool sized = ftruncate(fd, static_cast<off_t>(bytes)) == 0;
  close(fd);
  if (path != nullptr) *path = file;
  return sized && Configure({"--lld", "iscsi", "--op", "new", "--mode", "logicalunit", "--tid", std::to_string(tid),
                             "--lun", std::to_string(lun), "-b", file});
}

bool TgtdFixture::AddChap(int tid, const std::string& user, const std::string& password) {
  return Configure({"--lld", "iscsi", "--op", "new", "--mode", "account", "--user", user, "--password", password}) &&
         Configure({"--lld", "iscsi", "--op", "bind", "--mode", "account", "--tid", std::to_string(tid), "--user",
                    user});
}

bool TgtdFixture::WaitExit(int milliseconds) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
  for (;;) {
    int status = 0;
    pid_t result = waitpid(pid_, &status, WNOHANG);
    if (result == pid_ || (result < 0 && errno == ECHILD)) {
      pid_ = -1;
      return true;
    }
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void TgtdFixture::RemoveSockets() {
  if (controlPort_ == 0) return;
  std::string path = SocketPath(controlPort_);
  unlink(path.c_str());
  unlink((path + ".lock").c_str());
}

bool TgtdFixture::Stop() {
  if (!Running()) return true;
  // tgtd ignores SIGTERM and will not leave while it has targets; a target with a command
  // in flight refuses deletion for a moment, so the system goes offline first and the
  // deletion is tried again.
  Tgtadm({"--op", "update", "--mode", "sys", "--name", "State", "-v", "offline"});
  for (int tid : targets_) {
    for (int attempt = 0; attempt < 100; ++attempt) {
      if (Tgtadm({"--lld", "iscsi", "--op", "delete", "--mode", "target", "--tid", std::to_string(tid), "--force"}) ==
          0) {
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  Tgtadm({"--op", "delete", "--mode", "system"});
  bool clean = WaitExit(5000);
  if (!clean) fprintf(stderr, "tgtd fixture: tgtd %d did not leave, killing it\n", static_cast<int>(pid_));
  Kill();
  RemoveSockets();
  return clean;
}

bool TgtdFixture::Kill() {
  if (!Running()) return true;
  kill(pid_, SIGKILL);
  bool gone = WaitExit(5000);
  RemoveSockets();
  return gone;
}

bool TgtdFixture::Restart() {
  Stop();
  if (!Start()) return false;
  std::vector<std::vector<std::string>> commands;
  commands.swap(configuration_);
  for (const auto& arguments : commands) {
    if (!Configure(arguments)) return false;
  }
  return true;
}

}  // namespace orv
