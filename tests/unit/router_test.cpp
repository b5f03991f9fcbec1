#include <gtest/gtest.h>

#include <string>

#include "api/agent_api.h"

namespace orv {
namespace {

using Route = AgentAPI::Route;

TEST(RouterMatch, MethodAndUrlPickTheRoute) {
  // "GET /backup" lists all backups, "GET /backup/" asks for the backup with the empty
  // id, and "DELETE /backup" names no backup at all. "/event" and "/config" are matched
  // by prefix, every other route exactly; methods match exactly.
  const struct {
    const char* method;
    const char* url;
    Route route;
  } table[] = {
      {"GET", "/basichost", Route::kBasicHost},      {"GET", "/basichost/", Route::kBadRequest},
      {"POST", "/pair", Route::kPair},               {"POST", "/pairing", Route::kBadRequest},
      {"GET", "/pair", Route::kBadRequest},          {"POST", "/backup", Route::kBackupStart},
      {"GET", "/backup", Route::kBackupStatusAll},   {"GET", "/backup/", Route::kBackupStatus},
      {"GET", "/backup/1234-abcd", Route::kBackupStatus}, {"DELETE", "/backup/1234-abcd", Route::kBackupCancel},
      {"DELETE", "/backup", Route::kBadRequest},     {"POST", "/backup/", Route::kBadRequest},
      {"GET", "/backups", Route::kBadRequest},       {"GET", "/host", Route::kHost},
      {"GET", "/hosts", Route::kBadRequest},         {"GET", "/event", Route::kEvent},
      {"GET", "/events", Route::kEvent},             {"GET", "/event/whatever", Route::kEvent},
      {"GET", "/config", Route::kConfigGet},         {"GET", "/configuration", Route::kConfigGet},
      {"POST", "/configuration", Route::kConfigSet}, {"GET", "/conf", Route::kBadRequest},
      {"GET", "/Config", Route::kBadRequest},        {"PUT", "/config", Route::kBadRequest},
      {"DELETE", "/config", Route::kBadRequest},     {"get", "/config", Route::kBadRequest},
      {"POST", "/event", Route::kBadRequest},        {"", "", Route::kBadRequest},
  };
  for (const auto& e : table) EXPECT_EQ(AgentAPI::Match(e.method, e.url).route, e.route) << e.method << " " << e.url;
  EXPECT_TRUE(AgentAPI::Match("GET", "/basichost").open);
  EXPECT_TRUE(AgentAPI::Match("POST", "/pair").open);
  EXPECT_FALSE(AgentAPI::Match("GET", "/host").open);
  EXPECT_FALSE(AgentAPI::Match("GET", "/unknown").open);
}

}  // namespace
}  // namespace orv
