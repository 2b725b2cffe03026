#include <gtest/gtest.h>

#include "kt/Timer.h"
#include "kt/Utility.h"

namespace {

// Generous upper slack for sleeps on a loaded machine.
constexpr unsigned kSlackMs = 400;

TEST(Timer, ClockReadingsAgree) {
  const int64_t us = Timer::Microseconds();
  const uint64_t ms = Timer::Milliseconds();
  const uint64_t s = Timer::Seconds();
  const double now = Timer::CurrentTime();
  EXPECT_GE(ms, static_cast<uint64_t>(us / 1000));
  EXPECT_LE(ms - static_cast<uint64_t>(us / 1000), 1000u);
  EXPECT_LE(s - ms / 1000, 1u);
  EXPECT_NEAR(now, static_cast<double>(us) / 1e6, 1.0);
  // Sanity: the wall clock is well past 2020-01-01.
  EXPECT_GT(s, 1577836800u);
}

TEST(Timer, NtpTimestampSplitsSecondsAndFraction) {
  struct Case {
    int64_t microseconds;
    uint64_t seconds;
    uint64_t fraction;
  };
  const Case cases[] = {
      {0, 2208988800u, 0},
      {500000, 2208988800u, 2147483648u},
      {250000, 2208988800u, 1073741824u},
      // 999999 * 2^32 / 10^6 = 4294963001.0...: truncated, never rounded up into the next second.
      {999999, 2208988800u, 4294963001u},
      {1000001, 2208988801u, 4294u},
      {1700000000LL * 1000000 + 1, 2208988800u + 1700000000u, 4294u},
  };
  for (const Case& c : cases) {
    const uint64_t ntp = Timer::NtpTimestamp(c.microseconds);
    EXPECT_EQ(ntp >> 32, c.seconds) << c.microseconds;
    EXPECT_EQ(ntp & 0xFFFFFFFFu, c.fraction) << c.microseconds;
  }
  const uint64_t before = Timer::Seconds();
  const uint64_t now = Timer::NtpTimestamp() >> 32;
  EXPECT_GE(now, before + 2208988800u);
  EXPECT_LE(now, before + 2208988800u + 2);
}

TEST(Timer, CreatedStoppedReportsNothingUntilStarted) {
  Timer timer(false);
  EXPECT_FALSE(timer.IsStarted());
  kt::__os_Sleep(20);
  EXPECT_EQ(timer.Time(), 0u);
  EXPECT_EQ(timer.Stop(), 0u);
  EXPECT_EQ(timer.Start(), 0u);
  EXPECT_TRUE(timer.IsStarted());
}

TEST(Timer, PausedIntervalDoesNotCount) {
  Timer timer(true);
  kt::__os_Sleep(50);
  const unsigned atStop = timer.Stop();
  EXPECT_GE(atStop, 50u);
  EXPECT_LT(atStop, 50u + kSlackMs);
  EXPECT_FALSE(timer.IsStarted());

  kt::__os_Sleep(100);
  EXPECT_EQ(timer.Time(), atStop);
  // Start returns what was accumulated before the pause, not the pause itself.
  EXPECT_EQ(timer.Start(), atStop);
  const unsigned resumed = timer.Time();
  EXPECT_GE(resumed, atStop);
  EXPECT_LT(resumed, atStop + 90) << "the 100 ms pause was counted";
}

TEST(Timer, PauseArithmeticOnTheFields) {
  // Stopped with 50 ms accumulated long ago: starting it moves the start so that exactly those 50
  // ms remain counted.
  Timer timer(false);
  timer.start = 1000;
  timer.stop = 1050;
  EXPECT_EQ(timer.Time(), 50u);
  EXPECT_EQ(timer.Start(), 50u);
  const uint64_t now = Timer::Milliseconds();
  EXPECT_LE(timer.start, now - 50);
  EXPECT_GE(timer.start + 50 + 1000, now);
  EXPECT_GE(timer.Time(), 50u);
  EXPECT_LT(timer.Time(), 50u + kSlackMs);
}

TEST(Timer, StartOnRunningTimerDoesNotRestart) {
  Timer timer(true);
  kt::__os_Sleep(30);
  const uint64_t startBefore = timer.start;
  EXPECT_GE(timer.Start(), 30u);
  EXPECT_EQ(timer.start, startBefore);
  EXPECT_GE(timer.Time(), 30u);
}

TEST(Timer, ResetReturnsElapsedAndKeepsRunningState) {
  Timer stopped(true);
  kt::__os_Sleep(30);
  const unsigned accumulated = stopped.Stop();
  EXPECT_EQ(stopped.Reset(), accumulated);
  EXPECT_FALSE(stopped.IsStarted());
  EXPECT_EQ(stopped.Time(), 0u);
  kt::__os_Sleep(20);
  EXPECT_EQ(stopped.Time(), 0u);

  Timer running(true);
  kt::__os_Sleep(30);
  EXPECT_GE(running.Reset(), 30u);
  EXPECT_TRUE(running.IsStarted());
  EXPECT_LT(running.Time(), 30u + kSlackMs);
  kt::__os_Sleep(20);
  EXPECT_GE(running.Time(), 20u);
}

TEST(Timer, ElapsedIsTruncatedToThirtyTwoBits) {
  Timer timer(false);
  timer.start = 0;
  timer.stop = (1ULL << 32) + 7;
  EXPECT_EQ(timer.Time(), 7u);
}

}  // namespace
