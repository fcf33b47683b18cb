#include "directory.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stddef.h>
#include <string.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <set>
#include <thread>
#include <type_traits>

#include "format.h"
#include "test_util.h"

namespace {

static_assert(!std::is_copy_constructible_v<Directory> && !std::is_copy_assignable_v<Directory>);

// What stands in for the C library or is told of a call to it, while set.
std::function<const dirent*()> next_entry;  // Instead of readdir.
std::function<void()> before_readdir;       // In front of each call.
std::function<void()> before_rewinddir;     // That is, between two passes.
std::function<void(const std::string&)> before_unlink;

template <typename Function>
Function Original(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The directory module calls these.
dirent* readdir(DIR* dir) {
  if (before_readdir) {
    before_readdir();
  }
  if (next_entry) {
    return const_cast<dirent*>(next_entry());
  }
  static const auto original = Original<dirent* (*)(DIR*)>("readdir64");  // With 64-bit inodes.
  return original(dir);
}

void rewinddir(DIR* dir) noexcept {
  if (before_rewinddir) {
    before_rewinddir();
  }
  static const auto original = Original<void (*)(DIR*)>("rewinddir");
  original(dir);
}

int unlink(const char* path) noexcept {
  if (before_unlink) {
    before_unlink(path);
  }
  static const auto original = Original<int (*)(const char*)>("unlink");
  return original(path);
}

// The sanitizer's malloc fails like any other. Meaningless without it.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Another process's view of the lock: an open description of its own.
class OtherProcess {
 public:
  explicit OtherProcess(const std::string& path)
      : fd_(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
  ~OtherProcess() { close(fd_); }

  bool TryLock() const { return flock(fd_, LOCK_EX | LOCK_NB) == 0; }
  void Unlock() const { flock(fd_, LOCK_UN); }
  bool CouldLock() const {
    const bool could = TryLock();
    if (could) {
      Unlock();
    }
    return could;
  }

 private:
  const int fd_;
};

class DirectoryTest : public testing::Test {
 protected:
  ~DirectoryTest() override {
    next_entry = nullptr;
    before_readdir = nullptr;
    before_rewinddir = nullptr;
    before_unlink = nullptr;
  }

  void WriteFiles(const std::list<std::string>& names) const {
    for (const std::string& name : names) {
      temporary_.Write("shared/" + name, "content of " + name);
    }
  }
  void Remove(const std::string& name) const {
    EXPECT_EQ(0, unlink((path_ + name).c_str())) << name;
  }
  // Entries that no disk holds, the same for each pass.
  static void FakeListing(size_t count, const std::string& name, unsigned char type = DT_REG) {
    // Room for longer names than a dirent declares.
    const auto bytes = std::make_shared<std::vector<char>>(sizeof(dirent) + name.size());
    dirent* const entry = reinterpret_cast<dirent*>(bytes->data());
    entry->d_type = type;
    memcpy(bytes->data() + offsetof(dirent, d_name), name.c_str(), name.size() + 1);
    const auto left = std::make_shared<size_t>(count);
    next_entry = [bytes, entry, left]() -> const dirent* {
      return (*left)-- > 0 ? entry : nullptr;
    };
    before_rewinddir = [left, count] { *left = count; };
  }

  const TemporaryDirectory temporary_;
  const std::string path_ = temporary_.MakeDirectory("shared") + "/";
  const OtherProcess other_{path_};
  Directory directory_{path_};
};

// --- Opening ---

TEST_F(DirectoryTest, OpensAPathWithOrWithoutASlash) {
  WriteFiles({"a"});
  const std::string without_slash = temporary_ / "shared";
  for (const std::string& path : {without_slash, without_slash + "/", without_slash + "//"}) {
    EXPECT_THAT(Directory(path).GetFileNames(), ElementsAre("a")) << path;
  }
}

TEST_F(DirectoryTest, ThrowsIfThereIsNothingToOpen) {
  const std::string missing = temporary_ / "missing";
  for (const std::string& path : {missing, missing + "/"}) {
    EXPECT_EQ("Could not open directory " + missing + "/",
              ThrownText([&path_to_open = path] { const Directory directory(path_to_open); }));
  }
  EXPECT_EQ("Could not open directory ", ThrownText([] { const Directory directory(""); }));
  EXPECT_EQ(
      "", LogOf([&] { ThrownText([&] { const Directory directory(missing); }); }, kDebugAvailable));
}

TEST_F(DirectoryTest, OpensWhatIsNoDirectoryButCannotListIt) {
  const std::string file = temporary_.Write("file", "");
  Directory directory(file);
  EXPECT_EQ("Could not open \"" + file + "/\" for enumeration: Not a directory",
            ThrownText([&] { directory.GetFileNames(); }));
  EXPECT_EQ("Could not open \"" + file + "/\" for counting: Not a directory\n",
            LogOf([&] { EXPECT_EQ(0, directory.GetFileCountLocked()); }));
  EXPECT_EQ("Could not open directory " + file + "/",
            ThrownText([&] { const Directory with_slash(file + "/"); }));
}

TEST_F(DirectoryTest, KeepsItsDescriptorFromChildrenAndClosesIt) {
  const std::string path = temporary_.MakeDirectory("another");
  {
    const Directory directory(path);
    const std::vector<int> descriptors = DescriptorsOf(path);
    ASSERT_EQ(1U, descriptors.size());
    EXPECT_EQ(FD_CLOEXEC, fcntl(descriptors[0], F_GETFD));
  }
  EXPECT_THAT(DescriptorsOf(path), IsEmpty());
}

TEST_F(DirectoryTest, ListsThroughDescriptorsThatChildrenDoNotGet) {
  bool checked = false;
  before_readdir = [&] {
    checked = true;
    for (const int fd : DescriptorsOf(path_)) {
      EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD)) << fd;
    }
  };
  directory_.GetFileNames();
  EXPECT_TRUE(checked);
  before_readdir = nullptr;
  EXPECT_EQ(2U, DescriptorsOf(path_).size());  // Its own and the other process's.
}

// --- Listing and counting ---

TEST_F(DirectoryTest, FindsNothingInAnEmptyDirectory) {
  EXPECT_EQ("", LogOf(
                    [&] {
                      EXPECT_EQ(0, directory_.GetFileCountLocked());
                      EXPECT_THAT(directory_.GetFileNames(), IsEmpty());
                    },
                    kDebugAvailable));
}

TEST_F(DirectoryTest, ListsVisibleFilesInByteOrder) {
  WriteFiles(
      {"b", "A", "a", ".hidden", "10", "9", "B", "-", "a.wav", "a-", "\xC3\xA9", "\xFF", "~"});
  EXPECT_EQ(12, directory_.GetFileCountLocked());
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("-", "10", "9", "A", "B", "a", "a-", "a.wav",
                                                     "b", "~", "\xC3\xA9", "\xFF"));
}

