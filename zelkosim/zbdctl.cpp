// zbdctl: command line of the driver simulator, for reload scripts, inspection and
// fault injection. Acts on the simulator named by ZELKO_SIM_DIR.
#include <cerrno>
#include <charconv>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "driver_call.h"
#include "sim_error.h"
#include "zelkobd.h"

using orv::zelkosim::DriverCall;
using orv::zelkosim::SimDriver;
using orv::zelkosim::SimError;
using orv::zelkosim::SimStore;

namespace {

constexpr const char* kUsage =
    "usage: zbdctl <command> [arguments]\n"
    "\n"
    "Drives the snapshot driver simulator in $ZELKO_SIM_DIR (status document at\n"
    "$ZELKO_SIM_DIR/zelko-info, snapshot devices at $ZELKO_SIM_DIR/dev/zelko<minor>).\n"
    "\n"
    "Driver state:\n"
    "  info                                   print the status document\n"
    "  sync                                   bring every tracker's change map up to date,\n"
    "                                         check snapshots for overflow, verify reloaded trackers\n"
    "  reboot                                 simulate a reboot: every device becomes dormant\n"
    "  reload-incremental <device> <cow> <minor>\n"
    "                                         re-attach an incremental tracker after a reboot\n"
    "  reload-snapshot <device> <cow> <minor> re-attach a snapshot after a reboot (stays unverified)\n"
    "  unload                                 withdraw the status document (driver not loaded)\n"
    "  load                                   undo unload (creates $ZELKO_SIM_DIR when missing)\n"
    "  version <text>                         set the version the status document reports\n"
    "\n"
    "Fault injection:\n"
    "  fault <call> <errno> [count]           the next <count> (default 1) calls of <call> fail with\n"
    "                                         <errno> (a number or a name such as EBUSY; 0 clears);\n"
    "                                         <call>: setup_snapshot, transition_incremental,\n"
    "                                         transition_snapshot or destroy\n"
    "  set-error <minor> <negative errno>     set the driver error the status document reports (0 clears)\n"
    "\n"
    "The control library's calls:\n"
    "  setup-snapshot <minor> <device> <cow> <MiB> [cache MiB]\n"
    "  transition-incremental <minor>\n"
    "  transition-snapshot <minor> <cow> <MiB>\n"
    "  destroy <minor>\n"
    "\n"
    "Exit status: 0 on success, 1 when the operation fails, 2 on a usage error.\n";

const std::map<std::string, int> kErrnoNames = {
    {"EPERM", EPERM},   {"ENOENT", ENOENT}, {"EIO", EIO},         {"ENXIO", ENXIO},   {"EAGAIN", EAGAIN},
    {"ENOMEM", ENOMEM}, {"EBUSY", EBUSY},   {"EEXIST", EEXIST},   {"ENODEV", ENODEV}, {"EINVAL", EINVAL},
    {"EFBIG", EFBIG},   {"ENOSPC", ENOSPC}, {"EROFS", EROFS},     {"ETIMEDOUT", ETIMEDOUT},
    {"EOPNOTSUPP", EOPNOTSUPP},             {"EUCLEAN", EUCLEAN},
};

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

template <typename T>
T Number(const std::string& text, const std::string& what) {
  T value{};
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size()) {
    throw UsageError(what + " must be a number, not '" + text + "'");
  }
  return value;
}

unsigned MinorArg(const std::string& text) {
  long long minor = Number<long long>(text, "minor");
  if (minor < 0 || minor > 0xffffffffLL) throw UsageError("minor " + text + " is out of range");
  return static_cast<unsigned>(minor);
}

int ErrnoArg(const std::string& text) {
  auto named = kErrnoNames.find(text);
  if (named != kErrnoNames.end()) return named->second;
  return Number<int>(text, "errno");
}

void Expect(const std::vector<std::string>& args, size_t least, size_t most) {
  if (args.size() < least + 1 || args.size() > most + 1) {
    throw UsageError("wrong number of arguments for '" + args[0] + "'");
  }
}

