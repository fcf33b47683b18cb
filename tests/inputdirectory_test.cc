#include "inputdirectory.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <malloc.h>
#include <signal.h>
#include <spawn.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>

#include <list>
#include <new>
#include <random>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "crc.h"
#include "directory.h"
#include "retelling.h"
#include "test_util.h"

namespace {

// What the functions below, which stand in for those of the C library, do and what they saw.
struct System {
  time_t now = 1000000;  // What time() tells; nothing here waits for real seconds.
  bool fork_fails = false;
  bool mkdtemp_fails = false;
  bool mkdtemp_goes_astray = false;   // Makes a directory of another name than asked for.
  std::set<std::string> unremovable;  // Paths at which unlink() fails.

  std::vector<pid_t> children;                 // Forked, oldest first.
  std::vector<std::pair<pid_t, int>> signals;  // Sent with kill().
  std::vector<unsigned int> sleeps;            // Seconds.
  std::vector<pid_t> collected;                // Whose end was asked for without waiting.
  std::function<void()> on_sleep = [] {};
};

System& TheSystem() {
  static System system;
  return system;
}

template <typename Function>
Function* Real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Bytes that objects on the heap take.
size_t held_bytes = 0;

// Not inline: where g++ sees just one of the two, it warns of malloc with delete.
__attribute__((noinline)) void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  void* const block = malloc(size);
  held_bytes += malloc_usable_size(block);
  return block;
}

void* operator new(size_t size) {
  void* const block = operator new(size, std::nothrow);
  if (block == nullptr) {
    throw std::bad_alloc();
  }
  return block;
}

__attribute__((noinline)) void operator delete(void* block) noexcept {
  held_bytes -= malloc_usable_size(block);
  free(block);
}

void operator delete(void* block, size_t /*size*/) noexcept { operator delete(block); }

time_t time(time_t* result) noexcept {
  if (result != nullptr) {
    *result = TheSystem().now;
  }
  return TheSystem().now;
}

unsigned int sleep(unsigned int seconds) {
  TheSystem().sleeps.push_back(seconds);
  TheSystem().on_sleep();
  return 0;
}

pid_t fork() noexcept {
  if (TheSystem().fork_fails) {
    errno = EAGAIN;
    return -1;
  }
  const pid_t pid = Real<pid_t()>("fork")();
  if (pid > 0) {
    TheSystem().children.push_back(pid);
  }
  return pid;
}

// Passes on only what goes to a child of this program: a stray kill(-1) would end everything.
int kill(pid_t pid, int signal_number) noexcept {
  TheSystem().signals.emplace_back(pid, signal_number);
  for (const pid_t child : TheSystem().children) {
    if (child == pid) {
      return Real<int(pid_t, int)>("kill")(pid, signal_number);
    }
  }
  errno = ESRCH;
  return -1;
}

// Without waiting, nothing has ended yet: that is left to the tests, which wait.
pid_t waitpid(pid_t pid, int* status, int options) {
  if (options == WNOHANG) {
    TheSystem().collected.push_back(pid);
    return 0;
  }
  return Real<pid_t(pid_t, int*, int)>("waitpid")(pid, status, options);
}

char* mkdtemp(char* path) noexcept {
  if (TheSystem().mkdtemp_fails) {
    errno = EACCES;
    return nullptr;
  }
  if (TheSystem().mkdtemp_goes_astray) {
    path[strlen("/tmp/")] = 'X';
  }
  return Real<char*(char*)>("mkdtemp")(path);
}

// Does not run what would empty the root: a mistake in the code must not cost the machine.
int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* file_actions,
                const posix_spawnattr_t* attributes, char* const arguments[],
                char* const environment[]) {
  if (std::string(arguments[2]).rfind("rm /*", 0) == 0) {
    ADD_FAILURE() << arguments[2];
    return EACCES;
  }
  using Function = int(pid_t*, const char*, const posix_spawn_file_actions_t*,
                       const posix_spawnattr_t*, char* const*, char* const*);
  return Real<Function>("posix_spawn")(pid, path, file_actions, attributes, arguments, environment);
}

