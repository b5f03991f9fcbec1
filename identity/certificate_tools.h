#ifndef ORV_IDENTITY_CERTIFICATE_TOOLS_H_
#define ORV_IDENTITY_CERTIFICATE_TOOLS_H_

#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <string>

namespace orv {

// Creates the agent's identity material with GnuTLS: a new RSA key and a PKCS#10
// certificate request signed with it, written as PEM files. Every operation returns a
// text: empty on success, otherwise the error message; nothing throws.
class CertificateTools {
 public:
  // The subject's fixed seat of the organisation.
  static constexpr const char* kCountry = "US";
  static constexpr const char* kState = "Oregon";
  static constexpr const char* kLocality = "Bend";
  static constexpr const char* kOrganisation = "Zelko";
  static constexpr const char* kOrganisationalUnit = "Device-Agent CA";
  static constexpr unsigned kKeyBits = 2048;

  CertificateTools() = default;
  virtual ~CertificateTools() = default;

  // Makes the key and the request and writes both files (the key readable by root
  // only). Each file is replaced as a whole or not at all.
  std::string create(const std::string& commonName, const std::string& keyPath, const std::string& csrPath);

  // Checks that a PEM text holds at least one X.509 certificate.
  std::string checkCertificates(const std::string& pem);
  // Checks that a PEM certificate certifies the public key of a PEM request, so that an
  // authority's answer never pairs the agent's key with someone else's certificate.
  std::string checkSignedCertificate(const std::string& certificatePem, const std::string& requestPem);

 private:
  std::string generateKey(gnutls_x509_privkey_t key, gnutls_privkey_t abstractKey);
  std::string fillRequest(gnutls_x509_crq_t crq, gnutls_x509_privkey_t key, gnutls_privkey_t abstractKey,
                          const std::string& commonName);
  std::string writeKey(gnutls_x509_privkey_t key, const std::string& keyPath);
  std::string writeRequest(gnutls_x509_crq_t crq, const std::string& csrPath);
};

}  // namespace orv

#endif  // ORV_IDENTITY_CERTIFICATE_TOOLS_H_