// Reports the outcome of one of the library's calls.
int Call(const std::string& name, const std::function<int()>& call) {
  errno = 0;
  int result = call();
  int err = errno;
  if (result == 0) {
    std::cout << name << ": done\n";
    return 0;
  }
  std::cerr << "zbdctl: " << DriverCall::LastMessage() << " (errno " << err << ", " << std::strerror(err) << ")\n";
  return 1;
}

int Run(const std::vector<std::string>& args) {
  const std::string& command = args[0];
  if (command == "setup-snapshot") {
    Expect(args, 4, 5);
    unsigned long cache = args.size() > 5 ? Number<unsigned long>(args[5], "cache size") : 0;
    unsigned minor = MinorArg(args[1]);
    unsigned long mib = Number<unsigned long>(args[4], "MiB");
    return Call("setup_snapshot",
                [&] { return zelkobd_setup_snapshot(minor, args[2].c_str(), args[3].c_str(), mib, cache); });
  }
  if (command == "transition-incremental") {
    Expect(args, 1, 1);
    unsigned minor = MinorArg(args[1]);
    return Call("transition_incremental", [&] { return zelkobd_transition_incremental(minor); });
  }
  if (command == "transition-snapshot") {
    Expect(args, 3, 3);
    unsigned minor = MinorArg(args[1]);
    unsigned long mib = Number<unsigned long>(args[3], "MiB");
    return Call("transition_snapshot", [&] { return zelkobd_transition_snapshot(minor, args[2].c_str(), mib); });
  }
  if (command == "destroy") {
    Expect(args, 1, 1);
    unsigned minor = MinorArg(args[1]);
    return Call("destroy", [&] { return zelkobd_destroy(minor); });
  }

  SimDriver driver(SimStore::FromEnvironment(command == "load"));
  if (command == "info") {
    Expect(args, 0, 0);
    std::cout << driver.info();
  } else if (command == "sync") {
    Expect(args, 0, 0);
    bool failed = false;
    for (const std::string& line : driver.sync(failed)) std::cout << line << "\n";
    if (failed) {
      std::cerr << "zbdctl: sync failed for some devices\n";
      return 1;
    }
  } else if (command == "reboot") {
    Expect(args, 0, 0);
    std::cout << driver.reboot() << "\n";
  } else if (command == "reload-incremental" || command == "reload-snapshot") {
    Expect(args, 3, 3);
    unsigned minor = MinorArg(args[3]);
    std::cout << (command == "reload-incremental" ? driver.reloadIncremental(args[1], args[2], minor)
                                                  : driver.reloadSnapshot(args[1], args[2], minor))
              << "\n";
  } else if (command == "unload") {
    Expect(args, 0, 0);
    std::cout << driver.unload() << "\n";
  } else if (command == "load") {
    Expect(args, 0, 0);
    std::cout << driver.load() << "\n";
  } else if (command == "version") {
    Expect(args, 1, 1);
    std::cout << driver.setVersion(args[1]) << "\n";
  } else if (command == "fault") {
    Expect(args, 2, 3);
    unsigned count = args.size() > 3 ? Number<unsigned>(args[3], "count") : 1;
    std::cout << driver.setFault(args[1], ErrnoArg(args[2]), count) << "\n";
  } else if (command == "set-error") {
    Expect(args, 2, 2);
    std::cout << driver.setError(MinorArg(args[1]), Number<int>(args[2], "driver error")) << "\n";
  } else {
    throw UsageError("unknown command '" + command + "'");
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) {
    std::cerr << kUsage;
    return 2;
  }
  if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
    std::cout << kUsage;
    return 0;
  }
  try {
    return Run(args);
  } catch (const UsageError& e) {
    std::cerr << "zbdctl: " << e.what() << "\n" << "Run 'zbdctl --help' for usage.\n";
    return 2;
  } catch (const SimError& e) {
    std::cerr << "zbdctl: " << args[0] << ": " << e.what() << " (errno " << e.err() << ", " << std::strerror(e.err())
              << ")\n";
    try {
      SimStore::FromEnvironment().log("zbdctl " + args[0] + " failed: " + e.what());
    } catch (const SimError&) {
    }
    return 1;
  } catch (const std::exception& e) {
    std::cerr << "zbdctl: " << args[0] << ": " << e.what() << "\n";
    return 1;
  }
}
