// The processes of a mirror.

#include <signal.h>
#include <sys/wait.h>

#include <sstream>
#include <utility>

#include "clock.h"
#include "mirror_fixtures.h"
#include "supervisor.h"

namespace {

// Runs a supervisor in another process.
class MirrorSupervisorTest : public testing::Test {
 protected:
  ~MirrorSupervisorTest() override {
    if (supervisor > 0) {
      kill(supervisor, SIGKILL);
      waitpid(supervisor, nullptr, 0);
    }
  }

  // Each worker notes its process id and runs work_, or waits to be ended.
  void Start(const std::function<void(Pulse&)>& work_ = {}) {
    supervisor = fork();
    if (supervisor == 0) {
      Be(work_);
    }
  }

  [[noreturn]] void Be(const std::function<void(Pulse&)>& work_) const {
    FILE* const log = freopen((directory / "log").c_str(), "a", stderr);
    const Report report("ftp", "host", Now);
    _exit(log == nullptr ? 98 : Supervise(report, [&](Pulse& pulse_) {
      pulse_.Promise(1000);
      std::ofstream(directory / "workers", std::ios::app) << getpid() << "\n";
      if (work_) {
        work_(pulse_);
      }
      for (;;) {
        pause();
      }
    }));
  }

  std::vector<pid_t> Workers() const {
    std::ifstream file(directory / "workers");
    std::vector<pid_t> workers;
    for (pid_t worker = 0; file >> worker;) {
      workers.push_back(worker);
    }
    return workers;
  }

  static void WaitUntil(const std::function<bool()>& is_true_) {
    const double end = Now() + 60;
    while (!is_true_()) {
      ASSERT_LT(Now(), end);
      Nap(5);
    }
  }

  // Waits until there were so many workers. Returns their process ids.
  std::vector<pid_t> WaitForWorkers(size_t count_) const {
    WaitUntil([&] { return Workers().size() >= count_; });
    return Workers();
  }

  std::string Log() const { return ReadFile(directory / "log"); }

  // Waits for the supervisor. Returns its exit status.
  int Reap() {
    int status = 0;
    EXPECT_EQ(supervisor, waitpid(supervisor, &status, 0));
    supervisor = 0;
    return status;
  }

  // The state and the parent of a process; 'X' if it is gone.
  static std::pair<char, pid_t> StateOf(pid_t pid_) {
    const std::string stat = ReadFile("/proc/" + std::to_string(pid_) + "/stat");
    char state = 'X';
    pid_t parent = 0;
    // Only the name, in parentheses, may contain blanks.
    std::istringstream(stat.substr(stat.rfind(')') + 1)) >> state >> parent;
    return {state, parent};
  }
  // A zombie counts as gone.
  static bool Lives(pid_t pid_) {
    const char state = StateOf(pid_).first;
    return state != 'X' && state != 'Z';
  }

  const TemporaryDirectory directory;
  pid_t supervisor = 0;
};

TEST_F(MirrorSupervisorTest, SignalEndsBoth) {
  for (const int number : {SIGTERM, SIGHUP}) {
    unlink((directory / "workers").c_str());
    Start();
    const pid_t worker = WaitForWorkers(1)[0];
    kill(supervisor, number);
    EXPECT_EQ(0, Reap());
    EXPECT_FALSE(Lives(worker));
    EXPECT_EQ("", Log());
  }
}

TEST_F(MirrorSupervisorTest, InterruptIsIgnored) {
  Start();
  const pid_t worker = WaitForWorkers(1)[0];
  kill(supervisor, SIGINT);
  kill(worker, SIGINT);
  Nap(50);
  kill(supervisor, SIGTERM);
  EXPECT_EQ(0, Reap());
  EXPECT_EQ(1, Workers().size());
}

TEST_F(MirrorSupervisorTest, WorkerThatDiesIsStartedAgain) {
  Start();
  kill(WaitForWorkers(1)[0], SIGALRM);
  kill(WaitForWorkers(2)[1], SIGKILL);
  WaitForWorkers(3);
  EXPECT_EQ(
      "ftp helper: host: the worker was ended by signal 14 and is started again\n"
      "ftp helper: host: the worker was ended by signal 9 and is started again\n",
      Log());
}

TEST_F(MirrorSupervisorTest, WorkerThatThrowsIsStartedAgain) {
  Start([](Pulse&) { throw std::string("no library"); });
  WaitForWorkers(2);
  EXPECT_THAT(Log(),
              testing::StartsWith(
                  "ftp helper: host: no library\n"
                  "ftp helper: host: the worker ended with status 1 and is started again\n"));
}

TEST_F(MirrorSupervisorTest, WorkerThatHangsIsStartedAgain) {
  Start([](Pulse& pulse_) { pulse_.Promise(0.1); });
  WaitForWorkers(2);
  EXPECT_THAT(Log(), testing::StartsWith("ftp helper: host: the worker hangs\n"
                                         "ftp helper: host: the worker was ended by signal 9"));
}

TEST_F(MirrorSupervisorTest, WorkerDiesWithTheSupervisor) {
  Start();
  const pid_t worker = WaitForWorkers(1)[0];
  kill(supervisor, SIGKILL);
  Reap();
  WaitUntil([&] { return !Lives(worker); });
}

TEST_F(MirrorSupervisorTest, BothEndWithTheParent) {
  const pid_t parent = fork();
  if (parent == 0) {
    Start();
    for (;;) {
      pause();
    }
  }
  const pid_t worker = WaitForWorkers(1)[0];
  const pid_t orphan = StateOf(worker).second;
  ASSERT_EQ(parent, StateOf(orphan).second);
  kill(parent, SIGKILL);
  EXPECT_EQ(parent, waitpid(parent, nullptr, 0));
  WaitUntil([&] { return !Lives(orphan) && !Lives(worker); });
}

// All parts together, in real time.
TEST_F(MirrorSupervisorTest, MirrorGoesOnAfterItsWorkerWasKilled) {
  const TemporaryDirectory local;
  MirrorSettings settings;
  settings.kind = "ftp";
  settings.source = "host";
  settings.directory = local.path;
  settings.settle_seconds = 0;
  supervisor = fork();
  if (supervisor == 0) {
    FILE* const log = freopen((directory / "log").c_str(), "a", stderr);
    FakeServer server;
    server.Put("a", "A.");
    _exit(log == nullptr ? 98 : RunMirror(settings, [&](std::function<bool()> go_on_) {
      std::ofstream(directory / "workers", std::ios::app) << getpid() << "\n";
      return std::make_unique<FakeRemote>(server, std::move(go_on_));
    }));
  }
  WaitUntil([&] { return ReadFile(local / "a") == "A."; });
  WaitUntil([&] { return Exists(local / ".helper.timestamp"); });
  ASSERT_EQ(0, unlink((local / "a").c_str()));
  kill(WaitForWorkers(1)[0], SIGKILL);
  WaitForWorkers(2);
  const std::string beat = ReadFile(local / ".helper.timestamp");
  WaitUntil([&] { return ReadFile(local / ".helper.timestamp") != beat; });
  EXPECT_FALSE(Exists(local / "a"));
  kill(supervisor, SIGTERM);
  EXPECT_EQ(0, Reap());
}

}  // namespace
