// The host header compiles as C99 (header_c99.c) and, here, as C++ with -pedantic.
#include "convoke/convoke.h"

#include <gtest/gtest.h>

#include <type_traits>

extern "C" int convoke_c_header_check(void);

// The C++-linkage entry points are declared for C++ hosts with exactly the parameter types that
// their exported symbols carry.
static_assert(std::is_same<decltype(&freeStringArray), void (*)(char**, unsigned short)>::value,
              "freeStringArray(char**, unsigned short)");
static_assert(std::is_same<decltype(&enableInlineAudioVideoLogging), void (*)(bool)>::value,
              "enableInlineAudioVideoLogging(bool)");
static_assert(std::is_same<decltype(&findParticipantByVideoStreamId),
                           void (*)(const char*, char*, unsigned short)>::value,
              "findParticipantByVideoStreamId(const char*, char*, unsigned short)");
static_assert(std::is_same<decltype(&findParticipantByAudioStreamId),
                           void (*)(const char*, char*, unsigned short)>::value,
              "findParticipantByAudioStreamId(const char*, char*, unsigned short)");

TEST(CHeader, CompilesAsC99AndAsPedanticCxx) { EXPECT_EQ(convoke_c_header_check(), 18 + 8); }
