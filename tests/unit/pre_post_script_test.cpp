#include "backup/pre_post_script.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <list>
#include <string>
#include <vector>

#include "daemon/logger.h"
#include "tests/unit/test_support.h"

namespace orv {
namespace {

using Outcome = PrePostScript::Outcome;
using Phase = PrePostScript::Phase;
using Clock = std::chrono::steady_clock;

int CountOpenFds() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

// The processes for which `match(state, parent, group)` holds (from /proc/<pid>/stat).
template <typename Match>
std::vector<pid_t> Processes(Match match) {
  std::vector<pid_t> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string text = ReadText(entry.path() / "stat");
    size_t close = text.rfind(')');
    char state;
    int ppid;
    int pgrp;
    if (close != std::string::npos && sscanf(text.c_str() + close + 1, " %c %d %d", &state, &ppid, &pgrp) == 3 &&
        match(state, ppid, pgrp)) {
      found.push_back(std::stoi(name));
    }
  }
  return found;
}

// Children of this process, zombies included.
std::vector<pid_t> Children() {
  return Processes([](char, int ppid, int) { return ppid == getpid(); });
}

// No live process is left in the group (orphaned zombies wait for init).
bool GroupGone(pid_t group) {
  return group > 0 && Processes([&](char state, int, int pgrp) { return pgrp == group && state != 'Z'; }).empty();
}

class PrePostScriptTest : public AgentRootTest {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(AgentRootTest::SetUp());
    scripts_ = root_.etc() + "/pps";
    ASSERT_EQ(mkdir(scripts_.c_str(), 0755), 0);
    fdsBefore_ = CountOpenFds();
  }
  void TearDown() override {
    // Every run reaps its child: nothing is left behind, not even a zombie.
    EXPECT_EQ(Children(), std::vector<pid_t>());
    EXPECT_EQ(CountOpenFds(), fdsBefore_);
  }

  void WriteScript(const std::string& name, const std::string& body, mode_t mode = 0755) {
    std::string path = scripts_ + "/" + name;
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
  }
  bool RunOne(PrePostScript& script, Phase phase = Phase::kPre) {
    return PrePostScript::runPhase({&script}, phase, "backup-7");
  }

  std::string scripts_;
  int fdsBefore_ = 0;
};

TEST_F(PrePostScriptTest, ScanTakesRegularFilesWithTheirDisplayNames) {
  std::list<PrePostScript> scripts;
  EXPECT_TRUE(PrePostScript::loadScripts(scripts));
  EXPECT_TRUE(scripts.empty());
  EXPECT_TRUE(LoggedContaining("No pre/post scripts found.", kInfo));

  WriteScript("b-db.sh", "## DISPLAYNAME: Flush the database  \r\necho x");
  WriteScript("a-plain.sh", "# DISPLAYNAME: not this one\n##DISPLAYNAME: nor this\necho y");
  WriteScript("c-empty-name.sh", "## DISPLAYNAME: \n## DISPLAYNAME: Second wins\n");
  ASSERT_EQ(mkdir((scripts_ + "/subdir").c_str(), 0755), 0);
  ASSERT_EQ(mkfifo((scripts_ + "/fifo").c_str(), 0644), 0);
  ASSERT_EQ(symlink("/nonexistent/target", (scripts_ + "/dangling").c_str()), 0);
  ASSERT_EQ(symlink("b-db.sh", (scripts_ + "/d-link").c_str()), 0);
  ASSERT_TRUE(PrePostScript::loadScripts(scripts));
  std::vector<std::pair<std::string, std::string>> found;
  for (const PrePostScript& script : scripts) found.emplace_back(script.fileName(), script.displayName());
  EXPECT_EQ(found, (std::vector<std::pair<std::string, std::string>>{{"a-plain.sh", "a-plain.sh"},
                                                                     {"b-db.sh", "Flush the database"},
                                                                     {"c-empty-name.sh", "Second wins"},
                                                                     {"d-link", "Flush the database"}}));
  EXPECT_TRUE(LoggedContaining("Could not stat pre/post script dangling.", kWarning));

  std::filesystem::remove_all(scripts_);
  EXPECT_FALSE(PrePostScript::loadScripts(scripts));
  EXPECT_TRUE(LoggedContaining("Could not open pre/post scripts directory.", kError));
}

