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
class AgentApiTest : public AgentRootTest {
 protected:
  static size_t Count(const std::string& message) {
    std::vector<std::string> logs = LoggedMessages(message);
    return static_cast<size_t>(std::count(logs.begin(), logs.end(), message));
  }
  int Call(uint32_t device, const std::string& method, const std::string& url, const std::string& request = "",
           std::string* contentType = nullptr, std::string* body = nullptr) {
    std::string type, text;
    int status = api_.route(device, method, url, {}, request, &type, &text);
    if (contentType != nullptr) *contentType = type;
    if (body != nullptr) *body = text;
    return status;
  }

  AgentAPI api_{nullptr};
};

TEST_F(AgentApiTest, PairedIdIsCachedUntilClearedAndNoPairingRefusesEveryoneSilently) {
  EXPECT_FALSE(api_.isAuthorized(0));
  EXPECT_FALSE(api_.isAuthorized(42));
  api_.clearCache();
  ASSERT_TRUE(set_device_id(0));
  EXPECT_FALSE(api_.isAuthorized(0));
  EXPECT_EQ(Count("Unauthorized device id: 0") + Count("Unauthorized device id: 42"), 0u);

  api_.clearCache();
  ASSERT_TRUE(set_device_id(42));
  EXPECT_TRUE(api_.isAuthorized(42));
  EXPECT_TRUE(Logged("select returned true."));
  ASSERT_TRUE(set_device_id(7));  // behind the cache's back
  EXPECT_TRUE(api_.isAuthorized(42));
  EXPECT_TRUE(Logged("in isauthorized using cached value 42."));
  EXPECT_FALSE(api_.isAuthorized(7));
  EXPECT_TRUE(Logged("Unauthorized device id: 7"));
  size_t selects = Count("in isauthorized calling select.");
  api_.clearCache();
  EXPECT_TRUE(api_.isAuthorized(7));
  EXPECT_FALSE(api_.isAuthorized(42));
  EXPECT_EQ(Count("in isauthorized calling select."), selects + 1);
}

TEST_F(AgentApiTest, BadRequestsLeaveTheCacheAndHandlersClearIt) {
  ASSERT_TRUE(set_device_id(42));
  // Without a backup manager the backup routes are bad requests too.
  for (auto [method, url] : std::vector<std::pair<const char*, const char*>>{
           {"DELETE", "/backup"}, {"PUT", "/config"}, {"GET", "/nothing"}, {"POST", "/backup"},
           {"GET", "/backup"}, {"GET", "/backup/x"}, {"DELETE", "/backup/x"}}) {
    std::string type, body;
    EXPECT_EQ(Call(42, method, url, "{}", &type, &body), 400) << method << " " << url;
    EXPECT_EQ(type + " " + body, "text/plain Bad request.");
  }
  EXPECT_EQ(Count("400 - Bad request"), 7u);

  ASSERT_TRUE(set_device_id(7));
  EXPECT_EQ(Call(42, "GET", "/nothing"), 400);  // still the cached 42
  ASSERT_TRUE(set_config("rest_port", "4443"));
  ASSERT_TRUE(set_config("log_days_to_keep", "30"));
  ASSERT_TRUE(set_config("log_level", "3"));
  // The configuration read clears it, so the next request reads the new pairing.
  EXPECT_EQ(Call(42, "GET", "/config"), 200);
  EXPECT_EQ(Call(42, "GET", "/config"), 401);
  EXPECT_EQ(Call(7, "GET", "/config"), 200);
  std::string type;
  EXPECT_EQ(Call(99, "GET", "/basichost", "", &type), 200);  // open to anyone with a certificate of the authority
  EXPECT_EQ(type, "application/json");
}

TEST(GetLogsTimestamp, LocalDateTimeText) {
  EXPECT_EQ(GetLogs::ParseTimestamp("not a time"), 0);
  EXPECT_EQ(GetLogs::ParseTimestamp("2024-01-01 00:00:00 trailing"), 0);
  EXPECT_EQ(GetLogs::ParseTimestamp("2024-01-02 00:00:00") - GetLogs::ParseTimestamp("2024-01-01 00:00:00"), 86400);
}

}  // namespace
}  // namespace orv
