#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>

#include "directory.h"
#include "remote_fixtures.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

TEST_F(HelperTest, ThrowsWithoutAHelper) {
  for (const RemoteType& remote : kRemoteTypes) {
    EXPECT_EQ(kNoLog, WholeLogOf([&] {
                EXPECT_EQ(remote.missing_text, ThrownText([&] { Start(remote.type, ""); }));
              }));
  }
  EXPECT_THAT(stand_ins::processes.children, IsEmpty());
}

TEST_F(HelperTest, ThrowsWithTheHelperOfTheOtherType) {
  EXPECT_EQ(kRemoteTypes[0].missing_text, ThrownText([] {
              Build({{"type", "cifs"}}, 10, "", "/bin/true");
            }));
  EXPECT_EQ(kRemoteTypes[1].missing_text, ThrownText([] {
              Build({{"type", "ftp"}}, 10, "/bin/true", "");
            }));
}

TEST_F(HelperTest, MakesAPrivateWatchDirectory) {
  for (const RemoteType& remote : kRemoteTypes) {
    auto input = Start(remote.type, "/bin/true");
    const std::string watch = StatusAttribute(*input, "path");
    EXPECT_THAT(watch, StartsWith("/tmp/watch"));
    struct stat info = {};
    ASSERT_EQ(0, stat(watch.c_str(), &info)) << remote.type;
    EXPECT_EQ(0040700U, info.st_mode) << remote.type;
    Destroy(input);
    EXPECT_FALSE(Exists(watch));
  }
}

constexpr char kPrintArguments[] = "for argument; do printf '<%s>' \"$argument\"; done";

TEST_F(HelperTest, PassesTheArgumentsInOrder) {
  const Attributes all = {{"path", "//server/share"},
                          {"username", "user"},
                          {"password", "secret"},
                          {"subdir", "sub"},
                          {"mount-opts", "port=4450,vers=3"},
                          {"auto-delete", "1"},
                          {"ftp-poll-rate", "7"},
                          {"ftp-mode", "active"}};
  const Attributes negative = {{"auto-delete", "-1"}, {"ftp-poll-rate", "-2147483648"}};
  const struct {
    const char* type;
    Attributes attributes;
    std::string before;  // The watch directory.
    std::string after;
  } rows[] = {
      {"cifs", all, "<//server/share><user><secret><sub>", "<port=4450,vers=3><1>"},
      {"cifs", {}, "<><><><>", "<><0>"},
      {"cifs", negative, "<><><><>", "<><4294967295>"},
      {"ftp", all, "<//server/share><sub><user><secret>", "<1><7><active>"},
      {"ftp", {}, "<><><><>", "<0><5><passive>"},
      {"ftp", negative, "<><><><>", "<4294967295><2147483648><passive>"},
  };
  for (const auto& [type, attributes, before, after] : rows) {
    auto input = Start(type, WriteScript(kPrintArguments), attributes);
    EXPECT_EQ(0, ReapChild());
    EXPECT_EQ(before + "<" + StatusAttribute(*input, "path") + ">" + after, Output());
    Destroy(input);
  }
}

TEST_F(HelperTest, StartsTheHelperWithoutAShell) {
  const std::string evil = "$(echo x) \"'`;*\n&\\ é";
  const TemporaryDirectory directory;
  const std::string helper = directory / "a helper; with $HOME";
  ASSERT_EQ(0, rename(WriteScript(kPrintArguments).c_str(), helper.c_str()));
  auto input = Start("cifs", helper, {{"path", evil}, {"password", evil}});
  ReapChild();
  EXPECT_EQ("<" + evil + "><><" + evil + "><><" + StatusAttribute(*input, "path") + "><><0>",
            Output());
  Destroy(input);
}

TEST_F(HelperTest, PassesItsPathAsArgumentZero) {
  std::unique_ptr<InputDirectory> input;
  const std::string output = OutputOf([&] {
    LogOf([&] {
      input = Start("cifs", "/bin/cat", {{"path", "/proc/self/cmdline"}});
      ReapChild();
    });
  });
  std::string expected;
  for (const std::string& argument :
       {std::string("/bin/cat"), std::string("/proc/self/cmdline"), std::string(), std::string(),
        std::string(), StatusAttribute(*input, "path"), std::string(), std::string("0")}) {
    expected += argument + '\0';
  }
  EXPECT_EQ(expected, output);
  Destroy(input);
}

