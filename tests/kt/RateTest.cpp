#include <gtest/gtest.h>

#include <cstdint>

#include "kt/Timer.h"

namespace {

// A Rate whose clock the test sets.
class ManualRate : public Rate {
 public:
  explicit ManualRate(double period) : Rate(period) {}
  double now = 0;

 protected:
  double Now() const override { return now; }
};

TEST(Rate, CountsIncrements) {
  Rate rate(1.0);
  EXPECT_EQ(rate.Current(), 0u);
  EXPECT_EQ(rate.Increment(3), 3u);
  EXPECT_EQ(rate.Increment(), 4u);
  EXPECT_EQ(rate.Increment(-1), 3u);
  EXPECT_EQ(rate.Current(), 3u);
  EXPECT_EQ(rate.PerSecond(), 0.0);
}

TEST(Rate, UpdateBlendsByIntervalOverPeriod) {
  ManualRate rate(2.0);
  rate.now = 1000.0;
  rate.Increment(10);
  // The first update measures from 1970: an interval far beyond the period, so the rate is the
  // (tiny) instantaneous one.
  EXPECT_EQ(rate.Update(), 10u);
  EXPECT_DOUBLE_EQ(rate.PerSecond(), 10.0 / 1000.0);

  // Half a period: half the old rate plus half the instantaneous 100/s.
  rate.now = 1001.0;
  rate.Increment(100);
  EXPECT_EQ(rate.Update(), 100u);
  EXPECT_DOUBLE_EQ(rate.PerSecond(), 0.5 * 0.01 + 0.5 * 100.0);

  // A quarter period at 40/s.
  rate.now = 1001.5;
  rate.Increment(20);
  EXPECT_EQ(rate.Update(), 20u);
  EXPECT_DOUBLE_EQ(rate.PerSecond(), 0.75 * (0.5 * 0.01 + 0.5 * 100.0) + 0.25 * 40.0);

  // A full period or more replaces the rate.
  rate.now = 1004.5;
  rate.Increment(30);
  EXPECT_EQ(rate.Update(), 30u);
  EXPECT_DOUBLE_EQ(rate.PerSecond(), 10.0);

  // Nothing counted over exactly one period: the rate drops to 0.
  rate.now = 1006.5;
  EXPECT_EQ(rate.Update(), 0u);
  EXPECT_DOUBLE_EQ(rate.PerSecond(), 0.0);
  EXPECT_EQ(rate.Current(), 160u);
}

TEST(Rate, UpdateWithinTheSameInstantKeepsTheRate) {
  ManualRate rate(1.0);
  rate.now = 50.0;
  rate.Increment(500);
  rate.Update();
  const double before = rate.PerSecond();
  rate.Increment(7);
  EXPECT_EQ(rate.Update(), 7u);
  EXPECT_EQ(rate.PerSecond(), before);
}

TEST(Rate, DeltaWrapsAroundThirtyTwoBits) {
  ManualRate rate(1.0);
  rate.count = UINT32_MAX - 1;
  rate.lastCount = UINT32_MAX - 1;
  rate.lastTime = 10.0;
  rate.now = 11.0;
  EXPECT_EQ(rate.Increment(5), 3u);
  EXPECT_EQ(rate.Update(), 5u);
  EXPECT_DOUBLE_EQ(rate.PerSecond(), 5.0);
}

TEST(Rate, ResetClearsEverythingButThePeriod) {
  ManualRate rate(3.0);
  rate.now = 100.0;
  rate.Increment(9);
  rate.Update();
  rate.Reset();
  EXPECT_EQ(rate.period, 3.0);
  EXPECT_EQ(rate.Current(), 0u);
  EXPECT_EQ(rate.lastCount, 0u);
  EXPECT_EQ(rate.lastTime, 0.0);
  EXPECT_EQ(rate.PerSecond(), 0.0);
}

TEST(Rate, RealClockPrimesThenMeasures) {
  Rate rate(0.001);
  rate.Increment(1);
  rate.Update();
  EXPECT_LT(rate.PerSecond(), 1e-6);
  EXPECT_GT(rate.lastTime, 1577836800.0);
}

}  // namespace
