#include "processstat.h"

#include <stdio.h>

#include "format.h"
#include "statusfile.h"

// The name is in brackets and may contain any characters, brackets too.
ProcessStat ReadProcessStat(int pid_) {
  const std::string stat = ReadWhole(Format("/proc/%d/stat", pid_));
  const size_t begin = stat.find('(') + 1;
  const size_t end = stat.rfind(')');
  ProcessStat process;
  process.pid = pid_;
  // Fields 3, 4 and 22.
  if (end == std::string::npos ||
      sscanf(stat.c_str() + end + 1,  // NOLINT(cert-err34-c): the kernel writes it.
             " %c %d %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %lld",
             &process.state, &process.parent, &process.start) != 3) {
    throw Format("process %d cannot be seen", pid_);
  }
  process.name = stat.substr(begin, end - begin);
  return process;
}
