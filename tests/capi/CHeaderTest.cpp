#include <gtest/gtest.h>

extern "C" int convoke_c_header_check(void);

TEST(CHeader, CompilesAsC99AndLinks) { EXPECT_EQ(convoke_c_header_check(), 18 + 8); }
