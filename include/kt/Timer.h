// Timer and Rate: a pausable millisecond stopwatch with static wall-clock readings, and a counter
// that turns increments into a smoothed per-second rate.
//
// Every reading comes from the system wall clock (std::chrono::system_clock) in microseconds since
// 1970-01-01 00:00:00 UTC, so changing the system clock moves every running timer.
//
// Thread safety: the static clock readings may be called from any thread. A Timer or a Rate object
// is not synchronised and belongs to one thread.
#ifndef KT_TIMER_H
#define KT_TIMER_H

#include <cstdint>

#include "convoke/export.h"

// A stopwatch in milliseconds that can be paused and resumed. Elapsed times are returned truncated
// to unsigned 32 bits; the time spent stopped does not count once the timer is started again.
// Thread safety: an object is not synchronised (one thread); the static readings are safe anywhere.
class CONVOKE_API Timer {
 public:
  // Microseconds since 1970.
  static int64_t Microseconds();
  // Microseconds() / 1000.
  static uint64_t Milliseconds();
  // Microseconds() / 1,000,000.
  static uint64_t Seconds();
  // Seconds since 1970 with a fraction.
  static double CurrentTime();
  // The wall clock in the 64-bit NTP format: whole seconds since 1900 in the upper 32 bits, the
  // fraction of a second in units of 2^-32 s (truncated) in the lower 32 bits.
  static uint64_t NtpTimestamp();
  // The same conversion for a given reading in microseconds since 1970.
  static uint64_t NtpTimestamp(int64_t microseconds);

  // The timer is created stopped with no time accumulated; with startNow true it runs at once.
  explicit Timer(bool startNow = false);
  virtual ~Timer();

  // Resumes a stopped timer and returns the time accumulated before it. On a running timer it
  // returns the elapsed time and changes nothing.
  unsigned Start();
  // Pauses the timer (if running) and returns the time accumulated so far.
  unsigned Stop();
  // The time accumulated so far, running or not.
  unsigned Time() const;
  // Returns the accumulated time and starts counting again from 0, keeping the running state.
  unsigned Reset();
  bool IsStarted() const { return started; }

  // Running or not.
  bool started;
  // Milliseconds since 1970: the start moment, moved forward over pauses.
  uint64_t start;
  // Milliseconds since 1970: the moment of the last stop, or of creation or reset.
  uint64_t stop;
};

// Counts increments and turns them into a smoothed rate per second.
// Thread safety: not synchronised; one thread per object.
//
// Update() measures the interval since the previous update and blends the instantaneous rate into
// the smoothed one: an interval of at least one period replaces it, a shorter one contributes in
// proportion to its length. The first update after construction or Reset() measures from 1970 and
// so only primes the meter.
class CONVOKE_API Rate {
 public:
  // period: the smoothing period in seconds.
  explicit Rate(double period);
  virtual ~Rate();

  // The total of all increments.
  virtual uint32_t Current() const;
  // The smoothed rate per second as of the last Update().
  virtual double PerSecond() const;
  // Adds n to the total and returns the new total.
  virtual uint32_t Increment(int n = 1);
  // Recomputes the rate; returns the increments since the previous update.
  virtual uint32_t Update();
  // Clears the counts, the time of the last update and the rate; keeps the period.
  virtual void Reset();

  // Smoothing period in seconds.
  double period;
  // Total of all increments.
  uint32_t count;
  // The total at the previous update.
  uint32_t lastCount;
  // Seconds since 1970 of the previous update; 0 before the first.
  double lastTime;
  // The smoothed rate.
  double perSecond;

 protected:
  // The clock Update() reads, in seconds since 1970: Timer::CurrentTime(). Subclasses may supply
  // another clock (tests use this to control the interval between updates).
  virtual double Now() const;
};

#endif  // KT_TIMER_H
