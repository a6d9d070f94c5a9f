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

// "37 bytes", "512.0 KiB", "1.50 GiB": binary units, three significant digits.
std::string formatBytes(zo::int64 bytes);

// Decimal megabytes (10^6 bytes) per second, "153.2 MB/s"; "-" when no time passed.
std::string formatRate(zo::int64 bytes, double seconds);

// A count and its noun: "1 brick", "0 bricks", "2 bricks".
std::string formatCount(zo::int64 count, const std::string& singular, const std::string& plural);

// "0:07", "12:30", "1:02:03".
std::string formatDuration(double seconds);

} // namespace cli
