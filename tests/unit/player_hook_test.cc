#include <fcntl.h>
#include <signal.h>

#include "clock.h"
#include "hook.h"
#include "test_util.h"

namespace {

TEST(HookTest, FailuresAreNamed) {
  for (const auto& [command, why] : {std::pair<std::string, std::string>{"true", ""},
                                     {"exit 3", "exit status 3"},
                                     {"exec /none 2>/dev/null", "exit status 127"},
                                     {"kill -9 $$", "signal 9"}}) {
    EXPECT_EQ(why, RunHook(command)) << command;
  }
}

TEST(HookTest, CommandThatDoesNotEndIsKilledWithAllThatItStarted) {
  const TemporaryDirectory directory;
  const std::string path = directory / "pids";
  EXPECT_EQ("it did not end", RunHook("sleep 600 & echo $! >" + path + "; wait"));
  const pid_t pid = std::stoi(ReadFile(path));
  ASSERT_GT(pid, 1);
  // The process that inherits it may be slow to collect it.
  const std::string state = "/proc/" + std::to_string(pid) + "/stat";
  for (const double deadline = Now() + 60; Now() < deadline; Nap(10)) {
    const std::string stat = access(state.c_str(), F_OK) == 0 ? ReadFile(state) : ") Z";
    if (stat.find(") Z") != std::string::npos) {
      return;
    }
  }
  FAIL() << "it runs still";
}

TEST(HookTest, CommandHasNoBlockedSignals) {
  const TemporaryDirectory directory;
  const std::string path = directory / "status";
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigset_t before;
  sigprocmask(SIG_BLOCK, &signals, &before);
  EXPECT_EQ("", RunHook("cat /proc/self/status >" + path));
  sigprocmask(SIG_SETMASK, &before, nullptr);
  EXPECT_NE(std::string::npos, ReadFile(path).find("\nSigBlk:\t0000000000000000\n"));
}

}  // namespace
