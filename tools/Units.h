// Byte sizes, rates and durations as people type and read them.
#pragma once

#include "zo/Base.h"

#include <string>

namespace cli {

// A size such as "4096", "64K", "512M", "2G" or "1T": a whole number with an
// optional suffix K, M, G or T (powers of 1024, any letter case, optionally
// followed by "iB"). Throws UsageError naming `what` for any other text, for
// zero, and for sizes beyond 2^63 - 1 bytes.
zo::int64 parseByteSize(const std::string& text, const std::string& what);

// A duration such as "12h", "2d", "1w", "1m", "1y", or a sum of them such as
// "1d12h": whole numbers, each followed by its unit, h (an hour), d (a day of
// 24 hours), w (a week of 7 days), m (a month of 30 days) or y (a year of 365
// days). Returns seconds. Throws UsageError naming `what` for any other text,
// for zero and for durations beyond 2^63 - 1 seconds.
zo::int64 parseDuration(const std::string& text, const std::string& what);

// `seconds` since 1970-01-01 00:00:00 UTC as "2026-11-03 09:00:02" (UTC).
std::string formatUtcTime(zo::int64 seconds);

// "37 bytes", "512.0 KiB", "1.50 GiB": binary units, three significant digits.
std::string formatBytes(zo::int64 bytes);

// Decimal megabytes (10^6 bytes) per second, "153.2 MB/s"; "-" when no time passed.
std::string formatRate(zo::int64 bytes, double seconds);

// A count and its noun: "1 brick", "0 bricks", "2 bricks".
std::string formatCount(zo::int64 count, const std::string& singular, const std::string& plural);

// "0:07", "12:30", "1:02:03".
std::string formatDuration(double seconds);

} // namespace cli
