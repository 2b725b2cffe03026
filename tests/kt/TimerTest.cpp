#include <gtest/gtest.h>

#include "kt/Timer.h"
#include "kt/Utility.h"

namespace {

// Generous upper slack for sleeps on a loaded machine.
constexpr unsigned kSlackMs = 400;

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
      // 4294963001.03...: truncated.
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
  EXPECT_LE(Timer::Milliseconds() / 1000 - before, 2u);
}

TEST(Timer, PausedIntervalsDoNotCount) {
  Timer timer(false);
  kt::__os_Sleep(20);
  EXPECT_EQ(timer.Time(), 0u) << "not started yet";
  EXPECT_EQ(timer.Start(), 0u);
  kt::__os_Sleep(50);
  const unsigned atStop = timer.Stop();
  EXPECT_GE(atStop, 50u);
  EXPECT_LT(atStop, 50u + kSlackMs);

  kt::__os_Sleep(100);
  EXPECT_EQ(timer.Time(), atStop);
  Timer sinceRestart(true);  // started before the restart, read after the timer
  EXPECT_EQ(timer.Start(), atStop);
  const unsigned afterRestart = timer.Time();
  EXPECT_LE(afterRestart, atStop + sinceRestart.Time() + 1) << "the 100 ms pause was counted";

  // Start on a running timer reports the elapsed time and does not restart it.
  kt::__os_Sleep(30);
  const uint64_t startBefore = timer.start;
  EXPECT_GE(timer.Start(), atStop + 30);
  EXPECT_EQ(timer.start, startBefore);
  EXPECT_TRUE(timer.IsStarted());
}

TEST(Timer, ResetReturnsElapsedAndKeepsTheRunningState) {
  Timer stopped(true);
  kt::__os_Sleep(30);
  const unsigned accumulated = stopped.Stop();
  EXPECT_EQ(stopped.Reset(), accumulated);
  EXPECT_FALSE(stopped.IsStarted());
  kt::__os_Sleep(20);
  EXPECT_EQ(stopped.Time(), 0u);

  Timer running(true);
  kt::__os_Sleep(30);
  EXPECT_GE(running.Reset(), 30u);
  EXPECT_TRUE(running.IsStarted());
  kt::__os_Sleep(20);
  EXPECT_GE(running.Time(), 20u);
  EXPECT_LT(running.Time(), 20u + kSlackMs);
}

}  // namespace
