#include "identity/certificate_tools.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "identity/gnutls_object.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

gnutls_datum_t Datum(const std::string& text) {
  return {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())), static_cast<unsigned>(text.size())};
}

std::vector<std::string> DirectoryEntries(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
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

// Signs the request at `csrPath` with the key at `keyPath`, as a self-issued
// certificate, the way an authority answers it.
std::string IssueCertificate(const std::string& csrPath, const std::string& keyPath) {
  CertificateRequest crq;
  X509PrivateKey key;
  X509Certificate crt;
  std::string csr = ReadText(csrPath);
  std::string keyPem = ReadText(keyPath);
  gnutls_datum_t csrDatum = Datum(csr);
  gnutls_datum_t keyDatum = Datum(keyPem);
  EXPECT_EQ(gnutls_x509_crq_import(crq.get(), &csrDatum, GNUTLS_X509_FMT_PEM), 0);
  EXPECT_EQ(gnutls_x509_privkey_import(key.get(), &keyDatum, GNUTLS_X509_FMT_PEM), 0);
  EXPECT_EQ(gnutls_x509_crt_set_crq(crt.get(), crq.get()), 0);
  unsigned char serial[] = {1, 2, 3};
  EXPECT_EQ(gnutls_x509_crt_set_serial(crt.get(), serial, sizeof(serial)), 0);
  time_t now = time(nullptr);
  EXPECT_EQ(gnutls_x509_crt_set_activation_time(crt.get(), now - 3600), 0);
  EXPECT_EQ(gnutls_x509_crt_set_expiration_time(crt.get(), now + 86400), 0);
  EXPECT_EQ(gnutls_x509_crt_sign2(crt.get(), crt.get(), key.get(), GNUTLS_DIG_SHA256, 0), 0);
  char pem[16384];
  size_t size = sizeof(pem);
  EXPECT_EQ(gnutls_x509_crt_export(crt.get(), GNUTLS_X509_FMT_PEM, pem, &size), 0);
  return std::string(pem, size);
}

TEST_F(CertificateToolsTest, ChecksAuthorityAnswers) {
  ASSERT_EQ(tools_.create("agent.example", keyPath_, csrPath_), "");
  std::string otherKey = dir_ + "/other.key";
  std::string otherCsr = dir_ + "/other.csr";
  ASSERT_EQ(tools_.create("agent.example", otherKey, otherCsr), "");
  std::string certificate = IssueCertificate(csrPath_, keyPath_);
  std::string request = ReadText(csrPath_);

  EXPECT_EQ(tools_.checkCertificates(certificate), "");
  EXPECT_EQ(tools_.checkCertificates(certificate + certificate), "");
  EXPECT_EQ(tools_.checkCertificates("not a certificate").rfind("Unable to read certificate, error: -", 0), 0u);
  EXPECT_EQ(tools_.checkCertificates(request).rfind("Unable to read certificate, error: -", 0), 0u);

  EXPECT_EQ(tools_.checkSignedCertificate(certificate, request), "");
  EXPECT_EQ(tools_.checkSignedCertificate(certificate, ReadText(otherCsr)),
            "Signed certificate does not match the private key.");
  EXPECT_EQ(tools_.checkSignedCertificate(certificate.substr(0, certificate.size() / 2), request)
                .rfind("Unable to read certificate, error: -", 0),
            0u);
}

}  // namespace
}  // namespace orv