// The output before the marker is kept, cut to bounded lines and size.
TEST_F(PrePostScriptTest, MarkerEndsTheRunAndTheStillRunningScriptIsKilled) {
  // The script's own child (sleep) must die with it.
  WriteScript("hold.sh", "echo \"arg $1\"\nprintf 'dos line\\r\\n'\necho PRE-DONE\nsleep 30\necho never");
  WriteScript("flood.sh",
              "head -c 300000 /dev/zero | tr '\\0' x\necho\nyes 'a line of output' | head -n 10000\necho PRE-DONE");
  PrePostScript script("hold.sh", 20);
  PrePostScript flood("flood.sh", 60);
  auto start = Clock::now();
  EXPECT_TRUE(PrePostScript::runPhase({&script, &flood}, Phase::kPre, "backup-7"));
  EXPECT_LT(SecondsSince(start), 3.0);
  script.join();
  EXPECT_LT(SecondsSince(start), 4.0);
  EXPECT_EQ(script.outcome(), Outcome::kDone);
  EXPECT_TRUE(script.isDone());
  EXPECT_EQ(script.output(), "arg PRE\ndos line\n");
  EXPECT_EQ(script.startTime(), 0);
  EXPECT_TRUE(GroupGone(script.childPid()));
  EXPECT_TRUE(LoggedContaining("Running pre-scripts...", kInfo));
  EXPECT_TRUE(LoggedContaining("is still alive, sleeping and killing it.", kInfo));
  std::string output = flood.output();
  EXPECT_EQ(output.size(), PrePostScript::kMaxOutputBytes);
  EXPECT_EQ(output.find('\n'), PrePostScript::kMaxLineBytes);
  EXPECT_EQ(output.substr(PrePostScript::kMaxLineBytes + 1, 18), "a line of output\na");
}

// A silent script and one that floods its pipe without end both stop at their timeout; one
// that closes its output is killed at once; one that exits without its own phase's marker
// (an indented one or the other phase's is none) or cannot start fails. None of them holds
// up the script that succeeds beside them.
TEST_F(PrePostScriptTest, ScriptsWithoutMarkerFailEachInTheirWay) {
  WriteScript("slow.sh", "echo working\nsleep 30 &\nwait");
  WriteScript("fast.sh", "echo PRE-DONE");
  WriteScript("endless.sh", "yes");
  WriteScript("closer.sh", "echo before\nexec >/dev/null 2>&1\nsleep 30");
  WriteScript("exits.sh", "echo ' PRE-DONE'\necho POST-DONE\nexit 0");
  WriteScript("not-executable.sh", "echo PRE-DONE", 0644);
  PrePostScript slow("slow.sh", 2);
  PrePostScript fast("fast.sh", 2);
  PrePostScript endless("endless.sh", 2);
  PrePostScript closer("closer.sh", 20);
  PrePostScript exits("exits.sh", 20);
  PrePostScript notExecutable("not-executable.sh", 20);
  auto start = Clock::now();
  EXPECT_FALSE(PrePostScript::runPhase({&slow, &fast, &endless, &closer, &exits, &notExecutable}, Phase::kPre,
                                       "backup-7"));
  double elapsed = SecondsSince(start);
  EXPECT_GE(elapsed, 2.0);
  EXPECT_LT(elapsed, 4.5);
  slow.join();
  endless.join();
  closer.join();
  EXPECT_LT(SecondsSince(start), 5.0);
  EXPECT_EQ(slow.outcome(), Outcome::kTimedOut);
  EXPECT_EQ(slow.output(), "working\n");
  EXPECT_EQ(endless.outcome(), Outcome::kTimedOut);
  EXPECT_EQ(endless.output().size(), PrePostScript::kMaxOutputBytes);
  EXPECT_TRUE(GroupGone(endless.childPid()));
  EXPECT_TRUE(fast.isDone());
  EXPECT_TRUE(GroupGone(slow.childPid()));
  EXPECT_TRUE(LoggedContaining("Pre script 'slow.sh' timed out.", kWarning));
  EXPECT_TRUE(LoggedContaining("runpre failed reading script output, errno: 110", kError));
  EXPECT_EQ(closer.outcome(), Outcome::kFailed);
  EXPECT_EQ(closer.output(), "before\n");
  EXPECT_TRUE(GroupGone(closer.childPid()));
  EXPECT_EQ(exits.outcome(), Outcome::kFailed);
  EXPECT_EQ(exits.output(), " PRE-DONE\nPOST-DONE\n");
  EXPECT_TRUE(LoggedContaining("runpre EOF on pipe", kInfo));
  EXPECT_EQ(notExecutable.outcome(), Outcome::kFailed);
  EXPECT_NE(notExecutable.output().find("Permission denied"), std::string::npos);
  EXPECT_TRUE(LoggedContaining("runpre failed reading script output, errno: 32", kError));
}

