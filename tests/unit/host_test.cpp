#include "api/host.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "api/basic_host.h"
#include "daemon/logger.h"
#include "store/database_maintainer.h"

namespace orv {
namespace {

std::vector<std::string> Names(const JsonValue& object) {
  std::vector<std::string> names;
  for (const JsonValue& member : object.children()) names.push_back(member.name());
  return names;
}

class HostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/orv-host-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    setenv("ORVD_ETC_DIR", dir_.c_str(), 1);
    setenv("ORVD_DRIVER_INFO", (dir_ + "/zelko-info").c_str(), 1);
    DatabaseMaintainer maintainer;
    ASSERT_TRUE(maintainer.initialise());
    maintainer.close();
  }
  void TearDown() override {
    unsetenv("ORVD_ETC_DIR");
    unsetenv("ORVD_DRIVER_INFO");
    std::filesystem::remove_all(dir_);
  }
  std::string Write(const std::string& name, const std::string& text) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }
  bool Logged(int level, const std::string& text) {
    std::vector<LogRow> rows;
    EXPECT_TRUE(ReadLogs(level, 0, "", "", &rows));
    for (const LogRow& row : rows) {
      if (row.level == level && row.message == text) return true;
    }
    return false;
  }

  std::string dir_;
};

TEST_F(HostTest, DocumentMembersInOrder) {
  ASSERT_EQ(mkdir((dir_ + "/pps").c_str(), 0755), 0);
  Write("pps/b.sh", "#!/bin/sh\n## DISPLAYNAME: Database\n");
  Write("pps/a.sh", "#!/bin/sh\n");
  Write("zelko-info", R"({"version":"0.10.2","devices":[]})");

  JsonValue document = Host::Build();
  EXPECT_EQ(Names(document),
            (std::vector<std::string>{"cpus", "ram", "freeram", "scriptsPrePost", "volumes", "kernel", "os", "os_arch",
                                      "archBits", "agentVersion", "apiVersion", "driverVersion", "hostname",
                                      "networkInterfaceList", "capabilities"}));
  EXPECT_EQ(document.find("cpus")->getInt(), sysconf(_SC_NPROCESSORS_ONLN));
  EXPECT_GT(document.find("ram")->getInt(), 0);
  const JsonValue& scripts = *document.find("scriptsPrePost");
  ASSERT_EQ(scripts.size(), 2u);
  EXPECT_EQ(Names(scripts.children()[0]), (std::vector<std::string>{"displayname", "scriptname"}));
  EXPECT_EQ(scripts.children()[0].find("scriptname")->text(), "a.sh");
  EXPECT_EQ(scripts.children()[0].find("displayname")->text(), "a.sh");
  EXPECT_EQ(scripts.children()[1].find("displayname")->text(), "Database");
  EXPECT_TRUE(document.find("volumes")->isArray());

  struct utsname names;
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(document.find("kernel")->text(), std::string(names.release) + " " + names.version);
  EXPECT_EQ(document.find("os_arch")->text(), names.machine);
  EXPECT_EQ(document.find("archBits")->getInt(), std::string(names.machine) == "x86_64" ? 64 : 32);
  EXPECT_EQ(document.find("agentVersion")->text(), "1.0.16");
  EXPECT_EQ(document.find("apiVersion")->text(), "1.0.0");
  EXPECT_EQ(document.find("driverVersion")->text(), "0.10.2-0");
  char hostname[1024] = {0};
  gethostname(hostname, sizeof(hostname) - 1);
  EXPECT_EQ(document.find("hostname")->text(), hostname);

  std::set<std::string> interfaces;
  for (const JsonValue& entry : document.find("networkInterfaceList")->children()) {
    EXPECT_EQ(Names(entry), std::vector<std::string>{"name"});
    EXPECT_TRUE(interfaces.insert(entry.find("name")->text()).second) << "listed twice";
  }
  EXPECT_TRUE(interfaces.count("lo"));
  std::vector<std::string> capabilities;
  for (const JsonValue& entry : document.find("capabilities")->children()) capabilities.push_back(entry.text());
  EXPECT_EQ(capabilities, (std::vector<std::string>{"ISCSI", "backupType", "noDiffmergeTarget", "backupErrorMsg"}));
}

TEST_F(HostTest, MissingDriverAndScriptsStillGiveADocument) {
  JsonValue document = Host::Build();
  EXPECT_EQ(document.find("driverVersion")->text(), "unavailable");
  EXPECT_EQ(document.find("scriptsPrePost")->size(), 0u);
  EXPECT_TRUE(Logged(kError, "Host: Could not retrieve pre-post scripts."));
  // An incompatible driver is as good as none.
  Write("zelko-info", R"({"version":"0.9.1","devices":[]})");
  EXPECT_EQ(Host::Build().find("driverVersion")->text(), "unavailable");
}

