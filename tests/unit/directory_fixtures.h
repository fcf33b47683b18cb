// Shared by the tests of directories.
#pragma once

#include <fcntl.h>
#include <sys/file.h>

#include <list>

#include "directory.h"
#include "test_util.h"

// Locks as another process does: has its own open file description.
class OtherProcess {
 public:
  explicit OtherProcess(const std::string& path_)
      : fd(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
  ~OtherProcess() { close(fd); }

  bool TryLock() const { return flock(fd, LOCK_EX | LOCK_NB) == 0; }
  void Unlock() const { flock(fd, LOCK_UN); }
  bool CouldLock() const {
    const bool could = TryLock();
    if (could) {
      Unlock();
    }
    return could;
  }

 private:
  const int fd;
};

class DirectoryTest : public testing::Test {
 protected:
  void WriteFiles(const std::list<std::string>& names_) const {
    for (const std::string& name : names_) {
      temporary.Write("shared/" + name, "content of " + name);
    }
  }
  void Remove(const std::string& name_) const {
    EXPECT_EQ(0, unlink((shared_path + name_).c_str())) << name_;
  }

  const TemporaryDirectory temporary;
  const std::string shared_path = temporary.MakeDirectory("shared") + "/";
  const OtherProcess other_process{shared_path};
  Directory shared{shared_path};
};
