#include "processstat.h"

#include <sys/prctl.h>
#include <unistd.h>

#include "test_util.h"

namespace {

TEST(ProcessStatTest, NameMayLookLikeOtherFields) {
  const ProcessStat before = ReadProcessStat(getpid());
  ASSERT_EQ(0, prctl(PR_SET_NAME, ") Z 1 (2) 3"));
  const ProcessStat after = ReadProcessStat(getpid());
  EXPECT_EQ(") Z 1 (2) 3", after.name);
  EXPECT_EQ(getpid(), after.pid);
  EXPECT_EQ(getppid(), after.parent);
  EXPECT_EQ('R', after.state);
  EXPECT_EQ(before.start, after.start);
  EXPECT_LT(0, after.start);
}

TEST(ProcessStatTest, ThrowsForAProcessThatDoesNotExist) {
  EXPECT_THROW(ReadProcessStat(0x7fffffff), std::string);
}

}  // namespace
