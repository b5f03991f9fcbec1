#include "identity/certificate_tools.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/unit/test_support.h"

namespace orv {
namespace {

std::vector<std::string> DirectoryEntries(const std::string& path) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

class CertificateToolsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/orv-certtools-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    keyPath_ = dir_ + "/server.key";
    csrPath_ = dir_ + "/server.csr";
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string dir_;
  std::string keyPath_;
  std::string csrPath_;
  CertificateTools tools_;
};

// The key's mode, the request's label, subject, key size and signature, and that nothing
// but the identity's files is left, are checked on every enrolment of the system tests.
TEST_F(CertificateToolsTest, ReplacesExistingFilesWithoutFollowingLinks) {
  std::string victim = dir_ + "/victim";
  std::ofstream(victim) << "keep me";
  ASSERT_EQ(symlink(victim.c_str(), keyPath_.c_str()), 0);
  std::ofstream(csrPath_) << "old request";
  ASSERT_EQ(chmod(csrPath_.c_str(), 0600), 0);

  ASSERT_EQ(tools_.create("agent.example", keyPath_, csrPath_), "");
  EXPECT_EQ(ReadText(victim), "keep me");
  struct stat info;
  ASSERT_EQ(lstat(keyPath_.c_str(), &info), 0);
  EXPECT_TRUE(S_ISREG(info.st_mode));
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  std::string firstKey = ReadText(keyPath_);
  EXPECT_EQ(ReadText(csrPath_).rfind("-----BEGIN CERTIFICATE REQUEST-----", 0), 0u);

  // Every run makes a new key.
  ASSERT_EQ(tools_.create("agent.example", keyPath_, csrPath_), "");
  EXPECT_NE(ReadText(keyPath_), firstKey);
}

TEST_F(CertificateToolsTest, MissingDirectoryIsReportedWithErrno) {
  std::string missingKey = dir_ + "/missing/server.key";
  EXPECT_EQ(tools_.create("agent.example", missingKey, dir_ + "/missing/server.csr"),
            "Unable to create private key file: " + missingKey + " error: 2");
  EXPECT_TRUE(DirectoryEntries(dir_).empty());
}

TEST_F(CertificateToolsTest, FailedRequestWriteLeavesNoPartialRequest) {
  std::string missingCsr = dir_ + "/missing/server.csr";
  EXPECT_EQ(tools_.create("agent.example", keyPath_, missingCsr),
            "Unable to create certificate request file: " + missingCsr + " error: 2");
  // The key is kept (start-up still re-enrols: there is no certificate), but only as
  // a complete file and without temporary files.
  EXPECT_EQ(DirectoryEntries(dir_), (std::vector<std::string>{"server.key"}));

  // A request path that is a directory cannot be replaced: the rename fails.
  ASSERT_EQ(mkdir(csrPath_.c_str(), 0700), 0);
  EXPECT_EQ(tools_.create("agent.example", keyPath_, csrPath_), "Unable to write certificate request, error: 21");
  EXPECT_EQ(DirectoryEntries(dir_), (std::vector<std::string>{"server.csr", "server.key"}));
}

}  // namespace
}  // namespace orv
