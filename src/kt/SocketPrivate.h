// Internals shared by the socket sources; not installed.
#ifndef KT_SOCKET_PRIVATE_H
#define KT_SOCKET_PRIVATE_H

#include <stdio.h>
#include <stdlib.h>

namespace kt {
namespace socket_internal {

// Contract checks of the socket classes stay active in release builds: the message names the
// failed condition, the function and the source file, then the process aborts.
[[noreturn]] inline void AssertionFailed(const char* condition, const char* function, int line) {
  fprintf(stderr, "Assertion failed: (%s), function %s, file Socket.cpp, line %d.\n", condition,
          function, line);
  fflush(stderr);
  abort();
}

}  // namespace socket_internal
}  // namespace kt

#define KT_SOCKET_CHECK(condition, text, function)                      \
  do {                                                                  \
    if (!(condition)) {                                                 \
      ::kt::socket_internal::AssertionFailed(text, function, __LINE__); \
    }                                                                   \
  } while (0)

#endif  // KT_SOCKET_PRIVATE_H
