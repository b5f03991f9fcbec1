#include "api/http_server.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "api/agent_api.h"
#include "store/config_table.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

// The server's start up to the TLS setup: the port configuration and the certificate
// files. Serving over TLS is exercised by the system tests.
class HttpServerStart : public AgentRootTest {
 protected:
  void Write(const std::string& name) { std::ofstream(root_.etc() + "/certs/" + name) << "-----BEGIN NOTHING-----\n"; }
  static std::string Config(const char* name) {
    std::string value;
    return get_config(name, &value) ? value : "<absent>";
  }

  AgentAPI api_{nullptr};
};

TEST_F(HttpServerStart, InvalidPortsAreReplacedAndValidOnesTaken) {
  {
    HttpServer server(&api_);
    EXPECT_FALSE(server.start());
    EXPECT_TRUE(Logged("Port configuration not set - using default."));
    EXPECT_EQ(Config("rest_port"), "<absent>");  // an absent port is not written
    EXPECT_EQ(server.port(), 25567);
  }
  for (const char* value : {"0", "65536", "abc", "", "-1", "4294967296"}) {
    ASSERT_TRUE(set_config("rest_port", value));
    HttpServer server(&api_);
    EXPECT_FALSE(server.start());
    EXPECT_EQ(Config("rest_port"), "25567") << value;
    EXPECT_EQ(server.port(), 25567) << value;
  }
  EXPECT_TRUE(Logged("Invalid port configuration - using default."));
  for (const char* value : {"1", "65535", "8443abc"}) {
    ASSERT_TRUE(set_config("rest_port", value));
    HttpServer server(&api_);
    EXPECT_FALSE(server.start());
    EXPECT_EQ(server.port(), static_cast<uint16_t>(strtol(value, nullptr, 10))) << value;
    EXPECT_EQ(Config("rest_port"), value);
    EXPECT_TRUE(Logged(std::string("Setting server port to configuration: ") + value));
  }
}

TEST_F(HttpServerStart, EachMissingCertificateFileIsNamedWithTheEffectiveDirectory) {
  HttpServer server(&api_);
  for (auto [file, line] : {
           std::pair<const char*, const char*>{
               "server.key", "Could not start Zelko Linux Agent. Certificate key (server.key) not found in "},
           {"server.pem", "Could not start Zelko Linux Agent. PEM format certificate (server.pem) not found in "},
           {"ca.crt", "Could not start Zelko Linux Agent. Authority certificate (ca.crt) not found in "}}) {
    EXPECT_FALSE(server.start());
    EXPECT_TRUE(Logged(line + root_.etc() + "/certs.\n")) << file;
    Write(file);
  }
  // All three present but unusable: the library refuses them.
  EXPECT_FALSE(server.start());
  EXPECT_FALSE(server.running());
}

TEST_F(HttpServerStart, RestartsGoBackToTheDefaultPortAndNeverRaiseAStoppedServer) {
  ASSERT_TRUE(set_config("rest_port", "8443"));
  {
    HttpServer server(&api_);
    server.restart(false);
    EXPECT_EQ(Config("rest_port"), "25567");
    EXPECT_FALSE(Logged("Could not restart api server. Trying again in 5 seconds..."));
  }
  ASSERT_TRUE(set_config("rest_port", "8443"));
  HttpServer stopped(&api_);
  stopped.stop();
  stopped.restart(true);
  // Nothing was tried: the configuration is untouched and no retry was armed.
  EXPECT_EQ(Config("rest_port"), "8443");
  EXPECT_FALSE(Logged("Http server restart in 5 secs..."));
}

TEST_F(HttpServerStart, ExpiryRestartsOnTheTimerThreadAndRetriesUntilDestroyed) {
  auto started = std::chrono::steady_clock::now();
  {
    HttpServer server(&api_);
    ASSERT_TRUE(server.scheduleRestart());
    EXPECT_TRUE(Logged("Http server restart in 5 secs..."));
    // No certificates: the restart fails and arms the timer again.
    while (!Logged("Could not restart api server. Trying again in 5 seconds...") &&
           std::chrono::steady_clock::now() - started < std::chrono::seconds(20)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_TRUE(Logged("Could not restart api server. Trying again in 5 seconds..."));
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(4900));
  }
  // The destructor does not wait for the pending retry.
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(9));
}

}  // namespace
}  // namespace orv
