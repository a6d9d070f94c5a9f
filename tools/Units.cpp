#include "Units.h"

#include "UsageError.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>

namespace cli {

namespace {

// The power of 1024 that a suffix letter stands for; -1 for no such letter.
int suffixPower(char letter)
{
    switch (std::toupper(static_cast<unsigned char>(letter))) {
    case 'K':
        return 1;
    case 'M':
        return 2;
    case 'G':
        return 3;
    case 'T':
        return 4;
    default:
        return -1;
    }
}

std::string lowercase(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

} // namespace

zo::int64 parseByteSize(const std::string& text, const std::string& what)
{
    const auto refuse = [&] {
        return UsageError("invalid " + what + " '" + text +
                          "': expected a whole number of bytes, optionally with a suffix K, M, G or T");
    };
    size_t digits = 0;
    while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits])))
        ++digits;
    if (digits == 0)
        throw refuse();

    int power = 0;
    const std::string suffix = text.substr(digits);
    if (!suffix.empty()) {
        power = suffixPower(suffix[0]);
        const std::string rest = lowercase(suffix.substr(1));
        if (power < 0 || (!rest.empty() && rest != "ib"))
            throw refuse();
    }

    constexpr zo::int64 kMax = std::numeric_limits<zo::int64>::max();
    zo::int64 value = 0;
    for (size_t i = 0; i < digits; ++i) {
        const int digit = text[i] - '0';
        if (value > (kMax - digit) / 10)
            throw UsageError(what + " '" + text + "' is too large");
        value = value * 10 + digit;
    }
    for (int i = 0; i < power; ++i) {
        if (value > kMax / 1024)
            throw UsageError(what + " '" + text + "' is too large");
        value *= 1024;
    }
    if (value == 0)
        throw UsageError(what + " must not be zero");
    return value;
}

zo::int64 parseDuration(const std::string& text, const std::string& what)
{
    const auto refuse = [&] {
        return UsageError("invalid " + what + " '" + text +
                          "': expected whole numbers with a unit h, d, w, m or y, such as 12h, 2d or 1y6m");
    };
    constexpr zo::int64 kMax = std::numeric_limits<zo::int64>::max();
    constexpr zo::int64 kHour = 3600;
    constexpr zo::int64 kDay = 24 * kHour;
    zo::int64 total = 0;
    size_t position = 0;
    if (text.empty())
        throw refuse();
    while (position < text.size()) {
        zo::int64 count = 0;
        const size_t start = position;
        for (; position < text.size() && std::isdigit(static_cast<unsigned char>(text[position])); ++position) {
            const int digit = text[position] - '0';
            if (count > (kMax - digit) / 10)
                throw UsageError(what + " '" + text + "' is too long");
            count = count * 10 + digit;
        }
        if (position == start || position == text.size())
            throw refuse();
        zo::int64 unit = 0;
        switch (std::tolower(static_cast<unsigned char>(text[position]))) {
        case 'h':
            unit = kHour;
            break;
        case 'd':
            unit = kDay;
            break;
        case 'w':
            unit = 7 * kDay;
            break;
        case 'm':
            unit = 30 * kDay;
            break;
        case 'y':
            unit = 365 * kDay;
            break;
        default:
            throw refuse();
        }
        ++position;
        if (count > (kMax - total) / unit)
            throw UsageError(what + " '" + text + "' is too long");
        total += count * unit;
    }
    if (total == 0)
        throw UsageError(what + " must not be zero");
    return total;
}

std::string formatUtcTime(zo::int64 seconds)
{
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    ::gmtime_r(&time, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &utc);
    return text;
}

std::string formatCount(zo::int64 count, const std::string& singular, const std::string& plural)
{
    return std::to_string(count) + " " + (count == 1 ? singular : plural);
}

std::string formatBytes(zo::int64 bytes)
{
    static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024)
        return formatCount(bytes, "byte", "bytes");
    double value = static_cast<double>(bytes) / 1024.0;
    int unit = 0;
    while (value >= 1024.0 && unit < 5) {
        value /= 1024.0;
        ++unit;
    }
    char text[32];
    const int decimals = value < 10.0 ? 2 : value < 100.0 ? 1 : 0;
    std::snprintf(text, sizeof text, "%.*f %s", decimals, value, kUnits[unit]);
    return text;
}

std::string formatRate(zo::int64 bytes, double seconds)
{
    if (seconds <= 0.0)
        return "- MB/s";
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MB/s", static_cast<double>(bytes) / 1e6 / seconds);
    return text;
}

std::string formatDuration(double seconds)
{
    const long total = seconds > 0.0 ? std::lround(seconds) : 0;
    const long hours = total / 3600;
    const long minutes = total / 60 % 60;
    const long secs = total % 60;
    char text[32];
    if (hours > 0)
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", hours, minutes, secs);
    else
        std::snprintf(text, sizeof text, "%ld:%02ld", minutes, secs);
    return text;
}

} // namespace cli
