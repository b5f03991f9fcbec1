#include "api/cert_utils.h"

#include <gtest/gtest.h>

#include <string>

namespace orv {
namespace {

// Escaped separators, multi-valued components and the device-id prefix are also checked
// end to end, with real certificates, by the REST authorisation system tests.
TEST(ParseDn, ComponentsEscapesAndTheDeviceIdPrefix) {
  const struct {
    const char* dn;
    const char* commonName;
    const char* organisation;
    const char* unit;
  } table[] = {
      {"C=US,O=Zelko,OU=Device-Agent CA,CN=Zelko Device-Agent CA", "Zelko Device-Agent CA", "Zelko", "Device-Agent CA"},
      {"CN=DEVICEID:1234", "1234", "", ""},
      {"CN=DEVICEID:", "", "", ""},
      {"CN=DEVICEID1234", "DEVICEID1234", "", ""},
      {"OU=x+CN=DEVICEID:7", "7", "", "x"},
      {"CN=DEVICEID:7+OU=x", "7", "", "x"},
      {"CN=DEVICEID:7\\,CN=DEVICEID:42,O=Acme\\, Inc.,OU=R\\+D", "7,CN=DEVICEID:42", "Acme, Inc.", "R+D"},
      {"CN=DEVICEID:7\\+CN=DEVICEID:42", "7+CN=DEVICEID:42", "", ""},
      // An escaped backslash, then a real comma.
      {"O=a\\\\,CN=5", "5", "a\\", ""},
      {"O=\\\"quoted\\\"", "", "\"quoted\"", ""},
      {"O=a\\2Cb", "", "a,b", ""},
      {"O=trailing\\", "", "trailing\\", ""},
      // A later component overwrites; others, lower case and empty ones are ignored.
      {"CN=DEVICEID:1,CN=DEVICEID:2,L=Town,ST=State,cn=9,O", "2", "", ""},
      {",,+", "", "", ""},
  };
  for (const auto& e : table) {
    DistinguishedName name;
    ASSERT_TRUE(CertUtils::ParseDn(e.dn, &name)) << e.dn;
    EXPECT_EQ(name.commonName, e.commonName) << e.dn;
    EXPECT_EQ(name.organisation, e.organisation) << e.dn;
    EXPECT_EQ(name.organisationalUnit, e.unit) << e.dn;
  }
  DistinguishedName record;
  EXPECT_FALSE(CertUtils::ParseDn("", &record));
  EXPECT_FALSE(CertUtils::ParseDn("CN=1", nullptr));
}

}  // namespace
}  // namespace orv
