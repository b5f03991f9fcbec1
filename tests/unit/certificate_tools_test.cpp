#include "identity/certificate_tools.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "identity/gnutls_object.h"

namespace orv {
namespace {

std::string ReadText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

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
  void TearDown() override {
    std::string command = "rm -rf '" + dir_ + "'";
    ASSERT_EQ(system(command.c_str()), 0);
  }

  std::string dir_;
  std::string keyPath_;
  std::string csrPath_;
  CertificateTools tools_;
};

TEST_F(CertificateToolsTest, WritesKeyOwnerOnlyAndRequestWithStandardLabel) {
  ASSERT_EQ(tools_.create("agent.example", keyPath_, csrPath_), "");

  struct stat info;
  ASSERT_EQ(stat(keyPath_.c_str(), &info), 0);
  EXPECT_TRUE(S_ISREG(info.st_mode));
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  std::string key = ReadText(keyPath_);
  EXPECT_EQ(key.rfind("-----BEGIN ", 0), 0u) << key;
  EXPECT_NE(key.find("PRIVATE KEY-----\n"), std::string::npos);
  EXPECT_EQ(key.find('\0'), std::string::npos);

  std::string csr = ReadText(csrPath_);
  EXPECT_EQ(csr.rfind("-----BEGIN CERTIFICATE REQUEST-----\n", 0), 0u) << csr;
  EXPECT_NE(csr.find("-----END CERTIFICATE REQUEST-----"), std::string::npos) << csr;
  EXPECT_EQ(csr.find("NEW"), std::string::npos) << csr;
  EXPECT_EQ(csr.find('\0'), std::string::npos);

  // Nothing but the two files: no temporary file is left behind.
  EXPECT_EQ(DirectoryEntries(dir_), (std::vector<std::string>{"server.csr", "server.key"}));
}

TEST_F(CertificateToolsTest, RequestCarriesSubjectInOrderAndVerifiesWithKey) {
  ASSERT_EQ(tools_.create("agent.example", keyPath_, csrPath_), "");

  CertificateRequest crq;
  ASSERT_TRUE(crq.ok());
  std::string csr = ReadText(csrPath_);
  gnutls_datum_t csrDatum = Datum(csr);
  ASSERT_EQ(gnutls_x509_crq_import(crq.get(), &csrDatum, GNUTLS_X509_FMT_PEM), 0);

  const std::vector<std::pair<std::string, std::string>> expected = {
      {"2.5.4.6", "US"},
      {"2.5.4.8", CertificateTools::kState},
      {"2.5.4.7", CertificateTools::kLocality},
      {"2.5.4.10", "Zelko"},
      {"2.5.4.11", "Device-Agent CA"},
      {"2.5.4.3", "agent.example"},
  };
  for (size_t i = 0; i < expected.size(); ++i) {
    char oid[128];
    size_t oidSize = sizeof(oid);
    ASSERT_EQ(gnutls_x509_crq_get_dn_oid(crq.get(), static_cast<unsigned>(i), oid, &oidSize), 0) << i;
    EXPECT_EQ(std::string(oid), expected[i].first) << i;
    char value[256];
    size_t valueSize = sizeof(value);
    ASSERT_EQ(gnutls_x509_crq_get_dn_by_oid(crq.get(), oid, 0, 0, value, &valueSize), 0) << oid;
    EXPECT_EQ(std::string(value, valueSize), expected[i].second) << oid;
  }
  char extra[128];
  size_t extraSize = sizeof(extra);
  EXPECT_EQ(gnutls_x509_crq_get_dn_oid(crq.get(), 6, extra, &extraSize), GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE);

  EXPECT_EQ(gnutls_x509_crq_get_version(crq.get()), 1);
  EXPECT_EQ(gnutls_x509_crq_get_signature_algorithm(crq.get()), GNUTLS_SIGN_RSA_SHA256);
  unsigned bits = 0;
  EXPECT_EQ(gnutls_x509_crq_get_pk_algorithm(crq.get(), &bits), GNUTLS_PK_RSA);
  EXPECT_EQ(bits, 2048u);
  EXPECT_EQ(gnutls_x509_crq_verify(crq.get(), 0), 0);

  // The request holds the public half of the written key.
  X509PrivateKey key;
  ASSERT_TRUE(key.ok());
  std::string keyPem = ReadText(keyPath_);
  gnutls_datum_t keyDatum = Datum(keyPem);
  ASSERT_EQ(gnutls_x509_privkey_import(key.get(), &keyDatum, GNUTLS_X509_FMT_PEM), 0);
  unsigned char keyId[64], requestId[64];
  size_t keyIdSize = sizeof(keyId), requestIdSize = sizeof(requestId);
  ASSERT_EQ(gnutls_x509_privkey_get_key_id(key.get(), 0, keyId, &keyIdSize), 0);
  ASSERT_EQ(gnutls_x509_crq_get_key_id(crq.get(), 0, requestId, &requestIdSize), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(keyId), keyIdSize),
            std::string(reinterpret_cast<char*>(requestId), requestIdSize));
}

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
