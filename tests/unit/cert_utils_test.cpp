#include "api/cert_utils.h"

#include <gtest/gtest.h>

#include <string>

namespace orv {
namespace {

DistinguishedName Parsed(const std::string& dn) {
  DistinguishedName record;
  EXPECT_TRUE(CertUtils::ParseDn(dn, &record)) << dn;
  return record;
}

TEST(ParseDn, ReadsCommonNameOrganisationAndUnit) {
  DistinguishedName name = Parsed("C=US,O=Zelko,OU=Device-Agent CA,CN=Zelko Device-Agent CA");
  EXPECT_EQ(name.commonName, "Zelko Device-Agent CA");
  EXPECT_EQ(name.organisation, "Zelko");
  EXPECT_EQ(name.organisationalUnit, "Device-Agent CA");
}

TEST(ParseDn, DeviceIdPrefixIsTakenOffTheCommonName) {
  EXPECT_EQ(Parsed("CN=DEVICEID:1234").commonName, "1234");
  EXPECT_EQ(Parsed("CN=DEVICEID:").commonName, "");
  EXPECT_EQ(Parsed("CN=1234").commonName, "1234");
  EXPECT_EQ(Parsed("CN=DEVICEID1234").commonName, "DEVICEID1234");
}

TEST(ParseDn, MultiValuedComponentsInEitherOrder) {
  DistinguishedName a = Parsed("OU=x+CN=DEVICEID:7");
  DistinguishedName b = Parsed("CN=DEVICEID:7+OU=x");
  EXPECT_EQ(a.commonName, "7");
  EXPECT_EQ(a.organisationalUnit, "x");
  EXPECT_EQ(b.commonName, "7");
  EXPECT_EQ(b.organisationalUnit, "x");
}

TEST(ParseDn, EscapedSeparatorsStayInsideTheirValue) {
  DistinguishedName name = Parsed("CN=DEVICEID:7\\,CN=DEVICEID:42,O=Acme\\, Inc.,OU=R\\+D");
  EXPECT_EQ(name.commonName, "7,CN=DEVICEID:42");
  EXPECT_EQ(name.organisation, "Acme, Inc.");
  EXPECT_EQ(name.organisationalUnit, "R+D");
  EXPECT_EQ(Parsed("CN=DEVICEID:7\\+CN=DEVICEID:42").commonName, "7+CN=DEVICEID:42");
}

TEST(ParseDn, EscapedBackslashBeforeASeparatorStillSeparates) {
  // The text O=a\\,CN=5: an escaped backslash, then a real comma.
  DistinguishedName name = Parsed("O=a\\\\,CN=5");
  EXPECT_EQ(name.organisation, "a\\");
  EXPECT_EQ(name.commonName, "5");
}

TEST(ParseDn, OtherEscapesAndHexPairs) {
  EXPECT_EQ(Parsed("O=\\\"quoted\\\"").organisation, "\"quoted\"");
  EXPECT_EQ(Parsed("O=a\\2Cb").organisation, "a,b");
  EXPECT_EQ(Parsed("O=trailing\\").organisation, "trailing\\");
}

TEST(ParseDn, LaterComponentOverwritesAndOthersAreIgnored) {
  DistinguishedName name = Parsed("CN=DEVICEID:1,CN=DEVICEID:2,L=Town,ST=State,cn=9,O");
  EXPECT_EQ(name.commonName, "2");
  EXPECT_EQ(name.organisation, "");
  EXPECT_EQ(name.organisationalUnit, "");
}

TEST(ParseDn, EmptyTextFails) {
  DistinguishedName record;
  EXPECT_FALSE(CertUtils::ParseDn("", &record));
  EXPECT_FALSE(CertUtils::ParseDn("CN=1", nullptr));
  EXPECT_TRUE(CertUtils::ParseDn(",,+", &record));
  EXPECT_EQ(record.commonName, "");
}

}  // namespace
}  // namespace orv
