#include <fcntl.h>

#include <atomic>
#include <thread>

#include "directory_fixtures.h"
#include "format.h"
#include "stand_ins/listing.h"

namespace {

using stand_ins::listing;
using testing::ElementsAre;
using testing::IsEmpty;

class LockTest : public DirectoryTest {
 protected:
  ~LockTest() override { listing = {}; }
};

TEST_F(LockTest, KeepsTheLockIfItCannotList) {
  ASSERT_EQ(0, rmdir(shared_path.c_str()));
  EXPECT_EQ("", WholeLogOf([&] {
              EXPECT_EQ("Could not open \"" + shared_path +
                            "\" for enumeration: No such file or directory",
                        ThrownText([&] { shared.GetFileNames(); }));
            }));
  EXPECT_FALSE(other_process.CouldLock());
  shared.Unlock();
  EXPECT_TRUE(other_process.CouldLock());
}

TEST_F(LockTest, ContinuesIfItCannotGetTheLock) {
  const std::string path = temporary.MakeDirectory("another");
  temporary.Write("another/file", "");
  Directory directory(path);
  const int unfit = open(path.c_str(), O_PATH | O_CLOEXEC);  // Takes no lock.
  for (const int fd : DescriptorsOf(path)) {
    dup3(unfit, fd, O_CLOEXEC);
  }
  close(unfit);
  const std::string failed = "Lock failed: Bad file descriptor (9)\n";
  EXPECT_EQ(failed, LogOf([&] { directory.Lock(); }));
  EXPECT_EQ(failed, LogOf([&] { EXPECT_EQ(1, directory.GetFileCountLocked()); }));
  EXPECT_EQ(failed, LogOf([&] { EXPECT_THAT(directory.GetFileNames(), ElementsAre("file")); }));
}

TEST_F(LockTest, LocksAgainstOtherProcesses) {
  EXPECT_TRUE(other_process.CouldLock());
  shared.Lock();
  EXPECT_FALSE(other_process.CouldLock());
  EXPECT_EQ(1 << 8, RunShell("flock -n " + shared_path + " true"));
  shared.Unlock();
  EXPECT_TRUE(other_process.CouldLock());
  EXPECT_EQ(0, RunShell("flock -n " + shared_path + " true"));
}

TEST_F(LockTest, ReleasesALockTakenTwiceWithOneUnlock) {
  shared.Lock();
  shared.Lock();
  shared.Unlock();
  EXPECT_TRUE(other_process.CouldLock());
  shared.Unlock();
}

TEST_F(LockTest, ReleasesTheLockAfterEveryOperation) {
  WriteFiles({"a"});
  const std::string source = temporary / "source";
  const std::function<void()> operations[] = {
      [&] { shared.GetFileCountLocked(); },
      [&] { shared.GetFileNames(); },
      [&] { shared.CopyIntoDirectoryLocked(source, "copy"); },
      [&] { shared.MoveIntoDirectoryLocked(source, "moved"); },
      [&] { shared.ClearDirectoryLocked(); },
  };
  for (const auto& operation : operations) {
    temporary.Write("source", "");
    operation();
    EXPECT_TRUE(other_process.CouldLock());
    temporary.Write("source", "");
    // The operation also releases a lock that was taken before, as locks are not counted.
    shared.Lock();
    operation();
    EXPECT_TRUE(other_process.CouldLock());
  }
}

TEST_F(LockTest, HoldsTheLockWhileItListsAndCounts) {
  WriteFiles({"a", "b"});
  int calls = 0;
  listing.before_readdir = [&] {
    ++calls;
    EXPECT_FALSE(other_process.CouldLock());
  };
  shared.GetFileNames();
  EXPECT_GE(calls, 5);
  calls = 0;
  shared.GetFileCountLocked();
  EXPECT_GE(calls, 3);
}

// The shell expands the source, so its name shows whether flock finds the lock free.
TEST_F(LockTest, HoldsTheLockWhileItCopiesAndMoves) {
  for (const bool copy : {true, false}) {
    temporary.Write("free", "free");
    temporary.Write("taken", "taken");
    const std::string source =
        temporary.path + "/$(flock -n " + shared_path + " echo free || echo taken)";
    if (copy) {
      shared.CopyIntoDirectoryLocked(source, "seen");
    } else {
      shared.MoveIntoDirectoryLocked(source, "seen");
    }
    EXPECT_EQ("taken", ReadFile(shared_path + "seen"));
  }
}

TEST_F(LockTest, WaitsForTheLock) {
  ASSERT_TRUE(other_process.TryLock());
  std::atomic<bool> counted{false};
  int count = -1;
  std::thread counter([&] {
    count = shared.GetFileCountLocked();
    counted = true;
  });
  for (int i = 0; i < 50 && !counted; ++i) {  // Gives it time to go on in spite of the lock.
    usleep(1000);
  }
  EXPECT_FALSE(counted);
  WriteFiles({"written-under-the-lock"});
  other_process.Unlock();
  counter.join();
  EXPECT_EQ(1, count);
}

TEST_F(LockTest, ReleasesTheLockWithTheObject) {
  const std::string path = temporary.MakeDirectory("another");
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

TEST_F(LockTest, ClearsWithoutTheLock) {
  WriteFiles({"a", "b"});
  std::vector<std::string> removed;
  listing.before_unlink = [&](const std::string& path_) {
    removed.push_back(path_);
    EXPECT_TRUE(other_process.CouldLock());
  };
  shared.ClearDirectoryLocked();
  EXPECT_THAT(removed, ElementsAre(shared_path + "a", shared_path + "b"));
}

TEST_F(LockTest, ClearsTheRestIfAFileCannotBeRemoved) {
  WriteFiles({"a", "b", "c"});
  listing.before_unlink = [&](const std::string& path_) {
    if (path_ == shared_path + "b") {  // Becomes a directory, which unlink does not remove.
      listing.before_unlink = nullptr;
      Remove("b");
      temporary.MakeDirectory("shared/b");
    }
  };
  EXPECT_EQ("", WholeLogOf([&] { shared.ClearDirectoryLocked(); }));
  EXPECT_THAT(shared.GetFileNames(), IsEmpty());
  EXPECT_TRUE(Exists(shared_path + "b"));
}

}  // namespace
