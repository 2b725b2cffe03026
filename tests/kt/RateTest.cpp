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

TEST(Rate, UpdateBlendsByIntervalOverPeriod) {
  ManualRate rate(2.0);
  rate.now = 1000.0;
  EXPECT_EQ(rate.Increment(10), 10u);
  // The first update measures from 1970: the rate is the tiny instantaneous one.
  EXPECT_EQ(rate.Update(), 10u);
  EXPECT_DOUBLE_EQ(rate.PerSecond(), 10.0 / 1000.0);

  // Half a period at 100/s: half the old rate plus half the new.
  rate.now = 1001.0;
  rate.Increment(100);
  EXPECT_EQ(rate.Update(), 100u);
  const double blended = 0.5 * 0.01 + 0.5 * 100.0;
  EXPECT_DOUBLE_EQ(rate.PerSecond(), blended);

  // The same instant again: nothing blended in, the increments still reported.
  rate.Increment(7);
  EXPECT_EQ(rate.Update(), 7u);
  EXPECT_DOUBLE_EQ(rate.PerSecond(), blended);

  // A quarter period at 40/s.
  rate.now = 1001.5;
  rate.Increment(20);
  rate.Update();
  EXPECT_DOUBLE_EQ(rate.PerSecond(), 0.75 * blended + 0.25 * 40.0);

  // A full period or more replaces the rate.
  rate.now = 1004.5;
  rate.Increment(30);
  rate.Update();
  EXPECT_DOUBLE_EQ(rate.PerSecond(), 10.0);
  EXPECT_EQ(rate.Current(), 167u);
}

TEST(Rate, CountsWrapAndResetKeepsOnlyThePeriod) {
  ManualRate rate(1.0);
  rate.count = rate.lastCount = UINT32_MAX - 1;
  rate.lastTime = 10.0;
  rate.now = 11.0;
  EXPECT_EQ(rate.Increment(5), 3u);
  EXPECT_EQ(rate.Update(), 5u);
  EXPECT_DOUBLE_EQ(rate.PerSecond(), 5.0);
  EXPECT_EQ(rate.Increment(-1), 2u);

  rate.Reset();
  EXPECT_EQ(rate.period, 1.0);
  EXPECT_EQ(rate.Current(), 0u);
  EXPECT_EQ(rate.lastCount, 0u);
  EXPECT_EQ(rate.lastTime, 0.0);
  EXPECT_EQ(rate.PerSecond(), 0.0);

  // The real clock: the first update primes the meter.
  Rate real(0.5);
  real.Increment(1);
  real.Update();
  EXPECT_LT(real.PerSecond(), 1e-6);
  EXPECT_GT(real.lastTime, 1577836800.0);
}

}  // namespace
