#include "kt/Timer.h"

#include <chrono>

namespace {

// Microseconds from 1900-01-01 (the NTP epoch) to 1970-01-01.
constexpr uint64_t kNtpEpochOffsetMicroseconds = 2208988800ULL * 1000000ULL;

}  // namespace

int64_t Timer::Microseconds() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

uint64_t Timer::Milliseconds() { return static_cast<uint64_t>(Microseconds()) / 1000; }

uint64_t Timer::Seconds() { return static_cast<uint64_t>(Microseconds()) / 1000000; }

double Timer::CurrentTime() { return static_cast<double>(Microseconds()) / 1e6; }

uint64_t Timer::NtpTimestamp() { return NtpTimestamp(Microseconds()); }

uint64_t Timer::NtpTimestamp(int64_t microseconds) {
  const uint64_t since1900 = static_cast<uint64_t>(microseconds) + kNtpEpochOffsetMicroseconds;
  const uint64_t seconds = since1900 / 1000000;
  // Below 10^6 * 2^32, so the product cannot overflow 64 bits.
  const uint64_t fraction = ((since1900 % 1000000) << 32) / 1000000;
  return (seconds << 32) | (fraction & 0xFFFFFFFFULL);
}

Timer::Timer(bool startNow) : started(false), start(Milliseconds()), stop(start) {
  if (startNow) Start();
}

Timer::~Timer() = default;

unsigned Timer::Start() {
  const uint64_t now = Milliseconds();
  if (started) return static_cast<unsigned>(now - start);
  const unsigned elapsed = static_cast<unsigned>(stop - start);
  start += now - stop;
  started = true;
  return elapsed;
}

unsigned Timer::Stop() {
  if (started) {
    stop = Milliseconds();
    started = false;
  }
  return static_cast<unsigned>(stop - start);
}

unsigned Timer::Time() const {
  const uint64_t end = started ? Milliseconds() : stop;
  return static_cast<unsigned>(end - start);
}

unsigned Timer::Reset() {
  const unsigned elapsed = Time();
  start = stop = Milliseconds();
  return elapsed;
}

Rate::Rate(double period) : period(period), count(0), lastCount(0), lastTime(0), perSecond(0) {}

Rate::~Rate() = default;

uint32_t Rate::Current() const { return count; }

double Rate::PerSecond() const { return perSecond; }

uint32_t Rate::Increment(int n) {
  count += static_cast<uint32_t>(n);
  return count;
}

uint32_t Rate::Update() {
  const double now = Now();
  const double dt = now - lastTime;
  lastTime = now;
  const uint32_t delta = count - lastCount;
  lastCount = count;
  const double instant = dt != 0 ? delta / dt : 0;
  const double weight = dt < period ? dt / period : 1;
  perSecond = (1 - weight) * perSecond + weight * instant;
  return delta;
}

void Rate::Reset() {
  count = 0;
  lastCount = 0;
  lastTime = 0;
  perSecond = 0;
}

double Rate::Now() const { return Timer::CurrentTime(); }
