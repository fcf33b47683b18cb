// In front of the functions that change files: the process ends in one of their calls, as if it
// were killed.
#pragma once

namespace stand_ins {

struct Deaths {
  bool are_counted = false;   // The calls are.
  bool are_in_write = false;  // Only in a write(), when half of the bytes are written.
  long calls_to_live = -1;    // The process ends in the call after so many; -1: in none.
};
extern Deaths deaths;

constexpr int kDeath = 99;  // Exit status.

}  // namespace stand_ins
