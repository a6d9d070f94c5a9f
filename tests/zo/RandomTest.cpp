#include "zo/Random.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <set>
#include <vector>

using zo::CMTRand;

TEST(CMTRand, SeededGeneratorFollowsMersenneTwister)
{
    CMTRand rand(5489u);
    std::mt19937 reference(5489u);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(static_cast<uint32_t>(rand.randInt32()), reference());
}

TEST(CMTRand, SameSeedGivesSameSequence)
{
    CMTRand a(42);
    CMTRand b(42);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(a.randUInt64(), b.randUInt64());
}

TEST(CMTRand, OperatingSystemSeedsDiffer)
{
    CMTRand a;
    CMTRand b;
    std::vector<uint64_t> fromA;
    std::vector<uint64_t> fromB;
    for (int i = 0; i < 4; ++i) {
        fromA.push_back(a.randUInt64());
        fromB.push_back(b.randUInt64());
    }
    EXPECT_NE(fromA, fromB);
}

TEST(CMTRand, RandDataFillsExactlyTheBytesAsked)
{
    CMTRand rand(7);
    std::array<uint8_t, 16> bytes;
    bytes.fill(0xEE);
    rand.randData(bytes.data() + 1, 13);
    EXPECT_EQ(bytes[0], 0xEE);
    EXPECT_EQ(bytes[14], 0xEE);
    EXPECT_EQ(bytes[15], 0xEE);
    CMTRand same(7);
    std::array<uint8_t, 16> expected;
    expected.fill(0xEE);
    same.randData(expected.data() + 1, 13);
    EXPECT_EQ(bytes, expected);
}

TEST(CMTRand, RandDataUsesGeneratorWordsInLittleEndianOrder)
{
    CMTRand rand(1);
    std::mt19937 reference(1);
    uint8_t bytes[6];
    rand.randData(bytes, 6);
    const uint32_t first = reference();
    const uint32_t second = reference();
    EXPECT_EQ(bytes[0], first & 0xFF);
    EXPECT_EQ(bytes[3], first >> 24);
    EXPECT_EQ(bytes[4], second & 0xFF);
    EXPECT_EQ(bytes[5], (second >> 8) & 0xFF);
}

TEST(CMTRand, RandDataOfNothingTouchesNothing)
{
    CMTRand rand(3);
    uint8_t byte = 0x5C;
    rand.randData(&byte, 0);
    rand.randData(&byte, -1);
    EXPECT_EQ(byte, 0x5C);
}

TEST(CMTRand, RandDataBytesAreSpread)
{
    CMTRand rand(11);
    std::vector<uint8_t> bytes(4096);
    rand.randData(bytes.data(), static_cast<int>(bytes.size()));
    const std::set<uint8_t> distinct(bytes.begin(), bytes.end());
    EXPECT_GT(distinct.size(), 250u);
}

TEST(CMTRand, RandDoubleStaysInUnitInterval)
{
    CMTRand rand(9);
    double low = 1.0;
    double high = 0.0;
    for (int i = 0; i < 10000; ++i) {
        const double d = rand.randDouble();
        ASSERT_GE(d, 0.0);
        ASSERT_LT(d, 1.0);
        low = std::min(low, d);
        high = std::max(high, d);
    }
    EXPECT_LT(low, 0.01);
    EXPECT_GT(high, 0.99);
}

TEST(CMTRand, RandInt32CoversNegativeAndPositive)
{
    CMTRand rand(13);
    bool negative = false;
    bool positive = false;
    for (int i = 0; i < 100; ++i) {
        const int32_t v = rand.randInt32();
        negative = negative || v < 0;
        positive = positive || v > 0;
    }
    EXPECT_TRUE(negative);
    EXPECT_TRUE(positive);
}
