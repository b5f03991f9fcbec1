#include <gtest/gtest.h>

#include <string>

#include "api/agent_api.h"

namespace orv {
namespace {

using Route = AgentAPI::Route;

Route Of(const std::string& method, const std::string& url) { return AgentAPI::Match(method, url).route; }

TEST(RouterMatch, OpenRoutesAreExact) {
  EXPECT_EQ(Of("GET", "/basichost"), Route::kBasicHost);
  EXPECT_EQ(Of("GET", "/basichost/"), Route::kBadRequest);
  EXPECT_EQ(Of("POST", "/pair"), Route::kPair);
  EXPECT_EQ(Of("POST", "/pairing"), Route::kBadRequest);
  EXPECT_EQ(Of("GET", "/pair"), Route::kBadRequest);
  EXPECT_TRUE(AgentAPI::Match("GET", "/basichost").open);
  EXPECT_TRUE(AgentAPI::Match("POST", "/pair").open);
  EXPECT_FALSE(AgentAPI::Match("GET", "/host").open);
  EXPECT_FALSE(AgentAPI::Match("GET", "/unknown").open);
}

TEST(RouterMatch, BackupRoutes) {
  // "GET /backup" lists all backups, "GET /backup/" asks for the backup with the empty
  // id, and "DELETE /backup" names no backup at all.
  EXPECT_EQ(Of("POST", "/backup"), Route::kBackupStart);
  EXPECT_EQ(Of("GET", "/backup"), Route::kBackupStatusAll);
  EXPECT_EQ(Of("GET", "/backup/"), Route::kBackupStatus);
  EXPECT_EQ(Of("GET", "/backup/1234-abcd"), Route::kBackupStatus);
  EXPECT_EQ(Of("DELETE", "/backup/1234-abcd"), Route::kBackupCancel);
  EXPECT_EQ(Of("DELETE", "/backup"), Route::kBadRequest);
  EXPECT_EQ(Of("POST", "/backup/"), Route::kBadRequest);
  EXPECT_EQ(Of("GET", "/backups"), Route::kBadRequest);
  EXPECT_EQ(Of("GET", "/host"), Route::kHost);
  EXPECT_EQ(Of("GET", "/hosts"), Route::kBadRequest);
}

TEST(RouterMatch, PrefixRoutesIgnoreTheRestOfTheUrl) {
  EXPECT_EQ(Of("GET", "/event"), Route::kEvent);
  EXPECT_EQ(Of("GET", "/events"), Route::kEvent);
  EXPECT_EQ(Of("GET", "/event/whatever"), Route::kEvent);
  EXPECT_EQ(Of("GET", "/config"), Route::kConfigGet);
  EXPECT_EQ(Of("GET", "/configuration"), Route::kConfigGet);
  EXPECT_EQ(Of("POST", "/configuration"), Route::kConfigSet);
  EXPECT_EQ(Of("GET", "/conf"), Route::kBadRequest);
  EXPECT_EQ(Of("GET", "/Config"), Route::kBadRequest);
}

TEST(RouterMatch, MethodsMustMatchExactly) {
  EXPECT_EQ(Of("PUT", "/config"), Route::kBadRequest);
  EXPECT_EQ(Of("DELETE", "/config"), Route::kBadRequest);
  EXPECT_EQ(Of("get", "/config"), Route::kBadRequest);
  EXPECT_EQ(Of("POST", "/event"), Route::kBadRequest);
  EXPECT_EQ(Of("", ""), Route::kBadRequest);
}

TEST(RouterMatch, ContentTypesAndCacheClearing) {
  struct Expectation {
    const char* method;
    const char* url;
    const char* contentType;
    bool clearsCache;
  };
  const Expectation table[] = {
      {"GET", "/basichost", "application/json", true}, {"POST", "/pair", "text/plain", true},
      {"GET", "/host", "application/json", true},      {"POST", "/backup", "text/plain", true},
      {"GET", "/backup", "application/json", false},   {"GET", "/backup/x", "application/json", false},
      {"DELETE", "/backup/x", "application/json", true}, {"GET", "/event", "application/json", true},
      {"GET", "/config", "application/json", true},    {"POST", "/config", "text/plain", true},
      {"PUT", "/x", "text/plain", false},
  };
  for (const Expectation& e : table) {
    const AgentAPI::RouteEntry& entry = AgentAPI::Match(e.method, e.url);
    EXPECT_STREQ(entry.contentType, e.contentType) << e.method << " " << e.url;
    EXPECT_EQ(entry.clearsCache, e.clearsCache) << e.method << " " << e.url;
  }
}

}  // namespace
}  // namespace orv
