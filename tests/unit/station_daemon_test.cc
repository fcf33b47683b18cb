#include <signal.h>
#include <unistd.h>

#include "clock.h"
#include "daemon.h"
#include "process.h"
#include "test_util.h"

namespace {

bool Wait(const std::function<bool()>& condition_) {
  for (const double deadline = Now() + 60; Now() < deadline; Nap(10)) {
    if (condition_()) {
      return true;
    }
  }
  return false;
}

bool IsAlive(int pid_) {
  const std::string stat = ReadFile("/proc/" + std::to_string(pid_) + "/stat");
  return !stat.empty() && stat.find(") Z") == std::string::npos;
}

// A shell in the daemon's place.
class StationDaemonTest : public testing::Test {
 protected:
  void Start(const std::string& script_) { daemon.Start({"sh", "-c", script_}); }

  std::string Line() {
    std::string line = "no line";
    Wait([&] { return daemon.ReadLine(line); });
    return line;
  }
  std::string End() {
    EXPECT_TRUE(Wait([&] { return daemon.HasEnded(); }));
    EXPECT_EQ(0, daemon.Pid());
    return daemon.End();
  }

  Daemon daemon;
};

TEST_F(StationDaemonTest, EndIsDescribed) {
  for (const auto& [script, end] : {std::pair<std::string, std::string>{"exit 3", "status 3"},
                                    {"kill -9 $$", "signal 9"},
                                    {"kill -2 $$", "signal 2"}}) {
    Start(script);
    EXPECT_LT(0, daemon.Pid());
    EXPECT_EQ(end, End()) << script;
  }
  EXPECT_EQ(3, daemon.Starts());
  daemon.Start({"/none/daemon", "-x"});
  EXPECT_EQ("Could not run /none/daemon: No such file or directory", Line());
  EXPECT_EQ("status 127", End());
}

TEST_F(StationDaemonTest, PauseGrowsWithShortLives) {
  for (const double pause : {1, 2, 4, 5, 5}) {
    Start("exit 1");
    End();
    EXPECT_EQ(pause, daemon.Pause());
  }
}

TEST_F(StationDaemonTest, LinesAreReadOneByOne) {
  Start("echo one >&2; printf 'a\\nb\\n' >&2; echo out; printf 'no end' >&2; echo three >&2");
  for (const char* line : {"one", "a b", "no end", "three"}) {
    EXPECT_EQ(line, Line());
  }
  std::string line;
  EXPECT_FALSE(daemon.ReadLine(line));
}

TEST_F(StationDaemonTest, LongLineIsCut) {
  Start("head -c 10000 /dev/zero | tr '\\0' x >&2; echo next >&2");
  EXPECT_EQ(std::string(4096, 'x'), Line());
  EXPECT_EQ("next", Line());
}

TEST_F(StationDaemonTest, KillReachesAllDescendants) {
  Start("sleep 600 & setsid sh -c 'sleep 601 & echo $! >&2; wait' & wait");
  const int grandchild = std::stoi(Line());
  const std::vector<int> all = Descendants(daemon.Pid());
  EXPECT_EQ(3u, all.size());
  kill(daemon.Pid(), SIGSTOP);
  daemon.Kill();
  EXPECT_EQ("signal 9", End());
  EXPECT_TRUE(Wait([&] { return !IsAlive(grandchild) && !IsAlive(all[0]); }));
}

TEST_F(StationDaemonTest, NewestCommandIsKilledAndItsShellFails) {
  Start("sleep 600 & sh -c 'sleep 601; exit $?' 2>/dev/null; echo $? >&2; wait");
  ASSERT_TRUE(Wait([&] { return Descendants(daemon.Pid()).size() == 3; }));
  daemon.KillNewestCommand();
  EXPECT_EQ("137", Line());
  EXPECT_EQ(1u, Children(daemon.Pid()).size());
}

TEST_F(StationDaemonTest, ActivityChangesWhileItWorks) {
  Start("while sleep 0.01; do :; done");
  const std::string first = daemon.Activity();
  EXPECT_NE("", first);
  EXPECT_TRUE(Wait([&] { return daemon.Activity() != first; }));
  daemon.Interrupt();
  End();
  EXPECT_EQ("", daemon.Activity());
}

TEST_F(StationDaemonTest, ChildHasNoBlockedSignalsAndTheLogOnce) {
  char pipe[100] = {};
  ASSERT_LT(0, readlink(("/proc/self/fd/" + std::to_string(daemon.Log())).c_str(), pipe,
                        sizeof(pipe) - 1));
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  Start("grep SigBlk /proc/self/status >&2; ls -l /proc/$$/fd | grep -Fc '" + std::string(pipe) +
        "' >&2");
  EXPECT_EQ("SigBlk: 0000000000000000", Line());
  EXPECT_EQ("1", Line());
}

TEST(CommandTest, KeepsTheTextAndTheStatus) {
  Command command;
  EXPECT_FALSE(command.HasEnded());
  command.Start({"sh", "-c", "echo found >&2; exit 2"}, 600);
  EXPECT_TRUE(command.IsRunning());
  EXPECT_TRUE(Wait([&] { return command.HasEnded(); }));
  EXPECT_FALSE(command.IsRunning());
  EXPECT_EQ("found\n", command.Text());
  EXPECT_EQ("status 2", Described(command.Status()));
}

TEST(CommandTest, IsKilledAtItsLimit) {
  Command command;
  command.Start({"sh", "-c", "sleep 600 & wait"}, 0.1);
  EXPECT_TRUE(Wait([&] { return command.HasEnded(); }));
  EXPECT_EQ("signal 9", Described(command.Status()));
}

}  // namespace