int unlink(const char* path) noexcept {
  if (TheSystem().unremovable.count(path) != 0) {
    errno = EACCES;
    return -1;
  }
  return Real<int(const char*)>("unlink")(path);
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

using Words = std::list<std::string>;
using Attributes = std::map<std::string, std::string>;

constexpr char kNoLog[] = "";

XMLElement& AddAttributes(XMLElement& element, const Attributes& attributes) {
  for (const auto& [name, value] : attributes) {
    element.SetAttributeString(name, value);
  }
  return element;
}

std::unique_ptr<InputDirectory> Build(const Attributes& attributes, int word_limit = 10,
                                      const std::string& cifs_helper = "",
                                      const std::string& ftp_helper = "") {
  XMLElement element("directory");
  AddAttributes(element, attributes);
  return std::make_unique<InputDirectory>(element, cifs_helper, ftp_helper, word_limit);
}

// The status record as it stands in the status file.
std::string StatusOf(const InputDirectory& input) {
  const std::unique_ptr<XMLElement> status(input.GetStatus());
  const TemporaryDirectory directory;
  FILE* const file = fopen((directory / "status").c_str(), "w");
  status->Dump(file, "");
  fclose(file);
  return ReadFile(directory / "status");
}

std::string StatusAttribute(const InputDirectory& input, const std::string& name) {
  return std::unique_ptr<XMLElement>(input.GetStatus())->GetAttributeString(name);
}

std::string Number(int value) { return std::to_string(value); }

std::string CRCText(const std::string& text) {
  return Number(CRC(0, reinterpret_cast<const uint8_t*>(text.data()), text.size()));
}

// A parser that is whatever function a test needs.
class FunctionParser : public FileParser {
 public:
  explicit FunctionParser(std::function<std::string(const std::string&)> function)
      : function_(std::move(function)) {}
  std::string ParseFile(const std::string& path_) const override { return function_(path_); }

 private:
  std::function<std::string(const std::string&)> function_;
};

// --- Construction and accessors ---

TEST(InputDirectoryTest, HasDefaultsForEveryAttribute) {
  const auto input = Build({});
  EXPECT_EQ(0, input->GetPriority());
  EXPECT_EQ(0, input->GetActiveMessageID());
  EXPECT_EQ("", input->GetActiveMessageFilename());
  EXPECT_EQ("", input->GetDisplayId());
  EXPECT_EQ("", input->GetTranslatorArguments());
  EXPECT_EQ(0, input->GetPreview());
  EXPECT_EQ("", input->GetLastPlayedPath());
  EXPECT_EQ("", input->GetBumperPath());
  EXPECT_EQ("", input->GetSpacerPath());
  EXPECT_EQ("", input->GetSilencePath());
  EXPECT_EQ("", input->GetParserID());
  EXPECT_EQ("", input->GetEncoding());
  EXPECT_TRUE(input->FirstPlayOfActiveMessage());
}

TEST(InputDirectoryTest, HandsOutItsAttributes) {
  const TemporaryDirectory directory;
  SetDebugMask(0);
  const auto input = Build({{"id", "a"},
                            {"display-id", "lobby"},
                            {"parser", "alert"},
                            {"encoding", "utf16"},
                            {"priority", "-3"},
                            {"conv-opts", "-s 2 \"x\""},
                            {"preview", "0x10"},
                            {"last-played-path", directory.path()},
                            {"bumper-path", "/b"},
                            {"spacer-path", "/sp"},
                            {"silence-path", "/si"}});
  EXPECT_EQ("lobby", input->GetDisplayId());
  EXPECT_EQ("alert", input->GetParserID());
  EXPECT_EQ("utf16", input->GetEncoding());
  EXPECT_EQ(-3, input->GetPriority());
  EXPECT_EQ("-s 2 \"x\"", input->GetTranslatorArguments());
  EXPECT_EQ(16, input->GetPreview());
  EXPECT_EQ(directory.path(), input->GetLastPlayedPath());
  EXPECT_EQ("/b", input->GetBumperPath());
  EXPECT_EQ("/sp", input->GetSpacerPath());
  EXPECT_EQ("/si", input->GetSilencePath());
}

TEST(InputDirectoryTest, IsDisplayedByItsIdUnlessToldOtherwise) {
  EXPECT_EQ("a", Build({{"id", "a"}})->GetDisplayId());
  EXPECT_EQ("", Build({{"id", "a"}, {"display-id", ""}})->GetDisplayId());
}

TEST(InputDirectoryTest, TakesTheDefaultForAnEmptyInteger) {
  const auto input = Build({{"priority", ""}, {"preview", ""}, {"loops", ""}});
  EXPECT_EQ(0, input->GetPriority());
  EXPECT_EQ(0, input->GetPreview());
}

TEST(InputDirectoryTest, IsIdenticalToAnElementOfTheSameNameAndAttributes) {
  const auto input = Build({{"id", "a"}, {"priority", "1"}});
  EXPECT_TRUE(input->IsIdentical(*ParseXML("<directory priority='1' id='a'/>")));
  EXPECT_TRUE(input->IsIdentical(*ParseXML("<directory priority='1' id='a'>x<y/></directory>")));
  for (const char* other :
       {"<directory priority='2' id='a'/>", "<directory id='a'/>", "<parser priority='1' id='a'/>",
        "<directory priority='1' id='a' loops='1'/>", "<directory Priority='1' id='a'/>"}) {
    EXPECT_FALSE(input->IsIdentical(*ParseXML(other))) << other;
  }
}

TEST(InputDirectoryTest, ThrowsForEveryBadIntegerBeforeAnythingIsRemoved) {
  const TemporaryDirectory directory;
  directory.Write("kept", "");
  for (const char* name : {"priority", "loops", "preview", "auto-delete", "ftp-poll-rate"}) {
    const std::string text = std::string("While processing attribute \"") + name +
                             "\" of \"directory\": Could not convert \"1x\" to integer";
    const Attributes attributes = {{name, "1x"},
                                   {"type", "local"},
                                   {"path", directory.path()},
                                   {"last-played-path", directory.path()}};
    EXPECT_EQ(text + "\n", LogOf([&] { EXPECT_EQ(text, ThrownText([&] { Build(attributes); })); }));
  }
  EXPECT_TRUE(Exists(directory / "kept"));
}

TEST(InputDirectoryTest, ReadsTheIntegersInAFixedOrder) {
  SetDebugMask(0);
  Attributes attributes;
  for (const char* name : {"ftp-poll-rate", "auto-delete", "preview", "loops", "priority"}) {
    attributes[name] = "x";
    EXPECT_THAT(ThrownText([&] { Build(attributes); }),
                StartsWith(std::string("While processing attribute \"") + name + "\""));
  }
}

TEST(InputDirectoryTest, EmptiesALocalDirectory) {
  const TemporaryDirectory directory;
  directory.Write("a", "1");
  directory.Write("b", "2");
  directory.Write(".hidden", "3");
  EXPECT_EQ("Removing contents of directory " + directory.path() + "\n",
            LogOf(
                [&] {
                  Build({{"type", "local"}, {"path", directory.path()}});
                },
                kDebugAvailable));
  EXPECT_FALSE(Exists(directory / "a"));
  EXPECT_FALSE(Exists(directory / "b"));
  EXPECT_TRUE(Exists(directory / ".hidden"));
}

TEST(InputDirectoryTest, EmptiesTheRootOfALocalDirectoryNotItsSubdirectory) {
  const TemporaryDirectory directory;
  directory.MakeDirectory("sub");
  directory.Write("sub/kept", "");
  const std::string command = "rm " + directory.path() + "/* > /dev/null 2>&1";
  EXPECT_EQ("Removing contents of directory " + directory.path() + "\nCould not execute \"" +
                command + "\"\n",
            LogOf([&] {
              Build({{"type", "local"}, {"path", directory.path()}, {"subdir", "sub"}});
            }));
  EXPECT_TRUE(Exists(directory / "sub/kept"));
}

TEST(InputDirectoryTest, LogsThatNothingCouldBeRemovedFromAnEmptyOrMissingDirectory) {
  const TemporaryDirectory directory;
  for (const std::string& path : {directory.path(), directory / "missing"}) {
    EXPECT_EQ("Removing contents of directory " + path + "\nCould not execute \"rm " + path +
                  "/* > /dev/null 2>&1\"\n",
              LogOf([&] {
                Build({{"type", "local"}, {"path", path}});
              }));
  }
}

TEST(InputDirectoryTest, EmptiesTheLastPlayedDirectoryFirst) {
  const TemporaryDirectory last_played;
  const TemporaryDirectory directory;
  last_played.Write("old", "");
  directory.Write("old", "");
  EXPECT_EQ("Removing contents of directory " + last_played.path() +
                "\nRemoving contents of directory " + directory.path() + "\n",
            LogOf([&] {
              Build({{"type", "local"},
                     {"path", directory.path()},
                     {"last-played-path", last_played.path()}});
            }));
  EXPECT_FALSE(Exists(last_played / "old"));
  EXPECT_FALSE(Exists(directory / "old"));
}

TEST(InputDirectoryTest, RemovesAndLogsNothingForALocalDirectoryWithoutPath) {
  EXPECT_EQ(kNoLog, LogOf([] { Build({{"type", "local"}}); }, kDebugAvailable));
}

TEST(InputDirectoryTest, EmptiesOnlyTheLastPlayedDirectoryForAnUnknownType) {
  const TemporaryDirectory last_played;
  const TemporaryDirectory directory;
  last_played.Write("old", "");
  directory.Write("kept", "");
  for (const char* type : {"", "Local", "smb"}) {
    last_played.Write("old", "");
    EXPECT_EQ("Removing contents of directory " + last_played.path() + "\n",
              LogOf(
                  [&] {
                    const auto input = Build({{"type", type},
                                              {"path", directory.path()},
                                              {"last-played-path", last_played.path()}});
                    EXPECT_EQ("", StatusAttribute(*input, "path")) << type;
                  },
                  kDebugAvailable));
    EXPECT_FALSE(Exists(last_played / "old")) << type;
  }
  EXPECT_TRUE(Exists(directory / "kept"));
}

TEST(InputDirectoryTest, OfAnUnknownTypeScansItsSubdirectoryAsItStandsAndQueuesNothing) {
  const TemporaryDirectory directory;
  const FakeParser parser;
  const auto input = Build({{"id", "a"}, {"type", "other"}, {"subdir", directory.path()}});
  input->SetFileParser(&parser);
  LogOf([&] { input->Process(); });
  directory.Write("m", "new");
  EXPECT_EQ("Adding m " + CRCText("new") + " to file_map\n",
            LogOf([&] { input->Process(); }, kDebugAvailable));
  EXPECT_EQ(
      "<directory id=\"a\" path=\"\" status=\"0\" total-file-count=\"1\" "
      "updated-file-count=\"0\"/>\n",
      StatusOf(*input));
}

TEST(InputDirectoryTest, CannotBeScannedWithoutAPath) {
  for (const char* type : {"", "local"}) {
    EXPECT_EQ("Could not open directory ", ThrownText([&] { Build({{"type", type}})->Process(); }));
  }
}

// --- Helpers of remote directories ---

struct RemoteType {
  const char* type;
  const char* kind;          // In log lines.
  const char* missing_text;  // Thrown without a helper.
};
constexpr RemoteType kRemoteTypes[] = {
    {"cifs", "CIFS", "Ignoring CIFS mount; no CIFS helper directory"},
    {"ftp", "FTP", "Ignoring FTP dir; no FTP helper directory"},
};

// Waits for the end of the child that was forked last and returns its wait status.
int ReapChild() {
  EXPECT_FALSE(TheSystem().children.empty());
  const pid_t pid = TheSystem().children.back();
  TheSystem().children.pop_back();  // Its number may come again; nothing must be sent there.
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  return status;
}

class HelperTest : public testing::Test {
 protected:
  HelperTest() { TheSystem() = System(); }
  ~HelperTest() override {
    while (!TheSystem().children.empty()) {
      Real<int(pid_t, int)>("kill")(TheSystem().children.back(), SIGKILL);
      ReapChild();
    }
    TheSystem() = System();
    SetDebugMask(kDebugDefault);
  }

  // An executable shell script. What it writes to its standard output goes to the file "output".
  std::string WriteScript(const std::string& body) const {
    const std::string path =
        scripts_.Write("helper", "#!/bin/sh\nexec >" + scripts_ / "output" + "\n" + body + "\n");
    EXPECT_EQ(0, chmod(path.c_str(), 0755));
    return path;
  }
  std::string Output() const { return ReadFile(scripts_ / "output"); }

  // A directory of that type with this helper.
  static std::unique_ptr<InputDirectory> Start(const std::string& type, const std::string& helper,
                                               Attributes attributes = {}) {
    attributes["type"] = type;
    return Build(attributes, 10, type == "cifs" ? helper : "", type == "ftp" ? helper : "");
  }

  // Ends the object without a line in the test's output.
  static void Destroy(std::unique_ptr<InputDirectory>& input) {
    LogOf([&] { input.reset(); }, 0);
  }

  TemporaryDirectory scripts_;
};

TEST_F(HelperTest, IsRequired) {
  for (const RemoteType& remote : kRemoteTypes) {
    EXPECT_EQ(
        kNoLog,
        LogOf([&] { EXPECT_EQ(remote.missing_text, ThrownText([&] { Start(remote.type, ""); })); },
              kDebugAvailable));
  }
  EXPECT_THAT(TheSystem().children, IsEmpty());
}

TEST_F(HelperTest, OfTheOtherKindIsOfNoUse) {
  EXPECT_EQ(kRemoteTypes[0].missing_text, ThrownText([] {
              Build({{"type", "cifs"}}, 10, "", "/bin/true");
            }));
  EXPECT_EQ(kRemoteTypes[1].missing_text, ThrownText([] {
              Build({{"type", "ftp"}}, 10, "/bin/true", "");
            }));
}

TEST_F(HelperTest, IsFoundMissingAfterTheLastPlayedDirectoryWasEmptied) {
  const TemporaryDirectory last_played;
  last_played.Write("old", "");
  EXPECT_EQ("Removing contents of directory " + last_played.path() + "\n", LogOf([&] {
              ThrownText([&] { Start("cifs", "", {{"last-played-path", last_played.path()}}); });
            }));
  EXPECT_FALSE(Exists(last_played / "old"));
}

TEST_F(HelperTest, GetsAPrivateWatchDirectoryThatTheStatusNames) {
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

TEST_F(HelperTest, ForCifsGetsItsArgumentsInOrder) {
  auto input = Start("cifs", WriteScript(kPrintArguments),
                     {{"path", "//server/share"},
                      {"username", "user"},
                      {"password", "secret"},
                      {"subdir", "sub"},
                      {"mount-opts", "port=4450,vers=3"},
                      {"auto-delete", "1"},
                      {"ftp-poll-rate", "7"},
                      {"ftp-mode", "active"}});
  EXPECT_EQ(0, ReapChild());
  EXPECT_EQ("<//server/share><user><secret><sub><" + StatusAttribute(*input, "path") +
                "><port=4450,vers=3><1>",
            Output());
  Destroy(input);
}

TEST_F(HelperTest, ForFtpGetsItsArgumentsInOrder) {
  auto input = Start("ftp", WriteScript(kPrintArguments),
                     {{"path", "server/dir"},
                      {"username", "user"},
                      {"password", "secret"},
                      {"subdir", "sub"},
                      {"mount-opts", "port=4450,vers=3"},
                      {"auto-delete", "1"},
                      {"ftp-poll-rate", "7"},
                      {"ftp-mode", "active"}});
  EXPECT_EQ(0, ReapChild());
  EXPECT_EQ(
      "<server/dir><sub><user><secret><" + StatusAttribute(*input, "path") + "><1><7><active>",
      Output());
  Destroy(input);
}

TEST_F(HelperTest, GetsDefaultsForAbsentAttributes) {
  auto cifs = Start("cifs", WriteScript(kPrintArguments));
  ReapChild();
  EXPECT_EQ("<><><><><" + StatusAttribute(*cifs, "path") + "><><0>", Output());
  auto ftp = Start("ftp", WriteScript(kPrintArguments));
  ReapChild();
  EXPECT_EQ("<><><><><" + StatusAttribute(*ftp, "path") + "><0><5><passive>", Output());
  Destroy(cifs);
  Destroy(ftp);
}

TEST_F(HelperTest, GetsNegativeNumbersAsUnsigned) {
  const Attributes attributes = {{"auto-delete", "-1"}, {"ftp-poll-rate", "-2147483648"}};
  auto cifs = Start("cifs", WriteScript(kPrintArguments), attributes);
  ReapChild();
  EXPECT_EQ("<><><><><" + StatusAttribute(*cifs, "path") + "><><4294967295>", Output());
  auto ftp = Start("ftp", WriteScript(kPrintArguments), attributes);
  ReapChild();
  EXPECT_EQ("<><><><><" + StatusAttribute(*ftp, "path") + "><4294967295><2147483648><passive>",
            Output());
  Destroy(cifs);
  Destroy(ftp);
}

TEST_F(HelperTest, IsStartedWithoutAShellInBetween) {
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

TEST_F(HelperTest, GetsItsOwnPathAsArgumentZero) {
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

TEST_F(HelperTest, InheritsTheEnvironment) {
  ASSERT_EQ(0, setenv("VOCASTRA_TEST_VARIABLE", "a b", 1));
  auto input = Start("ftp", WriteScript("printf '%s' \"$VOCASTRA_TEST_VARIABLE\""));
  ReapChild();
  EXPECT_EQ("a b", Output());
  EXPECT_EQ(0, unsetenv("VOCASTRA_TEST_VARIABLE"));
  Destroy(input);
}

TEST_F(HelperTest, StartsWithCaughtSignalsAsUsualIgnoredOnesIgnoredAndNoneBlocked) {
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

TEST_F(HelperTest, HasNoDescriptorButTheStandardOnes) {
  const Directory held(scripts_.path());
  // Those that this program was started with are not the matter here.
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

TEST_F(HelperTest, ThatCannotBeExecutedIsLoggedByTheChildWhichExits) {
  for (const RemoteType& remote : kRemoteTypes) {
    std::unique_ptr<InputDirectory> input;
    int status = 0;
    EXPECT_EQ(std::string("Unable to fork ") + remote.kind + " helper\n",
              LogOf(
                  [&] {
                    input = Start(remote.type, scripts_ / "missing");
                    status = ReapChild();
                  },
                  kDebugAvailable));
    EXPECT_TRUE(WIFEXITED(status)) << remote.type;
    EXPECT_EQ(255, WEXITSTATUS(status)) << remote.type;
    Destroy(input);
  }
}

TEST_F(HelperTest, ThatCannotBeForkedIsLoggedAndNothingIsSignalled) {
  TheSystem().fork_fails = true;
  for (const RemoteType& remote : kRemoteTypes) {
    std::unique_ptr<InputDirectory> input;
    EXPECT_EQ(std::string("Could not fork ") + remote.kind + " helper: " + strerror(EAGAIN) + "\n",
              LogOf([&] { input = Start(remote.type, "/bin/true"); }, kDebugAvailable));
    const std::string watch = StatusAttribute(*input, "path");
    EXPECT_EQ("Removing temporary directory " + watch + "\n",
              LogOf([&] { input.reset(); }, kDebugAvailable));
    EXPECT_FALSE(Exists(watch));
  }
  EXPECT_THAT(TheSystem().signals, IsEmpty());
  EXPECT_THAT(TheSystem().sleeps, IsEmpty());
}

TEST_F(HelperTest, IsNotStartedWithoutAWatchDirectory) {
  TheSystem().mkdtemp_fails = true;
  EXPECT_EQ("Could not create temporary directory with template \"/tmp/watchXXXXXX\"",
            ThrownText([] { Start("ftp", "/bin/true"); }));
  EXPECT_THAT(TheSystem().children, IsEmpty());
}

TEST_F(HelperTest, IsStoppedBySigtermTwoSecondsBeforeItsDirectoryGoes) {
  for (const RemoteType& remote : kRemoteTypes) {
    auto input = Start(remote.type, WriteScript("exec sleep 60"));
    const pid_t pid = TheSystem().children.back();
    const std::string watch = StatusAttribute(*input, "path");
    TheSystem().on_sleep = [&] {
      EXPECT_THAT(TheSystem().signals, ElementsAre(Pair(pid, SIGTERM)));
      EXPECT_THAT(TheSystem().collected, IsEmpty());
      EXPECT_TRUE(Exists(watch));
    };
    EXPECT_EQ(
        "Sending SIGTERM to PID " + Number(pid) + "\nRemoving temporary directory " + watch + "\n",
        LogOf([&] { input.reset(); }, kDebugAvailable));
    EXPECT_THAT(TheSystem().sleeps, ElementsAre(2));
    EXPECT_THAT(TheSystem().collected, ElementsAre(pid));
    EXPECT_FALSE(Exists(watch));
    const int status = ReapChild();
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    TheSystem() = System();
  }
}

TEST_F(HelperTest, ThatIgnoresSigtermIsLeftBehind) {
  auto input = Start("cifs", WriteScript("trap '' TERM; echo ready; exec sleep 60"));
  for (int i = 0; i < 3000 && Output().empty(); ++i) {
    usleep(10000);
  }
  ASSERT_EQ("ready\n", Output());
  Destroy(input);
  EXPECT_EQ(0,
            Real<pid_t(pid_t, int*, int)>("waitpid")(TheSystem().children.back(), nullptr, WNOHANG))
      << "still running";
}

TEST_F(HelperTest, LosesItsWatchDirectoryWithAllThatIsInIt) {
  auto input = Start("ftp", "/bin/true");
  const std::string watch = StatusAttribute(*input, "path");
  ASSERT_EQ(0, mkdir((watch + "/sub").c_str(), 0700));
  std::ofstream(watch + "/sub/.helper.timestamp") << "1";
  std::ofstream(watch + "/.part") << "1";
  Destroy(input);
  EXPECT_FALSE(Exists(watch));
}

TEST_F(HelperTest, KeepsADirectoryThatIsNoWatchDirectory) {
  for (const RemoteType& remote : kRemoteTypes) {
    TheSystem().mkdtemp_goes_astray = true;
    auto input = Start(remote.type, "/bin/true");
    TheSystem().mkdtemp_goes_astray = false;
    const std::string path = StatusAttribute(*input, "path");
    ASSERT_THAT(path, StartsWith("/tmp/Xatch"));
    const std::string pid = Number(TheSystem().children.back());
    EXPECT_EQ("Sending SIGTERM to PID " + pid + "\n",
              LogOf([&] { input.reset(); }, kDebugAvailable));
    EXPECT_EQ(0, rmdir(path.c_str())) << "still there";
  }
}

TEST_F(HelperTest, IsNothingALocalDirectoryHas) {
  char path[] = "/tmp/watch-test-XXXXXX";
  ASSERT_NE(nullptr, mkdtemp(path));
  std::unique_ptr<InputDirectory> input;
  LogOf([&] {
    input = Build({{"type", "local"}, {"path", path}}, 10, "/bin/false", "/bin/false");
  });
  EXPECT_EQ(kNoLog, LogOf([&] { input.reset(); }, kDebugAvailable));
  EXPECT_THAT(TheSystem().children, IsEmpty());
  EXPECT_THAT(TheSystem().sleeps, IsEmpty());
  EXPECT_EQ(0, rmdir(path)) << "still there, whatever its name";
}

// --- Availability of remote directories ---

class RemoteDirectoryTest : public HelperTest {
 protected:
  ~RemoteDirectoryTest() override { Destroy(input_); }

  void Open(const std::string& type, const Attributes& attributes = {}) {
    input_ = Start(type, "/bin/true", attributes);
    input_->SetFileParser(&parser_);
    watch_ = StatusAttribute(*input_, "path");
  }
  void Write(const std::string& name, const std::string& text) const {
    std::ofstream(watch_ + "/" + name) << text;
  }
  // What the helper does after it has looked at the remote side.
  void Beat(const std::string& text) const { Write(".helper.timestamp", text); }
  std::string Scan(unsigned int mask = kDebugDefault) const {
    return LogOf([&] { input_->Process(); }, mask);
  }
  std::string Receiving() const { return "Directory " + watch_ + "/ is receiving updates\n"; }
  std::string NotReceiving() const {
    return "Directory " + watch_ + "/ is no longer receiving updates\n";
  }

  FakeParser parser_;
  std::unique_ptr<InputDirectory> input_;
  std::string watch_;
};

TEST_F(RemoteDirectoryTest, RecordsButNeverQueuesFilesWhileNoTimestampAppears) {
  Open("cifs", {{"id", "a"}});
  Write("m", "old");
  EXPECT_EQ("Adding m " + CRCText("old") + " to file_map\n", Scan(kDebugAvailable));
  Write("m", "changed");
  TheSystem().now += 1000;
  EXPECT_EQ("Updating m in file_map\n", Scan(kDebugAvailable));
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  EXPECT_EQ("<directory id=\"a\" path=\"" + watch_ +
                "\" status=\"0\" total-file-count=\"1\" updated-file-count=\"0\"/>\n",
            StatusOf(*input_));
}

TEST_F(RemoteDirectoryTest, IsAvailableOnceTheTimestampAppears) {
  for (const RemoteType& remote : kRemoteTypes) {
    Destroy(input_);
    Open(remote.type);
    EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
    Beat("1");
    EXPECT_EQ(Receiving(), Scan(kDebugAvailable));
    EXPECT_EQ("1", StatusAttribute(*input_, "status")) << remote.type;
    Beat("2");
    EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  }
}

TEST_F(RemoteDirectoryTest, QueuesNothingThatWasThereWhenItBecameAvailable) {
  Open("ftp");
  Write("early", "early");
  Scan();
  Write("late", "late");
  Beat("1");
  EXPECT_EQ(Receiving() + "Adding late " + CRCText("late") + " to file_map\n", Scan());
  Write("new", "new");
  EXPECT_EQ("Adding new " + CRCText("new") + " to file_map\n", Scan());
  EXPECT_EQ("new", input_->GetActiveMessageFilename());
  EXPECT_TRUE(Exists(watch_ + "/early"));
  EXPECT_FALSE(Exists(watch_ + "/new"));
}

TEST_F(RemoteDirectoryTest, LooksForFilesAndTimestampInItsSubdirectory) {
  Open("cifs", {{"subdir", "sub"}});
  EXPECT_EQ("Could not open directory " + watch_ + "/sub/", ThrownText([&] { input_->Process(); }));
  ASSERT_EQ(0, mkdir((watch_ + "/sub").c_str(), 0700));
  Beat("1");
  EXPECT_EQ(kNoLog, Scan());
  Write("sub/.helper.timestamp", "1");
  Write("sub/m", "old");
  EXPECT_EQ("Directory " + watch_ + "/sub/ is receiving updates\nAdding m " + CRCText("old") +
                " to file_map\n",
            Scan());
}

TEST_F(RemoteDirectoryTest, TimesOutAfterMoreThanItsTime) {
  const std::vector<std::tuple<std::string, Attributes, time_t>> cases = {
      {"cifs", {}, 5},
      {"cifs", {{"ftp-poll-rate", "60"}}, 5},
      {"ftp", {}, 10},
      {"ftp", {{"ftp-poll-rate", "7"}}, 12},
      {"ftp", {{"ftp-poll-rate", "0"}}, 5},
      {"ftp", {{"ftp-poll-rate", "-3"}}, 2},
      {"ftp", {{"ftp-poll-rate", "2147483647"}}, time_t{2147483647} + 5}};
  for (const auto& [type, attributes, timeout] : cases) {
    Destroy(input_);
    TheSystem().now = 1000000;
    Open(type, attributes);
    Beat("1");
    Scan();
    TheSystem().now += timeout;
    EXPECT_EQ(kNoLog, Scan(kDebugAvailable)) << type << timeout;
    EXPECT_EQ("1", StatusAttribute(*input_, "status"));
    TheSystem().now += 1;
    EXPECT_EQ(NotReceiving(), Scan(kDebugAvailable)) << type << timeout;
    EXPECT_EQ("0", StatusAttribute(*input_, "status"));
    TheSystem().now += 1;
    EXPECT_EQ(kNoLog, Scan(kDebugAvailable)) << type << timeout;
  }
}

TEST_F(RemoteDirectoryTest, TimesOutEvenIfItCannotBeListed) {
  Open("cifs", {{"subdir", "sub"}});
  ASSERT_EQ(0, mkdir((watch_ + "/sub").c_str(), 0700));
  Write("sub/.helper.timestamp", "1");
  Scan();
  ASSERT_EQ(0, rename((watch_ + "/sub").c_str(), (watch_ + "/away").c_str()));
  TheSystem().now += 6;
  EXPECT_EQ("Directory " + watch_ + "/sub/ is no longer receiving updates\n",
            LogOf([&] { ThrownText([&] { input_->Process(); }); }, kDebugAvailable));
  EXPECT_EQ("0", StatusAttribute(*input_, "status"));
}

TEST_F(RemoteDirectoryTest, StaysAvailableWhileTheTimestampChanges) {
  Open("cifs");
  Beat("0");
  EXPECT_EQ(Receiving(), Scan());
  for (int i = 1; i < 20; ++i) {
    TheSystem().now += 5;
    Beat(Number(i));
    EXPECT_EQ(kNoLog, Scan(kDebugAvailable)) << i;
  }
}

// At 03:14:07 on 19 January 2038 a 32-bit count of seconds overflows; devices outlive it.
TEST_F(RemoteDirectoryTest, FollowsItsHelperBeyondJanuary2038) {
  static_assert(sizeof(time_t) == 8);
  TheSystem().now = 0x7FFFFFFF;
  Open("cifs");
  Beat("1");
  EXPECT_EQ(Receiving(), Scan());
  TheSystem().now += 5;
  EXPECT_EQ(kNoLog, Scan());
  TheSystem().now += 1;
  EXPECT_EQ(NotReceiving(), Scan());
  Beat("2");
  EXPECT_EQ(Receiving(), Scan());
}

TEST_F(RemoteDirectoryTest, TakesARewrittenButEqualTimestampForNone) {
  Open("cifs");
  Beat("same");
  Scan();
  TheSystem().now += 6;
  Beat("same");
  EXPECT_EQ(NotReceiving(), Scan());
  ASSERT_EQ(0, unlink((watch_ + "/.helper.timestamp").c_str()));
  EXPECT_EQ(kNoLog, Scan());
  Beat("same");
  EXPECT_EQ(kNoLog, Scan());
  Beat("other");
  EXPECT_EQ(Receiving(), Scan());
}

TEST_F(RemoteDirectoryTest, TakesATimestampWithChecksumZeroForNone) {
  Open("cifs");
  Beat("");
  EXPECT_EQ(kNoLog, Scan());
  Beat(std::string(2, '\0'));
  EXPECT_EQ(kNoLog, Scan());
  Beat("1");
  EXPECT_EQ(Receiving(), Scan());
  TheSystem().now += 6;
  Beat(std::string(1, '\0'));
  EXPECT_EQ(NotReceiving(), Scan());
}

TEST_F(RemoteDirectoryTest, OutlivesALateUpdateWithoutAWord) {
  Open("cifs");
  Beat("1");
  Scan();
  TheSystem().now += 100;
  Beat("2");
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable)) << "the update is looked at before the time-out";
}

TEST_F(RemoteDirectoryTest, SpeaksFilesThatComeAfterTheUpdatesCeased) {
  Open("cifs");
  Beat("1");
  Scan();
  TheSystem().now += 6;
  EXPECT_EQ(NotReceiving(), Scan());
  Write("m", "new");
  Scan();
  EXPECT_EQ("m", input_->GetActiveMessageFilename());
}

TEST_F(RemoteDirectoryTest, DoesNotListItsTimestamp) {
  Open("ftp");
  Beat("1");
  Scan();
  EXPECT_EQ("0", StatusAttribute(*input_, "total-file-count"));
}

TEST_F(RemoteDirectoryTest, HasNoPreview) {
  const TemporaryDirectory last_played;
  LogOf([&] { Open("cifs", {{"preview", "1"}, {"last-played-path", last_played.path()}}); });
  Beat("1");
  Scan();
  Write("m", "new");
  Scan();
  EXPECT_EQ(1, input_->GetPreview());
  EXPECT_EQ(kNoLog, Scan());
  EXPECT_EQ("0", StatusAttribute(*input_, "updated-file-count"));
}

// --- Scanning ---

// A local directory, opened by each test with the attributes it needs.
class LocalDirectoryTest : public testing::Test {
 protected:
  LocalDirectoryTest() { TheSystem() = System(); }
  ~LocalDirectoryTest() override {
    TheSystem() = System();
    SetDebugMask(kDebugDefault);
  }

  // Does the first scan too, so that what is written afterwards counts as new.
  void Open(Attributes attributes = {}, int word_limit = 10) {
    attributes["type"] = "local";
    attributes["path"] = directory_.path();
    LogOf([&] { input_ = Build(attributes, word_limit); });
    input_->SetFileParser(&parser_);
    Scan();
  }
  void OpenWithLastPlayed(Attributes attributes = {}) {
    attributes["last-played-path"] = last_played_.path();
    Open(attributes);
  }
  std::string Scan(unsigned int mask = kDebugDefault) const {
    return LogOf([&] { input_->Process(); }, mask);
  }
  std::string Path(const std::string& name = "m") const { return directory_ / name; }
  void Write(const std::string& text) const { directory_.Write("m", text); }

  // Makes text the active message; any other is dropped.
  void Activate(const std::string& text) {
    input_->StopMessage();
    Write(text);
    Scan();
    ASSERT_EQ("m", input_->GetActiveMessageFilename());
  }
  std::string Queued() const { return StatusAttribute(*input_, "updated-file-count"); }

  TemporaryDirectory directory_;
  TemporaryDirectory last_played_;
  FakeParser parser_;
  std::unique_ptr<InputDirectory> input_;
};

TEST_F(LocalDirectoryTest, TurnsANewFileIntoTheActiveMessage) {
  Open();
  Write("Hello world");
  EXPECT_EQ("Adding m " + CRCText("Hello world") +
                " to file_map\n"
                "Parser returned: \"Hello world\"\n"
                "Original is valid UTF-8\n"
                "From " +
                Path() + ": Hello|world\n",
            Scan(kDebugAvailable));
  EXPECT_NE(0, input_->GetActiveMessageID());
  EXPECT_EQ("m", input_->GetActiveMessageFilename());
  EXPECT_FALSE(Exists(Path()));
  EXPECT_THAT(input_->GetWords(), ElementsAre("Hello", "world"));
}

TEST_F(LocalDirectoryTest, LogsNothingInAnIdleScan) {
  Open();
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
}

TEST_F(LocalDirectoryTest, LeavesFilesOfTheFirstScanAlone) {
  LogOf([&] { input_ = Build({{"type", "local"}, {"path", directory_.path()}}); });
  input_->SetFileParser(&parser_);
  Write("old");
  EXPECT_EQ("Adding m " + CRCText("old") + " to file_map\n", Scan(kDebugAvailable));
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  EXPECT_EQ(0, input_->GetActiveMessageID());
  EXPECT_TRUE(Exists(Path()));
}

TEST_F(LocalDirectoryTest, SpeaksAFileOfTheFirstScanOnceItChanges) {
  LogOf([&] { input_ = Build({{"type", "local"}, {"path", directory_.path()}}); });
  input_->SetFileParser(&parser_);
  Write("old");
  Scan();
  Write("new");
  EXPECT_EQ("Updating m in file_map\n", Scan());
  EXPECT_THAT(input_->GetWords(), ElementsAre("new"));
}

TEST_F(LocalDirectoryTest, ScansItsSubdirectory) {
  directory_.MakeDirectory("sub");
  Open({{"subdir", "sub"}});
  directory_.Write("m", "above");
  directory_.Write("sub/n", "below");
  EXPECT_EQ("Adding n " + CRCText("below") + " to file_map\n", Scan());
  EXPECT_EQ("n", input_->GetActiveMessageFilename());
  EXPECT_TRUE(Exists(Path()));
}

TEST_F(LocalDirectoryTest, AcceptsSlashesAtTheEndsOfItsPaths) {
  directory_.MakeDirectory("sub");
  const std::string path = directory_ / "";
  LogOf([&] { input_ = Build({{"type", "local"}, {"path", path}, {"subdir", "sub/"}}); });
  input_->SetFileParser(&parser_);
  Scan();
  directory_.Write("sub/m", "text");
  EXPECT_EQ(
      "From " + path + "sub/m: text\n",
      Scan(kDebugTrace).substr(strlen("Parser returned: \"text\"\nOriginal is valid UTF-8\n")));
}

TEST_F(LocalDirectoryTest, IgnoresHiddenFilesDirectoriesAndLinks) {
  Open();
  directory_.Write(".m", "hidden");
  directory_.MakeDirectory("sub");
  ASSERT_EQ(0, symlink(".m", (directory_ / "link").c_str()));
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
}

TEST_F(LocalDirectoryTest, ThrowsIfTheDirectoryIsGoneAndGoesOnWhenItIsBack) {
  const TemporaryDirectory parent;
  const std::string path = parent.MakeDirectory("d");
  LogOf([&] { input_ = Build({{"type", "local"}, {"path", path}}); });
  input_->SetFileParser(&parser_);
  parent.Write("d/old", "old");
  Scan();
  ASSERT_EQ(0, unlink((path + "/old").c_str()));
  ASSERT_EQ(0, rmdir(path.c_str()));
  EXPECT_EQ("Could not open directory " + path + "/", ThrownText([&] { input_->Process(); }));
  EXPECT_EQ("1", StatusAttribute(*input_, "total-file-count")) << "as in the last scan";
  parent.MakeDirectory("d");
  parent.Write("d/m", "new");
  EXPECT_EQ("Adding m " + CRCText("new") +
                " to file_map\nErasing old from file_map\nParser returned: \"new\"\nOriginal is "
                "valid UTF-8\nFrom " +
                path + "/m: new\n",
            Scan(kDebugAvailable));
}

TEST_F(LocalDirectoryTest, TakesNewFilesInByteOrderOneMessageAtATime) {
  Open();
  for (const char* name : {"b", "a", "B", "10", "9"}) {
    directory_.Write(name, name);
  }
  Words order;
  for (int left = 4; left >= 0; --left) {
    Scan();
    EXPECT_EQ(Number(left), Queued());
    order.splice(order.end(), input_->GetWords());
  }
  EXPECT_THAT(order, ElementsAre("10", "9", "B", "a", "b"));
}

TEST_F(LocalDirectoryTest, QueuesLaterFilesBehindEarlierOnes) {
  Open();
  directory_.Write("z", "z");
  Scan();
  directory_.Write("y", "y");
  Scan();
  directory_.Write("a", "a");
  Scan();
  EXPECT_EQ("z", input_->GetActiveMessageFilename());
  EXPECT_EQ("2", Queued());
  input_->GetWords();
  Scan();
  EXPECT_EQ("y", input_->GetActiveMessageFilename());
  input_->GetWords();
  Scan();
  EXPECT_EQ("a", input_->GetActiveMessageFilename());
}

TEST_F(LocalDirectoryTest, QueuesAFileAgainForEachChange) {
  OpenWithLastPlayed();
  directory_.Write("a", "first");
  Scan();
  for (const char* text : {"one", "two", "three"}) {
    Write(text);
    Scan();
  }
  EXPECT_EQ("3", Queued());
  for (int i = 0; i < 3; ++i) {
    input_->StopMessage();
    Scan();
    EXPECT_THAT(input_->GetWords(), ElementsAre("three")) << "as it is when it is taken";
  }
  EXPECT_EQ("0", Queued());
}

TEST_F(LocalDirectoryTest, CannotRemoveAFileTwice) {
  Open();
  directory_.Write("a", "first");
  Scan();
  Write("one");
  Scan();
  Write("two");
  Scan();
  input_->StopMessage();
  Scan();
  EXPECT_EQ("m", input_->GetActiveMessageFilename());
  input_->StopMessage();
  EXPECT_EQ("Erasing m from file_map\nParser returned: \"\"\nOriginal is valid UTF-8\nFrom " +
                Path() + ": \nCould not remove " + Path() + "\n",
            Scan(kDebugAvailable));
  EXPECT_EQ(0, input_->GetActiveMessageID());
  EXPECT_EQ("0", Queued());
}

TEST_F(LocalDirectoryTest, TakesAFileForChangedOnlyIfItsTextIs) {
  OpenWithLastPlayed();
  Write("text");
  Scan();
  input_->StopMessage();
  Write("text");
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  parser_.texts["m"] = "other";
  EXPECT_EQ("Updating m in file_map\n", Scan());
}

TEST_F(LocalDirectoryTest, ForgetsFilesThatAreGone) {
  Open();
  directory_.Write("a", "a");
  Scan();
  for (const char* name : {"b", "c", "\xC3\xA9", "\xFF", "~"}) {
    directory_.Write(name, "");
  }
  Scan();
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  ASSERT_EQ(0, unlink(Path("b").c_str()));
  ASSERT_EQ(0, unlink(Path("\xFF").c_str()));
  EXPECT_EQ(kNoLog, LogOf([] {}));
  EXPECT_EQ("Erasing b from file_map\nErasing \xFF from file_map\n", Scan(kDebugAvailable));
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
}

TEST_F(LocalDirectoryTest, TakesAReturningFileForNewOnceItWasForgotten) {
  Open();
  Activate("text");
  EXPECT_EQ("Erasing m from file_map\n", Scan(kDebugAvailable));
  Write("text");
  EXPECT_EQ("Adding m " + CRCText("text") + " to file_map\n", Scan());
  EXPECT_EQ("1", Queued());
}

TEST_F(LocalDirectoryTest, MissesAnEqualFileThatReplacesATakenOneBetweenTwoScans) {
  Open();
  Activate("text");
  Write("text");
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  EXPECT_EQ("0", Queued());
}

TEST_F(LocalDirectoryTest, RecordsButNeverQueuesAFileWithoutText) {
  for (const char* preview : {"0", "1"}) {
    Open({{"preview", preview}});
    Write("");
    EXPECT_EQ("Adding m 0 to file_map\n", Scan()) << preview;
    Scan();
    EXPECT_EQ("0", Queued()) << preview;
    EXPECT_TRUE(Exists(Path()));
  }
}

TEST_F(LocalDirectoryTest, DoesNotQueueAFileWhoseTextVanishes) {
  OpenWithLastPlayed();
  Activate("text");
  Write("");
  EXPECT_EQ("Updating m in file_map\n", Scan());
  EXPECT_EQ("0", Queued());
}

TEST_F(LocalDirectoryTest, WithPreviewQueuesEveryFileAtEveryScan) {
  OpenWithLastPlayed({{"preview", "1"}});
  Write("text");
  Scan();
  EXPECT_EQ("0", Queued());
  for (int i = 1; i < 4; ++i) {
    EXPECT_EQ("Updating m in file_map\n", Scan());
    EXPECT_EQ(Number(i), Queued());
  }
}

TEST_F(LocalDirectoryTest, WithPreviewSparesFilesOfTheFirstScanOnlyOnce) {
  LogOf([&] {
    input_ = Build({{"type", "local"}, {"path", directory_.path()}, {"preview", "-1"}});
  });
  input_->SetFileParser(&parser_);
  Write("old");
  Scan();
  EXPECT_EQ(0, input_->GetActiveMessageID());
  EXPECT_EQ("Updating m in file_map\n", Scan());
  EXPECT_THAT(input_->GetWords(), ElementsAre("old"));
}

TEST_F(LocalDirectoryTest, LooksAtNoFileWithoutAParser) {
  Open();
  input_->SetFileParser(nullptr);
  Write("text");
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  EXPECT_EQ("1", StatusAttribute(*input_, "total-file-count"));
  input_->SetFileParser(&parser_);
  EXPECT_EQ("Adding m " + CRCText("text") + " to file_map\n", Scan());
  EXPECT_THAT(input_->GetWords(), ElementsAre("text"));
}

TEST_F(LocalDirectoryTest, ForgetsFilesThatAreGoneWithoutAParserToo) {
  OpenWithLastPlayed();
  Activate("text");
  input_->SetFileParser(nullptr);
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
  ASSERT_EQ(0, unlink(Path().c_str()));
  EXPECT_EQ("Erasing m from file_map\n", Scan(kDebugAvailable));
}

TEST_F(LocalDirectoryTest, ConsumesQueuedFilesWithoutAParser) {
  Open();
  Activate("text");
  directory_.Write("n", "next");
  Scan();
  input_->SetFileParser(nullptr);
  input_->StopMessage();
  EXPECT_EQ("Original is valid UTF-8\nFrom " + Path("n") + ": \n", Scan(kDebugAvailable));
  EXPECT_FALSE(Exists(Path("n")));
  EXPECT_EQ(0, input_->GetActiveMessageID());
}

TEST_F(LocalDirectoryTest, LogsAFileThatCannotBeIndexedAndGoesOn) {
  Open();
  directory_.Write("a", "a");
  directory_.Write("b", "b");
  parser_.thrown["a"] = "bad file";
  EXPECT_EQ("Indexing bad file\nAdding b " + CRCText("b") + " to file_map\n", Scan());
  EXPECT_EQ("b", input_->GetActiveMessageFilename());
  EXPECT_EQ("Indexing bad file\nErasing b from file_map\n", Scan(kDebugAvailable));
  parser_.thrown.clear();
  EXPECT_EQ("Adding a " + CRCText("a") + " to file_map\n", Scan());
  EXPECT_EQ("1", Queued());
}

TEST_F(LocalDirectoryTest, ConsumesAFileThatCannotBeProcessedAndTakesTheNext) {
  Open();
  int calls = 0;
  const FunctionParser parser([&](const std::string& path) {
    // Both are indexed before the first is taken.
    if (++calls == 3) {
      throw std::string("bad file");
    }
    return ReadFile(path);
  });
  input_->SetFileParser(&parser);
  directory_.Write("a", "first");
  directory_.Write("b", "second");
  EXPECT_EQ("Adding a " + CRCText("first") + " to file_map\nAdding b " + CRCText("second") +
                " to file_map\nProcessing " + Path("a") +
                ": bad file\nParser returned: \"second\"\nOriginal is valid UTF-8\nFrom " +
                Path("b") + ": second\n",
            Scan(kDebugAvailable));
  EXPECT_FALSE(Exists(Path("a")));
  EXPECT_EQ("b", input_->GetActiveMessageFilename());
}

TEST_F(LocalDirectoryTest, ConsumesAFileWithoutWordsAndTakesTheNext) {
  Open();
  directory_.Write("a", "..\t");
  directory_.Write("b", "word");
  EXPECT_EQ("Adding a " + CRCText("..\t") + " to file_map\nAdding b " + CRCText("word") +
                " to file_map\nParser returned: \"..\t\"\nOriginal is valid UTF-8\nFrom " +
                Path("a") + ": \nParser returned: \"word\"\nOriginal is valid UTF-8\nFrom " +
                Path("b") + ": word\n",
            Scan(kDebugAvailable));
  EXPECT_FALSE(Exists(Path("a")));
  EXPECT_EQ("b", input_->GetActiveMessageFilename());
  EXPECT_EQ("0", Queued());
}

TEST_F(LocalDirectoryTest, LogsByDefaultWhichFilesAreNewOrChangedAndNoMore) {
  Open();
  int calls = 0;
  const FunctionParser parser([&](const std::string& path) {
    if (++calls == 3) {
      throw std::string("bad file");
    }
    return ReadFile(path);
  });
  input_->SetFileParser(&parser);
  directory_.Write("a", "first");
  directory_.Write("b", "second \xFF");
  EXPECT_EQ("Adding a " + CRCText("first") + " to file_map\nAdding b " + CRCText("second \xFF") +
                " to file_map\n",
            Scan());
  EXPECT_EQ("b", input_->GetActiveMessageFilename());
  EXPECT_EQ(kNoLog, Scan()) << "nor which are gone";
}

TEST_F(LocalDirectoryTest, ReadsAFileAgainWhenItIsTaken) {
  Open();
  int calls = 0;
  const FunctionParser parser([&](const std::string&) { return "call " + Number(++calls); });
  input_->SetFileParser(&parser);
  Write("");
  Scan();
  EXPECT_THAT(input_->GetWords(), ElementsAre("call", "2"));
}

TEST_F(LocalDirectoryTest, MendsInvalidParserOutput) {
  Open();
  const std::string mark = "\xEF\xBF\xBD";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"a\xFF"
       "b",
       "a" + mark + "b"},  // Never a lead byte.
      {"a\x80"
       "b",
       "a" + mark + "b"},         // A trail byte alone.
      {"a\xE2\x82", "a" + mark},  // Cut off at the end.
      {"a\xE2\x82"
       "b",
       "a" + mark + "b"},  // Cut off in the middle.
      {"a\xC0\xAF"
       "b",
       "a" + mark + "b"},  // Overlong.
      {"a\xED\xA0\x80"
       "b",
       "a" + mark + "b"},  // A surrogate.
      {"a\xF4\x90\x80\x80"
       "b",
       "a" + mark + "b"},  // Beyond U+10FFFF.
      {"\xFF\xFE", mark + mark},
  };
  for (const auto& [text, mended] : cases) {
    parser_.texts["m"] = text;
    Write("");
    EXPECT_EQ("Adding m " + CRCText(text) + " to file_map\nParser returned: \"" + text +
                  "\"\nRe-encoding invalid parser output to UTF-8\nFrom " + Path() + ": " + mended +
                  "\n",
              Scan(kDebugAvailable));
    EXPECT_THAT(input_->GetWords(), ElementsAre(mended));
    Scan();
  }
}

// --- What becomes of a taken file ---

TEST_F(LocalDirectoryTest, RemovesATakenFileWhateverAutoDeleteSays) {
  for (const char* auto_delete : {"0", "1"}) {
    Open({{"auto-delete", auto_delete}});
    Activate("text");
    EXPECT_FALSE(Exists(Path())) << auto_delete;
  }
}

TEST_F(LocalDirectoryTest, CopiesATakenFileToTheEmptiedLastPlayedDirectory) {
  OpenWithLastPlayed();
  last_played_.Write("old", "old");
  last_played_.Write(".hidden", "");
  Write("text");
  EXPECT_EQ("Adding m " + CRCText("text") +
                " to file_map\nParser returned: \"text\"\nOriginal is valid UTF-8\nFrom " + Path() +
                ": text\n",
            Scan(kDebugAvailable));
  EXPECT_EQ("text", ReadFile(last_played_ / "m"));
  EXPECT_FALSE(Exists(last_played_ / "old"));
  EXPECT_TRUE(Exists(last_played_ / ".hidden"));
  EXPECT_TRUE(Exists(Path()));
}

TEST_F(LocalDirectoryTest, WithAutoDeleteRemovesTheFileBehindTheLastPlayedCopy) {
  OpenWithLastPlayed({{"auto-delete", "2"}});
  Activate("text");
  EXPECT_EQ("text", ReadFile(last_played_ / "m"));
  EXPECT_FALSE(Exists(Path()));
  input_->StopMessage();
  directory_.Write("n", "next");
  Scan();
  EXPECT_FALSE(Exists(last_played_ / "m"));
  EXPECT_EQ("next", ReadFile(last_played_ / "n"));
}

TEST_F(LocalDirectoryTest, CopiesAFileWithoutWordsToo) {
  OpenWithLastPlayed({{"auto-delete", "1"}});
  last_played_.Write("old", "old");
  Write("..");
  Scan();
  EXPECT_EQ(0, input_->GetActiveMessageID());
  EXPECT_EQ("..", ReadFile(last_played_ / "m"));
  EXPECT_FALSE(Exists(last_played_ / "old"));
  EXPECT_FALSE(Exists(Path()));
}

TEST_F(LocalDirectoryTest, AcceptsASlashAtTheEndOfTheLastPlayedPath) {
  Open({{"last-played-path", last_played_ / ""}});
  Activate("text");
  EXPECT_EQ("text", ReadFile(last_played_ / "m"));
}

TEST_F(LocalDirectoryTest, SpeaksAFileThatCouldNotBeCopied) {
  const std::string path = last_played_.MakeDirectory("gone");
  Open({{"last-played-path", path}, {"auto-delete", "1"}});
  ASSERT_EQ(0, rmdir(path.c_str()));
  Activate("text");
  EXPECT_THAT(input_->GetWords(), ElementsAre("text"));
  EXPECT_FALSE(Exists(Path()));
}

TEST_F(LocalDirectoryTest, DoesNotSpeakAFileThatCannotBeRemoved) {
  Open();
  TheSystem().unremovable = {Path()};
  Write("text");
  EXPECT_EQ("Adding m " + CRCText("text") +
                " to file_map\nParser returned: \"text\"\nOriginal is valid UTF-8\nFrom " + Path() +
                ": text\nCould not remove " + Path() + "\n",
            Scan(kDebugAvailable));
  EXPECT_EQ(0, input_->GetActiveMessageID());
  EXPECT_THAT(input_->GetWords(), IsEmpty());
  EXPECT_EQ("0", Queued());
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable)) << "it is not tried again";
}

