#include "backup/reload_script.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/unit/test_support.h"

namespace orv {
namespace {

TEST(ReloadScriptTest, WrittenWholeWithModeAndText) {
  AgentRoot root;
  ASSERT_TRUE(root.initialiseDatabase());
  ASSERT_EQ(ReloadScript::Write(3, "abcd-1234", "/mnt/v/.zelko1"), 0);
  std::string path = root.etc() + "/reload_3";
  EXPECT_EQ(ReloadScript::Path(3), path);
  struct stat info;
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0700u);
  EXPECT_EQ(ReadText(path),
            "#!/bin/sh\n\n"
            "echo \"Reloading incremental - 3 ...\" > /dev/kmsg\n"
            "/usr/bin/zbdctl reload-incremental /dev/disk/by-uuid/abcd-1234 /mnt/v/.zelko1 3\n");
  // Rewriting replaces the whole text and leaves no staging file behind.
  ASSERT_EQ(ReloadScript::Write(3, "u", "/c"), 0);
  EXPECT_EQ(ReadText(path).find("abcd"), std::string::npos);
  EXPECT_NE(stat((root.etc() + "/.reload_3.new").c_str(), &info), 0);
  setenv("ORVD_ZBDCTL", "/opt/sim/zbdctl", 1);
  EXPECT_NE(ReloadScript::Text(3, "u", "/c").find("\n/opt/sim/zbdctl reload-incremental /dev/disk/by-uuid/u /c 3\n"),
            std::string::npos);
  unsetenv("ORVD_ZBDCTL");
  ASSERT_EQ(ReloadScript::Delete(3), 0);
  EXPECT_EQ(ReloadScript::Delete(3), 0);
}

TEST(ReloadScriptTest, StrayScriptsAreRemovedTrackedOnesKept) {
  AgentRoot root;
  ASSERT_TRUE(root.initialiseDatabase());
  for (int minor : {0, 1, 2}) ASSERT_EQ(ReloadScript::Write(minor, "u", "/c"), 0);
  std::ofstream(root.etc() + "/reload_notes") << "x";       // not executable: never collected
  ASSERT_EQ(ReloadScript::Write(7, "u", "/c"), 0);
  rename((root.etc() + "/reload_7").c_str(), (root.etc() + "/reload_x7").c_str());  // executable, no minor
  int removed = ReloadScript::RemoveStray([](int minor) { return minor == 1; }, "b");
  EXPECT_EQ(removed, 3);
  struct stat info;
  EXPECT_EQ(stat((root.etc() + "/reload_1").c_str(), &info), 0);
  EXPECT_NE(stat((root.etc() + "/reload_0").c_str(), &info), 0);
  EXPECT_NE(stat((root.etc() + "/reload_x7").c_str(), &info), 0);
  EXPECT_EQ(stat((root.etc() + "/reload_notes").c_str(), &info), 0);
}

}  // namespace
}  // namespace orv
