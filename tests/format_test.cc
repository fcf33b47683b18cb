#include "format.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <stdint.h>
#include <sys/wait.h>

#include <algorithm>
#include <utility>

#include "test_util.h"

namespace {

bool processes_can_start = true;
size_t read_piece = SIZE_MAX;  // No read() gives more bytes.
int read_interruptions = 0;    // So many fail with EINTR first.
int reads = 0;                 // Calls of read() so far.

}  // namespace

// These stand before the C library's functions of their names.

extern "C" int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
  if (!processes_can_start) {
    return EAGAIN;
  }
  static const auto real =
      reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
  return real(pid, path, actions, attributes, arguments, environment);
}

ssize_t read(int fd, void* buffer, size_t size) {
  ++reads;
  if (read_interruptions > 0) {
    --read_interruptions;
    errno = EINTR;
    return -1;
  }
  static const auto real =
      reinterpret_cast<ssize_t (*)(int, void*, size_t)>(dlsym(RTLD_NEXT, "read"));
  return real(fd, buffer, std::min(size, read_piece));
}

namespace {

// --- Format ---

TEST(FormatTest, ReturnsATextWithoutConversionsUnchanged) {
  EXPECT_EQ("plain text\n", Format("plain text\n"));
  EXPECT_EQ("", Format("%s", ""));
}

TEST(FormatTest, FormatsAsPrintfDoes) {
  EXPECT_EQ("12_lobby.text_live_first.raw",
            Format("%u_%s.%s", 12U, "lobby", "text_live_first.raw"));
  EXPECT_EQ("-42 0x0f 100% [  x]", Format("%d 0x%02x 100%% [%3s]", -42, 15U, "x"));
}

TEST(FormatTest, HasNoLimitOfLength) {
  const std::string text(1000000, 'x');
  EXPECT_EQ("<" + text + ">", Format("<%s>", text.c_str()));
}

TEST(FormatTest, IsEmptyAndSilentIfTheTextCannotBeFormatted) {
  // A character that the "C" locale does not have.
  EXPECT_EQ("", LogOf([] { EXPECT_EQ("", Format("wide %ls", L"\x20AC")); }, kDebugAvailable));
}

// --- ParseInteger ---

TEST(ParseIntegerTest, AcceptsNumbers) {
  const struct {
    const char* text;
    int value;
  } rows[] = {
      {"0", 0},
      {"-0", 0},
      {"7", 7},
      {"-7", -7},
      {"+7", 7},
      {" 12", 12},
      {"\t\n\v\f\r -12", -12},
      {"010", 10},
      {"017", 17},
      {"-010", -10},
      {"0000000000000000000000000000001", 1},
      {"0x0", 0},
      {"0x1F", 31},
      {"0x10", 16},
      {"0xabcdef", 0xABCDEF},
      {"-0x10", -16},
      {"+0x10", 16},
      {" 0x1F", 31},
      {"2147483646", INT_MAX - 1},
      {"2147483647", INT_MAX},
      {"-2147483647", INT_MIN + 1},
      {"-2147483648", INT_MIN},
      {"0x7FFFFFFF", INT_MAX},
      {"-0x80000000", INT_MIN},
  };
  for (const auto& [text, value] : rows) {
    EXPECT_EQ(value, ParseInteger(text)) << '"' << text << '"';
  }
}

TEST(ParseIntegerTest, RejectsEverythingElse) {
  const char* const rows[] = {
      // No number, or more than a number.
      "", " ", "\t", "-", "+", "x", "--7", "+-7", "- 7", "12 ", "12\n", "1 2", "12x", "1.5", "1.0",
      "1e3", "1,000", "12%", "\u00A012",
      // Not hexadecimal.
      "1F", "0X1F", "0X10", "0x", "-0x", "0x1G", "0x1F ", "0x 1F", "0x-1F", "x10",
      // "0x" somewhere else: the automatic base, and the number ends before it.
      "1 0x2", "00x10", "10x2", "0x1 0x2", "010 0x", "080x",
      // Outside of the range.
      "2147483648", "-2147483649", "0x80000000", "-0x80000001", "0xFFFFFFFF", "4294967296",
      "99999999999", "-99999999999", "9223372036854775807", "9223372036854775808",
      "-9223372036854775808", "-9223372036854775809", "99999999999999999999999999",
      "0xFFFFFFFFFFFFFFFFFFFF"};
  for (const std::string text : rows) {
    EXPECT_EQ("Could not convert \"" + text + "\" to integer",
              ThrownText([&] { ParseInteger(text); }))
        << '"' << text << '"';
  }
}

TEST(ParseIntegerTest, RejectsAZeroByteAnywhere) {
  const struct {
    std::string text;
    const char* shown;
  } rows[] = {
      {std::string("\0", 1), ""},       {std::string("\00012", 3), ""},
      {std::string("12\0", 3), "12"},   {std::string("12\00034", 5), "12"},
      {std::string("1\0000x", 4), "1"}, {std::string("010\0000x", 6), "010"},
  };
  for (const auto& [text, shown] : rows) {
    EXPECT_EQ(std::string("Could not convert \"") + shown + "\" to integer",
              ThrownText([&t = text] { ParseInteger(t); }));
  }
}

TEST(ParseIntegerTest, DoesNotMindAnOlderError) {
  errno = ERANGE;
  EXPECT_EQ(12, ParseInteger("12"));
}

TEST(ParseIntegerTest, LeavesTheLogToTheCatcher) {
  EXPECT_EQ("", LogOf([] { ThrownText([] { ParseInteger("x"); }); }, kDebugAvailable));
}

// --- Paths and lists ---

TEST(AddTrailingSlashTest, AddsASlashWhereThereIsNone) {
  const struct {
    const char* path;
    const char* with_slash;
  } rows[] = {{"a", "a/"},  {"a/", "a/"},   {"", ""},          {"/", "/"},
              {"//", "//"}, {"a//", "a//"}, {"/a/b", "/a/b/"}, {".", "./"}};
  for (const auto& [path, with_slash] : rows) {
    EXPECT_EQ(with_slash, AddTrailingSlash(path)) << '"' << path << '"';
  }
}

TEST(ListToStringTest, JoinsWithBars) {
  using List = std::list<std::string>;
  EXPECT_EQ("", ListToString(List{}));
  EXPECT_EQ("a", ListToString(List{"a"}));
  EXPECT_EQ("a|b|c", ListToString(List{"a", "b", "c"}));
  EXPECT_EQ("a|b||", ListToString(List{"a|b", "", ""}));
}

TEST(ListToStringTest, AddsNoBarForEmptyWordsAtTheHead) {
  using List = std::list<std::string>;
  EXPECT_EQ("a", ListToString(List{"", "a"}));
  EXPECT_EQ("a|b", ListToString(List{"", "", "a", "b"}));
  EXPECT_EQ("", ListToString(List{"", "", ""}));
  EXPECT_EQ("a||b|", ListToString(List{"", "a", "", "b", ""}));
}

// --- Commands ---

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

TEST(RunShellTest, TellsThatNothingRan) {
  processes_can_start = false;
  const int status = RunShell("exit 0");
  processes_can_start = true;
  EXPECT_EQ(-1, status);
}

TEST(RunShellTest, TellsThatTheStatusWasLost) {
  const auto saved = signal(SIGCHLD, SIG_IGN);  // The kernel throws statuses away.
  const int status = RunShell("exit 0");
  signal(SIGCHLD, saved);
  EXPECT_EQ(-1, status);
}

TEST(RunShellTest, WaitsInSpiteOfSignals) {
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
    ended_path = directory_ / "ended";
    deliveries = 0;
    struct sigaction note {};
    note.sa_handler = [](int) {
      ++deliveries;
      command_had_ended = access(ended_path.c_str(), F_OK) == 0 ? 1 : 0;
    };
    sigaction(SIGINT, &note, &saved_);
  }
  ~RunShellSigintTest() override { sigaction(SIGINT, &saved_, nullptr); }

