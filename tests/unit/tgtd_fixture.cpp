#include "tests/unit/tgtd_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <thread>

#include "tests/unit/test_support.h"

extern char** environ;

namespace orv {

namespace {

constexpr const char* kSocketDir = "/var/run/tgtd";
constexpr const char* kTunables = "GLIBC_TUNABLES=glibc.malloc.mmap_threshold=33554432:glibc.malloc.trim_threshold=268435456";
// Session parameters that let 12 MiB commands travel in large pieces.
constexpr const char* kTunedParameters[][2] = {
    {"MaxRecvDataSegmentLength", "262144"},
    {"MaxXmitDataSegmentLength", "262144"},
    {"FirstBurstLength", "262144"},
    {"MaxBurstLength", "262144"},
    {"InitialR2T", "No"},
};

std::string ToolPath(const std::string& name) {
  for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/"}) {
    std::string path = dir + name;
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  return name;
}

std::vector<char*> ArgvOf(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return argv;
}

bool PortAnswers(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return ok;
}

std::string SocketPath(int controlPort) { return std::string(kSocketDir) + "/socket." + std::to_string(controlPort); }

// A control port whose socket files no tgtd (of ours or anybody's) has made.
int FreeControlPort() {
  static std::mt19937 random(static_cast<unsigned>(getpid()) ^
                             static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count()));
  // tgtd takes control ports up to 32767.
  std::uniform_int_distribution<int> range(10000, 32767);
  for (int i = 0; i < 1000; ++i) {
    int candidate = range(random);
    std::string path = SocketPath(candidate);
    if (access(path.c_str(), F_OK) != 0 && access((path + ".lock").c_str(), F_OK) != 0) return candidate;
  }
  return 0;
}

}  // namespace

int RunProgram(const std::vector<std::string>& arguments, std::string* output) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
  std::vector<char*> argv = ArgvOf(arguments);
  pid_t pid = -1;
  int spawned = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipeFds[1]);
  std::string text;
  char chunk[4096];
  ssize_t n;
  while ((n = read(pipeFds[0], chunk, sizeof(chunk))) > 0) text.append(chunk, static_cast<size_t>(n));
  close(pipeFds[0]);
  if (output != nullptr) *output = text;
  if (spawned != 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TgtdFixture::TgtdFixture(bool tuned) : tuned_(tuned) {
  char pattern[] = "/tmp/orv-tgtd-XXXXXX";
  if (mkdtemp(pattern) != nullptr) directory_ = pattern;
}

TgtdFixture::~TgtdFixture() {
  Stop();
  if (!directory_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
}

int TgtdFixture::Tgtadm(const std::vector<std::string>& arguments, std::string* output) {
  std::vector<std::string> command = {ToolPath("tgtadm"), "-C", std::to_string(controlPort_)};
  command.insert(command.end(), arguments.begin(), arguments.end());
  std::string text;
  int status = RunProgram(command, &text);
  if (status != 0) fprintf(stderr, "tgtd fixture: tgtadm exited %d: %s\n", status, text.c_str());
  if (output != nullptr) *output = text;
  return status;
}

bool TgtdFixture::Spawn() {
  std::string tgtd = ToolPath("tgtd");
  std::string portal = "portal=" + Portal();
  std::vector<std::string> arguments = {tgtd, "-f", "-C", std::to_string(controlPort_), "--iscsi", portal};
  std::vector<char*> argv = ArgvOf(arguments);
  std::vector<char*> envp;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (strncmp(*entry, "GLIBC_TUNABLES=", 15) != 0) envp.push_back(*entry);
  }
  if (tuned_) envp.push_back(const_cast<char*>(kTunables));
  envp.push_back(nullptr);
  std::string logPath = directory_ + "/tgtd.log";
  int logFd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (logFd < 0) return false;
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0) {
    // Only async-signal-safe calls between fork and exec.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(logFd, 1);
    dup2(logFd, 2);
    execve(tgtd.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  close(logFd);
  if (pid < 0) return false;
  pid_ = pid;
  return true;
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
    std::string ignored;
    std::vector<std::string> show = {ToolPath("tgtadm"), "-C", std::to_string(controlPort_), "--op", "show",
                                     "--mode", "sys"};
    if (RunProgram(show, &ignored) == 0 && PortAnswers(port_)) return true;
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
    if (port_ == 0 || controlPort_ == 0) return false;
    if (!Spawn()) return false;
    if (WaitReady()) return true;
    // Somebody took the port or the control port between our look and tgtd's bind.
    if (Running()) {
      kill(pid_, SIGKILL);
      WaitExit(5000);
    }
    // Right after a stop the portal may still be settling; give it a moment.
    if (keepPort) std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  std::string log;
  RunProgram({"cat", directory_ + "/tgtd.log"}, &log);
  fprintf(stderr, "tgtd fixture: tgtd did not come up:\n%s\n", log.c_str());
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
  if (tuned_) {
    for (const auto& parameter : kTunedParameters) {
      if (!Configure({"--lld", "iscsi", "--op", "update", "--mode", "target", "--tid", id, "--name", parameter[0],
                      "--value", parameter[1]})) {
        return false;
      }
    }
  }
  return Configure({"--lld", "iscsi", "--op", "bind", "--mode", "target", "--tid", id, "-I", "ALL"});
}

bool TgtdFixture::AddLun(int tid, int lun, uint64_t bytes, std::string* path) {
  std::string file = directory_ + "/lun-" + std::to_string(tid) + "-" + std::to_string(lun) + ".img";
  int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return false;
  bool sized = ftruncate(fd, static_cast<off_t>(bytes)) == 0;
  close(fd);
  if (!sized) return false;
  if (path != nullptr) *path = file;
  return Configure({"--lld", "iscsi", "--op", "new", "--mode", "logicalunit", "--tid", std::to_string(tid), "--lun",
                    std::to_string(lun), "-b", file});
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
  // tgtd ignores SIGTERM and refuses to leave while it has targets; a target whose LUN
  // has a command in flight refuses deletion for a moment, so the system goes offline
  // first (no new commands) and the deletion is tried again.
  Tgtadm({"--op", "update", "--mode", "sys", "--name", "State", "-v", "offline"});
  for (int tid : targets_) {
    std::vector<std::string> remove = {"--lld", "iscsi", "--op", "delete", "--mode", "target",
                                       "--tid", std::to_string(tid), "--force"};
    std::string ignored;
    for (int attempt = 0; attempt < 100 && Tgtadm(remove, &ignored) != 0; ++attempt) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  Tgtadm({"--op", "delete", "--mode", "system"});
  bool clean = WaitExit(5000);
  if (!clean) {
    fprintf(stderr, "tgtd fixture: tgtd %d did not leave, killing it\n", static_cast<int>(pid_));
    kill(pid_, SIGKILL);
    WaitExit(5000);
  }
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

bool TgtdFixture::Replay() {
  std::vector<std::vector<std::string>> commands;
  commands.swap(configuration_);
  for (const auto& arguments : commands) {
    if (!Configure(arguments)) return false;
  }
  return true;
}

bool TgtdFixture::Restart() {
  Stop();
  return Start() && Replay();
}

}  // namespace orv