TEST_F(LocalDirectoryTest, DoesNotSpeakAFileThatAutoDeleteCannotRemove) {
  OpenWithLastPlayed({{"auto-delete", "1"}});
  TheSystem().unremovable = {Path()};
  Write("text");
  EXPECT_EQ("Adding m " + CRCText("text") + " to file_map\nCould not remove " + Path() + "\n",
            Scan());
  EXPECT_EQ(0, input_->GetActiveMessageID());
  EXPECT_EQ("text", ReadFile(last_played_ / "m")) << "the copy is made before";
}

TEST_F(LocalDirectoryTest, SpeaksAnUnremovableFileThatNeedNotGo) {
  OpenWithLastPlayed();
  TheSystem().unremovable = {Path()};
  Activate("text");
  EXPECT_THAT(input_->GetWords(), ElementsAre("text"));
}

TEST_F(LocalDirectoryTest, TakesTheNextFileAfterOneThatCannotBeRemoved) {
  Open();
  TheSystem().unremovable = {Path("a")};
  directory_.Write("a", "first");
  directory_.Write("b", "second");
  Scan();
  EXPECT_EQ("b", input_->GetActiveMessageFilename());
  EXPECT_THAT(input_->GetWords(), ElementsAre("second"));
}

TEST_F(LocalDirectoryTest, DoesNotSpeakAFileThatVanishesWhileItIsTaken) {
  Open();
  int calls = 0;
  const FunctionParser parser([&](const std::string& path) {
    if (++calls == 2) {
      EXPECT_EQ(0, unlink(path.c_str()));
    }
    return "text";
  });
  input_->SetFileParser(&parser);
  Write("");
  EXPECT_EQ("Adding m " + CRCText("text") + " to file_map\nCould not remove " + Path() + "\n",
            Scan());
  EXPECT_EQ(0, input_->GetActiveMessageID());
}

