// Hexadecimal text to bytes and back, for known-answer tests.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sealtest {

inline std::vector<std::uint8_t> fromHex(std::string_view hex)
{
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9')
            return c - '0';
        if (c >= 'a' && c <= 'f')
            return c - 'a' + 10;
        if (c >= 'A' && c <= 'F')
            return c - 'A' + 10;
        throw std::invalid_argument("not a hexadecimal digit");
    };
    if (hex.size() % 2 != 0)
        throw std::invalid_argument("odd number of hexadecimal digits");
    std::vector<std::uint8_t> bytes;
    for (size_t i = 0; i < hex.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(nibble(hex[i]) * 16 + nibble(hex[i + 1])));
    return bytes;
}

inline std::string toHex(const std::uint8_t* bytes, size_t size)
{
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (size_t i = 0; i < size; ++i) {
        hex += digits[bytes[i] >> 4];
        hex += digits[bytes[i] & 15];
    }
    return hex;
}

} // namespace sealtest
