#include "daemon/entry.h"

#include <getopt.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "api/agent_api.h"
#include "api/http_server.h"
#include "backup/backup_manager.h"
#include "daemon/file_util.h"
#include "daemon/flock.h"
#include "daemon/logger.h"
#include "daemon/paths.h"
#include "daemon/signal_waiter.h"
#include "identity/enrolment.h"
#include "store/config_table.h"
#include "store/configs.h"
#include "store/database_maintainer.h"
#include "store/database_keeper.h"

namespace orv {

namespace {

void PrintUsage() {
  fputs("orvd version 1.0.16\n\n", stdout);
  fputs("Usage:\n", stdout);
  fputs("  -h, --help\n", stdout);
  fputs("\tHelp: display this help and exit.\n", stdout);
  fputs("\n", stdout);
  fputs("  -s, --syslog\n", stdout);
  fputs("  Syslog: send warnings/errors to the syslog.\n", stdout);
  fputs("\n", stdout);
  fputs("  -d, --display\n", stdout);
  fputs("  Display: send warnings/errors to the display.\n", stdout);
  fputs("\n", stdout);
  fputs("  -l, --level LEVEL\n", stdout);
  fputs("\tLog level: output to the screen or syslog.\n", stdout);
  fputs("\t\tLevels:\n", stdout);
  fputs("\t\t\t1 = DEBUG\n", stdout);
  fputs("\t\t\t2 = INFO\n", stdout);
  fputs("\t\t\t3 = WARNING\n", stdout);
  fputs("\t\t\t4 = ERROR\n", stdout);
  fputs("\t\t\t5 = CRITICAL\n", stdout);
  fputs("\n", stdout);
  fputs("get_config                 displays a list of current configuration settings\n", stdout);
  fputs("set_config <key> <value>   sets the config key to value\n", stdout);
  fputs("delete_config <key>        deletes the config key from the config table\n", stdout);
  fputs("reset_certificate          recreates the taloq to agent certificate\n", stdout);
  fputs("\n", stdout);
  fputs("Available configuration options:\n", stdout);
  fputs("\n", stdout);
  fputs("cow_percent #       - percentage of disk size to use for cow file.\n", stdout);
  fputs("max_cow_megs #      - max size in MiB allowed for the cow file.\n", stdout);
  fputs("disable_cowskip Y   - override the default behavior of not copying the cow file during backup.\n", stdout);
  fputs("disable_usedblock Y - override the default behavior of doing backups based on the used blocks of a volume.\n",
        stdout);
  fputs("rest_port #         - override the default http bind port of 25567.\n", stdout);
  fputs("log_days_to_keep #  - override the default number of days (default 30) of logs to keep.\n", stdout);
  fputs("log_level #         - specify the log level (0-5) for logging.\n", stdout);
  fputs("\n", stdout);
}

std::string KeyPath() { return Paths::CertDir() + "/server.key"; }
std::string CertPath() { return Paths::CertDir() + "/server.pem"; }
std::string CaPath() { return Paths::CertDir() + "/ca.crt"; }

// The configuration directory and its certificate directory are made on first start,
// readable by root only, so that a fresh host needs no preparation.
void EnsureConfigDirectories() {
  mkdir(Paths::EtcDir().c_str(), 0700);
  mkdir(Paths::CertDir().c_str(), 0700);
}

[[noreturn]] void CommandGetConfig() {
  std::vector<std::string> names;
  std::vector<std::string> values;
  if (!get_config_list(&names, &values)) {
    puts("Unable to retrieve config settings.");
  } else {
    puts("Current configuration settings:");
    for (size_t i = 0; i < names.size(); ++i) printf("%s = %s\n", names[i].c_str(), values[i].c_str());
  }
  fflush(stdout);
  exit(1);
}

[[noreturn]] void CommandSetConfig(int argc, char** argv) {
  if (argc < 4) {
    puts("set_config requires a key and value.");
  } else if (argv[2][0] == '\0') {
    puts("set_config key invalid.");
  } else if (argv[3][0] == '\0') {
    puts("set_config value invalid.");
  } else {
    printf("Setting config key %s to %s\n", argv[2], argv[3]);
    Configs configs;
    configs.set(argv[2], argv[3]);
  }
  fflush(stdout);
  exit(1);
}

[[noreturn]] void CommandDeleteConfig(int argc, char** argv) {
  if (argc < 3) {
    puts("delete_config requires a key.");
  } else if (argv[2][0] == '\0') {
    puts("delete_config key invalid.");
  } else {
    printf("Deleting config key %s\n", argv[2]);
    delete_config(argv[2]);
  }
  fflush(stdout);
  exit(1);
}

[[noreturn]] void CommandResetCertificate() {
  puts("Resetting certificate. Please restart orvd.");
  for (const std::string& path : {KeyPath(), CertPath(), CaPath()}) {
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      int error = errno;
      printf("Unable to to remove %s, err %d %s\n", path.c_str(), error, strerror(error));
    }
  }
  fflush(stdout);
  exit(1);
}

bool IsCommandWord(const char* word) {
  std::string text = word;
  return text == "get_config" || text == "set_config" || text == "delete_config" || text == "reset_certificate";
}

void RunCommandIfAny(int argc, char** argv) {
  if (argc < 2) return;
  std::string command = argv[1];
  if (command == "get_config") CommandGetConfig();
  if (command == "set_config") CommandSetConfig(argc, argv);
  if (command == "delete_config") CommandDeleteConfig(argc, argv);
  if (command == "reset_certificate") CommandResetCertificate();
}

}  // namespace

