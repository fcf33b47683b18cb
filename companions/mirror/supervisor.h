// A process that keeps a worker process running.
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>

#include "report.h"

// The worker's sign of life.
class Pulse {
 public:
  // The worker is alive, and will be silent for at most seconds_ from now on.
  void Promise(double seconds_);

  // True if the worker is silent for longer than it promised.
  bool IsOverdue() const;

 private:
  std::atomic<int64_t> end{0};  // In milliseconds of Now().
};

// Runs work_ in a child process, which dies with this one. Restarts it after a pause when it ends
// or is overdue. Ends both on SIGTERM, SIGHUP or the end of the parent process; ignores SIGINT.
// work_ may throw a string. Returns the exit status.
int Supervise(const Report& report_, const std::function<void(Pulse&)>& work_);
