#include "sink.h"

#include <algorithm>

#include "clock.h"

namespace {

constexpr double kAhead = 0.06;  // Seconds; the buffer of a device.

}  // namespace

size_t Pace::Pass(size_t count_) {
  const double now = Now();
  heard_until = std::max(heard_until, now);
  const double room = std::max(0.0, now + kAhead - heard_until) * rate;
  const size_t count = std::min(count_, static_cast<size_t>(room));
  heard_until += static_cast<double>(count) / rate;
  return count;
}

void Pace::Drain() const {
  for (double rest = 0; (rest = heard_until - Now()) > 0;) {
    Nap(static_cast<int>(rest * 1000) + 1);
  }
}
