#include "api/cert_utils.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <vector>

#include "daemon/logger.h"

namespace orv {

namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The value of a component without its escapes: "\c" is c, "\XX" (two hex digits) is
// that byte.
std::string Unescape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 >= text.size()) {
      out += text[i];
      continue;
    }
    int high = HexDigit(text[i + 1]);
    int low = i + 2 < text.size() ? HexDigit(text[i + 2]) : -1;
    if (high >= 0 && low >= 0) {
      out += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      out += text[++i];
    }
  }
  return out;
}

bool TakeAfterPrefix(const std::string& component, const char* prefix, std::string* value) {
  std::string p = prefix;
  if (component.size() < p.size() || component.compare(0, p.size(), p) != 0) return false;
  *value = Unescape(component.substr(p.size()));
  return true;
}

}  // namespace

void CertificateRelease::operator()(gnutls_x509_crt_t certificate) const {
  if (certificate != nullptr) gnutls_x509_crt_deinit(certificate);
}

Certificate CertUtils::localCertificate(gnutls_session_t session) {
  const gnutls_datum_t* ours = gnutls_certificate_get_ours(session);
  if (ours == nullptr) {
    LogEvent(kError, "", "Failed to retrieve local certificate chain.");
    return Certificate();
  }
  gnutls_x509_crt_t raw = nullptr;
  if (gnutls_x509_crt_init(&raw) < 0) {
    LogEvent(kError, "", "Failed to initialize local certificate.");
    return Certificate();
  }
  Certificate certificate(raw);
  if (gnutls_x509_crt_import(raw, ours, GNUTLS_X509_FMT_DER) < 0) {
    LogEvent(kError, "", "Failed to import local certificate.");
    return Certificate();
  }
  return certificate;
}

Certificate CertUtils::peerCertificate(gnutls_session_t session) {
  // Only the call's own result counts here: the verification status is not examined,
  // the issuer comparison of the session check being the agent's own test.
  unsigned int status = 0;
  if (gnutls_certificate_verify_peers2(session, &status) != 0) return Certificate();
  unsigned int count = 0;
  const gnutls_datum_t* peers = gnutls_certificate_get_peers(session, &count);
  if (peers == nullptr || count == 0) {
    LogEvent(kError, "", "Failed to retrieve peer certificate chain.");
    return Certificate();
  }
  gnutls_x509_crt_t raw = nullptr;
  if (gnutls_x509_crt_init(&raw) < 0) {
    LogEvent(kError, "", "Failed to initialize peer certificate.");
    return Certificate();
  }
  Certificate certificate(raw);
  if (gnutls_x509_crt_import(raw, &peers[0], GNUTLS_X509_FMT_DER) < 0) {
    LogEvent(kError, "", "Failed to import peer certificate.");
    return Certificate();
  }
  return certificate;
}

std::string CertUtils::readDn(gnutls_x509_crt_t certificate, DnReader reader) {
  if (certificate == nullptr) {
    LogEvent(kError, "", "Invalid certificate pointer.");
    return std::string();
  }
  size_t size = 0;
  reader(certificate, nullptr, &size);
  if (size == 0) return std::string();
  std::vector<char> buffer;
  try {
    buffer.resize(size + 1);
  } catch (const std::bad_alloc&) {
    LogEvent(kError, "", "Could not allocate memory for certificate data.");
    return std::string();
  }
  if (reader(certificate, buffer.data(), &size) < 0) return std::string();
  buffer[std::min(size, buffer.size() - 1)] = '\0';
  return std::string(buffer.data());
}

std::string CertUtils::issuerDn(gnutls_x509_crt_t certificate) {
  return readDn(certificate, gnutls_x509_crt_get_issuer_dn);
}

std::string CertUtils::subjectDn(gnutls_x509_crt_t certificate) { return readDn(certificate, gnutls_x509_crt_get_dn); }

bool CertUtils::ParseDn(const std::string& dn, DistinguishedName* record) {
  if (dn.empty() || record == nullptr) return false;
  // An escape pair is taken whole, so an escaped backslash before a separator ("\\,")
  // still separates.
  std::vector<std::string> components;
  std::string current;
  for (size_t i = 0; i < dn.size(); ++i) {
    char c = dn[i];
    if (c == '\\' && i + 1 < dn.size()) {
      current += c;
      current += dn[++i];
    } else if (c == ',' || c == '+') {
      components.push_back(current);
      current.clear();
    } else {
      current += c;
    }
  }
  components.push_back(current);
  for (const std::string& component : components) {
    std::string value;
    if (TakeAfterPrefix(component, "CN=DEVICEID:", &value) || TakeAfterPrefix(component, "CN=", &value)) {
      record->commonName = value;
    } else if (TakeAfterPrefix(component, "O=", &value)) {
      record->organisation = value;
    } else if (TakeAfterPrefix(component, "OU=", &value)) {
      record->organisationalUnit = value;
    }
  }
  return true;
}

bool CertUtils::checkSession(gnutls_session_t session, uint32_t* deviceId) {
  *deviceId = 0;
  if (session == nullptr) {
    LogEvent(kError, "", "Invalid session during request.");
    return false;
  }
  Certificate local = localCertificate(session);
  if (!local) {
    LogEvent(kError, "", "Invalid agent certificate during request.");
    return false;
  }
  Certificate peer = peerCertificate(session);
  if (!peer) {
    LogEvent(kError, "", "Invalid peer certificate during request.");
    return false;
  }
  std::string serverIssuer = issuerDn(local.get());
  std::string clientIssuer = issuerDn(peer.get());
  LogEvent(kDebug, "", "Server certificate issuer distinguished name: %s", serverIssuer.c_str());
  LogEvent(kDebug, "", "Client certificate issuer distinguished name: %s", clientIssuer.c_str());

  DistinguishedName serverName;
  if (!ParseDn(serverIssuer, &serverName)) {
    LogEvent(kError, "", "Local certificate issuer error during request.");
    return false;
  }
  DistinguishedName clientName;
  if (!ParseDn(clientIssuer, &clientName)) {
    LogEvent(kError, "", "Remote certificate issuer error during request.");
    return false;
  }
  if (serverName.commonName != clientName.commonName || serverName.organisation != clientName.organisation ||
      serverName.organisationalUnit != clientName.organisationalUnit) {
    LogEvent(kError, "", "Certificate issuer mismatch during request.");
    return false;
  }

  std::string subject = subjectDn(peer.get());
  LogEvent(kDebug, "", "Client certificate distinguished name: %s", subject.c_str());
  DistinguishedName subjectName;
  if (!ParseDn(subject, &subjectName) || subjectName.commonName.empty()) {
    LogEvent(kError, "", "Invalid device id during request.");
    return false;
  }
  *deviceId = static_cast<uint32_t>(strtol(subjectName.commonName.c_str(), nullptr, 10));
  return true;
}

}  // namespace orv
