// Behaviour every compressor shares: round trips, bounds, refusal of damaged
// data and of buffers that are too small.
#include "zo/Error.h"
#include "zo/LZ4Compressor.h"
#include "zo/LZMACompressor.h"
#include "zo/NullCompressor.h"
#include "zo/ZLibCompressor.h"
#include "zo/ZstdCompressor.h"

#include "CompressorTestData.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace {

using namespace compressortest;

struct NullKind {
    static zo::P<zo::ICompressor> make() { return zo::P<zo::ICompressor>(new zo::CNullCompressor()); }
};
struct ZLibKind {
    static zo::P<zo::ICompressor> make() { return zo::P<zo::ICompressor>(new zo::CZLibCompressor(6)); }
};
struct LZ4Kind {
    static zo::P<zo::ICompressor> make() { return zo::P<zo::ICompressor>(new zo::CLZ4Compressor(false)); }
};
struct LZ4HCKind {
    static zo::P<zo::ICompressor> make() { return zo::P<zo::ICompressor>(new zo::CLZ4Compressor(true)); }
};
struct LZMAKind {
    static zo::P<zo::ICompressor> make() { return zo::P<zo::ICompressor>(new zo::CLZMACompressor(6, 0)); }
};
struct ZstdKind {
    static zo::P<zo::ICompressor> make() { return zo::P<zo::ICompressor>(new zo::CZstdCompressor(3)); }
};

template <class Kind>
class Compressor : public ::testing::Test {
protected:
    zo::P<zo::ICompressor> compressor = Kind::make();

    Bytes compress(const Bytes& plain)
    {
        const int bound = compressor->getMaxCompressedSize(static_cast<int>(plain.size()));
        Bytes packed(static_cast<size_t>(bound));
        const int size = compressor->compress(plain.data(), static_cast<int>(plain.size()), packed.data(), bound);
        EXPECT_GE(size, 0);
        EXPECT_LE(size, bound);
        packed.resize(static_cast<size_t>(size));
        return packed;
    }

    Bytes decompress(const Bytes& packed, int capacity)
    {
        Bytes plain(static_cast<size_t>(capacity));
        const int size = compressor->decompress(packed.data(), static_cast<int>(packed.size()), plain.data(), capacity);
        EXPECT_GE(size, 0);
        EXPECT_LE(size, capacity);
        plain.resize(static_cast<size_t>(size));
        return plain;
    }

    void expectRoundTrip(const Bytes& plain)
    {
        EXPECT_EQ(decompress(compress(plain), static_cast<int>(plain.size())), plain);
    }
};

// Every compressor.
using CompressorKinds = ::testing::Types<NullKind, ZLibKind, LZ4Kind, LZ4HCKind, LZMAKind, ZstdKind>;
// Compressors that shrink redundant data and record where a block ends, so a
// truncated block or one with bytes after its end is refused.
using ShrinkingKinds = ::testing::Types<ZLibKind, LZ4Kind, LZ4HCKind, LZMAKind, ZstdKind>;
// Compressors whose format checks the data, so damaged bytes never decode to
// wrong data.
using ChecksummedKinds = ::testing::Types<ZLibKind, LZMAKind, ZstdKind>;

class CompressorKindNames {
public:
    template <class Kind>
    static std::string GetName(int)
    {
        if constexpr (std::is_same_v<Kind, NullKind>)
            return "Null";
        else if constexpr (std::is_same_v<Kind, ZLibKind>)
            return "ZLib";
        else if constexpr (std::is_same_v<Kind, LZ4Kind>)
            return "LZ4";
        else if constexpr (std::is_same_v<Kind, LZ4HCKind>)
            return "LZ4HC";
        else if constexpr (std::is_same_v<Kind, LZMAKind>)
            return "LZMA";
        else
            return "Zstd";
    }
};

template <class Kind>
class ShrinkingCompressor : public Compressor<Kind> {};
template <class Kind>
class ChecksummedCompressor : public Compressor<Kind> {};

TYPED_TEST_SUITE(Compressor, CompressorKinds, CompressorKindNames);
TYPED_TEST_SUITE(ShrinkingCompressor, ShrinkingKinds, CompressorKindNames);
TYPED_TEST_SUITE(ChecksummedCompressor, ChecksummedKinds, CompressorKindNames);

