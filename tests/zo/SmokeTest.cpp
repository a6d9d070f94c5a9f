#include "zo/zo.h"
#include <gtest/gtest.h>
TEST(Smoke, Builds) { EXPECT_EQ(zo::String("a") + "b", "ab"); }