  static std::string ended_path;
  static volatile sig_atomic_t deliveries;
  static volatile sig_atomic_t command_had_ended;
  const TemporaryDirectory directory_;
  struct sigaction saved_ {};
};
std::string RunShellSigintTest::ended_path;
volatile sig_atomic_t RunShellSigintTest::deliveries;
volatile sig_atomic_t RunShellSigintTest::command_had_ended;

TEST_F(RunShellSigintTest, AStopRequestDuringTheCommandIsDeliveredAfterIt) {
  const int status = RunShell("kill -INT $PPID; sleep 0.1; : >" + ended_path + "; exit 3");
  EXPECT_EQ(1, deliveries);
  EXPECT_EQ(1, command_had_ended);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(3, WEXITSTATUS(status));
}

TEST_F(RunShellSigintTest, AStopRequestFromBeforeTheCommandIsNotLost) {
  sigset_t sigint;
  sigset_t saved_mask;
  sigemptyset(&sigint);
  sigaddset(&sigint, SIGINT);
  sigprocmask(SIG_BLOCK, &sigint, &saved_mask);
  raise(SIGINT);
  EXPECT_EQ(0, RunShell(": >" + ended_path));
  EXPECT_EQ(0, deliveries);  // The caller's block still stands.
  sigprocmask(SIG_SETMASK, &saved_mask, nullptr);
  EXPECT_EQ(1, deliveries);
}