// One of several kinds of damage, chosen by `round`, at places drawn from `rng`.
Bytes damage(const Bytes& packed, int round, std::mt19937& rng)
{
    Bytes damaged = packed;
    switch (round % 4) {
    case 0: // one bit
        damaged[rng() % damaged.size()] ^= static_cast<std::uint8_t>(1u << (rng() % 8));
        break;
    case 1: // a few random bytes
        for (int i = 0; i < 3; ++i)
            damaged[rng() % damaged.size()] = static_cast<std::uint8_t>(rng());
        break;
    case 2: // a run of bytes overwritten
    {
        const size_t at = rng() % damaged.size();
        const size_t count = std::min<size_t>(1 + rng() % 32, damaged.size() - at);
        std::fill_n(damaged.begin() + static_cast<std::ptrdiff_t>(at), count, static_cast<std::uint8_t>(rng()));
        break;
    }
    default: // cut short and damaged
        damaged.resize(1 + rng() % damaged.size());
        damaged[rng() % damaged.size()] ^= 0x40;
        break;
    }
    return damaged;
}

bool tailIntact(const Bytes& dst, int capacity)
{
    return std::all_of(dst.begin() + capacity, dst.end(), [](std::uint8_t b) { return b == 0xA5; });
}

TYPED_TEST(Compressor, RoundTripsEmptyBlock)
{
    const Bytes packed = this->compress(Bytes());
    int dummy = 0;
    EXPECT_EQ(this->compressor->decompress(packed.data(), static_cast<int>(packed.size()), &dummy, 0), 0);
    EXPECT_EQ(this->compressor->decompress(packed.data(), static_cast<int>(packed.size()), nullptr, 0), 0);
}

TYPED_TEST(Compressor, RoundTripsOneByte)
{
    this->expectRoundTrip(Bytes{0x7F});
}

TYPED_TEST(Compressor, RoundTripsBrickOfZeros)
{
    this->expectRoundTrip(zeros(BrickSize));
}

TYPED_TEST(Compressor, RoundTripsTextLikeBrick)
{
    this->expectRoundTrip(textLike(BrickSize, 1));
}

TYPED_TEST(Compressor, RoundTripsRandomBrickWithinItsBound)
{
    // Random bytes do not compress: this is where the worst case bites.
    this->expectRoundTrip(randomBytes(BrickSize, 2));
}

TYPED_TEST(Compressor, DecompressesIntoLargerDestination)
{
    const Bytes plain = textLike(5000, 3);
    EXPECT_EQ(this->decompress(this->compress(plain), 3 * 5000), plain);
}

TYPED_TEST(Compressor, OneObjectServesManyBlocksInTurn)
{
    // Reused internal state must never leak from one block into the next.
    const Bytes blocks[] = {textLike(70000, 4), randomBytes(1000, 5), zeros(0),
                            textLike(3, 6),     zeros(100000),        randomBytes(65536, 7)};
    for (int round = 0; round < 2; ++round)
        for (const Bytes& block : blocks)
            this->expectRoundTrip(block);
}

TYPED_TEST(ShrinkingCompressor, ZerosCompressToUnderOnePercent)
{
    EXPECT_LT(this->compress(zeros(BrickSize)).size(), static_cast<size_t>(BrickSize / 100));
}

TYPED_TEST(ShrinkingCompressor, TextLikeDataCompressesToUnderHalf)
{
    EXPECT_LT(this->compress(textLike(BrickSize, 8)).size(), static_cast<size_t>(BrickSize / 2));
}

TYPED_TEST(Compressor, CompressRefusesTooSmallDestination)
{
    const Bytes plain = randomBytes(4096, 9);
    const Bytes packed = this->compress(plain);
    const int capacity = static_cast<int>(packed.size()) - 1;
    Bytes dst(packed.size() + 64, 0xA5);
    EXPECT_THROW(this->compressor->compress(plain.data(), 4096, dst.data(), capacity), zo::CError);
    EXPECT_TRUE(tailIntact(dst, capacity));
    EXPECT_THROW(this->compressor->compress(plain.data(), 4096, nullptr, 0), zo::CError);
}

