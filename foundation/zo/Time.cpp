#include "zo/Time.h"

#include "zo/Error.h"

#include <chrono>
#include <cmath>

namespace zo {

namespace {

void checkValid(CTimeSpan span, const char* where)
{
    if (!span.isValid())
        throw CInvalidArgError(where, "The time span is invalid.");
}

} // namespace

CTimeSpan CTimeSpan::fromSeconds(double seconds)
{
    return CTimeSpan(std::llround(seconds * 1e6));
}

CTimeSpan CTimeSpan::operator+(CTimeSpan other) const
{
    if (!isValid() || !other.isValid())
        return invalid();
    return CTimeSpan(m_micros + other.m_micros);
}

CTimeSpan CTimeSpan::operator-(CTimeSpan other) const
{
    if (!isValid() || !other.isValid())
        return invalid();
    return CTimeSpan(m_micros - other.m_micros);
}

CTime CTime::now()
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return CTime(std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count());
}

CTime CTime::operator+(CTimeSpan span) const
{
    checkValid(span, "zo::CTime::operator+");
    return CTime(m_micros + span.m_micros);
}

CTime CTime::operator-(CTimeSpan span) const
{
    checkValid(span, "zo::CTime::operator-");
    return CTime(m_micros - span.m_micros);
}

} // namespace zo