bool StartupChecks() {
  EnsureConfigDirectories();
  {
    DatabaseMaintainer maintainer;
    if (!maintainer.initialise()) {
      LogSyslog(kError, "Could not initialize sqlite3 database.");
      puts("Could not start Zelko Linux Agent. Failed to initialize sqlite3 database.");
      maintainer.close();
      return false;
    }
    maintainer.close();
  }

  std::string keyPath = KeyPath();
  std::string certPath = CertPath();
  std::string caPath = CaPath();

  if (getuid() != 0) {
    puts("Could not start Zelko Linux Agent. The application must be run by the root account.");
    return false;
  }

  std::string required = "The following files must exist and be readable:\n";
  required += " * Server key: " + keyPath + "\n";
  required += " * Server certificate: " + certPath + "\n";
  required += " * CA certificate: " + caPath + "\n";

  std::string key;
  std::string cert;
  std::string ca;
  bool read = ReadWholeFile(keyPath, key) && ReadWholeFile(certPath, cert) && ReadWholeFile(caPath, ca);
  if (!read) {
    puts("Certificate information not found, recreating certificate.");
  } else if (key.empty() || cert.empty() || ca.empty()) {
    puts("Certificate information is incomplete, recreating certificate.");
  } else {
    return true;
  }
  fflush(stdout);
  if (enrol()) return true;
  printf("Could not start Zelko Linux Agent. Certificate generation error.\n%s", required.c_str());
  return false;
}

int RunServer(SignalWaiter& waiter) {
  auto manager = std::make_unique<BackupManager>();
  auto api = std::make_unique<AgentAPI>(manager.get());
  auto server = std::make_unique<HttpServer>(api.get());
  if (!server->start()) {
    LogSyslog(kError, "Could not initialize HTTP server.");
    puts("Could not start Zelko Linux Agent. Failed to initialize HTTP server.");
    fflush(stdout);
    return 1;
  }
  waiter.wait();
  LogEvent(kInfo, "", "Shutting down");
  server->stop();
  manager->cancelAll();
  // A cancelled job still takes its volumes out of snapshot mode before its thread
  // ends; the objects it uses must outlive it.
  manager->waitForAllThreads();
  server.reset();
  api.reset();
  manager.reset();
  return 0;
}

int AgentMain(int argc, char** argv) {
  static const struct option kLongOptions[] = {
      {"help", no_argument, nullptr, 'h'},
      {"syslog", no_argument, nullptr, 's'},
      {"display", no_argument, nullptr, 'd'},
      {"level", required_argument, nullptr, 'l'},
      {nullptr, 0, nullptr, 0},
  };
  // Unknown options are ignored, so getopt's own complaint is not wanted either.
  opterr = 0;
  // After a command word nothing is an option: "set_config key -1" must store -1, not
  // have getopt move the command word away and start the daemon instead.
  bool command = argc >= 2 && IsCommandWord(argv[1]);
  const char* shortOptions = command ? "+hsdl:" : "hsdl:";
  int option;
  while ((option = getopt_long(argc, argv, shortOptions, kLongOptions, nullptr)) != -1) {
    switch (option) {
      case 'h':
        PrintUsage();
        fflush(stdout);
        return 0;
      case 'd':
        puts("Log to display on.");
        LogSettings::display = true;
        break;
      case 's':
        puts("Syslog errors on.");
        LogSettings::syslog = true;
        break;
      case 'l': {
        if (optarg == nullptr) {
          puts("Invalid log level.");
          fflush(stdout);
          return 0;
        }
        long level = strtol(optarg, nullptr, 10);
        if (static_cast<unsigned long>(level - 1) > 4) {
          printf("Invalid log level: %s\n", optarg);
          fflush(stdout);
          return 0;
        }
        printf("Log level: %d\n", static_cast<int>(level));
        LogSettings::displayThreshold = static_cast<int>(level);
        SetSyslogLevel(static_cast<int>(level));
        break;
      }
      default:
        break;
    }
  }
  fflush(stdout);

  LogDisplay(kInfo, "Zelko Linux Agent Daemon version 1.0.16");
  if (!StartupChecks()) {
    fflush(stdout);
    return 1;
  }
  RunCommandIfAny(argc, argv);

  if (!LogSettings::display && daemon(0, 0) != 0) return 1;

  std::unique_ptr<Flock> lock;
  try {
    lock = std::make_unique<Flock>(Paths::PidFile());
    lock->writePid();
  } catch (const std::exception& e) {
    if (errno == EAGAIN) {
      LogSyslog(kError, "An instance of the service is already running.");
      puts("Could not start Zelko Linux Agent. An instance of the service is already running.");
    } else {
      LogSyslog(kError, "Could not lock PID file: %s", e.what());
      printf("Could not start Zelko Linux Agent. Failed to lock PID file: %s\n", e.what());
    }
    fflush(stdout);
    return 1;
  }

  int result;
  {
    SignalWaiter waiter({SIGTERM, SIGINT, SIGALRM});
    waiter.install();
    // After the handlers: switching the journal can wait on another process's lock, and
    // a SIGTERM meanwhile must still end the daemon in order.
    DatabaseKeeper keeper;
    result = RunServer(waiter);
  }
  lock.reset();
  fflush(stdout);
  return result;
}

}  // namespace orv
