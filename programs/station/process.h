// Programs that the station runs as children.
#pragma once

#include <string>
#include <vector>

// Starts a program, which is searched in PATH, as the leader of a new process group. Its standard
// input and output are /dev/null, and its standard error is log_. The kernel kills it if the caller
// ends. A program that cannot be executed says so in its log and ends with status 127.
// Throws a string if no process can be made.
int Spawn(const std::vector<std::string>& command_, int log_);

// True if that child has ended; it is reaped then, and status_ is as waitpid gives it.
bool HasEnded(int pid_, int& status_);

// "status 1" or "signal 9".
std::string Described(int status_);

// The process's children, their children and so on, the newest last.
std::vector<int> Descendants(int pid_);
// The process's children, the newest last.
std::vector<int> Children(int pid_);

// Sends SIGKILL to the process, its group and all its descendants.
void KillTree(int pid_);

// A command that runs in the background; its standard error is kept.
class Command {
 public:
  Command() = default;
  ~Command();
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;

  // limit_: seconds, after which it is killed.
  // REQUIRES: no command runs. Throws a string if it cannot be started.
  void Start(const std::vector<std::string>& command_, double limit_);

  bool IsRunning() const { return pid != 0; }

  // True if it has just ended; Status() and Text() are valid then.
  bool HasEnded();

  int Status() const { return status; }  // As waitpid gives it.
  const std::string& Text() const { return text; }

 private:
  int pid = 0;
  int status = 0;
  int log = -1;
  double deadline = 0;
  std::string text;
};

// The path of the program of that name in the directory of this program; the bare name if there is
// none.
std::string BesideThis(const std::string& name_);