TEST_F(HostTest, VolumeMembersAndFlags) {
  BlockDevice root;
  root.uuid = "1111-2222";
  root.mountPoint = "/";
  root.mounted = true;
  root.readOnly = true;
  root.path = "/dev/sda2";
  root.wholeDiskPath = "/dev/sda";
  root.partitionScheme = "GPT";
  root.sectorSize = 4096;
  root.sectorCount = 1000;
  root.hiddenSectors = 256;
  root.serialNumber = 0x11112222;
  JsonValue document = Host::VolumeDocument(root);
  EXPECT_EQ(Names(document),
            (std::vector<std::string>{"guid", "mountpoints", "device", "diskdevice", "spaceTotal", "spaceFree",
                                      "filesystem", "sectorSize", "sectorsTotal", "hiddenSectors", "blockSize",
                                      "serialNumber", "volumeType", "label", "OSVolume", "sysVolume", "removable",
                                      "mounted", "readonly", "partScheme"}));
  EXPECT_TRUE(document.find("OSVolume")->getBool());
  EXPECT_TRUE(document.find("readonly")->getBool());
  EXPECT_EQ(document.find("serialNumber")->text(), "286335522");
  EXPECT_EQ(document.find("partScheme")->text(), "GPT");

  BlockDevice boot;
  boot.mountPoint = "/boot";
  boot.mounted = true;
  JsonValue bootDocument = Host::VolumeDocument(boot);
  EXPECT_FALSE(bootDocument.find("OSVolume")->getBool());
  EXPECT_TRUE(bootDocument.find("sysVolume")->getBool());
  EXPECT_FALSE(bootDocument.find("readonly")->getBool());

  // Unmounted: no "readonly", and a stale "/" mount point makes no OS volume.
  BlockDevice unmounted;
  unmounted.mountPoint = "/";
  JsonValue unmountedDocument = Host::VolumeDocument(unmounted);
  EXPECT_EQ(unmountedDocument.find("readonly"), nullptr);
  EXPECT_FALSE(unmountedDocument.find("OSVolume")->getBool());
  EXPECT_FALSE(unmountedDocument.find("mounted")->getBool());
}

TEST_F(HostTest, OsBuildFromTheFirstReleaseFileThatNamesIt) {
  const std::string none = dir_ + "/none";
  std::string build;
  std::string osRelease = Write("os-release",
                                "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\n"
                                "VERSION_ID=\"12\"\nVERSION=\"12 (bookworm)\"\nID=debian\n");
  ASSERT_TRUE(Host::ReadOsBuild(build, osRelease, none, none, none));
  EXPECT_EQ(build, "Debian GNU/Linux 12 (bookworm)");
  ASSERT_TRUE(Host::ReadOsBuild(build, Write("name-only", "NAME=Alpine\n"), none, none, none));
  EXPECT_EQ(build, "Alpine");

  std::string noName = Write("no-name", "PRETTY_NAME=\"Something\"\nVERSION=\"1\"\n");
  std::string lsb = Write("lsb", "DISTRIB_ID=Ubuntu\nDISTRIB_DESCRIPTION=\"Ubuntu 22.04.3 LTS\"\n");
  ASSERT_TRUE(Host::ReadOsBuild(build, noName, lsb, none, none));
  EXPECT_EQ(build, "Ubuntu 22.04.3 LTS");
  std::string redhat = Write("redhat", "Rocky Linux release 9.3 (Blue Onyx)\nsecond line\n");
  ASSERT_TRUE(Host::ReadOsBuild(build, none, Write("lsb-empty", "DISTRIB_ID=x\n"), redhat, none));
  EXPECT_EQ(build, "Rocky Linux release 9.3 (Blue Onyx)");
  std::string issue = Write("issue", "Debian GNU/Linux 12 \\n \\l\n\n");
  ASSERT_TRUE(Host::ReadOsBuild(build, none, none, none, issue));
  EXPECT_EQ(build, "Debian GNU/Linux 12");

  EXPECT_FALSE(Host::ReadOsBuild(build, none, none, none, none));
  EXPECT_FALSE(Host::ReadOsBuild(build, none, none, none, Write("blank-issue", "\\n \\l\n")));
  EXPECT_EQ(build, "");
}

TEST_F(HostTest, BasicHostDocument) {
  JsonValue document = BasicHost::Build();
  EXPECT_EQ(Names(document), (std::vector<std::string>{"os", "os_arch", "hostName"}));
  std::string build;
  ASSERT_TRUE(Host::ReadOsBuild(build));
  EXPECT_EQ(document.find("os")->text(), build);
  struct utsname names;
  ASSERT_EQ(uname(&names), 0);
  EXPECT_EQ(document.find("os_arch")->text(), names.machine);
  EXPECT_EQ(document.find("hostName")->text(), names.nodename);
}

}  // namespace
}  // namespace orv