TEST_F(RunShellSigintTest, LeavesSignalMaskAndHandlerAlone) {
  sigset_t mask;
  EXPECT_EQ(0, RunShell("exit 0"));
  sigprocmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_EQ(0, sigismember(&mask, SIGINT));
  raise(SIGINT);
  EXPECT_EQ(1, deliveries);
}

TEST_F(RunShellSigintTest, TheCommandCanBeInterrupted) {
  const int status = RunShell("kill -INT $$; exit 3");
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(SIGINT, WTERMSIG(status));
}

// With several dispositions of SIGQUIT, which is put back as it was at the end.
class RunShellSigquitTest : public testing::Test {
 protected:
  RunShellSigquitTest() {
    deliveries = 0;
    sigaction(SIGQUIT, nullptr, &saved_);
  }
  ~RunShellSigquitTest() override { sigaction(SIGQUIT, &saved_, nullptr); }

  static void Note(int /*signal_number*/) { ++deliveries; }
  static void SetDisposition(void (*disposition)(int)) {
    struct sigaction action {};
    action.sa_handler = disposition;
    action.sa_flags = SA_RESTART;
    sigaction(SIGQUIT, &action, nullptr);
  }

  static volatile sig_atomic_t deliveries;
  struct sigaction saved_ {};
};
volatile sig_atomic_t RunShellSigquitTest::deliveries;

TEST_F(RunShellSigquitTest, IsIgnoredWhileTheCommandRuns) {
  for (const auto disposition : {SIG_DFL, SIG_IGN, Note}) {
    SetDisposition(disposition);
    const int status = RunShell("kill -QUIT $PPID; exit 3");
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(3, WEXITSTATUS(status));
  }
  EXPECT_EQ(0, deliveries);
}

TEST_F(RunShellSigquitTest, IsAsBeforeWhenTheCommandHasEndedOrCouldNotBeStarted) {
  for (const auto disposition : {SIG_DFL, SIG_IGN, Note}) {
    for (const bool can_start : {true, false}) {
      SetDisposition(disposition);
      processes_can_start = can_start;
      EXPECT_EQ(can_start ? 0 : -1, RunShell("exit 0"));
      processes_can_start = true;
      struct sigaction found {};
      sigaction(SIGQUIT, nullptr, &found);
      EXPECT_EQ(disposition, found.sa_handler);
      EXPECT_NE(0, found.sa_flags & SA_RESTART);
    }
  }
}

