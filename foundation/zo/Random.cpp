#include "zo/Random.h"

#include "zo/Error.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sys/random.h>

namespace zo {

namespace {

// Seed words from getrandom(); std::random_device when the kernel lacks it.
std::array<uint32, std::mt19937::state_size> osSeedWords()
{
    std::array<uint32, std::mt19937::state_size> words;
    auto* bytes = reinterpret_cast<uint8*>(words.data());
    size_t filled = 0;
    while (filled < sizeof words) {
        const ssize_t got = getrandom(bytes + filled, sizeof words - filled, 0);
        if (got > 0) {
            filled += static_cast<size_t>(got);
        } else if (got < 0 && errno == EINTR) {
            continue;
        } else if (got < 0 && errno == ENOSYS) {
            std::random_device device;
            for (auto& word : words)
                word = device();
            return words;
        } else {
            throw CError("Cannot read the operating system's random source.", String(), -1,
                         CProps().add("errno", errno).add("systemMessage", String(std::strerror(errno))));
        }
    }
    return words;
}

std::mt19937 seededEngine()
{
    const auto words = osSeedWords();
    std::seed_seq seed(words.begin(), words.end());
    return std::mt19937(seed);
}

} // namespace

CMTRand::CMTRand() : m_engine(seededEngine())
{}

void CMTRand::randData(uint8* dst, int size)
{
    int i = 0;
    for (; i + 4 <= size; i += 4) {
        const uint32 word = m_engine();
        std::memcpy(dst + i, &word, 4);
    }
    if (i < size) {
        uint32 word = m_engine();
        for (; i < size; ++i, word >>= 8)
            dst[i] = static_cast<uint8>(word);
    }
}

uint64 CMTRand::randUInt64()
{
    const uint64 high = m_engine();
    return (high << 32) | m_engine();
}

double CMTRand::randDouble()
{
    // The top 53 bits scaled into [0, 1): every result is exact and below 1.
    return static_cast<double>(randUInt64() >> 11) * 0x1.0p-53;
}

} // namespace zo