TEST_F(LocalDirectoryTest, DoesNotSpeakAFileThatBecomesADirectoryWhileItIsTaken) {
  Open();
  int calls = 0;
  const FunctionParser parser([&](const std::string& path) {
    if (++calls == 2) {
      EXPECT_EQ(0, unlink(path.c_str()));
      EXPECT_EQ(0, mkdir(path.c_str(), 0777));
    }
    return "text";
  });
  input_->SetFileParser(&parser);
  Write("");
  EXPECT_EQ("Adding m " + CRCText("text") + " to file_map\nCould not remove " + Path() + "\n",
            Scan());
  EXPECT_EQ(0, input_->GetActiveMessageID());
  EXPECT_EQ("Erasing m from file_map\n", Scan(kDebugAvailable));
}

// --- Cache mode ---

TEST_F(LocalDirectoryTest, InCacheModeRemovesQueuedFilesAtOnce) {
  Open({{"dir-mode", "cache"}, {"auto-delete", "0"}});
  directory_.Write("a", "first");
  directory_.Write("b", "second");
  EXPECT_EQ("Adding a " + CRCText("first") + " to file_map\nAdding b " + CRCText("second") +
                " to file_map\n",
            Scan(kDebugAvailable));
  EXPECT_EQ(0, input_->GetActiveMessageID());
  EXPECT_FALSE(Exists(Path("a")));
  EXPECT_FALSE(Exists(Path("b")));
  EXPECT_EQ("0", Queued());
}