TEST_F(RunShellSigquitTest, EndsTheCommandUnlessItWasIgnoredBefore) {
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

TEST(CommandFailedTest, LooksAtTheExitCodeOnly) {
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

TEST(RunCommandTest, SaysNothingOfSuccessAndOfSignals) {
  for (const std::string command : {"exit 0", "", "false; true", "kill -9 $$", "kill -15 $$"}) {
    EXPECT_EQ("", LogOf([&] { RunCommand(command); }, kDebugAvailable)) << command;
  }
}

TEST(RunCommandTest, LogsACommandWhoseProgramWasEndedByASignalUnlessTheShellBecameIt) {
  const std::string program = "sh -c 'kill -9 $$'";
  const std::string command = "exec 2>/dev/null; " + program + "; exit $?";
  EXPECT_EQ("Could not execute \"" + command + "\"\n", LogOf([&] { RunCommand(command); }));
  EXPECT_EQ("", LogOf([&] { RunCommand("exec " + program); }, kDebugAvailable));
}

TEST(RunCommandTest, LogsACommandThatCouldNotBeStarted) {
  const std::string command(8 << 20, 'x');
  EXPECT_EQ("Could not execute \"" + command + "\"\n", LogOf([&] { RunCommand(command); }));
}

TEST(RunCommandTest, ShowsTheCommandAsItIs) {
  EXPECT_EQ("Could not execute \"exit 1 # %s %n\"\n", LogOf([] { RunCommand("exit 1 # %s %n"); }));
}

TEST(RunCommandTest, LogsInTheNormalClass) {
  EXPECT_EQ("", LogOf([] { RunCommand("exit 1"); }, kDebugAvailable & ~kDebugNormal));
}

// --- Temporary files and directories ---

class CreateTemporaryTest : public testing::Test {
 protected:
  // Both functions put "/tmp/" in front: with this prefix they write below directory_.
  std::string Prefix(const std::string& name) const {
    return (directory_ / name).substr(std::string("/tmp/").size());
  }
  unsigned int ModeOf(const std::string& path) const {
    struct stat status {};
    EXPECT_EQ(0, stat(path.c_str(), &status)) << path;
    return status.st_mode;
  }
  // A prefix of that many characters in an existing directory.
  std::string LongPrefix(size_t length) const {
    std::string path = directory_.path();
    const size_t path_length = length + std::string("/tmp/").size();
    while (path.size() + 200 < path_length) {
      path += "/" + std::string(100, 'd');
      EXPECT_EQ(0, mkdir(path.c_str(), 0777));
    }
    path += "/";
    path.resize(path_length, 'p');
    return path.substr(std::string("/tmp/").size());
  }

  const TemporaryDirectory directory_;
};

TEST_F(CreateTemporaryTest, MakesAnEmptyPrivateFile) {
  const mode_t saved = umask(0);
  const std::string path = CreateTemporaryFile(Prefix("text").c_str());
  umask(saved);
  EXPECT_THAT(path, testing::MatchesRegex(directory_ / "text[A-Za-z0-9]{6}"));
  EXPECT_EQ(S_IFREG | 0600U, ModeOf(path));
  EXPECT_EQ("", ReadFile(path));
}

TEST_F(CreateTemporaryTest, MakesAnEmptyPrivateDirectory) {
  const mode_t saved = umask(0);
  const std::string path = CreateTemporaryDirectory(Prefix("watch").c_str());
  umask(saved);
  EXPECT_THAT(path, testing::MatchesRegex(directory_ / "watch[A-Za-z0-9]{6}"));
  EXPECT_EQ(S_IFDIR | 0700U, ModeOf(path));
  EXPECT_EQ(0, rmdir(path.c_str()));  // Fails unless it is empty.
}

TEST_F(CreateTemporaryTest, MakesANewOneWithEachCall) {
  const std::string prefix = Prefix("x");
  const std::vector<std::string> paths = {
      CreateTemporaryFile(prefix.c_str()), CreateTemporaryFile(prefix.c_str()),
      CreateTemporaryDirectory(prefix.c_str()), CreateTemporaryDirectory(prefix.c_str())};
  for (const std::string& path : paths) {
    EXPECT_EQ(1, std::count(paths.begin(), paths.end(), path)) << path;
    EXPECT_TRUE(Exists(path)) << path;
  }
}

TEST_F(CreateTemporaryTest, KeepsNoDescriptor) {
  const std::string file = CreateTemporaryFile(Prefix("x").c_str());
  const std::string directory = CreateTemporaryDirectory(Prefix("x").c_str());
  EXPECT_THAT(DescriptorsOf(file), testing::IsEmpty());
  EXPECT_THAT(DescriptorsOf(directory), testing::IsEmpty());
}

TEST_F(CreateTemporaryTest, TakesAnEmptyPrefix) {
  const std::string file = CreateTemporaryFile(Prefix("").c_str());
  EXPECT_THAT(file, testing::MatchesRegex(directory_ / "[A-Za-z0-9]{6}"));
  const std::string directory = CreateTemporaryDirectory(Prefix("").c_str());
  EXPECT_THAT(directory, testing::MatchesRegex(directory_ / "[A-Za-z0-9]{6}"));
}

TEST_F(CreateTemporaryTest, ThrowsTheTemplateIfThereIsNoDirectoryForIt) {
  const std::string prefix = Prefix("missing/x");
  EXPECT_EQ("Could not create temporary directory with template \"/tmp/" + prefix + "XXXXXX\"",
            ThrownText([&] { CreateTemporaryDirectory(prefix.c_str()); }));
  EXPECT_EQ("Could not create temporary file with template \"/tmp/" + prefix + "XXXXXX\"",
            ThrownText([&] { CreateTemporaryFile(prefix.c_str()); }));
}

TEST_F(CreateTemporaryTest, LeavesTheLogOfFailuresToTheCatcher) {
  const std::string prefix = Prefix("missing/x");
  const auto fail = [&] {
    ThrownText([&] { CreateTemporaryDirectory(prefix.c_str()); });
    ThrownText([&] { CreateTemporaryFile(prefix.c_str()); });
  };
  EXPECT_EQ("", LogOf(fail, kDebugAvailable));
}

// 4095 characters: 5 of "/tmp/", 4084 of the prefix, 6 of "XXXXXX".
TEST_F(CreateTemporaryTest, TakesAPrefixThatJustFits) {
  const std::string prefix = LongPrefix(4084);
  const std::string directory = CreateTemporaryDirectory(prefix.c_str());
  EXPECT_THAT(directory, testing::StartsWith("/tmp/" + prefix));
  EXPECT_EQ(4095U, directory.size());
  const std::string file = CreateTemporaryFile(prefix.c_str());
  EXPECT_THAT(file, testing::StartsWith("/tmp/" + prefix));
  EXPECT_EQ(4095U, file.size());
}

TEST_F(CreateTemporaryTest, FailsIfThePrefixCutsTheTemplate) {
  for (const size_t length : {4085U, 4089U, 4090U, 4091U, 5000U}) {
    const std::string prefix = length == 4085 ? LongPrefix(length) : std::string(length, 'p');
    const std::string path = ("/tmp/" + prefix + "XXXXXX").substr(0, 4095);
    EXPECT_EQ("Could not create temporary directory with template \"" + path + "\"",
              ThrownText([&] { CreateTemporaryDirectory(prefix.c_str()); }));
    EXPECT_EQ("Could not create temporary file with template \"" + path + "\"",
              ThrownText([&] { CreateTemporaryFile(prefix.c_str()); }));
  }
}

// --- Files ---

TEST(WriteWholeTest, TellsThatNotAllCouldBeWritten) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK));
  EXPECT_TRUE(WriteWhole(ends[1], "", 0));
  EXPECT_TRUE(WriteWhole(ends[1], "a\0b", 3));
  char text[10] = "";
  EXPECT_EQ(3, read(ends[0], text, sizeof(text)));
  EXPECT_EQ(std::string("a\0b", 3), std::string(text, 3));
  const std::string large(1 << 20, 'x');
  EXPECT_FALSE(WriteWhole(ends[1], large.data(), large.size()));
  EXPECT_EQ(EAGAIN, errno);
  close(ends[0]);
  close(ends[1]);
}

