// The settings each compressor takes: zlib levels, LZ4's high-compression
// mode, LZMA presets and the extreme flag.
#include "zo/Error.h"
#include "zo/LZ4Compressor.h"
#include "zo/LZMACompressor.h"
#include "zo/ZLibCompressor.h"
#include "zo/ZstdCompressor.h"

#include "CompressorTestData.h"

#include <gtest/gtest.h>

namespace {

using namespace compressortest;

Bytes compressWith(zo::ICompressor& compressor, const Bytes& plain)
{
    const int bound = compressor.getMaxCompressedSize(static_cast<int>(plain.size()));
    Bytes packed(static_cast<size_t>(bound));
    packed.resize(
        static_cast<size_t>(compressor.compress(plain.data(), static_cast<int>(plain.size()), packed.data(), bound)));
    return packed;
}

Bytes decompressWith(zo::ICompressor& compressor, const Bytes& packed, size_t size)
{
    Bytes plain(size);
    plain.resize(static_cast<size_t>(
        compressor.decompress(packed.data(), static_cast<int>(packed.size()), plain.data(), static_cast<int>(size))));
    return plain;
}

TEST(ZLibCompressor, AcceptsLevelsMinusOneToNine)
{
    const Bytes plain = textLike(20000, 21);
    for (int level = -1; level <= 9; ++level) {
        zo::P<zo::CZLibCompressor> compressor(new zo::CZLibCompressor(level));
        EXPECT_EQ(compressor->getLevel(), level);
        EXPECT_EQ(decompressWith(*compressor, compressWith(*compressor, plain), plain.size()), plain) << level;
    }
}

TEST(ZLibCompressor, RefusesOtherLevels)
{
    for (int level : {-2, 10, 100})
        EXPECT_THROW(zo::CZLibCompressor{level}, zo::CInvalidArgError) << level;
}

TEST(ZLibCompressor, LevelZeroStoresAndHigherLevelsShrink)
{
    const Bytes plain = textLike(100000, 22);
    zo::P<zo::CZLibCompressor> store(new zo::CZLibCompressor(0));
    zo::P<zo::CZLibCompressor> fast(new zo::CZLibCompressor(1));
    zo::P<zo::CZLibCompressor> best(new zo::CZLibCompressor(9));
    const size_t stored = compressWith(*store, plain).size();
    const size_t fastSize = compressWith(*fast, plain).size();
    const size_t bestSize = compressWith(*best, plain).size();
    EXPECT_GT(stored, plain.size());
    EXPECT_LT(fastSize, plain.size() / 2);
    EXPECT_LE(bestSize, fastSize);
}

TEST(ZLibCompressor, AnyLevelDecompressesAnyOther)
{
    const Bytes plain = textLike(30000, 23);
    zo::P<zo::CZLibCompressor> writer(new zo::CZLibCompressor(9));
    zo::P<zo::CZLibCompressor> reader(new zo::CZLibCompressor(1));
    EXPECT_EQ(decompressWith(*reader, compressWith(*writer, plain), plain.size()), plain);
}

TEST(LZ4Compressor, HighCompressionIsSmallerOnText)
{
    const Bytes plain = textLike(BrickSize, 24);
    zo::P<zo::CLZ4Compressor> fast(new zo::CLZ4Compressor(false));
    zo::P<zo::CLZ4Compressor> high(new zo::CLZ4Compressor(true));
    EXPECT_FALSE(fast->isHighCompression());
    EXPECT_TRUE(high->isHighCompression());
    EXPECT_LT(compressWith(*high, plain).size(), compressWith(*fast, plain).size());
}

TEST(LZ4Compressor, BothModesReadEachOther)
{
    const Bytes plain = textLike(50000, 25);
    zo::P<zo::CLZ4Compressor> fast(new zo::CLZ4Compressor(false));
    zo::P<zo::CLZ4Compressor> high(new zo::CLZ4Compressor(true));
    EXPECT_EQ(decompressWith(*fast, compressWith(*high, plain), plain.size()), plain);
    EXPECT_EQ(decompressWith(*high, compressWith(*fast, plain), plain.size()), plain);
}

TEST(LZMACompressor, AcceptsEveryPresetWithAndWithoutExtreme)
{
    const Bytes plain = textLike(30000, 26);
    for (int preset = 0; preset <= 9; ++preset) {
        for (int extreme : {0, 1}) {
            zo::P<zo::CLZMACompressor> compressor(new zo::CLZMACompressor(preset, extreme));
            EXPECT_EQ(compressor->getPreset(), preset);
            EXPECT_EQ(compressor->isExtreme(), extreme != 0);
            const Bytes packed = compressWith(*compressor, plain);
            EXPECT_LT(packed.size(), plain.size() / 2) << preset << "/" << extreme;
            EXPECT_EQ(decompressWith(*compressor, packed, plain.size()), plain) << preset << "/" << extreme;
        }
    }
}

TEST(LZMACompressor, AnyNonZeroExtremeMeansExtreme)
{
    EXPECT_TRUE(zo::CLZMACompressor(5, 3).isExtreme());
    EXPECT_TRUE(zo::CLZMACompressor(5, -1).isExtreme());
    EXPECT_FALSE(zo::CLZMACompressor(5, 0).isExtreme());
}

TEST(LZMACompressor, ExtremeOutputIsReadWithoutTheFlag)
{
    const Bytes plain = textLike(40000, 27);
    zo::P<zo::CLZMACompressor> extreme(new zo::CLZMACompressor(9, 1));
    zo::P<zo::CLZMACompressor> plainPreset(new zo::CLZMACompressor(0, 0));
    EXPECT_EQ(decompressWith(*plainPreset, compressWith(*extreme, plain), plain.size()), plain);
}

TEST(LZMACompressor, RefusesPresetOutsideZeroToNine)
{
    for (int preset : {-1, 10, 99})
        EXPECT_THROW(zo::CLZMACompressor(preset, 0), zo::CInvalidArgError) << preset;
}

TEST(ZstdCompressor, AcceptsLevelsOneToNineteen)
{
    const Bytes plain = textLike(20000, 31);
    for (int level = 1; level <= 19; ++level) {
        zo::P<zo::CZstdCompressor> compressor(new zo::CZstdCompressor(level));
        EXPECT_EQ(compressor->getLevel(), level);
        EXPECT_EQ(decompressWith(*compressor, compressWith(*compressor, plain), plain.size()), plain) << level;
    }
}

TEST(ZstdCompressor, RefusesOtherLevels)
{
    for (int level : {-5, -1, 0, 20, 22, 100})
        EXPECT_THROW(zo::CZstdCompressor{level}, zo::CInvalidArgError) << level;
}

TEST(ZstdCompressor, HigherLevelsAreNotLargerOnText)
{
    const Bytes plain = textLike(200000, 32);
    size_t previous = plain.size();
    for (int level : {1, 3, 9, 19}) {
        zo::P<zo::CZstdCompressor> compressor(new zo::CZstdCompressor(level));
        const size_t size = compressWith(*compressor, plain).size();
        EXPECT_LE(size, previous) << level;
        previous = size;
    }
    EXPECT_LT(previous, plain.size() / 3);
}

TEST(ZstdCompressor, AnyLevelDecompressesAnyOther)
{
    const Bytes plain = textLike(30000, 33);
    zo::P<zo::CZstdCompressor> writer(new zo::CZstdCompressor(19));
    zo::P<zo::CZstdCompressor> reader(new zo::CZstdCompressor(1));
    EXPECT_EQ(decompressWith(*reader, compressWith(*writer, plain), plain.size()), plain);
}

} // namespace
