// CTime, a point in time, and CTimeSpan, the distance between two of them,
// both counted in microseconds.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"

#include <compare>
#include <limits>

namespace zo {

// A signed length of time in microseconds. One special value, invalid(),
// stands for "no time span" (for example "no time limit"); isValid() tells it
// apart. Adding or subtracting spans where either is invalid gives invalid.
class BRICKDISK_EXPORT CTimeSpan {
public:
    // A span of zero.
    constexpr CTimeSpan() = default;
    constexpr explicit CTimeSpan(int64 micros) : m_micros(micros) {}

    static constexpr CTimeSpan fromMillis(int64 millis) { return CTimeSpan(millis * 1000); }
    // Rounded to the nearest microsecond.
    static CTimeSpan fromSeconds(double seconds);
    static constexpr CTimeSpan invalid() { return CTimeSpan(kInvalidMicros); }

    constexpr bool isValid() const { return m_micros != kInvalidMicros; }
    double toMicros() const { return static_cast<double>(m_micros); }
    double toMillis() const { return static_cast<double>(m_micros) / 1e3; }
    double toSeconds() const { return static_cast<double>(m_micros) / 1e6; }

    CTimeSpan operator+(CTimeSpan other) const;
    CTimeSpan operator-(CTimeSpan other) const;

    // Compares the lengths; the invalid span orders before every valid one.
    friend constexpr auto operator<=>(CTimeSpan, CTimeSpan) = default;

private:
    friend class CTime;
    static constexpr int64 kInvalidMicros = std::numeric_limits<int64>::min();

    int64 m_micros = 0;
};

// A point in time: microseconds since 1970-01-01 00:00 UTC, from the system
// clock. The default value is that start itself.
class BRICKDISK_EXPORT CTime {
public:
    constexpr CTime() = default;

    static CTime now();
    static constexpr CTime fromMicros(int64 micros) { return CTime(micros); }
    constexpr int64 toMicros() const { return m_micros; }

    // The span from `earlier` to this time (negative when `earlier` is later).
    CTimeSpan operator-(CTime earlier) const { return CTimeSpan(m_micros - earlier.m_micros); }
    // Moving by an invalid span throws CInvalidArgError.
    CTime operator+(CTimeSpan span) const;
    CTime operator-(CTimeSpan span) const;
    CTime& operator+=(CTimeSpan span) { return *this = *this + span; }
    CTime& operator-=(CTimeSpan span) { return *this = *this - span; }

    friend constexpr auto operator<=>(CTime, CTime) = default;

private:
    constexpr explicit CTime(int64 micros) : m_micros(micros) {}

    int64 m_micros = 0;
};

} // namespace zo