std::string ReadAll(InputFile* file, size_t block_size) {
  std::string content;
  std::string block(block_size, '\0');
  size_t length = 0;
  while ((length = file->Read(block.data(), block_size)) > 0) {
    content.append(block, 0, length);
  }
  return content;
}

TEST(InputFileTest, ReadsAFileInBlocks) {
  const TemporaryDirectory directory;
  const std::string content("line\r\n\0\xFF and more", 16);
  const std::string path = directory.Write("file", content);
  for (size_t block_size = 1; block_size <= content.size() + 1; ++block_size) {
    InputFile file(path);
    EXPECT_TRUE(file.IsOpen());
    EXPECT_EQ(content, ReadAll(&file, block_size)) << block_size;
  }
}

TEST(InputFileTest, ReadsNothingFromAMissingFile) {
  const TemporaryDirectory directory;
  InputFile missing(directory / "missing");
  EXPECT_EQ(ENOENT, errno);
  EXPECT_FALSE(missing.IsOpen());
  EXPECT_EQ("", ReadAll(&missing, 10));
}

TEST(InputFileTest, OpensRegularFilesOnly) {
  const TemporaryDirectory directory;
  const std::string fifo = directory / "fifo";
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  const std::string link = directory / "link";
  ASSERT_EQ(0, symlink("/dev/zero", link.c_str()));
  const int writer = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(1, write(writer, "x", 1));
  const std::pair<std::string, int> rows[] = {{directory.path(), EISDIR},
                                              {fifo, EINVAL},
                                              {"/dev/null", EINVAL},
                                              {"/dev/zero", EINVAL},
                                              {link, EINVAL}};
  for (const auto& [path, error] : rows) {
    const std::vector<int> descriptors = DescriptorsOf(path);
    InputFile file(path);
    EXPECT_EQ(error, errno) << path;
    EXPECT_FALSE(file.IsOpen()) << path;
    EXPECT_EQ("", ReadAll(&file, 10)) << path;
    EXPECT_EQ(descriptors, DescriptorsOf(path)) << path;
  }
  close(writer);
}

