#include "numbers.h"

#include <climits>

namespace ktengine {

bool ReadInt(const std::string& text, long low, long high, long* value) {
  if (text.empty()) return false;
  unsigned long long number = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    // Past `high` it can only grow: it stops there, so that it never overflows, while the digits
    // are still checked.
    if (number <= static_cast<unsigned long long>(high)) {
      number = number > (ULLONG_MAX - 9) / 10 ? ULLONG_MAX : number * 10 + (c - '0');
    }
  }
  if (number < static_cast<unsigned long long>(low) ||
      number > static_cast<unsigned long long>(high)) {
    return false;
  }
  *value = static_cast<long>(number);
  return true;
}

}  // namespace ktengine