TEST_F(LocalDirectoryTest, InCacheModeLogsWhatCannotBeRemovedAndGoesOn) {
  Open({{"dir-mode", "cache"}});
  TheSystem().unremovable = {Path("a")};
  directory_.Write("a", "first");
  directory_.Write("b", "second");
  EXPECT_EQ("Adding a " + CRCText("first") + " to file_map\nAdding b " + CRCText("second") +
                " to file_map\nCould not remove " + Path("a") + "\n",
            Scan());
  EXPECT_FALSE(Exists(Path("b")));
  EXPECT_EQ("Erasing b from file_map\n", Scan(kDebugAvailable));
}

TEST_F(LocalDirectoryTest, InCacheModeCopiesQueuedFilesAndKeepsTheOlderCopies) {
  OpenWithLastPlayed({{"dir-mode", "cache"}, {"auto-delete", "1"}});
  for (const char* name : {"a", "b"}) {
    directory_.Write(name, name);
    EXPECT_EQ("Adding " + std::string(name) + " " + CRCText(name) + " to file_map\n",
              Scan(kDebugAvailable));
  }
  EXPECT_EQ("a", ReadFile(last_played_ / "a"));
  EXPECT_EQ("b", ReadFile(last_played_ / "b"));
  EXPECT_TRUE(Exists(Path("a"))) << "auto-delete is not looked at";
  EXPECT_EQ(0, input_->GetActiveMessageID());
}

