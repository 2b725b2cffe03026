// Random values from the C library's random(), seeded once per process, and random UUIDs.
#include <stdlib.h>
#include <sys/time.h>
#include <uuid/uuid.h>

#include <atomic>
#include <mutex>

#include "kt/Utility.h"

namespace kt {

namespace {

std::atomic<bool> gSeeded{false};
std::once_flag gSeedOnce;

}  // namespace

void SRand() {
  if (gSeeded.load(std::memory_order_acquire)) return;
  std::call_once(gSeedOnce, [] {
    struct timeval now;
    gettimeofday(&now, nullptr);
    srandom(static_cast<unsigned>(now.tv_usec));
    gSeeded.store(true, std::memory_order_release);
  });
}

unsigned long RandomNumber(unsigned long lo, unsigned long hi) {
  SRand();
  const unsigned long value = static_cast<unsigned long>(random());
  const unsigned long range = hi - lo + 1;
  if (range == 0) return value;  // the full range: no modulus to take
  return value % range + lo;
}

std::string GenerateRandomAlphaNumericString(int n) {
  std::string text;
  if (n < 1) return text;
  text.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    SRand();
    const long r = random() % 62;
    if (r < 26) {
      text += static_cast<char>('a' + r);
    } else if (r < 52) {
      text += static_cast<char>('A' + (r - 26));
    } else {
      text += static_cast<char>('0' + (r - 52));
    }
  }
  return text;
}

std::string GenerateRandomHexString(int n) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string text;
  if (n < 1) return text;
  text.reserve(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) {
    SRand();
    text += kDigits[random() & 0xF];
  }
  return text;
}

std::string GenerateUUID() {
  uuid_t uuid;
  uuid_generate(uuid);
  char text[37];
  uuid_unparse(uuid, text);
  return std::string(text);
}

}  // namespace kt
