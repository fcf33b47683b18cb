// Decides whether the daemon is hung. All times are of Now().
#pragma once

#include <string>

class Watchdog {
 public:
  enum Verdict { kWell, kTranslatorHangs, kHung };

  // limit_: seconds that a translator may run.
  explicit Watchdog(int limit_) : limit(limit_) {}

  void OnStart(double now_);
  void OnStatus(int timestamp_, double now_);
  void OnTranslator(bool runs_, double now_);

  // activity_: of the daemon. is_locked_: the daemon waits for another process.
  Verdict Look(const std::string& activity_, bool is_locked_, double now_);

  double Alive() const { return alive; }  // The last time at which it was seen to work.
  double Still(double now_) const { return now_ - advance; }  // Seconds since the status advanced.
  double Translating(double now_) const { return engine == 0 ? 0 : now_ - engine; }

 private:
  int limit;
  int timestamp = -1;
  double advance = 0;
  double alive = 0;
  double engine = 0;  // 0: it does not run.
  std::string activity;
};