TYPED_TEST(Compressor, DecompressRefusesTooSmallDestination)
{
    const Bytes plain = textLike(4096, 10);
    const Bytes packed = this->compress(plain);
    for (int capacity : {4095, 100, 0}) {
        Bytes dst(static_cast<size_t>(capacity) + 64, 0xA5);
        EXPECT_THROW(this->compressor->decompress(packed.data(), static_cast<int>(packed.size()), dst.data(), capacity),
                     zo::CError)
            << capacity;
        EXPECT_TRUE(tailIntact(dst, capacity)) << capacity;
    }
}

TYPED_TEST(ShrinkingCompressor, RefusesTruncatedData)
{
    const Bytes plain = textLike(20000, 11);
    const Bytes packed = this->compress(plain);
    for (size_t length = 0; length < packed.size(); ++length) {
        // Exactly the bytes that remain, so a sanitizer sees any read beyond them.
        const Bytes truncated(packed.begin(), packed.begin() + static_cast<std::ptrdiff_t>(length));
        Bytes dst(plain.size());
        EXPECT_THROW(this->compressor->decompress(truncated.data(), static_cast<int>(length), dst.data(),
                                                  static_cast<int>(dst.size())),
                     zo::CError)
            << "length " << length << " of " << packed.size();
    }
}

TYPED_TEST(ShrinkingCompressor, RefusesTrailingBytes)
{
    const Bytes plain = textLike(1000, 12);
    Bytes packed = this->compress(plain);
    packed.push_back(0);
    Bytes dst(plain.size() + 10);
    EXPECT_THROW(this->compressor->decompress(packed.data(), static_cast<int>(packed.size()), dst.data(),
                                              static_cast<int>(dst.size())),
                 zo::CError);
}

TYPED_TEST(Compressor, DamagedDataNeverWritesPastTheDestination)
{
    const Bytes plain = textLike(16384, 13);
    const Bytes packed = this->compress(plain);
    const int capacity = static_cast<int>(plain.size());
    std::mt19937 rng(14);
    for (int round = 0; round < 1000; ++round) {
        const Bytes damaged = damage(packed, round, rng);
        Bytes dst(static_cast<size_t>(capacity) + 64, 0xA5);
        try {
            const int size =
                this->compressor->decompress(damaged.data(), static_cast<int>(damaged.size()), dst.data(), capacity);
            ASSERT_GE(size, 0);
            ASSERT_LE(size, capacity);
        } catch (const zo::CError&) {
        }
        ASSERT_TRUE(tailIntact(dst, capacity)) << "round " << round;
    }
}

TYPED_TEST(ChecksummedCompressor, DamagedDataNeverDecodesToWrongData)
{
    const Bytes plain = textLike(16384, 15);
    const Bytes packed = this->compress(plain);
    const int capacity = static_cast<int>(plain.size());
    std::mt19937 rng(16);
    int refused = 0;
    const int rounds = 1000;
    for (int round = 0; round < rounds; ++round) {
        const Bytes damaged = damage(packed, round, rng);
        Bytes dst(static_cast<size_t>(capacity));
        try {
            const int size =
                this->compressor->decompress(damaged.data(), static_cast<int>(damaged.size()), dst.data(), capacity);
            // A change the format ignores (an unused bit) may pass; wrong data never does.
            ASSERT_EQ(Bytes(dst.begin(), dst.begin() + size), plain) << "round " << round;
        } catch (const zo::CError&) {
            ++refused;
        }
    }
    EXPECT_GT(refused, rounds * 95 / 100);
}

TYPED_TEST(Compressor, RefusesNegativeSizesAndNullBuffers)
{
    Bytes buffer(100);
    EXPECT_THROW(this->compressor->getMaxCompressedSize(-1), zo::CInvalidArgError);
    EXPECT_THROW(this->compressor->compress(buffer.data(), -1, buffer.data(), 100), zo::CInvalidArgError);
    EXPECT_THROW(this->compressor->compress(nullptr, 10, buffer.data(), 100), zo::CInvalidArgError);
    EXPECT_THROW(this->compressor->decompress(buffer.data(), 10, nullptr, 100), zo::CInvalidArgError);
    EXPECT_THROW(this->compressor->decompress(buffer.data(), 10, buffer.data(), -1), zo::CInvalidArgError);
}

} // namespace
