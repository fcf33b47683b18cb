#include "stand_ins/processes.h"

#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "stand_ins/real.h"

using stand_ins::processes;
using stand_ins::Real;

stand_ins::Processes stand_ins::processes;

pid_t fork() noexcept {
  if (processes.fork_fails) {
    errno = EAGAIN;
    return -1;
  }
  const pid_t pid = Real<pid_t()>("fork")();
  if (pid > 0) {
    processes.children.push_back(pid);
  }
  return pid;
}

// Sends signals only to children of this program: kill(-1) by mistake would end every process.
int kill(pid_t pid_, int signal_number_) noexcept {
  processes.signals.emplace_back(pid_, signal_number_);
  for (const pid_t child : processes.children) {
    if (child == pid_) {
      return Real<int(pid_t, int)>("kill")(pid_, signal_number_);
    }
  }
  errno = ESRCH;
  return -1;
}

// With WNOHANG, reports that no child has ended: the tests collect the children themselves.
pid_t waitpid(pid_t pid_, int* status_, int options_) {
  if (options_ == WNOHANG) {
    processes.collected.push_back(pid_);
    return 0;
  }
  return Real<pid_t(pid_t, int*, int)>("waitpid")(pid_, status_, options_);
}