TEST_F(HelperTest, PassesTheEnvironment) {
  ASSERT_EQ(0, setenv("VOCASTRA_TEST_VARIABLE", "a b", 1));
  auto input = Start("ftp", WriteScript("printf '%s' \"$VOCASTRA_TEST_VARIABLE\""));
  ReapChild();
  EXPECT_EQ("a b", Output());
  EXPECT_EQ(0, unsetenv("VOCASTRA_TEST_VARIABLE"));
  Destroy(input);
}

TEST_F(HelperTest, ResetsCaughtAndBlockedSignals) {
  const struct {
    const char* name;
    int number;
    void (*disposition)(int);
    bool ends_the_helper;
  } rows[] = {{"INT", SIGINT, [](int) {}, true}, {"PIPE", SIGPIPE, [](int) {}, true},
              {"TERM", SIGTERM, SIG_DFL, true},  {"USR1", SIGUSR1, SIG_DFL, true},
              {"HUP", SIGHUP, SIG_IGN, false},   {"USR2", SIGUSR2, SIG_IGN, false}};
  sigset_t mask;
  sigemptyset(&mask);
  for (const auto& row : rows) {
    signal(row.number, row.disposition);
    sigaddset(&mask, row.number);
  }
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  std::vector<std::unique_ptr<InputDirectory>> inputs;
  for (const auto& row : rows) {
    inputs.push_back(Start("cifs", WriteScript("kill -s \"$1\" $$"), {{"path", row.name}}));
    const int status = ReapChild();
    EXPECT_EQ(row.ends_the_helper ? row.number : 0, status) << row.name;
  }
  sigprocmask(SIG_UNBLOCK, &mask, nullptr);
  for (const auto& row : rows) {
    signal(row.number, SIG_DFL);
  }
  LogOf([&] { inputs.clear(); }, 0);
}

