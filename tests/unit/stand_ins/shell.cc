#include "stand_ins/shell.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <spawn.h>

#include <string>

#include "stand_ins/real.h"

bool stand_ins::processes_can_start = true;

// Does not run a command that would empty the root: a mistake in the code must not destroy the
// machine.
int posix_spawn(pid_t* pid_, const char* path_, const posix_spawn_file_actions_t* actions_,
                const posix_spawnattr_t* attributes_, char* const arguments_[],
                char* const environment_[]) {
  const bool is_harmful = std::string(arguments_[2]).rfind("rm /*", 0) == 0;
  EXPECT_FALSE(is_harmful) << arguments_[2];
  if (is_harmful || !stand_ins::processes_can_start) {
    return EAGAIN;
  }
  using Function = int(pid_t*, const char*, const posix_spawn_file_actions_t*,
                       const posix_spawnattr_t*, char* const*, char* const*);
  return stand_ins::Real<Function>("posix_spawn")(pid_, path_, actions_, attributes_, arguments_,
                                                  environment_);
}