TEST_F(DirectoryTest, IgnoresEverythingButVisibleRegularFiles) {
  WriteFiles({".hidden", "..two", "...", "file"});
  temporary_.MakeDirectory("shared/directory");
  temporary_.Write("shared/directory/inner", "");
  EXPECT_EQ(0, symlink("file", (path_ + "link").c_str()));
  EXPECT_EQ(0, symlink("missing", (path_ + "dangling").c_str()));
  EXPECT_EQ(0, mkfifo((path_ + "fifo").c_str(), 0600));
  sockaddr_un address{AF_UNIX, ""};
  snprintf(address.sun_path, sizeof(address.sun_path), "%ssocket", path_.c_str());
  const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(0, bind(server, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
  close(server);
  EXPECT_EQ(1, directory_.GetFileCountLocked());
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("file"));
}

TEST_F(DirectoryTest, ListsAHardLinkAsAFile) {
  WriteFiles({"file"});
  EXPECT_EQ(0, link((path_ + "file").c_str(), (path_ + "again").c_str()));
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("again", "file"));
}

TEST_F(DirectoryTest, IgnoresEntriesOfUnknownType) {
  for (const unsigned char type : {DT_UNKNOWN, DT_DIR, DT_LNK, DT_FIFO, DT_SOCK, DT_CHR, DT_BLK}) {
    FakeListing(3, "name", type);
    EXPECT_THAT(directory_.GetFileNames(), IsEmpty()) << static_cast<int>(type);
    FakeListing(3, "name", type);
    EXPECT_EQ(0, directory_.GetFileCountLocked()) << static_cast<int>(type);
  }
}

TEST_F(DirectoryTest, CutsANameToTheSlotThatItHas) {
  for (const size_t length : {255U, 4094U, 4095U, 4096U, 5000U}) {
    FakeListing(2, std::string(length, 'n'));
    const std::string cut(std::min<size_t>(length, 4095), 'n');
    EXPECT_THAT(directory_.GetFileNames(), ElementsAre(cut, cut)) << length;
  }
}

