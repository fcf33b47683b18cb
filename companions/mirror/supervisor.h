// A process that keeps another one at work.
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>

#include "report.h"

// The worker's sign of life.
class Pulse {
 public:
  // The worker is alive, and quiet for at most so many seconds from now on.
  void Promise(double seconds_);

  // The worker is quiet for longer than it promised.
  bool IsOverdue() const;

 private:
  std::atomic<int64_t> end{0};  // In milliseconds of Now().
};

// Runs work_ in a child process, which dies with this one, and runs it again, after a pause, when
// it has come to an end or is overdue. Ends both on SIGTERM, SIGHUP or the end of the parent
// process; SIGINT is ignored. work_ may throw a string. Returns the exit status.
int Supervise(const Report& report_, const std::function<void(Pulse&)>& work_);
