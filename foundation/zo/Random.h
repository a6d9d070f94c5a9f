// CMTRand: a Mersenne-Twister random generator, for randomness that needs no
// secrecy (test data, examples, jitter). Its output can be predicted from a
// few hundred values: keys, salts, nonces and IDs come from
// seal::fillRandomBytes instead.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"

#include <random>

namespace zo {

// A 32-bit Mersenne Twister (std::mt19937). Not thread-safe: one thread at a
// time per instance.
class BRICKDISK_EXPORT CMTRand {
public:
    // Seeded from the operating system's random source. Throws CError when
    // no random source can be read.
    CMTRand();
    // Seeded with `seed`: the same seed gives the same sequence.
    explicit CMTRand(uint32 seed) : m_engine(seed) {}

    // Fills `size` bytes at `dst` (nothing when size < 1).
    void randData(uint8* dst, int size);
    // Uniform over every int32 value.
    int32 randInt32() { return static_cast<int32>(m_engine()); }
    // Uniform over every uint64 value.
    uint64 randUInt64();
    // Uniform in [0, 1).
    double randDouble();

private:
    std::mt19937 m_engine;
};

} // namespace zo