TEST_F(LocalDirectoryTest, InCacheModeCountsTheCopiesAsUpdatedFiles) {
  OpenWithLastPlayed({{"dir-mode", "cache"}});
  EXPECT_EQ("0", Queued());
  directory_.Write("a", "a");
  directory_.Write("b", "b");
  Scan();
  last_played_.Write(".hidden", "");
  EXPECT_EQ("2", Queued());
}

TEST_F(LocalDirectoryTest, InCacheModeLeavesFilesOfTheFirstScanAlone) {
  LogOf([&] {
    input_ = Build({{"type", "local"}, {"path", directory_.path()}, {"dir-mode", "cache"}});
  });
  input_->SetFileParser(&parser_);
  Write("old");
  Scan();
  EXPECT_TRUE(Exists(Path()));
  Write("new");
  Scan();
  EXPECT_FALSE(Exists(Path()));
}

TEST_F(LocalDirectoryTest, KnowsNoOtherDirectoryMode) {
  Open({{"dir-mode", "Cache"}});
  directory_.Write("n", "next");
  Activate("text");
  EXPECT_EQ("1", Queued());
}

// --- Status ---

TEST_F(LocalDirectoryTest, ReportsItsStateWithoutAMessage) {
  LogOf([&] { input_ = Build({{"id", "a"}, {"type", "local"}, {"path", directory_.path()}}); });
  const std::string path = directory_.path();
  EXPECT_EQ("<directory id=\"a\" path=\"" + path +
                "\" status=\"0\" total-file-count=\"0\" updated-file-count=\"0\"/>\n",
            StatusOf(*input_));
  Scan();
  EXPECT_EQ("<directory id=\"a\" path=\"" + path +
                "\" status=\"1\" total-file-count=\"0\" updated-file-count=\"0\"/>\n",
            StatusOf(*input_));
}

TEST_F(LocalDirectoryTest, ReportsItsActiveMessage) {
  Open({{"id", "a"}, {"display-id", "lobby"}, {"loops", "2"}}, 1);
  directory_.Write("n", "next");
  Activate("one two three");
  const std::string id = Number(input_->GetActiveMessageID());
  const auto status_with_plays = [&](const std::string& plays) {
    return "<directory id=\"a\" path=\"" + directory_.path() +
           "\" status=\"1\" total-file-count=\"2\" updated-file-count=\"1\">\n    <message "
           "filename=\"m\" id=\"" +
           id + "\" plays=\"" + plays + "\"/>\n</directory>\n";
  };
  EXPECT_EQ(status_with_plays("0"), StatusOf(*input_));
  EXPECT_THAT(input_->GetWords(), ElementsAre("one", "two"));
  EXPECT_EQ(status_with_plays("0"), StatusOf(*input_));
  EXPECT_THAT(input_->GetWords(), ElementsAre("three"));
  EXPECT_EQ(status_with_plays("1"), StatusOf(*input_));
}

TEST_F(LocalDirectoryTest, ReportsItsPathAsConfigured) {
  const std::string path = directory_ / "";
  LogOf([&] { input_ = Build({{"type", "local"}, {"path", path}}); });
  EXPECT_EQ(path, StatusAttribute(*input_, "path"));
}

TEST_F(LocalDirectoryTest, ReportsNoUpdatedFilesInCacheModeWithoutLastPlayedDirectory) {
  Open({{"dir-mode", "cache"}});
  EXPECT_EQ("0", Queued());
}

TEST_F(LocalDirectoryTest, CannotReportTheCopiesOfAMissingLastPlayedDirectory) {
  const std::string path = last_played_.MakeDirectory("gone");
  Open({{"dir-mode", "cache"}, {"last-played-path", path}});
  ASSERT_EQ(0, rmdir(path.c_str()));
  EXPECT_EQ("Could not open directory " + path + "/", ThrownText([&] { input_->GetStatus(); }));
}

// --- Words ---

std::string Repeat(const std::string& piece, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    text += piece;
  }
  return text;
}

// Hands out one text as that of every file, so that a table of texts needs one directory only.
class SplitterTest : public LocalDirectoryTest {
 protected:
  SplitterTest() {
    // Preview: also a text whose checksum is that of the text before is taken.
    Open({{"preview", "1"}}, INT_MAX);
  }
  // The words of text. The scan's log below mask goes to log_.
  Words Split(const std::string& text, unsigned int mask = 0) {
    parser_.texts["m"] = text;
    Write("");
    if (mask == 0) {
      SetDebugMask(0);
      input_->Process();
    } else {
      log_ = Scan(mask);
      log_.erase(0, log_.find('\n') + 1);  // "Adding" or "Updating".
    }
    return input_->GetWords();
  }

  std::string log_;
};

