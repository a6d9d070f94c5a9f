// Blocks to compress in the compressor tests: zeros, text-like and random
// bytes, hexadecimal digits, all reproducible from a seed.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace compressortest {

using Bytes = std::vector<std::uint8_t>;

constexpr int BrickSize = 524288;

inline Bytes zeros(int size)
{
    return Bytes(static_cast<size_t>(size), 0);
}

inline Bytes randomBytes(int size, unsigned seed)
{
    std::mt19937 rng(seed);
    Bytes bytes(static_cast<size_t>(size));
    for (auto& b : bytes)
        b = static_cast<std::uint8_t>(rng());
    return bytes;
}

// Words drawn at random from a small vocabulary, in lines: repetitive like
// logs or documents, but not trivially so.
inline Bytes textLike(int size, unsigned seed)
{
    static const char* const words[] = {"brick", "disk", "folder", "the",   "a",     "header", "cipher", "key",
                                        "write", "read", "parent", "child", "zero",  "block",  "of",     "and",
                                        "store", "load", "stream", "cache", "ahead", "thread", "save",   "flush"};
    std::mt19937 rng(seed);
    Bytes bytes;
    bytes.reserve(static_cast<size_t>(size));
    int column = 0;
    while (static_cast<int>(bytes.size()) < size) {
        const std::string word = words[rng() % (sizeof(words) / sizeof(words[0]))];
        bytes.insert(bytes.end(), word.begin(), word.end());
        column += static_cast<int>(word.size()) + 1;
        bytes.push_back(column > 72 ? '\n' : ' ');
        if (column > 72)
            column = 0;
    }
    bytes.resize(static_cast<size_t>(size));
    return bytes;
}

// Random bytes written as hexadecimal digits: no repeats worth a match, but
// only 16 distinct byte values, which zstd's entropy coding halves.
inline Bytes hexDigits(int size, unsigned seed)
{
    static const char digits[] = "0123456789abcdef";
    std::mt19937 rng(seed);
    Bytes bytes(static_cast<size_t>(size));
    for (auto& b : bytes)
        b = static_cast<std::uint8_t>(digits[rng() % 16]);
    return bytes;
}

} // namespace compressortest
