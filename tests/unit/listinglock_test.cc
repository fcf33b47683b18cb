#include "listinglock.h"

#include <fcntl.h>
#include <sys/file.h>

#include "hiddenfile.h"
#include "stand_ins/changes.h"
#include "test_util.h"

namespace {

using ::testing::IsEmpty;

class ListingLockTest : public testing::Test {
 protected:
  bool IsFree() const {
    const Descriptor other(open(directory.path.c_str(), O_RDONLY | O_CLOEXEC));
    return flock(other.fd, LOCK_EX | LOCK_NB) == 0;
  }

  const TemporaryDirectory directory;
};

TEST_F(ListingLockTest, LastsAsLongAsTheObject) {
  {
    const ListingLock lock(directory.path);
    EXPECT_FALSE(IsFree());
  }
  EXPECT_TRUE(IsFree());
}

TEST_F(ListingLockTest, GoesOnWithoutALockThatIsNotReleased) {
  const Descriptor other(open(directory.path.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(0, flock(other.fd, LOCK_EX));
  const ListingLock lock(directory.path);
  EXPECT_EQ(0, flock(other.fd, LOCK_EX | LOCK_NB)) << "the other one has lost it";
}

TEST_F(ListingLockTest, GoesOnWithoutADirectory) { const ListingLock lock(directory / "none"); }

TEST_F(ListingLockTest, HiddenFileAppearsUnderTheLock) {
  HiddenFile file(directory.path + "/");
  file.Write("text");
  file.Publish("message");
  EXPECT_TRUE(Exists(directory / "message"));
  EXPECT_THAT(stand_ins::UnlockedChanges(directory.path), IsEmpty());
}

}  // namespace
