// Number reading shared by both engine families: what a meeting's options and the commands'
// volumes and window sizes accept.
#include "numbers.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using ktengine::ReadInt;

TEST(ReadInt, AcceptsWholeDecimalNumbersWithinTheRange) {
  long value = -1;
  EXPECT_TRUE(ReadInt("0", 0, 255, &value));
  EXPECT_EQ(value, 0);
  EXPECT_TRUE(ReadInt("255", 0, 255, &value));
  EXPECT_EQ(value, 255);
  EXPECT_TRUE(ReadInt("007", 0, 255, &value));
  EXPECT_EQ(value, 7);
  // A seed takes the whole unsigned 32-bit range: ten digits.
  EXPECT_TRUE(ReadInt("4294967295", 0, 4294967295L, &value));
  EXPECT_EQ(value, 4294967295L);
  EXPECT_TRUE(ReadInt("00000000000000000000042", 0, 100, &value));
  EXPECT_EQ(value, 42);
}

TEST(ReadInt, RefusesAnythingElseAndLeavesTheValueAlone) {
  const char* const refused[] = {"",          "256", "-1",   "+5",
                                 " 5",        "5 ",  "5x",   "0x10",
                                 "1e2",       "1.5", "loud", "99999999999999999999999999999",
                                 "4294967296"};
  for (const char* text : refused) {
    long value = 17;
    EXPECT_FALSE(ReadInt(text, 0, text == std::string("4294967296") ? 4294967295L : 255, &value))
        << "'" << text << "'";
    EXPECT_EQ(value, 17) << "'" << text << "'";
  }
  long value = 17;
  EXPECT_FALSE(ReadInt("19", 20, 1000, &value));  // below the range
  EXPECT_EQ(value, 17);
}

}  // namespace
