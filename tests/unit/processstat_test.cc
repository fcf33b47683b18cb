#include "processstat.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_util.h"

namespace {

// The process is a child, since an emulator shows a process an invented entry of its own.
TEST(ProcessStatTest, NameMayLookLikeOtherFields) {
  int named[2];
  ASSERT_EQ(0, pipe2(named, O_CLOEXEC));
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_NAME, ") Z 1 (2) 3");
    close(named[1]);
    pause();
    _exit(0);
  }
  close(named[1]);
  char none;
  EXPECT_EQ(0, read(named[0], &none, 1));  // The end of the pipe: the child has its name.
  close(named[0]);

  const ProcessStat process = ReadProcessStat(child);
  EXPECT_EQ(") Z 1 (2) 3", process.name);
  EXPECT_EQ(child, process.pid);
  EXPECT_EQ(getpid(), process.parent);
  EXPECT_THAT("RS", testing::HasSubstr(std::string(1, process.state)));
  EXPECT_LE(ReadProcessStat(getppid()).start, process.start);
  EXPECT_LT(0, process.start);

  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST(ProcessStatTest, ThrowsForAProcessThatDoesNotExist) {
  EXPECT_THROW(ReadProcessStat(0x7fffffff), std::string);
}

}  // namespace
