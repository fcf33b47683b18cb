// Wraps the functions that change files. The process ends in one of their calls, as if it were
// killed.
#pragma once

namespace stand_ins {

struct Deaths {
  bool are_counted = false;   // Calls are counted.
  bool are_in_write = false;  // The process ends only in a write(), after half of the bytes.
  long calls_to_live = -1;    // The process ends in the call after so many; -1: in none.
};
extern Deaths deaths;

constexpr int kDeath = 99;  // Exit status.

}  // namespace stand_ins
