// The formats the compressors write and read, checked against streams made by
// the reference tools of each format.
#include "zo/Error.h"
#include "zo/LZ4Compressor.h"
#include "zo/LZMACompressor.h"
#include "zo/ZLibCompressor.h"
#include "zo/ZstdCompressor.h"

#include "CompressorTestData.h"

#include <gtest/gtest.h>
#include <lz4.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes fromHex(const std::string& hex)
{
    Bytes bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::string decompressToText(zo::ICompressor& compressor, const Bytes& packed, int capacity)
{
    std::string text(static_cast<size_t>(capacity), '\0');
    text.resize(static_cast<size_t>(
        compressor.decompress(packed.data(), static_cast<int>(packed.size()), text.data(), capacity)));
    return text;
}

TEST(ZLibCompressor, ReadsStandardZlibStream)
{
    // "hello brick" as zlib's compress() writes it at the default level.
    const Bytes packed = fromHex("789ccb48cdc9c957482aca4cce060019880440");
    zo::P<zo::CZLibCompressor> compressor(new zo::CZLibCompressor(-1));
    EXPECT_EQ(decompressToText(*compressor, packed, 100), "hello brick");
}

TEST(ZLibCompressor, WritesZlibHeaderAndAdlerTrailer)
{
    zo::P<zo::CZLibCompressor> compressor(new zo::CZLibCompressor(-1));
    Bytes packed(64);
    packed.resize(static_cast<size_t>(compressor->compress("hello brick", 11, packed.data(), 64)));
    EXPECT_EQ(packed, fromHex("789ccb48cdc9c957482aca4cce060019880440"));
}

TEST(LZ4Compressor, WritesSizeThenBlock)
{
    // Five bytes are too few to search for matches: one token (5 literals,
    // no match) and the literals, behind the original size.
    zo::P<zo::CLZ4Compressor> compressor(new zo::CLZ4Compressor(false));
    Bytes packed(64);
    packed.resize(static_cast<size_t>(compressor->compress("hello", 5, packed.data(), 64)));
    EXPECT_EQ(packed, fromHex("050000005068656c6c6f"));
}

TEST(LZ4Compressor, ReadsBlockWithMatch)
{
    // "abcabcabcabc...": literals "abc", then a match 3 back of length 9,
    // then the last 5 literals "abcab" the format requires.
    const Bytes packed = fromHex("11000000"
                                 "35"
                                 "616263"
                                 "0300"
                                 "50"
                                 "6162636162");
    zo::P<zo::CLZ4Compressor> compressor(new zo::CLZ4Compressor(true));
    EXPECT_EQ(decompressToText(*compressor, packed, 17), "abcabcabcabcabcab");
}

TEST(LZ4Compressor, RefusesBlockLongerOrShorterThanItsSize)
{
    zo::P<zo::CLZ4Compressor> compressor(new zo::CLZ4Compressor(false));
    char dst[64];
    // Size 4 for a block of 5 literals, and size 6 for the same block.
    const Bytes tooLong = fromHex("040000005068656c6c6f");
    const Bytes tooShort = fromHex("060000005068656c6c6f");
    EXPECT_THROW(compressor->decompress(tooLong.data(), static_cast<int>(tooLong.size()), dst, 64), zo::CError);
    EXPECT_THROW(compressor->decompress(tooShort.data(), static_cast<int>(tooShort.size()), dst, 64), zo::CError);
}

TEST(LZ4Compressor, RefusesSizeBeyondTheDestinationBeforeDecoding)
{
    zo::P<zo::CLZ4Compressor> compressor(new zo::CLZ4Compressor(false));
    const Bytes packed = fromHex("050000005068656c6c6f");
    std::string dst(8, '#');
    EXPECT_THROW(compressor->decompress(packed.data(), static_cast<int>(packed.size()), dst.data(), 4), zo::CError);
    EXPECT_EQ(dst, "########");
}

// The LZ4 block of `size` literals only: a token of 15 literals, the rest of
// the count in bytes of 255 and a last byte below 255, then the bytes.
Bytes literalBlock(const Bytes& plain)
{
    const size_t size = plain.size();
    Bytes block{static_cast<std::uint8_t>(size), static_cast<std::uint8_t>(size >> 8),
                static_cast<std::uint8_t>(size >> 16), static_cast<std::uint8_t>(size >> 24), 0xF0};
    block.insert(block.end(), (size - 15) / 255, 0xFF);
    block.push_back(static_cast<std::uint8_t>((size - 15) % 255));
    block.insert(block.end(), plain.begin(), plain.end());
    return block;
}

Bytes compressWith(zo::ICompressor& compressor, const Bytes& plain)
{
    Bytes packed(static_cast<size_t>(compressor.getMaxCompressedSize(static_cast<int>(plain.size()))));
    packed.resize(static_cast<size_t>(compressor.compress(plain.data(), static_cast<int>(plain.size()), packed.data(),
                                                          static_cast<int>(packed.size()))));
    return packed;
}

TEST(LZ4Compressor, HighCompressionWritesRandomBlocksAsLiteralsThatLZ4Decodes)
{
    zo::P<zo::CLZ4Compressor> compressor(new zo::CLZ4Compressor(true));
    // From the smallest block that is sampled up to a brick, with counts that
    // end on a byte of 0, of 254 and in between.
    for (const int size : {131072, 131085, 131084, 200000, compressortest::BrickSize}) {
        SCOPED_TRACE(size);
        const Bytes plain = compressortest::randomBytes(size, static_cast<unsigned>(size));
        const Bytes packed = compressWith(*compressor, plain);
        EXPECT_EQ(packed, literalBlock(plain));

        Bytes decoded(plain.size());
        EXPECT_EQ(LZ4_decompress_safe(reinterpret_cast<const char*>(packed.data()) + 4,
                                      reinterpret_cast<char*>(decoded.data()), static_cast<int>(packed.size()) - 4,
                                      size),
                  size);
        EXPECT_EQ(decoded, plain);
        Bytes restored(plain.size());
        EXPECT_EQ(compressor->decompress(packed.data(), static_cast<int>(packed.size()), restored.data(), size), size);
        EXPECT_EQ(restored, plain);
    }
}

TEST(LZ4Compressor, HighCompressionSearchesBlocksThatArePartlyCompressible)
{
    // Half random, half text: the sample sees both and the block shrinks.
    Bytes plain = compressortest::randomBytes(compressortest::BrickSize / 2, 5);
    const Bytes text = compressortest::textLike(compressortest::BrickSize / 2, 6);
    plain.insert(plain.end(), text.begin(), text.end());
    zo::P<zo::CLZ4Compressor> compressor(new zo::CLZ4Compressor(true));
    EXPECT_LT(compressWith(*compressor, plain).size(), plain.size() * 3 / 4);
}

TEST(LZ4Compressor, HighCompressionSearchesSmallBlocksWithoutSampling)
{
    // Below 128 KiB nothing is sampled: a random block repeated once is
    // found to repeat, which the literal form would not have seen.
    Bytes plain = compressortest::randomBytes(60000, 7);
    plain.insert(plain.end(), plain.begin(), plain.end());
    zo::P<zo::CLZ4Compressor> compressor(new zo::CLZ4Compressor(true));
    EXPECT_LT(compressWith(*compressor, plain).size(), 61000u);
}

TEST(LZMACompressor, ReadsStandardXZStream)
{
    // "hello brick" as xz writes it with its default CRC64 check.
    const Bytes packed = fromHex("fd377a585a000004e6d6b4460200210116000000742fe5a301000a68656c6c6f20627269636b000094dc"
                                 "260ee2187c910001230bc21bfd091fb6f37d010000000004595a");
    zo::P<zo::CLZMACompressor> compressor(new zo::CLZMACompressor(6, 0));
    EXPECT_EQ(decompressToText(*compressor, packed, 100), "hello brick");
}

TEST(LZMACompressor, WritesXZStreamWithCRC32Check)
{
    zo::P<zo::CLZMACompressor> compressor(new zo::CLZMACompressor(6, 0));
    Bytes packed(static_cast<size_t>(compressor->getMaxCompressedSize(11)));
    packed.resize(
        static_cast<size_t>(compressor->compress("hello brick", 11, packed.data(), static_cast<int>(packed.size()))));
    ASSERT_GE(packed.size(), 24u);
    // Stream header magic and flags (check type 1, CRC32), footer magic.
    EXPECT_EQ(Bytes(packed.begin(), packed.begin() + 8), fromHex("fd377a585a000001"));
    EXPECT_EQ(Bytes(packed.end() - 2, packed.end()), fromHex("595a"));
}

TEST(ZstdCompressor, ReadsFrameOfTheZstdTool)
{
    // "hello brick" as `zstd -3 --check` writes it from a file: the frame
    // records the size and ends with the content checksum.
    const Bytes packed = fromHex("28b52ffd240b59000068656c6c6f20627269636be423e5cf");
    zo::P<zo::CZstdCompressor> compressor(new zo::CZstdCompressor(1));
    EXPECT_EQ(decompressToText(*compressor, packed, 100), "hello brick");
}

TEST(ZstdCompressor, WritesFrameWithSizeAndContentChecksum)
{
    zo::P<zo::CZstdCompressor> compressor(new zo::CZstdCompressor(3));
    Bytes packed(static_cast<size_t>(compressor->getMaxCompressedSize(11)));
    packed.resize(
        static_cast<size_t>(compressor->compress("hello brick", 11, packed.data(), static_cast<int>(packed.size()))));
    EXPECT_EQ(packed, fromHex("28b52ffd240b59000068656c6c6f20627269636be423e5cf"));
}

TEST(ZstdCompressor, RefusesFrameWithoutItsSize)
{
    // The same frame as the zstd tool writes it from a pipe, without the size.
    const Bytes packed = fromHex("28b52ffd045859000068656c6c6f20627269636be423e5cf");
    zo::P<zo::CZstdCompressor> compressor(new zo::CZstdCompressor(3));
    char dst[100];
    EXPECT_THROW(compressor->decompress(packed.data(), static_cast<int>(packed.size()), dst, 100), zo::CError);
}

TEST(ZstdCompressor, RefusesSecondFrameAfterTheFirst)
{
    Bytes packed = fromHex("28b52ffd240b59000068656c6c6f20627269636be423e5cf");
    const Bytes frame = packed;
    packed.insert(packed.end(), frame.begin(), frame.end());
    zo::P<zo::CZstdCompressor> compressor(new zo::CZstdCompressor(3));
    char dst[100];
    EXPECT_THROW(compressor->decompress(packed.data(), static_cast<int>(packed.size()), dst, 100), zo::CError);
}

TEST(ZstdCompressor, RefusesSizeBeyondTheDestinationBeforeDecoding)
{
    const Bytes packed = fromHex("28b52ffd240b59000068656c6c6f20627269636be423e5cf");
    zo::P<zo::CZstdCompressor> compressor(new zo::CZstdCompressor(3));
    std::string dst(12, '#');
    EXPECT_THROW(compressor->decompress(packed.data(), static_cast<int>(packed.size()), dst.data(), 10), zo::CError);
    EXPECT_EQ(dst, "############");
}

Bytes decompressWith(zo::ICompressor& compressor, const Bytes& packed, size_t size)
{
    Bytes restored(size);
    restored.resize(static_cast<size_t>(compressor.decompress(packed.data(), static_cast<int>(packed.size()),
                                                              restored.data(), static_cast<int>(size))));
    return restored;
}

TEST(ZstdCompressor, CompressesBlocksThatGainLittleAtLevelOne)
{
    // Hexadecimal digits: LZ4's sample finds no matches, yet zstd's entropy
    // coding halves them, at level 1 as at level 9.
    const Bytes plain = compressortest::hexDigits(compressortest::BrickSize, 11);
    zo::P<zo::CZstdCompressor> levelOne(new zo::CZstdCompressor(1));
    zo::P<zo::CZstdCompressor> levelNine(new zo::CZstdCompressor(9));
    const Bytes packed = compressWith(*levelNine, plain);
    EXPECT_EQ(packed, compressWith(*levelOne, plain));
    EXPECT_LT(packed.size(), plain.size() * 55 / 100);
    EXPECT_EQ(decompressWith(*levelOne, packed, plain.size()), plain);
}

TEST(ZstdCompressor, KeepsItsLevelForBlocksThatCompress)
{
    const Bytes plain = compressortest::textLike(compressortest::BrickSize, 12);
    zo::P<zo::CZstdCompressor> levelOne(new zo::CZstdCompressor(1));
    zo::P<zo::CZstdCompressor> levelNine(new zo::CZstdCompressor(9));
    const Bytes packed = compressWith(*levelNine, plain);
    EXPECT_LT(packed.size(), compressWith(*levelOne, plain).size());
    EXPECT_EQ(decompressWith(*levelOne, packed, plain.size()), plain);
}

TEST(ZstdCompressor, FindsRepeatsAnywhereInABlockThatGainsLittle)
{
    // 2 MiB of random bytes twice: the repeat lies as far back as level 3's
    // own window reaches, and the quick level's window spans the block.
    Bytes plain = compressortest::randomBytes(2 * 1024 * 1024, 13);
    plain.insert(plain.end(), plain.begin(), plain.end());
    zo::P<zo::CZstdCompressor> compressor(new zo::CZstdCompressor(3));
    const Bytes packed = compressWith(*compressor, plain);
    EXPECT_LT(packed.size(), plain.size() * 51 / 100);
    EXPECT_EQ(decompressWith(*compressor, packed, plain.size()), plain);
}

} // namespace
