#include "identity/certificate_tools.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "daemon/logger.h"
#include "identity/gnutls_object.h"
#include "identity/replacement_file.h"

namespace orv {

namespace {

// Runs a GnuTLS export call, which reports the size it needs when the buffer is short.
template <typename ExportCall>
int ExportPem(ExportCall exportCall, std::string& text) {
  std::vector<unsigned char> buffer(16384);
  size_t size = buffer.size();
  int code = exportCall(buffer.data(), &size);
  if (code == GNUTLS_E_SHORT_MEMORY_BUFFER) {
    buffer.resize(size);
    code = exportCall(buffer.data(), &size);
  }
  if (code == 0) text.assign(reinterpret_cast<const char*>(buffer.data()), size);
  return code;
}

// GnuTLS labels requests "NEW CERTIFICATE REQUEST"; the authority expects the standard
// label CERTIFICATE REQUEST.
std::string StandardRequestLabel(const std::string& pem) {
  static const std::string kOld = "NEW CERTIFICATE";
  std::string out;
  size_t pos = 0;
  for (;;) {
    size_t hit = pem.find(kOld, pos);
    if (hit == std::string::npos) break;
    out.append(pem, pos, hit - pos);
    out.append(kOld, 4, std::string::npos);
    pos = hit + kOld.size();
  }
  out.append(pem, pos, std::string::npos);
  return out;
}

gnutls_datum_t Datum(const std::string& text) {
  gnutls_datum_t datum;
  datum.data = reinterpret_cast<unsigned char*>(const_cast<char*>(text.data()));
  datum.size = static_cast<unsigned>(text.size());
  return datum;
}

}  // namespace

std::string CertificateTools::create(const std::string& commonName, const std::string& keyPath,
                                     const std::string& csrPath) {
  X509PrivateKey key;
  AbstractPrivateKey abstractKey;
  if (!key.ok() || !abstractKey.ok()) {
    return "Error creating private key, error: " + std::to_string(key.ok() ? abstractKey.result() : key.result());
  }
  std::string error = generateKey(key.get(), abstractKey.get());
  if (!error.empty()) return error;

  CertificateRequest crq;
  if (!crq.ok()) return "Could not initialize certificate request.";
  error = fillRequest(crq.get(), key.get(), abstractKey.get(), commonName);
  if (error.empty()) error = writeKey(key.get(), keyPath);
  if (error.empty()) error = writeRequest(crq.get(), csrPath);
  return error;
}

std::string CertificateTools::generateKey(gnutls_x509_privkey_t key, gnutls_privkey_t abstractKey) {
  int code = gnutls_x509_privkey_generate(key, GNUTLS_PK_RSA, kKeyBits, 0);
  if (code != 0) return "Error creating private key, error: " + std::to_string(code);
  code = gnutls_privkey_import_x509(abstractKey, key, 0);
  if (code != 0) return "Error importing x509 private key, error: " + std::to_string(code);
  return "";
}

std::string CertificateTools::fillRequest(gnutls_x509_crq_t crq, gnutls_x509_privkey_t key,
                                          gnutls_privkey_t abstractKey, const std::string& commonName) {
  // The subject, attribute by attribute in this order.
  const std::pair<const char*, std::string> subject[] = {
      {"2.5.4.6", kCountry},              // country
      {"2.5.4.8", kState},                // state or province
      {"2.5.4.7", kLocality},             // locality
      {"2.5.4.10", kOrganisation},        // organisation
      {"2.5.4.11", kOrganisationalUnit},  // organisational unit
      {"2.5.4.3", commonName},            // common name
  };
  for (const auto& [oid, value] : subject) {
    int code = gnutls_x509_crq_set_dn_by_oid(crq, oid, 0, value.data(), static_cast<unsigned>(value.size()));
    if (code != 0) return "Error setting certificate request subject " + std::string(oid) + ", error: " +
                          std::to_string(code);
  }
  int code = gnutls_x509_crq_set_version(crq, 1);
  if (code != 0) return "Error setting certificate request version, error: " + std::to_string(code);
  code = gnutls_x509_crq_set_key(crq, key);
  if (code != 0) return "Error setting certificate request key, error: " + std::to_string(code);
  code = gnutls_x509_crq_privkey_sign(crq, abstractKey, GNUTLS_DIG_SHA256, 0);
  if (code != 0) return "Error signing certificate request with private key, error: " + std::to_string(code);
  return "";
}

std::string CertificateTools::writeKey(gnutls_x509_privkey_t key, const std::string& keyPath) {
  ReplacementFile file(keyPath, 0600);
  int error = file.open();
  if (error != 0) return "Unable to create private key file: " + keyPath + " error: " + std::to_string(error);

  std::string pem;
  int code = ExportPem(
      [key](unsigned char* buffer, size_t* size) {
        return gnutls_x509_privkey_export(key, GNUTLS_X509_FMT_PEM, buffer, size);
      },
      pem);
  if (code != 0) return "Unable to export private key, error: " + std::to_string(code);

  // Owner read and write only, before the key's bytes reach the file. The file is made
  // 0600 already; this also holds under an unusual umask.
  if (fchmod(file.descriptor(), 0600) != 0) {
    int fault = errno;
    LogEvent(kWarning, "", "Unable to set private key permissions, errno %d, %s", fault, strerror(fault));
  }
  error = file.write(pem);
  if (error == 0) error = file.commit();
  if (error != 0) return "Unable to write private key, error: " + std::to_string(error);
  return "";
}

std::string CertificateTools::writeRequest(gnutls_x509_crq_t crq, const std::string& csrPath) {
  ReplacementFile file(csrPath, 0666);
  int error = file.open();
  if (error != 0) {
    return "Unable to create certificate request file: " + csrPath + " error: " + std::to_string(error);
  }

  std::string pem;
  int code = ExportPem(
      [crq](unsigned char* buffer, size_t* size) {
        return gnutls_x509_crq_export(crq, GNUTLS_X509_FMT_PEM, buffer, size);
      },
      pem);
  if (code != 0) return "Unable to export certificate request, error: " + std::to_string(code);

  error = file.write(StandardRequestLabel(pem));
  if (error == 0) error = file.commit();
  if (error != 0) return "Unable to write certificate request, error: " + std::to_string(error);
  return "";
}

std::string CertificateTools::checkCertificates(const std::string& pem) {
  gnutls_datum_t datum = Datum(pem);
  gnutls_x509_crt_t* list = nullptr;
  unsigned count = 0;
  int code = gnutls_x509_crt_list_import2(&list, &count, &datum, GNUTLS_X509_FMT_PEM, 0);
  if (code < 0) return "Unable to read certificate, error: " + std::to_string(code);
  for (unsigned i = 0; i < count; ++i) gnutls_x509_crt_deinit(list[i]);
  gnutls_free(list);
  if (count == 0) return "Unable to read certificate, error: " + std::to_string(GNUTLS_E_NO_CERTIFICATE_FOUND);
  return "";
}

std::string CertificateTools::checkSignedCertificate(const std::string& certificatePem,
                                                     const std::string& requestPem) {
  X509Certificate certificate;
  CertificateRequest request;
  if (!certificate.ok()) return "Unable to read certificate, error: " + std::to_string(certificate.result());
  if (!request.ok()) return "Could not initialize certificate request.";
  gnutls_datum_t certificateDatum = Datum(certificatePem);
  int code = gnutls_x509_crt_import(certificate.get(), &certificateDatum, GNUTLS_X509_FMT_PEM);
  if (code != 0) return "Unable to read certificate, error: " + std::to_string(code);
  gnutls_datum_t requestDatum = Datum(requestPem);
  code = gnutls_x509_crq_import(request.get(), &requestDatum, GNUTLS_X509_FMT_PEM);
  if (code != 0) return "Unable to read certificate request, error: " + std::to_string(code);

  unsigned char certificateId[64];
  unsigned char requestId[64];
  size_t certificateIdSize = sizeof(certificateId);
  size_t requestIdSize = sizeof(requestId);
  code = gnutls_x509_crt_get_key_id(certificate.get(), 0, certificateId, &certificateIdSize);
  if (code != 0) return "Unable to read certificate key, error: " + std::to_string(code);
  code = gnutls_x509_crq_get_key_id(request.get(), 0, requestId, &requestIdSize);
  if (code != 0) return "Unable to read certificate request key, error: " + std::to_string(code);
  if (certificateIdSize != requestIdSize || memcmp(certificateId, requestId, requestIdSize) != 0) {
    return "Signed certificate does not match the private key.";
  }
  return "";
}

}  // namespace orv
