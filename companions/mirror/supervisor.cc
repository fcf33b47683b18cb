#include "supervisor.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <string>

#include "clock.h"
#include "format.h"

namespace {

constexpr double kFirstPause = 0.25;  // Seconds before a worker is started again;
constexpr double kLastPause = 8;      // each pause is twice as long as the one before, up to this.
// Seconds; after a longer life, a worker's end is not connected with the last one.
constexpr double kLongLife = 60;
constexpr double kStart = 60;  // Seconds that a worker may take to its first promise.
constexpr time_t kLook = 5;    // Seconds between two checks of its pulse.

std::string EndOf(int status_) {
  return WIFSIGNALED(status_) ? Format("was ended by signal %d", WTERMSIG(status_))
                              : Format("ended with status %d", WEXITSTATUS(status_));
}

class Supervisor {
 public:
  Supervisor(const Report& report_, const std::function<void(Pulse&)>& work_);
  ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  void Run();

 private:
  void StartWorker();
  [[noreturn]] void BeWorker(pid_t supervisor_);
  void Await();
  void EndWorker();

  const Report& report;
  const std::function<void(Pulse&)>& work;
  const pid_t parent = getppid();
  sigset_t signals{};  // The signals that Run waits for; they are blocked.
  sigset_t callers_mask{};
  Pulse* pulse;        // In memory that both processes share.
  pid_t worker = 0;    // 0: none.
  double started = 0;  // When the worker was started.
  double pause = kFirstPause;
  double next_start = 0;
};

Supervisor::Supervisor(const Report& report_, const std::function<void(Pulse&)>& work_)
    : report(report_), work(work_) {
  void* const memory =
      mmap(nullptr, sizeof(Pulse), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw Format("no shared memory: %s", strerror(errno));
  }
  pulse = new (memory) Pulse;
  // A terminal's Ctrl-C also reaches this process, but the daemon ends it by SIGTERM.
  signal(SIGINT, SIG_IGN);
  signal(SIGPIPE, SIG_IGN);
  signal(SIGCHLD, SIG_DFL);  // If it were ignored, the worker's status would be lost.
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGHUP, SIGCHLD}) {
    sigaddset(&signals, number);
  }
  sigprocmask(SIG_BLOCK, &signals, &callers_mask);
  // The end of the parent, or of the thread that started this process, wakes Run.
  prctl(PR_SET_PDEATHSIG, SIGCHLD);
}

Supervisor::~Supervisor() {
  prctl(PR_SET_PDEATHSIG, 0);
  sigprocmask(SIG_SETMASK, &callers_mask, nullptr);
  munmap(pulse, sizeof(Pulse));
}

void Supervisor::Run() {
  // The system gives an orphaned process another parent.
  while (getppid() == parent) {
    if (worker == 0 && Now() >= next_start) {
      StartWorker();
    }
    if (worker > 0 && pulse->IsOverdue()) {
      report.Say("the worker hangs");
      kill(worker, SIGKILL);
      pulse->Promise(kStart);
    }
    const timespec longest = {worker == 0 ? 0 : kLook, worker == 0 ? 100'000'000 : 0};
    const int signal = sigtimedwait(&signals, nullptr, &longest);
    if (signal == SIGTERM || signal == SIGHUP) {
      break;
    }
    Await();
  }
  EndWorker();
}

void Supervisor::StartWorker() {
  const pid_t supervisor = getpid();
  pulse->Promise(kStart);
  started = Now();
  worker = fork();
  if (worker == 0) {
    BeWorker(supervisor);
  } else if (worker < 0) {
    report.Say(Format("cannot start the worker: %s", strerror(errno)));
    worker = 0;
    next_start = Now() + kLastPause;
  }
}

void Supervisor::BeWorker(pid_t supervisor_) {
  int status = EXIT_FAILURE;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() == supervisor_) {  // If not, the supervisor has ended already.
    for (const int number : {SIGTERM, SIGHUP}) {
      signal(number, SIG_DFL);
    }
    sigprocmask(SIG_SETMASK, &callers_mask, nullptr);
    try {
      work(*pulse);
      status = EXIT_SUCCESS;
    } catch (const std::string& reason) {
      report.Say(reason);
    } catch (const std::bad_alloc&) {
      report.Say("out of memory");
    } catch (const std::exception& failure) {
      report.Say(failure.what());
    }
  }
  _exit(status);
}

// Notes the end of the worker.
void Supervisor::Await() {
  int status = 0;
  if (worker == 0 || waitpid(worker, &status, WNOHANG) != worker) {
    return;
  }
  worker = 0;
  if (Now() - started >= kLongLife) {
    pause = kFirstPause;
  }
  if (pause < kLastPause) {  // Later ends in a row are not reported.
    report.Say("the worker " + EndOf(status) + " and is started again");
  }
  next_start = Now() + pause;
  pause = std::min(2 * pause, kLastPause);
}

// A worker may be killed at any moment: its memory file is always consistent.
void Supervisor::EndWorker() {
  if (worker > 0) {
    kill(worker, SIGKILL);
    waitpid(worker, nullptr, 0);
  }
}

}  // namespace

void Pulse::Promise(double seconds_) { end = static_cast<int64_t>((Now() + seconds_) * 1000); }

bool Pulse::IsOverdue() const { return static_cast<double>(end) < Now() * 1000; }

int Supervise(const Report& report_, const std::function<void(Pulse&)>& work_) {
  try {
    Supervisor(report_, work_).Run();
    return EXIT_SUCCESS;
  } catch (const std::string& reason) {
    report_.Say(reason);
    return EXIT_FAILURE;
  }
}
