#include "clock.h"

#include <time.h>

void Nap(int milliseconds_) {
  const timespec duration = {milliseconds_ / 1000, milliseconds_ % 1000 * 1000000L};
  nanosleep(&duration, nullptr);
}

double Now() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}