TEST_F(SplitterTest, EndsWordsAtBreaksAndControlCharacters) {
  const std::vector<std::pair<std::string, Words>> cases = {
      {"one", {"one"}},
      {"one two", {"one", "two"}},
      {"  one   two  ", {"one", "two"}},
      {"one, two.", {"one,", "two."}},
      {"a!b?c:d;e,f.g", {"a!", "b?", "c:", "d;", "e,", "f.", "g"}},
      {"3.14", {"3.", "14"}},
      {"a-b 'c' (d)", {"a-b", "'c'", "(d)"}},
      {"a\tb\nc\r\nd\x7F"
       "e",
       {"a", "b", "c", "d", "e"}},
      {std::string("a\0b", 3), {"a", "b"}},
      {"a\xC2\xA0"
       "b",
       {"a", "b"}},  // No-break space.
      {"a\xC2\x80"
       "b\xC2\x9F"
       "c",
       {"a", "b", "c"}},
      {"a\xC2\xA1"
       "b",
       {"a\xC2\xA1"
        "b"}},
      {"\xC3\xA9t\xC3\xA9. \xE2\x82\xAC \xF0\x9F\x98\x80",
       {"\xC3\xA9t\xC3\xA9.", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}},
      {"a\xE2\x80\x83"
       "b",
       {"a\xE2\x80\x83"
        "b"}},  // An em space is none of the breaks.
      {" \n\t", {}},
  };
  for (const auto& [text, words] : cases) {
    EXPECT_EQ(words, Split(text)) << testing::PrintToString(text);
  }
}

TEST_F(SplitterTest, DropsALonePunctuationMarkRightAfterAnother) {
  const std::vector<std::pair<std::string, Words>> cases = {
      {"Stop.. Go", {"Stop.", "Go"}},
      {"Stop...Go", {"Stop.", "Go"}},
      {"What?!", {"What?"}},
      {"a.,b", {"a.", "b"}},
      {".", {}},
      {"...", {}},
      {".a", {"a"}},  // The start of a text is like punctuation.
      {", a", {"a"}},
      {"a . b", {"a", ".", "b"}},
      {"a. . b", {"a.", ".", "b"}},
      {" .", {"."}},
      {"\n.", {"."}},
      {"a.\n.", {"a.", "."}},
      {"a\n..", {"a", "."}},
      {".\n", {}},
      {"a..-.", {"a.", "-."}},
      {"a.. ..", {"a.", "."}},
  };
  for (const auto& [text, words] : cases) {
    EXPECT_EQ(words, Split(text)) << testing::PrintToString(text);
  }
}

TEST_F(SplitterTest, CutsAWordToItsFirst100Characters) {
  const std::string hundred = Repeat("x", 100);
  EXPECT_THAT(Split(hundred, kDebugDefault), ElementsAre(hundred));
  EXPECT_EQ(kNoLog, log_);
  EXPECT_THAT(Split(hundred + "y z", kDebugDefault), ElementsAre(hundred, "z"));
  EXPECT_EQ("Word too long\n", log_);
  EXPECT_THAT(Split(Repeat("x", 150), kDebugDefault), ElementsAre(hundred));
  EXPECT_EQ(Repeat("Word too long\n", 50), log_);
  EXPECT_THAT(Split(hundred + ".. z", kDebugDefault), ElementsAre(hundred, "z"));
  EXPECT_EQ("Word too long\n", log_) << "the first full stop ends the word without being in it";
}

TEST_F(SplitterTest, CountsCharactersNotBytesOfAWord) {
  // The last ones of two and three bytes, and the first ones of three and four, among them.
  for (const char* character : {"\xC3\xA9", "\xDF\xBF", "\xE0\xA0\x80", "\xE2\x82\xAC",
                                "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF0\x9F\x98\x80"}) {
    EXPECT_THAT(Split(Repeat(character, 103), kDebugDefault), ElementsAre(Repeat(character, 100)));
    EXPECT_EQ(Repeat("Word too long\n", 3), log_);
  }
}

TEST_F(SplitterTest, IgnoresWhatFollowsThe65536thCharacter) {
  const std::string text = Repeat("x ", 32768);
  EXPECT_EQ(32768U, Split(text, kDebugDefault).size());
  EXPECT_EQ(kNoLog, log_);
  EXPECT_EQ(32768U, Split(text + "y. z", kDebugDefault).size());
  EXPECT_EQ(Repeat("Too many characters\n", 4), log_);
}

TEST_F(SplitterTest, KeepsTheWordThatThe65536thCharacterCuts) {
  EXPECT_THAT(Split(Repeat(" ", 65530) + "abcdefgh i", kDebugDefault), ElementsAre("abcdef"));
  EXPECT_EQ(Repeat("Too many characters\n", 4), log_);
  EXPECT_THAT(Split(Repeat("\xC2\xA0", 65535) + "\xE2\x82\xAC\xE2\x82\xAC", kDebugDefault),
              ElementsAre("\xE2\x82\xAC"));
  EXPECT_EQ("Too many characters\n", log_);
  EXPECT_THAT(Split(Repeat("\n", 65536) + "x", kDebugDefault), IsEmpty());
  EXPECT_EQ("Too many characters\n", log_);
}

TEST_F(SplitterTest, LogsWhatItDropsInTheOrderOfTheText) {
  EXPECT_EQ(101U,
            Split(Repeat("x", 101) + Repeat(" y", 100) + Repeat(" ", 65235) + "zzzz", kDebugDefault)
                .size());
  EXPECT_EQ("Word too long\n" + Repeat("Too many characters\n", 4), log_);
}

using Random = std::mt19937;

int Below(Random& random, int bound) {
  return static_cast<int>(random() % static_cast<unsigned int>(bound));
}

// The scan told once more, with a look-up for every file.
TEST_F(LocalDirectoryTest, AgreesWithARetellingOfItsScan) {
  const std::vector<std::string> names = {"!",  "0", "10", "9",    "A",        "a",
                                          "aa", "b", "n",  "\x7F", "\xC3\xA9", "\xFF"};
  const std::vector<std::string> texts = {"", "one", "two", "three"};
  for (const bool preview : {false, true}) {
    OpenWithLastPlayed({{"preview", preview ? "1" : "0"}});
    parser_.texts = {{"m", "word"}};
    Activate("word");
    std::map<std::string, std::string> known = {{"m", "word"}};
    std::set<std::string> present = {"m"};
    Words queue;
    Random random(20261120);
    for (int scan = 0; scan < 25; ++scan) {
      parser_.thrown.clear();
      for (const std::string& name : names) {
        parser_.texts[name] = texts[random() % texts.size()];
        if (Below(random, 6) == 0) {
          parser_.thrown[name] = name + " is bad";
        }
        if (Below(random, 3) > 0) {
          directory_.Write(name, "");
          present.insert(name);
        } else if (present.erase(name) > 0) {
          ASSERT_EQ(0, unlink(Path(name).c_str()));
        }
      }
      std::string log;
      for (const std::string& name : present) {
        const std::string& text = parser_.texts[name];
        if (parser_.thrown.count(name) != 0) {
          log += "Indexing " + name + " is bad\n";
          continue;
        }
        const bool is_new = known.count(name) == 0;
        if (!is_new && !preview && known[name] == text) {
          continue;
        }
        log += is_new ? "Adding " + name + " " + CRCText(text) + " to file_map\n"
                      : "Updating " + name + " in file_map\n";
        known[name] = text;
        if (!text.empty()) {
          queue.push_back(name);
        }
      }
      for (auto entry = known.begin(); entry != known.end();) {
        if (present.count(entry->first) != 0) {
          ++entry;
          continue;
        }
        log += "Erasing " + entry->first + " from file_map\n";
        entry = known.erase(entry);
      }
      ASSERT_EQ(log, Scan(kDebugAvailable)) << scan;
    }
    // Without files nothing is queued any more; the waiting names are taken all the same.
    parser_.thrown.clear();
    for (const std::string& name : present) {
      ASSERT_EQ(0, unlink(Path(name).c_str()));
    }
    for (auto& [name, text] : parser_.texts) {
      text = "word";
    }
    for (const std::string& name : queue) {
      input_->StopMessage();
      Scan();
      ASSERT_EQ(name, input_->GetActiveMessageFilename());
    }
    EXPECT_EQ("0", Queued());
  }
}

TEST_F(LocalDirectoryTest, PassesOverAFileThatCannotBeIndexedBetweenKnownOnes) {
  OpenWithLastPlayed();
  for (const char* name : {"a", "b", "c"}) {
    directory_.Write(name, name);
  }
  Scan();
  directory_.Write("c", "changed");
  directory_.Write("d", "d");
  parser_.thrown["b"] = "bad file";
  EXPECT_EQ(
      "Indexing bad file\nUpdating c in file_map\nAdding d " + CRCText("d") + " to file_map\n",
      Scan(kDebugAvailable));
  parser_.thrown.clear();
  EXPECT_EQ(kNoLog, Scan(kDebugAvailable));
}

std::vector<uint32_t> RandomText(Random& random, const std::vector<uint32_t>& alphabet,
                                 int max_length) {
  std::vector<uint32_t> text(static_cast<size_t>(Below(random, max_length + 1)));
  for (uint32_t& cp : text) {
    cp = alphabet[random() % alphabet.size()];
  }
  return text;
}

TEST_F(SplitterTest, AgreesWithTheRetellingOfItsRules) {
  std::vector<uint32_t> latin1(256);
  for (uint32_t cp = 0; cp < 256; ++cp) {
    latin1[cp] = cp;
  }
  const std::vector<std::vector<uint32_t>> alphabets = {
      {' ', '.', ',', '\n', 'a'},
      {'.', '!', '?', ':', ';', ',', 'a', 0xE9},
      {' ', 0xA0, '\t', 0, 0x7F, 0x9F, '.', 'a', 'b', 0x20AC},
      {'a', 'b', 'c', ' ', '.', 0xE9, 0x20AC, 0xFFFD, 0x10FFFF, 0x1F600, 0xD7FF, 0xE000},
      latin1,
  };
  Random random(20261120);
  for (const std::vector<uint32_t>& alphabet : alphabets) {
    for (int i = 0; i < 6000; ++i) {
      const std::vector<uint32_t> text = RandomText(random, alphabet, 24);
      const std::string encoded = retelling::EncodeText(text);
      ASSERT_EQ(retelling::Splitting(text).words, Split(encoded))
          << testing::PrintToString(encoded);
    }
  }
}

// Words of a few hundred characters, of one to four bytes each.
std::vector<uint32_t> LongWordAlphabet() {
  std::vector<uint32_t> alphabet = {' ', '.', '\n'};
  for (const uint32_t cp : {uint32_t{'x'}, uint32_t{0xB5}, uint32_t{0x20AC}, uint32_t{0x1F600}}) {
    alphabet.insert(alphabet.end(), 40, cp);
  }
  return alphabet;
}

TEST_F(SplitterTest, AgreesWithTheRetellingForLongWords) {
  Random random(1);
  for (int i = 0; i < 1000; ++i) {
    const std::vector<uint32_t> text = RandomText(random, LongWordAlphabet(), 600);
    const retelling::Splitting expected(text);
    const std::string encoded = retelling::EncodeText(text);
    ASSERT_EQ(expected.words, Split(encoded, kDebugDefault)) << encoded;
    ASSERT_EQ(expected.log, log_) << encoded;
  }
}

