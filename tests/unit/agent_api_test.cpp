#include "api/agent_api.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "api/config_get.h"
#include "api/config_set.h"
#include "api/get_logs.h"
#include "api/pair.h"
#include "store/config_table.h"
#include "store/database_maintainer.h"
#include "store/log_table.h"

namespace orv {
namespace {

// An agent configuration directory of its own, with a fresh database, for one test.
class ScratchAgent : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/orv-api-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    const char* previous = getenv("ORVD_ETC_DIR");
    hadPrevious_ = previous != nullptr;
    if (hadPrevious_) previous_ = previous;
    setenv("ORVD_ETC_DIR", dir_.c_str(), 1);
    DatabaseMaintainer maintainer;
    ASSERT_TRUE(maintainer.initialise());
    maintainer.close();
  }
  void TearDown() override {
    if (hadPrevious_) {
      setenv("ORVD_ETC_DIR", previous_.c_str(), 1);
    } else {
      unsetenv("ORVD_ETC_DIR");
    }
    std::filesystem::remove_all(dir_);
  }

  static std::vector<std::string> Logs() {
    std::vector<LogRow> rows;
    list_logs(&rows, 0, 0, "", "");
    std::vector<std::string> messages;
    for (const LogRow& row : rows) messages.push_back(row.message);
    return messages;
  }
  static bool Logged(const std::string& message) {
    std::vector<std::string> logs = Logs();
    return std::find(logs.begin(), logs.end(), message) != logs.end();
  }
  static size_t Count(const std::string& message) {
    std::vector<std::string> logs = Logs();
    return static_cast<size_t>(std::count(logs.begin(), logs.end(), message));
  }

  struct Answer {
    int status;
    std::string contentType;
    std::string body;
  };
  Answer Call(uint32_t device, const std::string& method, const std::string& url, const std::string& body = "",
              const std::map<std::string, std::string>& args = {}) {
    Answer answer;
    answer.status = api_.route(device, method, url, args, body, &answer.contentType, &answer.body);
    return answer;
  }
  void ConfigureAll() {
    ASSERT_TRUE(set_config("rest_port", "4443"));
    ASSERT_TRUE(set_config("log_days_to_keep", "30"));
    ASSERT_TRUE(set_config("log_level", "3"));
  }

  AgentAPI api_{nullptr};