// Network shares hand out such numbers; a 32-bit program built for 32-bit ones fails at them.
TEST_F(DirectoryTest, ListsFilesWithInodeNumbersOf64Bits) {
  static_assert(sizeof(ino_t) == 8 && sizeof(off_t) == 8 && sizeof(dirent::d_ino) == 8);
  dirent entry = {};
  entry.d_ino = ino_t{1} << 40;
  entry.d_type = DT_REG;
  strcpy(entry.d_name, "far");
  bool is_read = false;
  next_entry = [&] {
    is_read = !is_read;
    return is_read ? &entry : nullptr;
  };
  before_rewinddir = [&] { is_read = false; };
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("far"));
  is_read = false;
  EXPECT_EQ(1, directory_.GetFileCountLocked());
}

TEST_F(DirectoryTest, ListsTheLongestNameOfADisk) {
  WriteFiles({std::string(255, 'n'), "short"});
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre(std::string(255, 'n'), "short"));
}

TEST_F(DirectoryTest, SortsManyNames) {
  std::mt19937 random(20261120);
  std::set<std::string> names;
  while (names.size() < 500) {
    std::string name(1 + random() % 8, '\0');
    for (char& c : name) {
      c = "abABz019_-~\xC3\xA9\xFF"[random() % 14];
    }
    names.insert(name);
  }
  WriteFiles({names.begin(), names.end()});
  const std::list<std::string> listed = directory_.GetFileNames();
  EXPECT_EQ(std::list<std::string>(names.begin(), names.end()), listed);
  EXPECT_EQ(500, directory_.GetFileCountLocked());
}

TEST_F(DirectoryTest, SeesChangesBetweenListings) {
  WriteFiles({"b", "c"});
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("b", "c"));
  WriteFiles({"a", "d"});
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("a", "b", "c", "d"));
  EXPECT_EQ(4, directory_.GetFileCountLocked());
  Remove("a");
  Remove("c");
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("b", "d"));
  EXPECT_EQ(2, directory_.GetFileCountLocked());
}

TEST_F(DirectoryTest, ForgetsTheNamesOfTheListingBefore) {
  WriteFiles({"long-name-1", "long-name-2"});
  directory_.GetFileNames();
  Remove("long-name-1");
  Remove("long-name-2");
  WriteFiles({"x"});
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("x"));
}

// --- Files that come and go between the two passes of a listing ---

TEST_F(DirectoryTest, EmptyNamesStandForVanishedFilesAndPushOthersOut) {
  WriteFiles({"a", "b", "c", "d", "e"});
  before_rewinddir = [&] {
    Remove("b");
    Remove("d");
  };
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("", "", "a"));
  before_rewinddir = nullptr;
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("a", "c", "e"));
}

TEST_F(DirectoryTest, ListsNothingIfAllFilesVanish) {
  WriteFiles({"a", "b"});
  before_rewinddir = [&] {
    Remove("a");
    Remove("b");
  };
  EXPECT_THAT(directory_.GetFileNames(), IsEmpty());
}

TEST_F(DirectoryTest, ListsNoMoreFilesThanItCounted) {
  WriteFiles({"a", "b"});
  before_rewinddir = [&] { WriteFiles({"c", "d", "e"}); };
  const std::list<std::string> names = directory_.GetFileNames();
  EXPECT_EQ(2U, names.size());
  for (const std::string& name : names) {
    EXPECT_THAT((std::set<std::string>{"a", "b", "c", "d", "e"}), testing::Contains(name));
  }
  before_rewinddir = nullptr;
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("a", "b", "c", "d", "e"));
}

TEST_F(DirectoryTest, ListsNothingOfADirectoryThatWasEmptyAtFirst) {
  before_rewinddir = [&] { WriteFiles({"a"}); };
  EXPECT_THAT(directory_.GetFileNames(), IsEmpty());
}

// --- Memory ---

size_t PagesOfMemory(int field) {
  std::ifstream file("/proc/self/statm");
  size_t total = 0;
  size_t resident = 0;
  file >> total >> resident;
  return field == 0 ? total : resident;
}

// Leaves the process little more memory than it has, for the lifetime of the object. Emulators
// ignore it, but what is asked for here is more than a 32-bit process can get anyway.
class MemoryLimit {
 public:
  MemoryLimit() {
    getrlimit(RLIMIT_AS, &saved_);
    const rlim_t now = PagesOfMemory(0) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
    const rlimit limit{now + (64 << 20), saved_.rlim_max};
    EXPECT_EQ(0, setrlimit(RLIMIT_AS, &limit));
  }
  ~MemoryLimit() { setrlimit(RLIMIT_AS, &saved_); }

