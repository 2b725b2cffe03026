// Waiting in tests without depending on the machine's speed: a condition is polled until it holds
// or a generous deadline passes. The deadline only bounds a broken run; a passing run never
// reaches it, on a fast machine or a loaded one.
#ifndef CONVOKE_TESTS_COMMON_WAITUNTIL_H
#define CONVOKE_TESTS_COMMON_WAITUNTIL_H

#include <chrono>
#include <thread>

namespace convoke_test_support {

constexpr std::chrono::milliseconds kGenerousDeadline(10000);

// True as soon as condition() holds; false when it still does not after `limit`.
template <class Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds limit = kGenerousDeadline) {
  const auto start = std::chrono::steady_clock::now();
  while (!condition()) {
    const auto waited = std::chrono::steady_clock::now() - start;
    if (waited > limit) return false;
    // Short waits (another thread's next step) only yield; longer ones stop spinning.
    if (waited < std::chrono::milliseconds(2)) {
      std::this_thread::yield();
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  return true;
}

}  // namespace convoke_test_support

#endif  // CONVOKE_TESTS_COMMON_WAITUNTIL_H
