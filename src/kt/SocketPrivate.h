// Internals shared by the socket sources; not installed.
#ifndef KT_SOCKET_PRIVATE_H
#define KT_SOCKET_PRIVATE_H

#include <ctype.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

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

// Socket::GetServiceByName reads a text made only of these digits as a port number, and
// Socket::GetDscpByName as a code point.
inline bool IsAllDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Keywords and DSCP names are compared in upper case.
inline std::string UpperCase(std::string text) {
  for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  return text;
}

// Hosts that name a local-domain socket, and the length of their prefix.
inline size_t LocalPrefixLength(const std::string& host) {
  if (host.compare(0, 6, "/local") == 0) return 6;
  if (host.compare(0, 5, "/unix") == 0) return 5;
  return 0;
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