 private:
  rlimit saved_{};
};

TEST_F(DirectoryTest, LogsThatThereIsNoMemoryAndListsNothing) {
  FakeListing(700000, "name");
  EXPECT_EQ("Could not allocate 2867200000 bytes for sorting files\n", LogOf([&] {
              const MemoryLimit limit;
              EXPECT_THAT(directory_.GetFileNames(), IsEmpty());
            }));
  EXPECT_TRUE(other_.CouldLock());
  EXPECT_EQ(2U, DescriptorsOf(path_).size());  // No listing is left open.
}

TEST_F(DirectoryTest, RecoversFromALackOfMemory) {
  WriteFiles({"a", "b"});
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("a", "b"));
  FakeListing(700000, "name");
  LogOf([&] {
    const MemoryLimit limit;
    directory_.GetFileNames();
  });
  next_entry = nullptr;
  before_rewinddir = nullptr;
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("a", "b"));
}

TEST_F(DirectoryTest, KeepsItsMemoryForTheNextListing) {
  constexpr size_t kFiles = 20000;
  const size_t slots = kFiles * 4096 / static_cast<size_t>(sysconf(_SC_PAGESIZE));  // In pages.
  FakeListing(kFiles, "name");
  EXPECT_EQ(kFiles, directory_.GetFileNames().size());
  const size_t before = PagesOfMemory(1);
  ASSERT_GT(before, slots);
  FakeListing(1, "name");
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("name"));
  EXPECT_GT(PagesOfMemory(1) + slots / 2, before);
}

// --- Failures ---

TEST_F(DirectoryTest, LogsThatItCannotCount) {
  ASSERT_EQ(0, rmdir(path_.c_str()));
  EXPECT_EQ("Could not open \"" + path_ + "\" for counting: No such file or directory\n",
            LogOf([&] { EXPECT_EQ(0, directory_.GetFileCountLocked()); }));
  EXPECT_TRUE(other_.CouldLock());
}

TEST_F(DirectoryTest, ThrowsAndKeepsTheLockIfItCannotList) {
  ASSERT_EQ(0, rmdir(path_.c_str()));
  EXPECT_EQ("", LogOf(
                    [&] {
                      EXPECT_EQ("Could not open \"" + path_ +
                                    "\" for enumeration: No such file or directory",
                                ThrownText([&] { directory_.GetFileNames(); }));
                    },
                    kDebugAvailable));
  EXPECT_FALSE(other_.CouldLock());
  directory_.Unlock();
  EXPECT_TRUE(other_.CouldLock());
}

TEST_F(DirectoryTest, ThrowsAndKeepsTheLockIfItCannotListWhatToClear) {
  ASSERT_EQ(0, rmdir(path_.c_str()));
  EXPECT_EQ("Could not open \"" + path_ + "\" for enumeration: No such file or directory",
            ThrownText([&] { directory_.ClearDirectoryLocked(); }));
  EXPECT_FALSE(other_.CouldLock());
}

TEST_F(DirectoryTest, CarriesOnWithoutALockThatItCannotGet) {
  const std::string path = temporary_.MakeDirectory("another");
  temporary_.Write("another/file", "");
  Directory directory(path);
  const int unfit = open(path.c_str(), O_PATH | O_CLOEXEC);  // Takes no lock.
  for (const int fd : DescriptorsOf(path)) {
    dup3(unfit, fd, O_CLOEXEC);  // Behind its back.
  }
  close(unfit);
  const std::string failed = "Lock failed: Bad file descriptor (9)\n";
  EXPECT_EQ(failed, LogOf([&] { directory.Lock(); }));
  EXPECT_EQ(failed, LogOf([&] { EXPECT_EQ(1, directory.GetFileCountLocked()); }));
  EXPECT_EQ(failed, LogOf([&] { EXPECT_THAT(directory.GetFileNames(), ElementsAre("file")); }));
}

// --- The lock ---

TEST_F(DirectoryTest, LocksAgainstOtherProcesses) {
  EXPECT_TRUE(other_.CouldLock());
  directory_.Lock();
  EXPECT_FALSE(other_.CouldLock());
  EXPECT_EQ(1 << 8, RunShell("flock -n " + path_ + " true"));
  directory_.Unlock();
  EXPECT_TRUE(other_.CouldLock());
  EXPECT_EQ(0, RunShell("flock -n " + path_ + " true"));
}

