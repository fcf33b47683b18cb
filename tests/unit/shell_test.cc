#include "stand_ins/shell.h"

#include <signal.h>
#include <sys/wait.h>

#include "format.h"
#include "test_util.h"

namespace {

TEST(RunShellTest, ReturnsTheStatusOfTheCommand) {
  for (const int code : {0, 1, 2, 126, 127, 128, 255}) {
    const int status = RunShell(Format("exit %d", code));
    EXPECT_TRUE(WIFEXITED(status)) << code;
    EXPECT_EQ(code, WEXITSTATUS(status));
  }
  for (const int signal_number : {SIGKILL, SIGTERM, SIGPIPE}) {
    const int status = RunShell(Format("kill -%d $$", signal_number));
    EXPECT_TRUE(WIFSIGNALED(status)) << signal_number;
    EXPECT_EQ(signal_number, WTERMSIG(status));
  }
}

TEST(RunShellTest, GivesTheWholeCommandToTheShell) {
  const TemporaryDirectory directory;
  const std::string path = directory / "out put";
  EXPECT_EQ(0, RunShell("for word in 'a  b' c; do printf '%s\\n' \"$word\"; done >'" + path + "'"));
  EXPECT_EQ("a  b\nc\n", ReadFile(path));
}

TEST(RunShellTest, ReportsThatNothingRan) {
  stand_ins::processes_can_start = false;
  const int status = RunShell("exit 0");
  stand_ins::processes_can_start = true;
  EXPECT_EQ(-1, status);
}

TEST(RunShellTest, ReportsThatTheStatusWasLost) {
  const auto saved = signal(SIGCHLD, SIG_IGN);  // The kernel throws statuses away.
  const int status = RunShell("exit 0");
  signal(SIGCHLD, saved);
  EXPECT_EQ(-1, status);
}

TEST(RunShellTest, WaitsDespiteSignals) {
  struct sigaction interrupt {};
  struct sigaction saved {};
  interrupt.sa_handler = [](int) {};  // No SA_RESTART.
  sigaction(SIGUSR1, &interrupt, &saved);
  const int status = RunShell("for i in 1 2 3; do sleep 0.02; kill -USR1 $PPID; done; exit 3");
  sigaction(SIGUSR1, &saved, nullptr);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(3, WEXITSTATUS(status));
}

// The signals of a few that end the command.
std::vector<int> SignalsThatEndACommand() {
  std::vector<int> numbers;
  for (const int number : {SIGINT, SIGQUIT, SIGUSR1, SIGTERM}) {
    const auto saved = signal(number, SIG_DFL);
    if (RunShell(Format("ulimit -c 0; kill -%d $$; exit 3", number)) == number) {
      numbers.push_back(number);
    }
    signal(number, saved);
  }
  return numbers;
}

TEST(RunShellTest, GivesTheCommandTheSignalMaskOfTheCaller) {
  EXPECT_THAT(SignalsThatEndACommand(), testing::ElementsAre(SIGINT, SIGQUIT, SIGUSR1, SIGTERM));
  sigset_t mask;
  sigset_t saved_mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGUSR1);
  sigprocmask(SIG_BLOCK, &mask, &saved_mask);
  EXPECT_THAT(SignalsThatEndACommand(), testing::ElementsAre(SIGQUIT, SIGTERM));
  sigprocmask(SIG_SETMASK, &saved_mask, nullptr);
}

// A SIGINT handler that notes whether the command had ended when it ran.
class RunShellSigintTest : public testing::Test {
 protected:
  RunShellSigintTest() {
    ended_path = directory / "ended";
    deliveries = 0;
    struct sigaction note {};
    note.sa_handler = [](int) {
      ++deliveries;
      command_had_ended = access(ended_path.c_str(), F_OK) == 0 ? 1 : 0;
    };
    sigaction(SIGINT, &note, &saved);
  }
  ~RunShellSigintTest() override { sigaction(SIGINT, &saved, nullptr); }

  static std::string ended_path;
  static volatile sig_atomic_t deliveries;
  static volatile sig_atomic_t command_had_ended;
  const TemporaryDirectory directory;
  struct sigaction saved {};
};
std::string RunShellSigintTest::ended_path;
volatile sig_atomic_t RunShellSigintTest::deliveries;
volatile sig_atomic_t RunShellSigintTest::command_had_ended;

TEST_F(RunShellSigintTest, DeliversAStopRequestAfterTheCommand) {
  const int status = RunShell("kill -INT $PPID; sleep 0.1; : >" + ended_path + "; exit 3");
  EXPECT_EQ(1, deliveries);
  EXPECT_EQ(1, command_had_ended);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(3, WEXITSTATUS(status));
}

TEST_F(RunShellSigintTest, KeepsAStopRequestFromBeforeTheCommand) {
  sigset_t sigint;
  sigset_t saved_mask;
  sigemptyset(&sigint);
  sigaddset(&sigint, SIGINT);
  sigprocmask(SIG_BLOCK, &sigint, &saved_mask);
  raise(SIGINT);
  EXPECT_EQ(0, RunShell(": >" + ended_path));
  EXPECT_EQ(0, deliveries);  // The caller still blocks it.
  sigprocmask(SIG_SETMASK, &saved_mask, nullptr);
  EXPECT_EQ(1, deliveries);
}

