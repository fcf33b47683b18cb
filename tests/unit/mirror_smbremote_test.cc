// Endless listings of SMB servers.

#include <errno.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <atomic>
#include <vector>

#include "smbremote.h"
#include "stand_ins/smbclient.h"
#include "test_util.h"

namespace {

// A remote directory, and a clock that moves only while the server is waited for.
class SmbRemoteTest : public testing::Test {
 protected:
  // The error of a listing; empty if all of it was read.
  std::string List() {
    try {
      remote.List([](const RemoteFile&) {});
      return "";
    } catch (const Stuck& stuck) {
      return "stuck: " + stuck.reason;
    } catch (const std::string& reason) {
      return reason;
    }
  }

  bool GoOn() {
    clock += 10;
    return clock < deadline;
  }

  double clock = 0;
  double deadline = 1000;
  SmbRemote remote{SmbPlace{}, [this] { return GoOn(); }, [this] { return clock; }};
};

TEST_F(SmbRemoteTest, EndlessListingIsStuckEvenIfItsCallHasEnded) {
  std::atomic<bool> may_end{false};
  stand_ins::open_directory = [&may_end] {
    while (!may_end) {
      Nap(1);
    }
    return true;
  };
  deadline = 60;
  EXPECT_EQ("stopped", List());
  deadline = 1000;
  EXPECT_EQ("stuck: libsmbclient hangs", List());
  EXPECT_EQ(100, clock);
  may_end = true;
  while (!List().empty()) {
    Nap(1);
  }
}

TEST_F(SmbRemoteTest, EndlessListingDoesNotTakeAllMemory) {
  constexpr size_t kMega = 1 << 20;
  rlimit before = {};
  getrlimit(RLIMIT_DATA, &before);
  size_t taken = 0;
  stand_ins::open_directory = [&taken] {
    std::vector<void*> pieces;
    void* piece = nullptr;
    while (pieces.size() < 1000 && piece != MAP_FAILED) {
      piece = mmap(nullptr, kMega, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      pieces.push_back(piece);
    }
    taken = pieces.size();
    for (void* const mapped : pieces) {
      munmap(mapped, kMega);
    }
    errno = ENOMEM;
    return piece != MAP_FAILED;
  };
  LimitMemory(100 * kMega);
  EXPECT_EQ("Cannot allocate memory", List());
  EXPECT_LT(taken, 110);
  setrlimit(RLIMIT_DATA, &before);
}

}  // namespace
