// Wraps fork(), kill() and waitpid().
#pragma once

#include <sys/types.h>

#include <utility>
#include <vector>

namespace stand_ins {

struct Processes {
  bool fork_fails = false;
  std::vector<pid_t> children;                 // Forked, oldest first.
  std::vector<std::pair<pid_t, int>> signals;  // Sent with kill().
  std::vector<pid_t> collected;                // By waitpid() with WNOHANG.
};
extern Processes processes;

}  // namespace stand_ins
