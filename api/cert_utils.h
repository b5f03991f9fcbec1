#ifndef ORV_API_CERT_UTILS_H_
#define ORV_API_CERT_UTILS_H_

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <cstdint>
#include <memory>
#include <string>

namespace orv {

// The three attributes of a distinguished name that the agent compares between the
// issuers of its own and the caller's certificate, and the device id's carrier.
struct DistinguishedName {
  std::string commonName;          // after "CN=DEVICEID:" when present, else after "CN="
  std::string organisation;        // after "O="
  std::string organisationalUnit;  // after "OU="
};

// Releases a GnuTLS certificate when its holder leaves scope.
struct CertificateRelease {
  void operator()(gnutls_x509_crt_t certificate) const;
};
using Certificate = std::unique_ptr<gnutls_x509_crt_int, CertificateRelease>;

// Reads the certificates of a TLS session and decides whether the caller may speak to
// the agent at all: both certificates must come from issuers with the same CN, O and OU,
// and the caller's subject must name its device id. Which device is paired is the
// router's question, not this one's.
class CertUtils {
 public:
  CertUtils() = default;
  virtual ~CertUtils() = default;

  // The agent's own certificate as sent in the handshake; null on failure.
  Certificate localCertificate(gnutls_session_t session);
  // The caller's first certificate; null when the caller sent none or it can't be read.
  Certificate peerCertificate(gnutls_session_t session);
  std::string issuerDn(gnutls_x509_crt_t certificate);
  std::string subjectDn(gnutls_x509_crt_t certificate);

  // Splits a DN in the form GnuTLS prints (RFC 4514: components separated by commas,
  // multi-valued components by plus signs, "\," and "\+" escaping the separators) and
  // fills the record. False for an empty DN.
  static bool ParseDn(const std::string& dn, DistinguishedName* record);

  // The session check of every request: true with the caller's device id, or false
  // after logging why the caller was refused. `deviceId` is 0 unless accepted.
  bool checkSession(gnutls_session_t session, uint32_t* deviceId);

 private:
  using DnReader = int (*)(gnutls_x509_crt_t, char*, size_t*);
  std::string readDn(gnutls_x509_crt_t certificate, DnReader reader);
};

}  // namespace orv

#endif  // ORV_API_CERT_UTILS_H_
