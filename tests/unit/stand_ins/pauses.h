// In place of sleep() and usleep(): the calls are noted, and nothing waits.
#pragma once

#include <unistd.h>

#include <functional>
#include <vector>

namespace stand_ins {

struct Pauses {
  std::vector<unsigned int> sleeps;  // Seconds.
  std::vector<useconds_t> usleeps;   // Microseconds.
  // Run in the meantime, as others would.
  std::function<void()> on_sleep = [] {};
  std::function<void()> on_usleep = [] {};
};
extern Pauses pauses;

}  // namespace stand_ins
