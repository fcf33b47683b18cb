#include "clock.h"

#include <time.h>

void Nap(int milliseconds_) {
  const timespec duration = {milliseconds_ / 1000, milliseconds_ % 1000 * 1000000L};
  nanosleep(&duration, nullptr);
}

namespace {

double Seconds(clockid_t clock_) {
  timespec now = {};
  clock_gettime(clock_, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace

double Now() { return Seconds(CLOCK_MONOTONIC); }

double RealTime() { return Seconds(CLOCK_REALTIME); }