TEST_F(RunShellSigintTest, RestoresSignalMaskAndHandler) {
  sigset_t mask;
  EXPECT_EQ(0, RunShell("exit 0"));
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_EQ(0, sigismember(&mask, SIGINT));
  raise(SIGINT);
  EXPECT_EQ(1, deliveries);
}

TEST_F(RunShellSigintTest, LetsTheCommandBeInterrupted) {
  const int status = RunShell("kill -INT $$; exit 3");
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(SIGINT, WTERMSIG(status));
}

// With several dispositions of SIGQUIT, which is put back as it was at the end.
class RunShellSigquitTest : public testing::Test {
 protected:
  RunShellSigquitTest() {
    deliveries = 0;
    sigaction(SIGQUIT, nullptr, &saved);
  }
  ~RunShellSigquitTest() override { sigaction(SIGQUIT, &saved, nullptr); }

  static void Note(int /*signal_number*/) { ++deliveries; }
  static void SetDisposition(void (*disposition_)(int)) {
    struct sigaction action {};
    action.sa_handler = disposition_;
    action.sa_flags = SA_RESTART;
    sigaction(SIGQUIT, &action, nullptr);
  }

  static volatile sig_atomic_t deliveries;
  struct sigaction saved {};
};
volatile sig_atomic_t RunShellSigquitTest::deliveries;

TEST_F(RunShellSigquitTest, IgnoresSigquitWhileTheCommandRuns) {
  for (const auto disposition : {SIG_DFL, SIG_IGN, Note}) {
    SetDisposition(disposition);
    const int status = RunShell("kill -QUIT $PPID; exit 3");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(3, WEXITSTATUS(status));
  }
  EXPECT_EQ(0, deliveries);
}

TEST_F(RunShellSigquitTest, RestoresTheDispositionAfterTheCommand) {
  for (const auto disposition : {SIG_DFL, SIG_IGN, Note}) {
    for (const bool can_start : {true, false}) {
      SetDisposition(disposition);
      stand_ins::processes_can_start = can_start;
      EXPECT_EQ(can_start ? 0 : -1, RunShell("exit 0"));
      stand_ins::processes_can_start = true;
      struct sigaction found {};
      sigaction(SIGQUIT, nullptr, &found);
      EXPECT_EQ(disposition, found.sa_handler);
      EXPECT_NE(0, found.sa_flags & SA_RESTART);
    }
  }
}

TEST_F(RunShellSigquitTest, LetsSigquitEndTheCommandUnlessItWasIgnored) {
  const std::string command = "ulimit -c 0; kill -QUIT $$; exit 3";
  for (const auto disposition : {SIG_DFL, Note}) {
    SetDisposition(disposition);
    const int status = RunShell(command);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(SIGQUIT, WTERMSIG(status));
  }
  SetDisposition(SIG_IGN);
  const int status = RunShell(command);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(3, WEXITSTATUS(status));
}

TEST(CommandFailedTest, DependsOnTheExitCodeOnly) {
  const struct {
    int status;
    bool failed;
  } rows[] = {
      {-1, true},     {0, false},       {0x0100, true},  {0x0200, true},          {0x8000, true},
      {0xFF00, true}, {SIGKILL, false}, {SIGINT, false}, {SIGSEGV | 0x80, false}, {0x10000, false}};
  for (const auto& [status, failed] : rows) {
    EXPECT_EQ(failed, CommandFailed(status)) << status;
  }
}

TEST(RunCommandTest, LogsAnExitCodeOtherThanZero) {
  for (const std::string command : {"exit 1", "exit 127", "exit 255", "false", "true; false"}) {
    EXPECT_EQ("Could not execute \"" + command + "\"\n", LogOf([&] { RunCommand(command); }));
  }
}

TEST(RunCommandTest, LogsNothingForSuccessAndSignals) {
  for (const std::string command : {"exit 0", "", "false; true", "kill -9 $$", "kill -15 $$"}) {
    EXPECT_EQ("", WholeLogOf([&] { RunCommand(command); })) << command;
  }
}

TEST(RunCommandTest, LogsASignalThatTheShellReports) {
  const std::string program = "sh -c 'kill -9 $$'";
  const std::string command = "exec 2>/dev/null; " + program + "; exit $?";
  EXPECT_EQ("Could not execute \"" + command + "\"\n", LogOf([&] { RunCommand(command); }));
  EXPECT_EQ("", WholeLogOf([&] { RunCommand("exec " + program); }));
}

TEST(RunCommandTest, LogsACommandThatCouldNotBeStarted) {
  const std::string command(8 << 20, 'x');
  EXPECT_EQ("Could not execute \"" + command + "\"\n", LogOf([&] { RunCommand(command); }));
}

TEST(RunCommandTest, LogsPercentSignsUnchanged) {
  EXPECT_EQ("Could not execute \"exit 1 # %s %n\"\n", LogOf([] { RunCommand("exit 1 # %s %n"); }));
}

}  // namespace
