// Distinguished names as GnuTLS prints them from the certificates of both sides of a
// TLS session: the issuers' CN, O and OU decide whether a caller is let in at all.
#include <cstddef>
#include <cstdint>
#include <string>

#include "api/cert_utils.h"
#include "tests/fuzz/fuzz_check.h"

namespace orv {
namespace {

// A value as a certificate authority writes it into a DN: backslash, comma and plus
// escaped.
std::string Escaped(const std::string& value) {
  std::string out;
  for (char c : value) {
    if (c == '\\' || c == ',' || c == '+') out += '\\';
    out += c;
  }
  return out;
}

}  // namespace
}  // namespace orv

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using orv::DistinguishedName;
  using orv::FuzzCheck;
  const std::string dn(reinterpret_cast<const char*>(data), size);
  DistinguishedName record;
  bool parsed = orv::CertUtils::ParseDn(dn, &record);
  FuzzCheck(parsed == !dn.empty(), "every DN but the empty one parses");
  FuzzCheck(!orv::CertUtils::ParseDn(dn, nullptr), "no record, no parse");
  if (!parsed) return 0;
  // Whatever the three values are, a DN written from them, escaped, reads back as
  // them: no value can carry a separator that splits it, or another attribute's value.
  const std::string written = "CN=DEVICEID:" + orv::Escaped(record.commonName) +
                              ",O=" + orv::Escaped(record.organisation) +
                              "+OU=" + orv::Escaped(record.organisationalUnit);
  DistinguishedName again;
  FuzzCheck(orv::CertUtils::ParseDn(written, &again), "a written DN parses");
  FuzzCheck(again.commonName == record.commonName && again.organisation == record.organisation &&
                again.organisationalUnit == record.organisationalUnit,
            "a DN written from the values reads back the same values");
  return 0;
}
