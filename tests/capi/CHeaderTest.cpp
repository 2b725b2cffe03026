// The host header compiles as C99 (header_c99.c) and, here, as C++ with -pedantic.
#include "convoke/convoke.h"

#include <gtest/gtest.h>

extern "C" int convoke_c_header_check(void);

TEST(CHeader, CompilesAsC99AndAsPedanticCxx) {
  EXPECT_EQ(convoke_c_header_check(), 18 + 8);
  // The C++-linkage entry points are declared for C++ hosts.
  void (*free_array)(char**, unsigned short) = freeStringArray;
  EXPECT_NE(free_array, nullptr);
}
