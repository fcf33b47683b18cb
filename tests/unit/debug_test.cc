#include "debug.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "test_util.h"

namespace {

// Redirects standard error to the descriptor while it lives.
class StandardErrorTo {
 public:
  explicit StandardErrorTo(int fd_) : saved(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
    dup2(fd_, STDERR_FILENO);
  }
  ~StandardErrorTo() {
    dup2(saved, STDERR_FILENO);
    close(saved);
  }

 private:
  const int saved;
};

// The action's writes to standard error, one string a write: records keep their bounds.
std::vector<std::string> WritesOf(const std::function<void()>& action_) {
  int ends[2];
  EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends));
  {
    const StandardErrorTo redirection(ends[1]);
    action_();
  }
  close(ends[1]);
  std::vector<std::string> writes;
  std::string record(1 << 20, '\0');
  ssize_t length = 0;
  while ((length = recv(ends[0], record.data(), record.size(), 0)) > 0) {
    writes.push_back(record.substr(0, static_cast<size_t>(length)));
  }
  close(ends[0]);
  return writes;
}

// Read before a test can set a mask.
const bool kInitiallyNormal = IsDebugEnabled(0x1);
const bool kInitiallyOthers = IsDebugEnabled(~0x1U);

TEST(DebugTest, WritesNormalMessagesOnlyUntilAMaskIsSet) {
  EXPECT_TRUE(kInitiallyNormal);
  EXPECT_FALSE(kInitiallyOthers);
}

TEST(DebugTest, WritesAMessageIfOneOfItsBitsIsInTheMask) {
  const unsigned int masks[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 0x80000000U, 0xFFFFFFFEU, 0xFFFFFFFFU};
  for (const unsigned int mask : masks) {
    for (const unsigned int message : masks) {
      const bool common = (mask & message) != 0;
      EXPECT_EQ(common ? "text\n" : "", LogOf([=] { Debug(message, "text"); }, mask))
          << "mask " << mask << ", message " << message;
    }
  }
}

TEST(DebugTest, WritesNothingWithMaskZero) {
  const auto all_classes = [] {
    for (int bit = 0; bit < 32; ++bit) {
      Debug(1U << bit, "bit %d", bit);
    }
  };
  EXPECT_EQ("", LogOf(all_classes, 0));
  EXPECT_EQ("bit 0\nbit 1\nbit 2\n", LogOf(all_classes, kDebugAvailable));
  EXPECT_EQ("bit 0\n", LogOf(all_classes, kDebugDefault));
}

TEST(DebugTest, FormatsAsPrintfDoes) {
  EXPECT_EQ("Lock failed: no (0037) 0x0f 100% z\n",
            LogOf([] { Debug(1, "Lock failed: %s (%04d) 0x%02x 100%% %c", "no", 37, 15U, 'z'); }));
}

TEST(DebugTest, AlwaysAppendsANewline) {
  EXPECT_EQ("text\n\n", LogOf([] { Debug(1, "text\n"); }));
  EXPECT_EQ("\n", LogOf([] { Debug(1, "%s", ""); }));
  EXPECT_EQ("a\nb\n", LogOf([] { Debug(1, "a\nb"); }));
}

TEST(DebugTest, EndsALineAtAZeroByte) {
  const std::string text("before\0after", 12);
  EXPECT_EQ("From f: before\n", LogOf([&] { Debug(1, "From %s: %s", "f", text.c_str()); }));
}

TEST(DebugTest, SkipsAMessageThatCannotBeFormatted) {
  EXPECT_EQ("next\n", LogOf([] {
              Debug(1, "wide %ls", L"\x20AC");  // Not a character of the "C" locale.
              Debug(1, "next");
            }));
}

TEST(DebugTest, WritesEachLineAtOnce) {
  const std::vector<std::string> writes = WritesOf([] {
    Debug(1, "one");
    Debug(4, "not written");
    Debug(1, "%s %d", "two", 2);
    Debug(1, "%s", "");
    Debug(1, "three\nlines\n");
  });
  EXPECT_THAT(writes, testing::ElementsAre("one\n", "two 2\n", "\n", "three\nlines\n\n"));
}

TEST(DebugTest, WritesALongLineAtOnce) {
  for (const size_t length : {1023U, 1024U, 4095U, 4096U, 8192U, 65535U, 65536U, 72U * 1024 - 1,
                              72U * 1024, 72U * 1024 + 1, 100000U}) {
    const std::string text(length, 'x');
    EXPECT_THAT(WritesOf([&] { Debug(1, "%s", text.c_str()); }), testing::ElementsAre(text + "\n"))
        << length;
  }
}

TEST(DebugTest, KeepsErrno) {
  const auto errno_after = [](unsigned int message_) {
    errno = ERANGE;
    Debug(message_, "text");
    return errno;
  };
  EXPECT_EQ("text\n", LogOf([&] { EXPECT_EQ(ERANGE, errno_after(1)); }));
  EXPECT_EQ("", LogOf([&] { EXPECT_EQ(ERANGE, errno_after(4)); }));
  EXPECT_EQ("", LogOf([&] {
              errno = ERANGE;
              Debug(1, "%ls", L"\x20AC");
              EXPECT_EQ(ERANGE, errno);
            }));
}

TEST(DebugTest, SurvivesAStandardErrorThatCannotBeWritten) {
  int after_failure = 0;
  {
    const int read_only = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const StandardErrorTo redirection(read_only);
    close(read_only);
    errno = ERANGE;
    Debug(1, "lost");
    after_failure = errno;
  }
  EXPECT_EQ(ERANGE, after_failure);
  EXPECT_EQ("next\n", LogOf([] { Debug(1, "next"); }));
}

// How often the handler below has run.
std::atomic<int> interruptions{0};

TEST(DebugTest, WritesTheWholeLineToASlowReaderDespiteSignals) {
  int ends[2];
  ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
  struct sigaction interrupt {};
  struct sigaction saved {};
  interruptions = 0;
  interrupt.sa_handler = [](int) { ++interruptions; };  // No SA_RESTART.
  sigaction(SIGUSR1, &interrupt, &saved);
  const std::string text(500000, 'x');  // More than a pipe holds.
  std::string received;
  std::thread reader([&, writer = pthread_self()] {
    int waiting = 0;
    for (int i = 0; i < 30000 && waiting == 0; ++i) {  // Until the line has begun.
      ioctl(ends[0], FIONREAD, &waiting);
      usleep(1000);
    }
    for (int wanted = 1; wanted <= 20; ++wanted) {
      pthread_kill(writer, SIGUSR1);
      while (interruptions < wanted) {
        usleep(1000);
      }
    }
    char block[4096];
    ssize_t length = 0;
    while ((length = read(ends[0], block, sizeof(block))) > 0) {
      received.append(block, static_cast<size_t>(length));
    }
  });
  {
    const StandardErrorTo redirection(ends[1]);
    Debug(1, "%s", text.c_str());
  }
  close(ends[1]);
  reader.join();
  close(ends[0]);
  sigaction(SIGUSR1, &saved, nullptr);
  EXPECT_EQ(text + "\n", received);
}

}  // namespace
