#include "zo/Time.h"
#include "zo/Error.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using zo::CTime;
using zo::CTimeSpan;

TEST(CTimeSpan, ConvertsBetweenUnits)
{
    const CTimeSpan span(1500000);
    EXPECT_DOUBLE_EQ(span.toMicros(), 1500000.0);
    EXPECT_DOUBLE_EQ(span.toMillis(), 1500.0);
    EXPECT_DOUBLE_EQ(span.toSeconds(), 1.5);
    EXPECT_EQ(CTimeSpan::fromMillis(1500), span);
    EXPECT_EQ(CTimeSpan::fromSeconds(1.5), span);
    EXPECT_EQ(CTimeSpan::fromSeconds(0.0000014), CTimeSpan(1));
}

TEST(CTimeSpan, DefaultIsZeroAndValid)
{
    const CTimeSpan zero;
    EXPECT_TRUE(zero.isValid());
    EXPECT_DOUBLE_EQ(zero.toMicros(), 0.0);
}

TEST(CTimeSpan, InvalidIsTellable)
{
    EXPECT_FALSE(CTimeSpan::invalid().isValid());
    EXPECT_TRUE(CTimeSpan(-5).isValid());
    EXPECT_EQ(CTimeSpan::invalid(), CTimeSpan::invalid());
    EXPECT_LT(CTimeSpan::invalid(), CTimeSpan(-1000000));
}

TEST(CTimeSpan, AddsAndSubtracts)
{
    EXPECT_EQ(CTimeSpan(5) + CTimeSpan(7), CTimeSpan(12));
    EXPECT_EQ(CTimeSpan(5) - CTimeSpan(7), CTimeSpan(-2));
    EXPECT_FALSE((CTimeSpan::invalid() + CTimeSpan(1)).isValid());
    EXPECT_FALSE((CTimeSpan(1) - CTimeSpan::invalid()).isValid());
}

TEST(CTimeSpan, ComparesByLength)
{
    EXPECT_LT(CTimeSpan::fromMillis(1), CTimeSpan(1001));
    EXPECT_GT(CTimeSpan(0), CTimeSpan(-1));
    EXPECT_NE(CTimeSpan(1), CTimeSpan(2));
}

TEST(CTime, RoundTripsMicroseconds)
{
    const CTime t = CTime::fromMicros(1234567890123LL);
    EXPECT_EQ(t.toMicros(), 1234567890123LL);
    const CTime copy = t;
    EXPECT_EQ(copy, t);
    EXPECT_EQ(CTime().toMicros(), 0);
}

TEST(CTime, DifferenceIsSpanBetweenTimes)
{
    const CTime earlier = CTime::fromMicros(1000);
    const CTime later = CTime::fromMicros(3500);
    EXPECT_EQ(later - earlier, CTimeSpan(2500));
    EXPECT_EQ(earlier - later, CTimeSpan(-2500));
}

TEST(CTime, MovesBySpans)
{
    CTime t = CTime::fromMicros(1000);
    EXPECT_EQ(t + CTimeSpan::fromMillis(2), CTime::fromMicros(3000));
    EXPECT_EQ(t - CTimeSpan(400), CTime::fromMicros(600));
    t += CTimeSpan(1);
    t -= CTimeSpan(3);
    EXPECT_EQ(t, CTime::fromMicros(998));
}

TEST(CTime, MovingByInvalidSpanThrows)
{
    const CTime t = CTime::fromMicros(1000);
    EXPECT_THROW(t + CTimeSpan::invalid(), zo::CInvalidArgError);
    EXPECT_THROW(t - CTimeSpan::invalid(), zo::CInvalidArgError);
}

TEST(CTime, ComparesByPointInTime)
{
    EXPECT_LT(CTime::fromMicros(1), CTime::fromMicros(2));
    EXPECT_GE(CTime::fromMicros(2), CTime::fromMicros(2));
}

TEST(CTime, NowFollowsTheSystemClock)
{
    const auto before =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    const CTime now = CTime::now();
    const auto after =
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    EXPECT_GE(now.toMicros(), before);
    EXPECT_LE(now.toMicros(), after);
}

TEST(CTime, NowAdvancesWhileSleeping)
{
    const CTime start = CTime::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_GE((CTime::now() - start).toMillis(), 4.0);
}