TEST_F(HelperTest, PassesOnlyTheStandardDescriptors) {
  const Directory held(scripts.path);
  // Ignores the descriptors that this program was started with.
  for (int fd = 3; fd < 1024; ++fd) {
    if (fcntl(fd, F_GETFD) == 0) {
      fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
  }
  auto input = Start("cifs", WriteScript("ls /proc/self/fd"));
  ReapChild();
  EXPECT_EQ("0\n1\n2\n3\n", Output()) << "3 is that of ls for its argument";
  Destroy(input);
}

TEST_F(HelperTest, LogsAHelperThatCannotBeExecuted) {
  const std::string not_executable = scripts.Write("plain", "#!/bin/sh\n");
  for (const RemoteType& remote : kRemoteTypes) {
    for (const std::string& helper : {scripts / "missing", scripts.path, not_executable}) {
      std::unique_ptr<InputDirectory> input;
      int status = 0;
      const auto start = [&] {
        input = Start(remote.type, helper);
        status = ReapChild();
      };
      EXPECT_EQ(std::string("Unable to fork ") + remote.kind + " helper\n",
                LogOf(start, kDebugAvailable));
      EXPECT_TRUE(WIFEXITED(status)) << remote.type << helper;
      EXPECT_EQ(255, WEXITSTATUS(status)) << remote.type << helper;
      Destroy(input);
    }
  }
}

TEST_F(HelperTest, LogsAFailedForkAndSignalsNothing) {
  stand_ins::processes.fork_fails = true;
  for (const RemoteType& remote : kRemoteTypes) {
    std::unique_ptr<InputDirectory> input;
    EXPECT_EQ(std::string("Could not fork ") + remote.kind + " helper: " + strerror(EAGAIN) + "\n",
              WholeLogOf([&] { input = Start(remote.type, "/bin/true"); }));
    const std::string watch = StatusAttribute(*input, "path");
    EXPECT_EQ("Removing temporary directory " + watch + "\n", WholeLogOf([&] { input.reset(); }));
    EXPECT_FALSE(Exists(watch));
  }
  EXPECT_THAT(stand_ins::processes.signals, IsEmpty());
  EXPECT_THAT(stand_ins::pauses.sleeps, IsEmpty());
}

TEST_F(HelperTest, StartsNoHelperWithoutAWatchDirectory) {
  stand_ins::temporaries.failing_template = "/tmp/watchXXXXXX";
  EXPECT_EQ("Could not create temporary directory with template \"/tmp/watchXXXXXX\"",
            ThrownText([] { Start("ftp", "/bin/true"); }));
  EXPECT_THAT(stand_ins::processes.children, IsEmpty());
}

TEST_F(HelperTest, StopsTheHelperTwoSecondsBeforeRemovingItsDirectory) {
  for (const RemoteType& remote : kRemoteTypes) {
    auto input = Start(remote.type, WriteScript("exec sleep 60"));
    const pid_t pid = stand_ins::processes.children.back();
    const std::string watch = StatusAttribute(*input, "path");
    stand_ins::pauses.on_sleep = [&] {
      EXPECT_THAT(stand_ins::processes.signals, ElementsAre(Pair(pid, SIGTERM)));
      EXPECT_THAT(stand_ins::processes.collected, IsEmpty());
      EXPECT_TRUE(Exists(watch));
    };
    EXPECT_EQ(
        "Sending SIGTERM to PID " + Number(pid) + "\nRemoving temporary directory " + watch + "\n",
        WholeLogOf([&] { input.reset(); }));
    EXPECT_THAT(stand_ins::pauses.sleeps, ElementsAre(2));
    EXPECT_THAT(stand_ins::processes.collected, ElementsAre(pid));
    EXPECT_FALSE(Exists(watch));
    const int status = ReapChild();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    stand_ins::pauses = {};
    stand_ins::processes = {};
  }
}

TEST_F(HelperTest, DoesNotWaitForAHelperThatIgnoresSigterm) {
  auto input = Start("cifs", WriteScript("trap '' TERM; echo ready; exec sleep 60"));
  for (int i = 0; i < 30000 && Output().empty(); ++i) {
    poll(nullptr, 0, 10);  // Milliseconds; usleep() is replaced and does not wait.
  }
  ASSERT_EQ("ready\n", Output());
  Destroy(input);
  // A helper that has ended is a zombie, which has no command line in /proc.
  const std::string process = "/proc/" + Number(stand_ins::processes.children.back());
  EXPECT_NE("", ReadFile(process + "/cmdline")) << "still running";
}

TEST_F(HelperTest, RemovesTheWatchDirectoryWithItsContents) {
  auto input = Start("ftp", "/bin/true");
  const std::string watch = StatusAttribute(*input, "path");
  ASSERT_EQ(0, mkdir((watch + "/sub").c_str(), 0700));
  std::ofstream(watch + "/sub/.helper.timestamp") << "1";
  std::ofstream(watch + "/.part") << "1";
  Destroy(input);
  EXPECT_FALSE(Exists(watch));
}

TEST_F(HelperTest, DoesNotRemoveADirectoryOfAnotherName) {
  for (const RemoteType& remote : kRemoteTypes) {
    stand_ins::temporaries.mkdtemp_goes_astray = true;
    auto input = Start(remote.type, "/bin/true");
    stand_ins::temporaries.mkdtemp_goes_astray = false;
    const std::string path = StatusAttribute(*input, "path");
    ASSERT_THAT(path, StartsWith("/tmp/Xatch"));
    const std::string pid = Number(stand_ins::processes.children.back());
    EXPECT_EQ("Sending SIGTERM to PID " + pid + "\n", WholeLogOf([&] { input.reset(); }));
    EXPECT_EQ(0, rmdir(path.c_str())) << "still there";
  }
}

TEST_F(HelperTest, LocalDirectoryStartsNoHelper) {
  char path[] = "/tmp/watch-test-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(path));
  std::unique_ptr<InputDirectory> input;
  LogOf([&] {
    input = Build({{"type", "local"}, {"path", path}}, 10, "/bin/false", "/bin/false");
  });
  EXPECT_EQ(kNoLog, WholeLogOf([&] { input.reset(); }));
  EXPECT_THAT(stand_ins::processes.children, IsEmpty());
  EXPECT_THAT(stand_ins::pauses.sleeps, IsEmpty());
  EXPECT_EQ(0, rmdir(path)) << "still there, whatever its name";
}

}  // namespace
