#include "test_util.h"
#include "watchdog.h"

namespace {

// One step of a course of events: an event, its time, and the watchdog's verdict then.
struct Step {
  enum What { kNothing, kStatus, kActive, kLocked, kTranslator, kTranslatorDone } what;
  double time;
  Watchdog::Verdict verdict;
};

TEST(WatchdogTest, DistinguishesAHangFromWork) {
  constexpr Watchdog::Verdict kWell = Watchdog::kWell;
  constexpr Watchdog::Verdict kHung = Watchdog::kHung;
  const std::vector<Step> stories[] = {
      // No event follows the start.
      {{Step::kNothing, 1, kWell}, {Step::kNothing, 15.9, kWell}, {Step::kNothing, 16, kHung}},
      // The status advances, and then stops.
      {{Step::kStatus, 10, kWell}, {Step::kStatus, 20, kWell}, {Step::kNothing, 35, kHung}},
      // Each pass fails.
      {{Step::kActive, 10, kWell}, {Step::kActive, 20, kWell}, {Step::kNothing, 35, kHung}},
      // Another process holds the lock, and releases it.
      {{Step::kLocked, 100, kWell}, {Step::kNothing, 114, kWell}, {Step::kNothing, 115, kHung}},
      // The translator runs long, and then the daemon has time for a pass.
      {{Step::kTranslator, 2, kWell},
       {Step::kNothing, 31, kWell},
       {Step::kTranslatorDone, 31, kWell},
       {Step::kNothing, 45, kWell},
       {Step::kNothing, 46, kHung}},
      // It runs too long, and it or the daemon cannot be killed.
      {{Step::kTranslator, 2, kWell},
       {Step::kNothing, 32, Watchdog::kTranslatorHangs},
       {Step::kNothing, 41, Watchdog::kTranslatorHangs},
       {Step::kNothing, 42, kHung}},
  };
  for (const std::vector<Step>& story : stories) {
    Watchdog watchdog(30);
    watchdog.OnStart(1);
    int timestamp = 0;
    std::string activity;
    for (const Step& step : story) {
      SCOPED_TRACE(testing::Message()
                   << "story " << (&story - stories) << ", second " << step.time);
      if (step.what == Step::kStatus) {
        watchdog.OnStatus(++timestamp, step.time);
      } else if (step.what == Step::kActive) {
        activity += "x";
      } else if (step.what == Step::kTranslator || step.what == Step::kTranslatorDone) {
        watchdog.OnTranslator(step.what == Step::kTranslator, step.time);
      }
      EXPECT_EQ(step.verdict, watchdog.Look(activity, step.what == Step::kLocked, step.time));
    }
  }
}

TEST(WatchdogTest, ReportsTheLengthOfEachState) {
  Watchdog watchdog(30);
  watchdog.OnStart(10);
  EXPECT_EQ(5, watchdog.Still(15));
  EXPECT_EQ(0, watchdog.Translating(15));
  watchdog.OnStatus(7, 20);
  watchdog.OnStatus(7, 30);
  watchdog.OnTranslator(true, 30);
  EXPECT_EQ(20, watchdog.Still(40));
  EXPECT_EQ(10, watchdog.Translating(40));
  EXPECT_EQ(30, watchdog.Alive());
}

}  // namespace