TEST_F(PrePostScriptTest, ScriptNamesAreNeverShellText) {
  PrePostScript missing("no-such-script.sh", 10);
  EXPECT_EQ(missing.displayName(), "no-such-script.sh");
  auto start = Clock::now();
  EXPECT_FALSE(RunOne(missing));
  EXPECT_LT(SecondsSince(start), 3.0);
  EXPECT_EQ(missing.outcome(), Outcome::kNotFound);
  EXPECT_TRUE(LoggedContaining("Pre/Post Script 'no-such-script.sh' not found", kError));
  WriteScript("it's a script.sh", "echo PRE-DONE");
  PrePostScript quoted("it's a script.sh", 10);
  EXPECT_TRUE(RunOne(quoted));
  // A name with shell syntax only names a (missing) file.
  std::string marker = root_.root() + "/injected";
  PrePostScript injected("x; touch " + marker, 10);
  EXPECT_FALSE(RunOne(injected));
  EXPECT_EQ(injected.outcome(), Outcome::kStartFailed);
  EXPECT_FALSE(std::filesystem::exists(marker));
  PrePostScript escape("../escape.sh", 10);
  EXPECT_FALSE(RunOne(escape, Phase::kPost));
  EXPECT_EQ(escape.outcome(), Outcome::kStartFailed);
  EXPECT_TRUE(LoggedContaining("Running post-scripts...", kInfo));
  EXPECT_TRUE(LoggedContaining("Post Script '../escape.sh' open error: 22", kError));
  EXPECT_TRUE(LoggedContaining("Pre/Post Script 'x; touch", kError));
}

TEST_F(PrePostScriptTest, WorksWhenSigchldIsIgnored) {
  // The backup thread ignores SIGCHLD, so the system reaps the children.
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction previous, previousPipe;
  ASSERT_EQ(sigaction(SIGCHLD, &ignore, &previous), 0);
  WriteScript("hold.sh", "echo PRE-DONE\nsleep 30");
  PrePostScript hold("hold.sh", 10);
  EXPECT_TRUE(RunOne(hold));
  hold.join();
  EXPECT_TRUE(GroupGone(hold.childPid()));
  // The script starts with default signals whatever the agent ignores or blocks.
  ASSERT_EQ(sigaction(SIGPIPE, &ignore, &previousPipe), 0);
  sigset_t blocked, previousMask;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &blocked, &previousMask), 0);
  // Perl reports the dispositions it got (a shell would reset an ignored SIGCHLD).
  std::ofstream(scripts_ + "/signals.pl")
      << "#!/usr/bin/perl\nopen(S, '/proc/self/status');\n"
         "while (<S>) { print \"$1:$2\\n\" if /^(Sig(?:Ign|Blk)):\\s*(\\S+)/ }\nprint \"PRE-DONE\\n\";\n";
  ASSERT_EQ(chmod((scripts_ + "/signals.pl").c_str(), 0755), 0);
  PrePostScript signals("signals.pl", 10);
  EXPECT_TRUE(RunOne(signals));
  signals.join();
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &previousMask, nullptr), 0);
  ASSERT_EQ(sigaction(SIGPIPE, &previousPipe, nullptr), 0);
  unsigned long long ignored = 1, blockedMask = 1;
  ASSERT_EQ(sscanf(signals.output().c_str(), "SigBlk:%llx\nSigIgn:%llx", &blockedMask, &ignored), 2)
      << signals.output();
  EXPECT_EQ(blockedMask, 0u);
  EXPECT_EQ(ignored & ((1ull << (SIGCHLD - 1)) | (1ull << (SIGPIPE - 1))), 0u);
  ASSERT_EQ(sigaction(SIGCHLD, &previous, nullptr), 0);
}

}  // namespace
}  // namespace orv