TEST(InputFileTest, DoesNotWaitForTheWriterOfAFifo) {
  const TemporaryDirectory directory;
  const std::string path = directory / "fifo";
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  EXPECT_FALSE(InputFile(path).IsOpen());
}

TEST(InputFileTest, FillsABlockFromSmallReadsInSpiteOfSignals) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "0123456789");
  InputFile file(path);
  read_piece = 3;
  read_interruptions = 2;
  char buffer[12] = "-----------";
  EXPECT_EQ(8U, file.Read(buffer + 1, 8));
  EXPECT_STREQ("-01234567--", buffer);
  EXPECT_EQ(2U, file.Read(buffer, 8));
  EXPECT_STREQ("891234567--", buffer);
  read_piece = SIZE_MAX;
}

TEST(InputFileTest, LooksForNoEndBehindTheLastByte) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "0123456789");
  for (const size_t block_size : {5U, 10U, 11U}) {
    InputFile file(path);
    reads = 0;
    EXPECT_EQ("0123456789", ReadAll(&file, block_size));
    EXPECT_EQ(block_size == 5 ? 2 : 1, reads) << block_size;
  }
}

TEST(InputFileTest, EndsWhereTheFileEndedWhenItWasOpened) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "0123456789");
  InputFile growing(path);
  InputFile shrinking(path);
  directory.Write("file", "0123456789abc");
  EXPECT_EQ("0123456789", ReadAll(&growing, 20));
  directory.Write("file", "01234");
  EXPECT_EQ("01234", ReadAll(&shrinking, 20));
}

TEST(InputFileTest, ReadsAFileWhoseSizeTheKernelDoesNotTell) {
  struct stat status {};
  ASSERT_EQ(0, stat("/proc/self/environ", &status));
  ASSERT_EQ(0, status.st_size);
  for (const size_t block_size : {7U, 100000U}) {
    InputFile file("/proc/self/environ");
    EXPECT_EQ(ReadFile("/proc/self/environ"), ReadAll(&file, block_size));
  }
}

TEST(InputFileTest, KeepsItsDescriptorFromChildrenAndClosesIt) {
  const TemporaryDirectory directory;
  const std::string path = directory.Write("file", "text");
  {
    const InputFile file(path);
    const std::vector<int> descriptors = DescriptorsOf(path);
    ASSERT_EQ(1U, descriptors.size());
    EXPECT_EQ(FD_CLOEXEC, fcntl(descriptors[0], F_GETFD));
  }
  EXPECT_THAT(DescriptorsOf(path), testing::IsEmpty());
}

TEST(InputFileTest, ClosesTheDescriptorNumberedZeroToo) {
  const int saved = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  {
    const InputFile file("/proc/self/environ");
    EXPECT_NE(-1, fcntl(STDIN_FILENO, F_GETFD));
  }
  EXPECT_EQ(-1, fcntl(STDIN_FILENO, F_GETFD));
  if (saved >= 0) {
    EXPECT_EQ(STDIN_FILENO, dup2(saved, STDIN_FILENO));
    close(saved);
  }
}

}  // namespace
