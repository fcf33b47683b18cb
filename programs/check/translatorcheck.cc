#include "translatorcheck.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <vector>

#include "clock.h"
#include "paths.h"

namespace {

constexpr double kLimit = 5;  // Seconds.
constexpr int kTick = 10;     // Milliseconds.
constexpr size_t kMaxOutput = 64 << 10;
constexpr size_t kMaxPipe = 64 << 10;  // Bytes that a pipe holds.
constexpr int kLate = -1;
constexpr int kNoStatus = -2;

// Starts a program in its own process group. Its stream_ goes to descriptor_, and its other streams
// are /dev/null. Its directory is /proc, where nobody can make a file. Returns 0 if it cannot be
// started.
pid_t Start(const std::vector<std::string>& command_, int stream_, int descriptor_) {
  std::vector<char*> arguments;
  arguments.reserve(command_.size() + 1);
  for (const std::string& word : command_) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, descriptor_, stream_);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (stream != stream_) {
      posix_spawn_file_actions_addopen(&actions, stream, "/dev/null", O_RDWR, 0);
    }
  }
  posix_spawn_file_actions_addchdir_np(&actions, "/proc");
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  pid_t pid = 0;
  if (posix_spawnp(&pid, arguments[0], &actions, &attributes, arguments.data(), environ) != 0) {
    pid = 0;
  }
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

// Reads only the bytes that are there, as a program may write faster than this reads. Sets
// descriptor_ to -1 at the end.
void Drain(int& descriptor_, std::string& output_) {
  char block[kMaxPipe];
  for (size_t rest = kMaxPipe; descriptor_ >= 0 && rest > 0;) {
    const ssize_t count = read(descriptor_, block, rest);
    if (count < 0) {
      return;
    }
    rest -= static_cast<size_t>(count);
    if (count == 0) {
      close(descriptor_);
      descriptor_ = -1;
    } else if (output_.size() < kMaxOutput) {
      output_.append(block, static_cast<size_t>(count));
    }
  }
}

// Runs a program and returns its exit status, kLate if it did not end in time, or kNoStatus if it
// could not be started or a signal ended it. output_ gets its text on stream_. Kills the processes
// that are left in its group.
int Run(const std::vector<std::string>& command_, int stream_, std::string& output_) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    return kNoStatus;
  }
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  const pid_t pid = Start(command_, stream_, ends[1]);
  close(ends[1]);
  siginfo_t info = {};
  const double deadline = Now() + kLimit;
  while (pid > 0 && info.si_pid == 0 && Now() < deadline) {
    pollfd source = {ends[0], POLLIN, 0};
    poll(&source, 1, kTick);
    waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
    Drain(ends[0], output_);
  }
  if (ends[0] >= 0) {
    close(ends[0]);
  }
  if (pid > 0) {
    kill(-pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  const bool is_late = pid > 0 && info.si_pid == 0;
  return is_late ? kLate : info.si_code == CLD_EXITED ? info.si_status : kNoStatus;
}

// An absolute path of a program. A name without a slash is searched in PATH.
std::string FromAnywhere(const std::string& path_) {
  char directory[PATH_MAX];
  const bool is_relative = path_[0] != '/' && path_.find('/') != std::string::npos;
  return is_relative && getcwd(directory, sizeof(directory)) != nullptr
             ? std::string(directory) + "/" + path_
             : path_;
}

}  // namespace

TranslatorCheck::TranslatorCheck(const std::string& command_) {
  if (command_.empty() || !ShellCharacters(command_, false).empty()) {
    return;
  }
  const std::string path = FromAnywhere(command_);
  std::string usage;
  if (Run({path, "--help"}, STDOUT_FILENO, usage) == EXIT_SUCCESS &&
      usage.find("--check") != std::string::npos) {
    program = path;
  }
}

std::string TranslatorCheck::WhyRefused(const std::string& conv_opts_) {
  if (program.empty() || !ShellCharacters(conv_opts_, true).empty()) {
    return "";
  }
  const auto known = answers.find(conv_opts_);
  return known != answers.end() ? known->second : answers[conv_opts_] = Ask(conv_opts_);
}

std::string TranslatorCheck::Ask(const std::string& conv_opts_) {
  std::vector<std::string> command = {program, "--check"};
  std::istringstream words(conv_opts_);
  for (std::string word; words >> word;) {
    command.push_back(word);
  }
  std::string why;
  const int status = Run(command, STDERR_FILENO, why);
  if (status == kLate) {
    program.clear();  // It would take as much time for the other directories.
  }
  why.resize(why.find_last_not_of(".\n", why.find('\n')) + 1);
  return status != EXIT_FAILURE ? "" : why.empty() ? "no reason given" : why;
}