TEST_F(DirectoryTest, OneUnlockReleasesALockThatWasTakenTwice) {
  directory_.Lock();
  directory_.Lock();
  directory_.Unlock();
  EXPECT_TRUE(other_.CouldLock());
  directory_.Unlock();
}

TEST_F(DirectoryTest, EveryOperationReleasesTheLock) {
  WriteFiles({"a"});
  const std::string source = temporary_ / "source";
  const std::function<void()> operations[] = {
      [&] { directory_.GetFileCountLocked(); },
      [&] { directory_.GetFileNames(); },
      [&] { directory_.CopyIntoDirectoryLocked(source, "copy"); },
      [&] { directory_.MoveIntoDirectoryLocked(source, "moved"); },
      [&] { directory_.ClearDirectoryLocked(); },
  };
  for (const auto& operation : operations) {
    temporary_.Write("source", "");
    operation();
    EXPECT_TRUE(other_.CouldLock());
    temporary_.Write("source", "");
    directory_.Lock();  // Also one that was taken for longer: locks are not counted.
    operation();
    EXPECT_TRUE(other_.CouldLock());
  }
}

TEST_F(DirectoryTest, HoldsTheLockWhileItListsAndCounts) {
  WriteFiles({"a", "b"});
  int calls = 0;
  before_readdir = [&] {
    ++calls;
    EXPECT_FALSE(other_.CouldLock());
  };
  directory_.GetFileNames();
  EXPECT_GE(calls, 5);
  calls = 0;
  directory_.GetFileCountLocked();
  EXPECT_GE(calls, 3);
}

// The command goes to the shell as it is, and so this source is what flock says of the lock.
TEST_F(DirectoryTest, HoldsTheLockWhileItCopiesAndMoves) {
  for (const bool copy : {true, false}) {
    temporary_.Write("free", "free");
    temporary_.Write("taken", "taken");
    const std::string source =
        temporary_.path() + "/$(flock -n " + path_ + " echo free || echo taken)";
    if (copy) {
      directory_.CopyIntoDirectoryLocked(source, "seen");
    } else {
      directory_.MoveIntoDirectoryLocked(source, "seen");
    }
    EXPECT_EQ("taken", ReadFile(path_ + "seen"));
  }
}

TEST_F(DirectoryTest, WaitsForTheLock) {
  ASSERT_TRUE(other_.TryLock());
  std::atomic<bool> counted{false};
  int count = -1;
  std::thread counter([&] {
    count = directory_.GetFileCountLocked();
    counted = true;
  });
  for (int i = 0; i < 50 && !counted; ++i) {  // A chance to go ahead in spite of the lock.
    usleep(1000);
  }
  EXPECT_FALSE(counted);
  WriteFiles({"written-under-the-lock"});
  other_.Unlock();
  counter.join();
  EXPECT_EQ(1, count);
}

TEST_F(DirectoryTest, ReleasesTheLockWithTheObject) {
  const std::string path = temporary_.MakeDirectory("another");
  const OtherProcess other(path);
  auto directory = std::make_unique<Directory>(path);
  std::vector<int> copies;  // Like those of a child, they keep the open description.
  for (const int fd : DescriptorsOf(path)) {
    copies.push_back(fcntl(fd, F_DUPFD_CLOEXEC, 0));
  }
  directory->Lock();
  EXPECT_FALSE(other.CouldLock());
  directory.reset();
  EXPECT_TRUE(other.CouldLock());
  for (const int fd : copies) {
    close(fd);
  }
}

// --- Moving and copying into the directory ---

class DirectoryCommandTest : public DirectoryTest {
 protected:
  DirectoryCommandTest() { setenv("LC_ALL", "C", 1); }  // For the texts of cp and mv.
};

TEST_F(DirectoryCommandTest, CopiesUnderANewName) {
  const std::string source = temporary_.Write("source", "text");
  EXPECT_EQ(
      "", LogOf([&] { directory_.CopyIntoDirectoryLocked(source, "1_new.raw"); }, kDebugAvailable));
  EXPECT_EQ("text", ReadFile(path_ + "1_new.raw"));
  EXPECT_EQ("text", ReadFile(source));
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("1_new.raw"));
}

