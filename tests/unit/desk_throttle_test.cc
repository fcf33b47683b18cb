#include "test_util.h"
#include "throttle.h"

namespace {

constexpr double kStep = 1e-6;  // Seconds; more than the rounding of times.

class ThrottleTest : public testing::Test {
 protected:
  // Lets a login fail if it may be tried now. Returns the seconds until it may be tried.
  double Fail(const std::string& address_, const std::string& user_) {
    double waited = 0;
    for (double wait = 0; (wait = throttle.Ask(address_, user_, now)) > 0; now += wait + kStep) {
      waited += wait;
    }
    throttle.Fail(address_, user_, now);
    return waited;
  }

  Throttle throttle;
  double now = 1000;
};

TEST_F(ThrottleTest, DelaysGrowAfterAFewFailures) {
  for (const double wait : {0, 0, 0, 1, 2, 4, 8, 16, 32, 60, 60}) {
    EXPECT_NEAR(wait, Fail("1.1.1.1", "anna"), 10 * kStep);
  }
}

TEST_F(ThrottleTest, AddressesAndUsersAreCountedSeparately) {
  for (int i = 0; i < 8; ++i) {
    Fail("1.1.1.1", Number(i));
    Fail("2.2.2." + Number(i), "anna");
  }
  now += 1;
  EXPECT_GT(throttle.Ask("1.1.1.1", "ben", now), 10);
  EXPECT_GT(throttle.Ask("3.3.3.3", "anna", now), 10);
  EXPECT_EQ(0, throttle.Ask("3.3.3.3", "ben", now));
}

TEST_F(ThrottleTest, UnknownUserWaitsToo) {
  for (int i = 0; i < 5; ++i) {
    Fail("1.1.1.1", "nobody");
  }
  EXPECT_GT(throttle.Ask("2.2.2.2", "nobody", now), 1);
}

TEST_F(ThrottleTest, OthersCannotLockOutAUserFromAKnownAddress) {
  throttle.Succeed("1.1.1.1", "anna");
  for (int i = 0; i < 8; ++i) {
    Fail("2.2.2.2", "anna");
  }
  EXPECT_EQ(0, throttle.Ask("1.1.1.1", "anna", now));
}

TEST_F(ThrottleTest, LimitsTheChecksOfAllStrangers) {
  int allowed = 0;
  for (int i = 0; i < 100; ++i) {
    allowed += throttle.Ask("1.1.1." + Number(i), Number(i), now) > 0 ? 0 : 1;
  }
  EXPECT_EQ(Throttle::kRate, allowed);
  EXPECT_GT(throttle.Ask("2.2.2.2", "anna", now), 0);
  now += 1 / Throttle::kRate + 0.001;
  EXPECT_EQ(0, throttle.Ask("2.2.2.2", "anna", now));
}

TEST_F(ThrottleTest, SuccessAndTimeForgetFailures) {
  for (int i = 0; i < 6; ++i) {
    Fail("1.1.1.1", "anna");
  }
  throttle.Succeed("1.1.1.1", "anna");
  now += 1;
  EXPECT_EQ(0, throttle.Ask("1.1.1.1", "ben", now));
  for (int i = 0; i < 6; ++i) {
    Fail("2.2.2.2", "eve");
  }
  now += Throttle::kMemory + 1;
  Fail("3.3.3.3", "other");  // Old entries are removed when one is added.
  EXPECT_EQ(0, Fail("2.2.2.2", "eve"));
  EXPECT_EQ(0, Fail("2.2.2.2", "eve"));
}

}  // namespace
