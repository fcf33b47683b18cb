// What the kernel tells about a process, see proc(5).
#pragma once

#include <string>

struct ProcessStat {
  int pid = 0;
  std::string name;     // Of the program, cut to 15 bytes.
  char state = '\0';    // A letter; "Z" has ended, "T" is stopped.
  int parent = 0;       // Process id.
  long long start = 0;  // In clock ticks since the start of the system.
};

// Throws a string if there is no such process, or it cannot be seen.
ProcessStat ReadProcessStat(int pid_);
