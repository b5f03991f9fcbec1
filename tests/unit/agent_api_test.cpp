#include "api/agent_api.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "api/get_logs.h"
#include "store/config_table.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

// The router and handlers on an agent root of their own; serving them over TLS, pairing
// and the configuration documents are exercised end to end by the REST system tests.
class ScratchAgent : public AgentRootTest {
 protected:
  static size_t Count(const std::string& message) {
    std::vector<std::string> logs = LoggedMessages(message);
    return static_cast<size_t>(std::count(logs.begin(), logs.end(), message));
  }
  struct Answer {
    int status;
    std::string contentType;
    std::string body;
  };
  Answer Call(uint32_t device, const std::string& method, const std::string& url, const std::string& body = "") {
    Answer answer;
    answer.status = api_.route(device, method, url, {}, body, &answer.contentType, &answer.body);
    return answer;
  }
  void ConfigureAll() {
    ASSERT_TRUE(set_config("rest_port", "4443"));
    ASSERT_TRUE(set_config("log_days_to_keep", "30"));
    ASSERT_TRUE(set_config("log_level", "3"));
  }

  AgentAPI api_{nullptr};
};

using AgentApiAuth = ScratchAgent;

TEST_F(AgentApiAuth, NoPairingRefusesEveryoneWithoutWarning) {
  EXPECT_FALSE(api_.isAuthorized(0));
  EXPECT_FALSE(api_.isAuthorized(42));
  api_.clearCache();
  ASSERT_TRUE(set_device_id(0));
  EXPECT_FALSE(api_.isAuthorized(0));
  EXPECT_EQ(Count("Unauthorized device id: 0"), 0u);
  EXPECT_EQ(Count("Unauthorized device id: 42"), 0u);
}

TEST_F(AgentApiAuth, PairedIdIsCachedUntilCleared) {
  ASSERT_TRUE(set_device_id(42));
  EXPECT_TRUE(api_.isAuthorized(42));
  EXPECT_TRUE(Logged("in isauthorized calling select."));
  EXPECT_TRUE(Logged("select returned true."));

  ASSERT_TRUE(set_device_id(7));  // behind the cache's back
  EXPECT_TRUE(api_.isAuthorized(42));
  EXPECT_TRUE(Logged("in isauthorized using cached value 42."));
  EXPECT_FALSE(api_.isAuthorized(7));
  EXPECT_TRUE(Logged("Unauthorized device id: 7"));
  EXPECT_EQ(Count("in isauthorized calling select."), 1u);

  api_.clearCache();
  EXPECT_TRUE(api_.isAuthorized(7));
  EXPECT_FALSE(api_.isAuthorized(42));
  EXPECT_EQ(Count("in isauthorized calling select."), 2u);
}

using AgentApiRouting = ScratchAgent;

TEST_F(AgentApiRouting, BadRequestsAndUnservedRoutes) {
  ASSERT_TRUE(set_device_id(42));
  for (auto [method, url] : std::vector<std::pair<const char*, const char*>>{
           {"DELETE", "/backup"}, {"PUT", "/config"}, {"GET", "/nothing"}, {"POST", "/backup"},
           {"GET", "/backup"}, {"GET", "/backup/x"}, {"DELETE", "/backup/x"}}) {
    Answer answer = Call(42, method, url, "{}");
    EXPECT_EQ(answer.status, 400) << method << " " << url;
    EXPECT_EQ(answer.contentType, "text/plain");
    EXPECT_EQ(answer.body, "Bad request.");
  }
  // Without a backup manager the backup routes are bad requests.
  EXPECT_EQ(Count("400 - Bad request"), 7u);
  // Open to anyone with a certificate of the authority.
  Answer basic = Call(7, "GET", "/basichost");
  EXPECT_EQ(basic.status, 200);
  EXPECT_EQ(basic.contentType, "application/json");
}

TEST_F(AgentApiRouting, HandlersClearTheCacheAndBadRequestsDoNot) {
  ASSERT_TRUE(set_device_id(42));
  EXPECT_EQ(Call(42, "GET", "/nothing").status, 400);
  ASSERT_TRUE(set_device_id(7));
  // Still the cached 42: the bad-request route leaves the cache alone.
  EXPECT_EQ(Call(42, "GET", "/nothing").status, 400);
  ConfigureAll();
  // The configuration read clears it, so the next request reads the new pairing.
  EXPECT_EQ(Call(42, "GET", "/config").status, 200);
  EXPECT_EQ(Call(42, "GET", "/config").status, 401);
  EXPECT_EQ(Call(7, "GET", "/config").status, 200);
}

TEST(GetLogsTimestamp, LocalDateTimeText) {
  EXPECT_EQ(GetLogs::ParseTimestamp("not a time"), 0);
  EXPECT_EQ(GetLogs::ParseTimestamp("2024-01-01 00:00:00 trailing"), 0);
  EXPECT_EQ(GetLogs::ParseTimestamp("2024-01-02 00:00:00") - GetLogs::ParseTimestamp("2024-01-01 00:00:00"), 86400);
}

}  // namespace
}  // namespace orv
