#include "hook.h"

#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "clock.h"
#include "format.h"

namespace {

constexpr double kLimit = 5;  // Seconds.
constexpr int kPause = 5;     // Milliseconds.

}  // namespace

std::string RunHook(const std::string& command_) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  // The player blocks or ignores these; the command must not.
  sigset_t signals;
  sigemptyset(&signals);
  posix_spawnattr_setsigmask(&attributes, &signals);
  sigaddset(&signals, SIGPIPE);
  posix_spawnattr_setsigdefault(&attributes, &signals);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  const char* const arguments[] = {"sh", "-c", command_.c_str(), nullptr};
  pid_t pid = 0;
  const int error = posix_spawn(&pid, "/bin/sh", nullptr, &attributes,
                                const_cast<char* const*>(arguments), environ);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    return strerror(error);
  }
  const double deadline = Now() + kLimit;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (Now() > deadline) {
      kill(-pid, SIGKILL);
      waitpid(pid, &status, 0);
      return "it did not end";
    }
    Nap(kPause);
  }
  if (WIFSIGNALED(status)) {
    return Format("signal %d", WTERMSIG(status));
  }
  return status != 0 ? Format("exit status %d", WEXITSTATUS(status)) : "";
}
