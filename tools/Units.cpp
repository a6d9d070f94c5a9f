#include "Units.h"

#include "UsageError.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <limits>

namespace cli {

namespace {

// The power of 1024 that a suffix letter stands for; -1 for no such letter.
int suffixPower(char letter)
{
    switch (std::toupper(static_cast<unsigned char>(letter))) {
    case 'K': return 1;
    case 'M': return 2;
    case 'G': return 3;
    case 'T': return 4;
    default: return -1;
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