TEST_F(DirectoryCommandTest, MovesUnderANewName) {
  const std::string source = temporary_.Write("source", "text");
  EXPECT_EQ(
      "", LogOf([&] { directory_.MoveIntoDirectoryLocked(source, "1_new.raw"); }, kDebugAvailable));
  EXPECT_EQ("text", ReadFile(path_ + "1_new.raw"));
  EXPECT_FALSE(Exists(source));
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("1_new.raw"));
}

TEST_F(DirectoryCommandTest, ReplacesAFileOfThatName) {
  WriteFiles({"copied", "moved"});
  directory_.CopyIntoDirectoryLocked(temporary_.Write("source", "text"), "copied");
  directory_.MoveIntoDirectoryLocked(temporary_ / "source", "moved");
  EXPECT_EQ("text", ReadFile(path_ + "copied"));
  EXPECT_EQ("text", ReadFile(path_ + "moved"));
}

TEST_F(DirectoryCommandTest, LogsACommandThatFails) {
  const std::string missing = temporary_ / "missing";
  const std::string arguments = missing + " " + path_ + "new";
  const std::string why = ": cannot stat '" + missing + "': No such file or directory\n";
  EXPECT_EQ("cp" + why + "Could not execute \"cp " + arguments + "\"\n",
            LogOf([&] { directory_.CopyIntoDirectoryLocked(missing, "new"); }));
  EXPECT_EQ("mv" + why + "Could not execute \"mv " + arguments + "\"\n",
            LogOf([&] { directory_.MoveIntoDirectoryLocked(missing, "new"); }));
  EXPECT_TRUE(other_.CouldLock());
  EXPECT_THAT(directory_.GetFileNames(), IsEmpty());
}

TEST_F(DirectoryCommandTest, DoesNotQuoteNames) {
  temporary_.Write("one", "1");
  temporary_.Write("two", "2");
  temporary_.MakeDirectory("shared/sub");
  directory_.CopyIntoDirectoryLocked(temporary_ / "one " + (temporary_ / "two"), "sub");
  EXPECT_EQ("1", ReadFile(path_ + "sub/one"));
  EXPECT_EQ("2", ReadFile(path_ + "sub/two"));
}

// --- Clearing ---

TEST_F(DirectoryTest, ClearsTheListedFilesOnly) {
  WriteFiles({"a", "b", ".hidden"});
  temporary_.MakeDirectory("shared/directory");
  EXPECT_EQ(0, symlink(".hidden", (path_ + "link").c_str()));
  EXPECT_EQ("", LogOf([&] { directory_.ClearDirectoryLocked(); }, kDebugAvailable));
  EXPECT_FALSE(Exists(path_ + "a"));
  EXPECT_FALSE(Exists(path_ + "b"));
  for (const char* const name : {".hidden", "directory", "link"}) {
    EXPECT_TRUE(Exists(path_ + name)) << name;
  }
  directory_.ClearDirectoryLocked();
}

TEST_F(DirectoryTest, ClearsWithoutTheLock) {
  WriteFiles({"a", "b"});
  std::vector<std::string> removed;
  before_unlink = [&](const std::string& path) {
    removed.push_back(path);
    EXPECT_TRUE(other_.CouldLock());
  };
  directory_.ClearDirectoryLocked();
  EXPECT_THAT(removed, ElementsAre(path_ + "a", path_ + "b"));
}

TEST_F(DirectoryTest, ClearsTheRestIfAFileResists) {
  WriteFiles({"a", "b", "c"});
  before_unlink = [&](const std::string& path) {
    if (path == path_ + "b") {  // It turns into something that unlink does not remove.
      before_unlink = nullptr;
      Remove("b");
      temporary_.MakeDirectory("shared/b");
    }
  };
  EXPECT_EQ("", LogOf([&] { directory_.ClearDirectoryLocked(); }, kDebugAvailable));
  EXPECT_THAT(directory_.GetFileNames(), IsEmpty());
  EXPECT_TRUE(Exists(path_ + "b"));
}

TEST_F(DirectoryTest, ClearsTheRestIfAFileVanishes) {
  WriteFiles({"a", "b", "c", "d"});
  before_rewinddir = [&] { Remove("b"); };
  EXPECT_EQ("", LogOf([&] { directory_.ClearDirectoryLocked(); }, kDebugAvailable));
  before_rewinddir = nullptr;
  EXPECT_THAT(directory_.GetFileNames(), ElementsAre("d"));  // Pushed out by the empty name.
}

}  // namespace
