#include "zo/zo.h"
#include <gtest/gtest.h>
TEST(SmokeConcurrency, Builds) { zo::CSignal s; s.set(); EXPECT_TRUE(s.wait(0)); }
