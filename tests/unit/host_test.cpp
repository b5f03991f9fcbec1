#include "api/host.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "tests/unit/test_support.h"

namespace orv {
namespace {

// The host document's members, volume list and a host without driver or scripts are
// checked on real devices by the block-device system tests; these need a driver, scripts
// or particular volumes and release files.
class HostTest : public AgentRootTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(AgentRootTest::SetUp());
    setenv("ORVD_DRIVER_INFO", (root_.root() + "/zelko-info").c_str(), 1);
  }
  void TearDown() override { unsetenv("ORVD_DRIVER_INFO"); }
  std::string Write(const std::string& name, const std::string& text) {
    std::string path = root_.root() + "/" + name;
    std::ofstream(path) << text;
    return path;
  }
};

TEST_F(HostTest, ScriptsAndDriverVersion) {
  ASSERT_EQ(mkdir((root_.etc() + "/pps").c_str(), 0755), 0);
  std::ofstream(root_.etc() + "/pps/b.sh") << "#!/bin/sh\n## DISPLAYNAME: Database\n";
  std::ofstream(root_.etc() + "/pps/a.sh") << "#!/bin/sh\n";
  Write("zelko-info", R"({"version":"0.10.2","devices":[]})");
  JsonValue document = Host::Build();
  EXPECT_EQ(document.find("scriptsPrePost")->WriteCompact(),
            R"([{"displayname":"a.sh","scriptname":"a.sh"},{"displayname":"Database","scriptname":"b.sh"}])");
  EXPECT_EQ(document.find("driverVersion")->text(), "0.10.2-0");
  // An incompatible driver is as good as none.
  Write("zelko-info", R"({"version":"0.9.1","devices":[]})");
  EXPECT_EQ(Host::Build().find("driverVersion")->text(), "unavailable");
}

TEST_F(HostTest, VolumeFlags) {
  BlockDevice root;
  root.mountPoint = "/";
  root.mounted = true;
  root.readOnly = true;
  root.serialNumber = 0x11112222;
  JsonValue document = Host::VolumeDocument(root);
  EXPECT_TRUE(document.find("OSVolume")->getBool());
  EXPECT_TRUE(document.find("readonly")->getBool());
  EXPECT_EQ(document.find("serialNumber")->text(), "286335522");
  BlockDevice boot;
  boot.mountPoint = "/boot";
  boot.mounted = true;
  EXPECT_FALSE(Host::VolumeDocument(boot).find("OSVolume")->getBool());
  EXPECT_TRUE(Host::VolumeDocument(boot).find("sysVolume")->getBool());
  // A stale "/" mount point of an unmounted volume makes no OS volume.
  BlockDevice unmounted;
  unmounted.mountPoint = "/";
  EXPECT_FALSE(Host::VolumeDocument(unmounted).find("OSVolume")->getBool());
}

TEST_F(HostTest, OsBuildFromTheFirstReleaseFileThatNamesIt) {
  const std::string none = root_.root() + "/none";
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
  ASSERT_TRUE(Host::ReadOsBuild(build, none, none, none, Write("issue", "Debian GNU/Linux 12 \\n \\l\n\n")));
  EXPECT_EQ(build, "Debian GNU/Linux 12");
  EXPECT_FALSE(Host::ReadOsBuild(build, none, none, none, none));
  EXPECT_FALSE(Host::ReadOsBuild(build, none, none, none, Write("blank-issue", "\\n \\l\n")));
  EXPECT_EQ(build, "");
}

}  // namespace
}  // namespace orv
