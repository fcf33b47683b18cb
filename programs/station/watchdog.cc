#include "watchdog.h"

namespace {

// Seconds. A pass takes less than one. To stop helpers takes 2 seconds for each, but the daemon is
// active meanwhile.
constexpr double kHangLimit = 15;

// Seconds within which the daemon must go on after its translator was killed.
constexpr double kAfterKill = 10;

}  // namespace

void Watchdog::OnStart(double now_) {
  timestamp = -1;
  advance = alive = now_;
  engine = 0;
}

void Watchdog::OnStatus(int timestamp_, double now_) {
  if (timestamp_ != timestamp) {
    timestamp = timestamp_;
    advance = alive = now_;
  }
}

void Watchdog::OnTranslator(bool runs_, double now_) {
  engine = runs_ ? now_ : 0;
  alive = now_;
}

// The status does not advance while each pass fails, for example because a directory is missing. A
// restart would not help then, so any activity counts as work.
Watchdog::Verdict Watchdog::Look(const std::string& activity_, bool is_locked_, double now_) {
  if (activity_ != activity || is_locked_) {
    activity = activity_;
    alive = now_;
  }
  if (engine != 0) {
    const double over = now_ - engine - limit;
    return over < 0 ? kWell : over < kAfterKill ? kTranslatorHangs : kHung;
  }
  return now_ - alive < kHangLimit ? kWell : kHung;
}
