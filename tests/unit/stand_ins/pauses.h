// Replaces sleep() and usleep(): records the calls and does not wait.
#pragma once

#include <unistd.h>

#include <functional>
#include <vector>

namespace stand_ins {

struct Pauses {
  std::vector<unsigned int> sleeps;  // Seconds.
  std::vector<useconds_t> usleeps;   // Microseconds.
  // These run during the pause, as another process would.
  std::function<void()> on_sleep = [] {};
  std::function<void()> on_usleep = [] {};
};
extern Pauses pauses;

}  // namespace stand_ins
