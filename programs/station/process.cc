#include "process.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>
#include <tuple>
#include <utility>

#include "clock.h"
#include "format.h"
#include "processstat.h"
#include "statusfile.h"

namespace {

constexpr size_t kMaxCommandText = 64 * 1024;  // Bytes.

[[noreturn]] void Exec(char* const* arguments_, int log_, int parent_) {
  setpgid(0, 0);
  // SIGKILL, as a daemon that has messages to speak does not end on a softer signal. Without the
  // station, the messages that it takes have no copy.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent_) {
    _exit(EXIT_FAILURE);
  }
  if (getpriority(PRIO_PROCESS, 0) < 0) {
    setpriority(PRIO_PROCESS, 0, 0);  // Only the station has a higher priority.
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  signal(SIGPIPE, SIG_DFL);
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  dup2(null, STDIN_FILENO);
  dup2(null, STDOUT_FILENO);
  dup2(log_, STDERR_FILENO);
  execvp(arguments_[0], arguments_);
  dprintf(STDERR_FILENO, "Could not run %s: %s\n", arguments_[0], strerror(errno));
  _exit(127);
}

struct CloseDirectory {
  void operator()(DIR* directory_) const { closedir(directory_); }
};

// All processes that can be seen, the newest last.
std::vector<ProcessStat> AllProcesses() {
  std::vector<ProcessStat> all;
  const std::unique_ptr<DIR, CloseDirectory> proc(opendir("/proc"));
  while (const dirent* entry = proc ? readdir(proc.get()) : nullptr) {
    const int pid = static_cast<int>(strtol(entry->d_name, nullptr, 10));
    try {
      if (pid > 0) {
        all.push_back(ReadProcessStat(pid));
      }
    } catch (const std::string&) {  // It has ended.
    }
  }
  std::sort(all.begin(), all.end(), [](const ProcessStat& a_, const ProcessStat& b_) {
    return std::tie(a_.start, a_.pid) < std::tie(b_.start, b_.pid);
  });
  return all;
}

}  // namespace

int Spawn(const std::vector<std::string>& command_, int log_) {
  std::vector<char*> arguments;
  arguments.reserve(command_.size() + 1);
  for (const std::string& word : command_) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  const int parent = getpid();
  const int pid = fork();
  if (pid < 0) {
    throw Format("cannot start %s: %s", arguments[0], strerror(errno));
  }
  if (pid == 0) {
    Exec(arguments.data(), log_, parent);
  }
  setpgid(pid, pid);  // Parent and child both do this, as either may run first.
  return pid;
}

bool HasEnded(int pid_, int& status_) { return waitpid(pid_, &status_, WNOHANG) == pid_; }

std::string Described(int status_) {
  return WIFSIGNALED(status_) ? Format("signal %d", WTERMSIG(status_))
                              : Format("status %d", WEXITSTATUS(status_));
}

std::vector<int> Children(int pid_) {
  std::vector<int> children;
  for (const ProcessStat& process : AllProcesses()) {
    if (process.parent == pid_) {
      children.push_back(process.pid);
    }
  }
  return children;
}

std::vector<int> Descendants(int pid_) {
  std::set<int> family = {pid_};
  std::vector<int> found;
  for (const ProcessStat& process : AllProcesses()) {  // No process is older than its parent.
    if (family.count(process.parent) != 0) {
      family.insert(process.pid);
      found.push_back(process.pid);
    }
  }
  return found;
}

void KillTree(int pid_) {
  const std::vector<int> descendants = Descendants(pid_);
  kill(pid_, SIGKILL);
  kill(-pid_, SIGKILL);
  for (const int pid : descendants) {
    kill(pid, SIGKILL);
  }
}

Command::~Command() {
  if (pid != 0) {
    KillTree(pid);
    waitpid(pid, &status, 0);
  }
  if (log >= 0) {
    close(log);
  }
}

void Command::Start(const std::vector<std::string>& command_, double limit_) {
  log = memfd_create("log", MFD_CLOEXEC);
  pid = Spawn(command_, log);
  deadline = Now() + limit_;
}

bool Command::HasEnded() {
  if (pid == 0) {
    return false;
  }
  if (Now() > deadline) {
    KillTree(pid);
  }
  if (!::HasEnded(pid, status)) {
    return false;
  }
  pid = 0;
  text.resize(kMaxCommandText);
  const ssize_t length = pread(log, &text[0], text.size(), 0);
  text.resize(length < 0 ? 0 : static_cast<size_t>(length));
  close(std::exchange(log, -1));
  return true;
}

std::string BesideThis(const std::string& name_) {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  const std::string self(path, length < 0 ? 0 : static_cast<size_t>(length));
  const std::string beside = self.substr(0, self.rfind('/') + 1) + name_;
  return access(beside.c_str(), X_OK) == 0 ? beside : name_;
}
