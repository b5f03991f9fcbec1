#include "daemon/thread_priority.h"

#include <gtest/gtest.h>

#include <thread>

namespace orv {
namespace {

// The server's listener is started under ScopedServerPriority and starts the connection
// threads itself; a connection thread starts a backup, which goes back to the process's
// priority. The same three generations here.
TEST(ThreadPriorityTest, ServerThreadsRunAboveTheProcessAndTheWorkTheyStartDoesNot) {
  int base = ThreadNice();
  ASSERT_GE(base - ScopedServerPriority::kBoost, -20) << "the test runs at a nice value too low to raise";
  int listener = 99, connection = 99, backup = 99, during = 99;
  {
    ScopedServerPriority priority;
    during = ThreadNice();
    std::thread([&] {
      listener = ThreadNice();
      std::thread([&] {
        connection = ThreadNice();
        std::thread([&] {
          RestoreProcessPriority();
          backup = ThreadNice();
        }).join();
      }).join();
    }).join();
  }
  EXPECT_EQ(during, base - ScopedServerPriority::kBoost);
  EXPECT_EQ(listener, base - ScopedServerPriority::kBoost);
  EXPECT_EQ(connection, base - ScopedServerPriority::kBoost);
  EXPECT_EQ(backup, base);
  // The thread that started the server is back where it was.
  EXPECT_EQ(ThreadNice(), base);
}

TEST(ThreadPriorityTest, AServerRestartedFromAServerThreadIsNotRaisedTwice) {
  int base = ThreadNice();
  int restarted = 99;
  {
    ScopedServerPriority priority;
    std::thread([&] {
      ScopedServerPriority again;
      restarted = ThreadNice();
    }).join();
  }
  EXPECT_EQ(restarted, base - ScopedServerPriority::kBoost);
}

}  // namespace
}  // namespace orv