 private:
  std::string dir_;
  std::string previous_;
  bool hadPrevious_ = false;
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

TEST_F(AgentApiAuth, NegativeCallerIdsAreLoggedAsSigned) {
  ASSERT_TRUE(set_device_id(5));
  EXPECT_FALSE(api_.isAuthorized(static_cast<uint32_t>(-3)));
  EXPECT_TRUE(Logged("Unauthorized device id: -3"));
}

using AgentApiRouting = ScratchAgent;

TEST_F(AgentApiRouting, PairThenServeThePairedDevice) {
  Answer paired = Call(9, "POST", "/pair", "{\"deviceID\": 42}");
  EXPECT_EQ(paired.status, 201);
  EXPECT_EQ(paired.contentType, "text/plain");
  EXPECT_EQ(paired.body, "");
  EXPECT_TRUE(Logged("Pair request. Device id: 42"));

  Answer missing = Call(42, "GET", "/config");
  EXPECT_EQ(missing.status, 500);
  EXPECT_EQ(missing.contentType, "application/json");
  EXPECT_TRUE(Logged("Get configurations request."));
  EXPECT_TRUE(Logged("Get logs handler exception: Could not retrieve configurations."));

  ConfigureAll();
  Answer config = Call(42, "GET", "/configuration");
  EXPECT_EQ(config.status, 200);
  EXPECT_EQ(config.body, "{\n\t\"rest_port\" : 4443,\n\t\"log_days_to_keep\" : 30,\n\t\"log_level\" : 3\n}");
  EXPECT_EQ(Call(9, "GET", "/config").status, 401);
}

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

TEST_F(AgentApiRouting, JsonBodyLimit) {
  ASSERT_TRUE(set_device_id(42));
  const std::string head = "{\"log_level\": 2, \"pad\": \"";
  const std::string tail = "\"}";
  std::string exact = head + std::string(AgentAPI::kMaxJsonBody - head.size() - tail.size(), 'x') + tail;
  ASSERT_EQ(exact.size(), AgentAPI::kMaxJsonBody);
  EXPECT_TRUE(AgentAPI::CheckJsonBody(exact));
  EXPECT_EQ(Call(42, "POST", "/config", exact).status, 200);
  std::string value;
  ASSERT_TRUE(get_config("log_level", &value));
  EXPECT_EQ(value, "2");

  std::string over = head + std::string(AgentAPI::kMaxJsonBody - head.size() - tail.size() + 1, 'x') + tail;
  EXPECT_FALSE(AgentAPI::CheckJsonBody(over));
  EXPECT_EQ(Call(42, "POST", "/config", over).status, 400);
  EXPECT_EQ(Call(42, "POST", "/pair", over).status, 400);
}

TEST_F(AgentApiRouting, JsonBodyCheckAcceptsTextValidOnceStripped) {
  EXPECT_TRUE(AgentAPI::CheckJsonBody("{\"deviceID\": 4 2}"));
  EXPECT_FALSE(AgentAPI::CheckJsonBody("{\"deviceID\": 4, }"));
  EXPECT_TRUE(Logged("Invalid JSON: {\"deviceID\": 4, }"));
}

using ConfigResources = ScratchAgent;

TEST_F(ConfigResources, ConfigSetReadsMemberTextAndWritesAllThree) {
  ConfigSet config;
  ASSERT_TRUE(config.parse("{\"log_level\": \"4\", \"rest_port\": 8443.9, \"extra\": true}"));
  EXPECT_EQ(config.restPort(), 8443);
  EXPECT_EQ(config.logDaysToKeep(), 0);
  EXPECT_EQ(config.logLevel(), 4);
  config.save();
  ConfigGet read;
  read.load();
  EXPECT_EQ(read.restPort(), 8443);
  EXPECT_EQ(read.logDaysToKeep(), 0);
  EXPECT_EQ(read.logLevel(), 4);
  EXPECT_FALSE(config.parse("[1]"));
  EXPECT_FALSE(config.parse("{"));
}

TEST_F(ConfigResources, ConfigGetFailsWhenAnyKeyIsMissing) {
  ASSERT_TRUE(set_config("rest_port", "1"));
  ASSERT_TRUE(set_config("log_days_to_keep", "2"));
  ConfigGet config;
  EXPECT_THROW(config.load(), std::runtime_error);
  ASSERT_TRUE(set_config("log_level", "junk"));
  config.load();
  EXPECT_EQ(config.logLevel(), 0);
  EXPECT_EQ(config.render().WriteFormatted(),
            "{\n\t\"rest_port\" : 1,\n\t\"log_days_to_keep\" : 2,\n\t\"log_level\" : 0\n}");
}

TEST_F(ConfigResources, PairParsesAndRefusesIdsBelowOne) {
  Pair pair;
  ASSERT_TRUE(pair.parse("{\"deviceID\": \"17abc\"}"));
  EXPECT_EQ(pair.deviceId(), 17);
  ASSERT_TRUE(pair.parse("{\"other\": 1}"));
  EXPECT_EQ(pair.deviceId(), 0);
  try {
    pair.save();
    FAIL();
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Invalid device id.");
  }
}

TEST(GetLogsTimestamp, LocalDateTimeText) {
  EXPECT_EQ(GetLogs::ParseTimestamp("not a time"), 0);
  EXPECT_EQ(GetLogs::ParseTimestamp("2024-01-01 00:00:00 trailing"), 0);
  EXPECT_EQ(GetLogs::ParseTimestamp("2024-01-02 00:00:00") - GetLogs::ParseTimestamp("2024-01-01 00:00:00"), 86400);
}

}  // namespace
}  // namespace orv