TEST_F(SplitterTest, AgreesWithTheRetellingForLongMessages) {
  const std::vector<uint32_t> short_words = {'x', 'y', 'z', ' ', '.', 0x20AC};
  Random random(2);
  for (int i = 0; i < 20; ++i) {
    std::vector<uint32_t> text = i % 2 == 0 ? RandomText(random, short_words, 100)
                                            : RandomText(random, LongWordAlphabet(), 800);
    text.insert(text.begin(), i % 2 == 0 ? 65500 : 65200, i % 4 < 2 ? ' ' : '.');
    const retelling::Splitting expected(text);
    const std::string encoded = retelling::EncodeText(text);
    ASSERT_EQ(expected.words, Split(encoded, kDebugDefault)) << i;
    ASSERT_EQ(expected.log, log_) << i;
  }
}

// --- Snippets ---

// "w1 w2 ... w<count>"
std::string Numbered(int count) {
  std::string text;
  for (int i = 1; i <= count; ++i) {
    text += "w" + Number(i) + " ";
  }
  return text;
}

class SnippetTest : public LocalDirectoryTest {
 protected:
  // The sizes of the snippets of one message.
  std::vector<size_t> Sizes(const std::string& text, int word_limit) {
    Open({}, word_limit);
    Activate(text);
    std::vector<size_t> sizes;
    while (input_->GetActiveMessageID() != 0) {
      sizes.push_back(input_->GetWords().size());
    }
    return sizes;
  }
};

TEST_F(SnippetTest, HasTwiceTheLimitOfWordsWithoutPunctuation) {
  const std::vector<std::pair<int, std::vector<size_t>>> cases = {
      {1, {1}},   {9, {9}},      {10, {10}},    {11, {11}},     {19, {19}},
      {20, {20}}, {21, {20, 1}}, {25, {20, 5}}, {40, {20, 20}}, {41, {20, 20, 1}}};
  for (const auto& [count, sizes] : cases) {
    EXPECT_EQ(sizes, Sizes(Numbered(count), 10)) << count;
  }
}

TEST_F(SnippetTest, IsStretchedToTheNextFullStopOrComma) {
  const std::vector<std::pair<std::string, std::vector<size_t>>> cases = {
      {"a b c. d e f g", {3, 4}},  // The limit is 2.
      {"a b c, d e f g", {3, 4}}, {"a b c d. e f g", {4, 3}}, {"a b c! d? e: f; g", {4, 3}},
      {"a. b, c d e", {4, 1}},    {"a. b. c. d.", {3, 1}},    {"a b . c", {3, 1}},
      {"a b c.d", {3, 1}},
  };
  for (const auto& [text, sizes] : cases) {
    EXPECT_EQ(sizes, Sizes(text, 2)) << text;
  }
}

TEST_F(SnippetTest, IsNotEndedByTheFirstWordsPunctuation) {
  Open({}, 1);
  Activate("one. two. three.");
  EXPECT_THAT(input_->GetWords(), ElementsAre("one.", "two."));
  EXPECT_THAT(input_->GetWords(), ElementsAre("three."));
}

TEST_F(SnippetTest, HasOneWordIfTheLimitIsNotPositive) {
  for (const int limit : {0, -1, -10, INT_MIN}) {
    EXPECT_EQ(std::vector<size_t>({1, 1, 1}), Sizes("one two. three", limit)) << limit;
  }
}

TEST_F(SnippetTest, TakesWholeMessagesUnderHugeLimits) {
  for (const int limit : {1000, INT_MAX / 2, INT_MAX / 2 + 1, INT_MAX}) {
    EXPECT_EQ(std::vector<size_t>({500}), Sizes(Numbered(500), limit)) << limit;
  }
}

TEST_F(SnippetTest, IsEmptyWithoutAMessage) {
  Open();
  EXPECT_TRUE(input_->FirstPlayOfActiveMessage());
  EXPECT_THAT(input_->GetWords(), IsEmpty());
  EXPECT_FALSE(input_->FirstPlayOfActiveMessage());
  input_->RestartMessage();
  input_->StopMessage();
  EXPECT_THAT(input_->GetWords(), IsEmpty());
}

TEST_F(SnippetTest, EndsTheMessageWithItsLastWord) {
  Open();
  Activate(Numbered(20));
  EXPECT_EQ(20U, input_->GetWords().size());
  EXPECT_EQ(0, input_->GetActiveMessageID());
  EXPECT_EQ("", input_->GetActiveMessageFilename());
  EXPECT_THAT(input_->GetWords(), IsEmpty());
}

TEST_F(SnippetTest, StartsOverUntilAllLoopsArePlayed) {
  Open({{"loops", "2"}});
  Activate(Numbered(25));
  for (const size_t size : {20U, 5U, 20U, 5U}) {
    EXPECT_NE(0, input_->GetActiveMessageID());
    EXPECT_EQ(size, input_->GetWords().size());
  }
  EXPECT_EQ(0, input_->GetActiveMessageID());
}

TEST_F(SnippetTest, NeverSpansTwoPlays) {
  Open({{"loops", "3"}}, 2);
  Activate("a b c");
  for (int play = 0; play < 3; ++play) {
    EXPECT_THAT(input_->GetWords(), ElementsAre("a", "b", "c")) << play;
  }
  EXPECT_THAT(input_->GetWords(), IsEmpty());
}

TEST_F(SnippetTest, IsPlayedOnceIfLoopsIsNotAboveOne) {
  for (const char* loops : {"1", "0", "-5", ""}) {
    Open({{"loops", loops}});
    Activate("text");
    EXPECT_THAT(input_->GetWords(), ElementsAre("text")) << loops;
    EXPECT_EQ(0, input_->GetActiveMessageID()) << loops;
  }
}

TEST_F(SnippetTest, ComesFromTheFirstWordAgainAfterARestart) {
  Open({}, 1);
  Activate("one two three");
  input_->GetWords();
  input_->RestartMessage();
  EXPECT_THAT(input_->GetWords(), ElementsAre("one", "two"));
  EXPECT_THAT(input_->GetWords(), ElementsAre("three"));
  EXPECT_FALSE(input_->FirstPlayOfActiveMessage());
}

TEST_F(SnippetTest, IsFirstPlayUntilTheFirstWordsOfEachMessageAreTaken) {
  Open({{"loops", "2"}}, 1);
  for (int i = 0; i < 2; ++i) {
    Activate("one two three");
    EXPECT_TRUE(input_->FirstPlayOfActiveMessage());
    for (int snippet = 0; snippet < 4; ++snippet) {
      input_->GetWords();
      EXPECT_FALSE(input_->FirstPlayOfActiveMessage());
    }
    Scan();  // Notices that the file is gone.
  }
}

TEST_F(SnippetTest, ComesNoMoreAfterAStop) {
  Open({{"loops", "2"}}, 1);
  Activate("one two three");
  input_->GetWords();
  input_->StopMessage();
  EXPECT_EQ(0, input_->GetActiveMessageID());
  EXPECT_EQ("", input_->GetActiveMessageFilename());
  EXPECT_THAT(input_->GetWords(), IsEmpty());
  EXPECT_EQ("Erasing m from file_map\n", Scan(kDebugAvailable)) << "and the message is not resumed";
}

// Hundreds of directories may each have had a long message.
TEST_F(SnippetTest, GivesBackTheMemoryOfAMessageThatIsOver) {
  Open({}, INT_MAX);
  const std::function<void(const std::string&)> ways[] = {
      [this](const std::string& text) {
        Activate(text);
        input_->GetWords();
      },
      [this](const std::string& text) {
        Activate(text);
        input_->StopMessage();
      },
      [this](const std::string& text) {
        Write(std::string(text.size(), '.'));  // Has no words.
        Scan();
      },
  };
  for (const auto& use : ways) {
    use("short");
    const size_t before = held_bytes;
    use(Repeat("a ", 32768));
    EXPECT_LT(held_bytes, before + 4096);
  }
}

TEST_F(SnippetTest, CountsPlaysAnewForTheMessageAfterAStoppedOne) {
  Open({{"loops", "2"}});
  Activate("one");
  input_->GetWords();
  input_->StopMessage();
  Scan();
  Activate("two");
  input_->GetWords();
  EXPECT_THAT(input_->GetWords(), ElementsAre("two"));
  EXPECT_EQ(0, input_->GetActiveMessageID());
}

TEST_F(SnippetTest, AgreesWithTheRetellingOfItsRules) {
  const std::vector<std::string> vocabulary = {"a", "bb", "c.", "dd,", "e!", "\xC3\xA9"};
  Random random(3);
  std::vector<int> limits = {INT_MAX, INT_MAX / 2 + 1, INT_MIN};
  for (int limit = -1; limit <= 20; ++limit) {
    limits.push_back(limit);
  }
  for (const int limit : limits) {
    for (int loops = -1; loops <= 3; ++loops) {
      Open({{"loops", Number(loops)}, {"preview", "1"}}, limit);
      for (int i = 0; i < 60; ++i) {
        std::vector<std::string> words(1 + random() % 70);
        for (std::string& word : words) {
          word = vocabulary[random() % vocabulary.size()];
        }
        parser_.texts["m"].clear();
        for (const std::string& word : words) {
          parser_.texts["m"] += word + " ";
        }
        Write("");
        SetDebugMask(0);
        input_->Process();
        std::vector<Words> snippets;
        while (input_->GetActiveMessageID() != 0) {
          snippets.push_back(input_->GetWords());
        }
        ASSERT_EQ(retelling::Snippets(words, limit, loops), snippets)
            << limit << " " << loops << " " << parser_.texts["m"];
      }
    }
  }
}

// --- Message ids ---

TEST_F(LocalDirectoryTest, NumbersItsMessagesOneAfterTheOther) {
  Open();
  Activate("one");
  const int first = input_->GetActiveMessageID();
  EXPECT_GT(first, 0);
  for (int i = 1; i < 4; ++i) {
    Scan();
    Activate("text " + Number(i));
    EXPECT_EQ(first + i, input_->GetActiveMessageID());
  }
}

TEST_F(LocalDirectoryTest, SpendsNoNumberOnAFileWithoutWords) {
  Open();
  Activate("one");
  const int first = input_->GetActiveMessageID();
  input_->GetWords();
  Scan();
  Write("..");
  Scan();
  Scan();
  Activate("two");
  EXPECT_EQ(first + 1, input_->GetActiveMessageID());
}

TEST_F(LocalDirectoryTest, SharesTheNumbersWithAllOtherDirectories) {
  Open();
  Activate("one");
  const int first = input_->GetActiveMessageID();
  const TemporaryDirectory other_directory;
  std::unique_ptr<InputDirectory> other;
  LogOf([&] {
    other = Build({{"type", "local"}, {"path", other_directory.path()}});
    other->SetFileParser(&parser_);
    other->Process();
    other_directory.Write("n", "text");
    other->Process();
  });
  EXPECT_EQ(first + 1, other->GetActiveMessageID());
  other.reset();
  Scan();
  Activate("two");
  EXPECT_EQ(first + 2, input_->GetActiveMessageID());
}

}  // namespace
