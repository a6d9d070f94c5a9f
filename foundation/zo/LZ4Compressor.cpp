#include "zo/LZ4Compressor.h"

#include "zo/Error.h"
#include "zo/detail/CompressibilitySample.h"

#include <lz4.h>
#include <lz4hc.h>

#include <climits>
#include <cstring>

namespace zo {

namespace {

constexpr int SizePrefixBytes = 4;

// A block whose sample shrinks by less than one part in IncompressibleGainDivisor
// is written as literals, without the high-compression search.
constexpr int IncompressibleGainDivisor = 32;

void checkBuffers(const char* where, const void* src, int srcSize, const void* dst, int dstCapacity)
{
    if (srcSize < 0 || dstCapacity < 0 || (srcSize > 0 && !src) || (dstCapacity > 0 && !dst))
        throw CInvalidArgError(where, "Invalid buffer.", CProps().add("size", srcSize).add("capacity", dstCapacity));
}

void writeSizePrefix(uint8* dst, uint32 size)
{
    for (int i = 0; i < SizePrefixBytes; ++i)
        dst[i] = static_cast<uint8>(size >> (8 * i));
}

uint32 readSizePrefix(const uint8* src)
{
    uint32 size = 0;
    for (int i = 0; i < SizePrefixBytes; ++i)
        size |= static_cast<uint32>(src[i]) << (8 * i);
    return size;
}

// Writes `size` bytes as one LZ4 block of literals only, which every LZ4
// decoder restores: a token with the literal count (15 and more continue in
// bytes of 255 and a last byte below 255), then the bytes. Returns the
// block's size, or 0 when it does not fit into `capacity` bytes.
int writeLiteralBlock(const uint8* src, int size, uint8* dst, int capacity)
{
    const int countBytes = size < 15 ? 0 : (size - 15) / 255 + 1;
    if (size > capacity - 1 - countBytes)
        return 0;
    uint8* out = dst;
    *out++ = static_cast<uint8>((size < 15 ? size : 15) << 4);
    if (size >= 15) {
        int rest = size - 15;
        for (; rest >= 255; rest -= 255)
            *out++ = 255;
        *out++ = static_cast<uint8>(rest);
    }
    std::memcpy(out, src, static_cast<size_t>(size));
    return 1 + countBytes + size;
}

CError damagedBlock(const char* reason)
{
    return CError("Compressed data is damaged or truncated.", String(), -1,
                  CProps().add("compressor", "lz4").add("reason", reason));
}

} // namespace

CLZ4Compressor::CLZ4Compressor(bool highCompression) : m_highCompression(highCompression)
{}

void* CLZ4Compressor::getState(std::vector<uint64>& state, int bytes)
{
    if (state.empty())
        state.resize((static_cast<size_t>(bytes) + sizeof(uint64) - 1) / sizeof(uint64));
    return state.data();
}

bool CLZ4Compressor::looksIncompressible(const uint8* src, int srcSize)
{
    // The fast compressor is not asked: it skips ahead ever faster where it
    // finds no match, which costs less than the sample would.
    return m_highCompression &&
        detail::sampleGainsLessThan(src, srcSize, IncompressibleGainDivisor, m_sampleState, m_sample);
}

int CLZ4Compressor::getMaxCompressedSize(int sourceSize)
{
    const int bound = LZ4_compressBound(sourceSize);
    if (sourceSize < 0 || bound <= 0 || bound > INT_MAX - SizePrefixBytes)
        throw CInvalidArgError("CLZ4Compressor::getMaxCompressedSize",
                               "Invalid source size: " + toDecimalString(sourceSize));
    return SizePrefixBytes + bound;
}

int CLZ4Compressor::compress(const void* src, int srcSize, void* dst, int dstCapacity)
{
    checkBuffers("CLZ4Compressor::compress", src, srcSize, dst, dstCapacity);
    if (srcSize > LZ4_MAX_INPUT_SIZE)
        throw CInvalidArgError("CLZ4Compressor::compress", "Source too large: " + toDecimalString(srcSize));
    if (dstCapacity <= SizePrefixBytes)
        throw CError("Compressed data does not fit into the destination buffer.", String(), -1,
                     CProps().add("compressor", "lz4").add("capacity", dstCapacity));

    auto* const out = static_cast<uint8*>(dst);
    const auto* const in = static_cast<const char*>(src);
    char* const block = reinterpret_cast<char*>(out + SizePrefixBytes);
    const int blockCapacity = dstCapacity - SizePrefixBytes;
    int blockSize = 0;
    if (looksIncompressible(static_cast<const uint8*>(src), srcSize))
        blockSize = writeLiteralBlock(static_cast<const uint8*>(src), srcSize, out + SizePrefixBytes, blockCapacity);
    else if (m_highCompression)
        blockSize = LZ4_compress_HC_extStateHC(getState(m_highState, LZ4_sizeofStateHC()), in, block, srcSize,
                                               blockCapacity, LZ4HC_CLEVEL_DEFAULT);
    else
        blockSize =
            LZ4_compress_fast_extState(getState(m_fastState, LZ4_sizeofState()), in, block, srcSize, blockCapacity, 1);
    if (blockSize <= 0)
        throw CError("Compressed data does not fit into the destination buffer.", String(), -1,
                     CProps().add("compressor", "lz4").add("capacity", dstCapacity));
    writeSizePrefix(out, static_cast<uint32>(srcSize));
    return SizePrefixBytes + blockSize;
}

int CLZ4Compressor::decompress(const void* src, int srcSize, void* dst, int dstCapacity)
{
    checkBuffers("CLZ4Compressor::decompress", src, srcSize, dst, dstCapacity);
    // Every block holds at least its final token.
    if (srcSize <= SizePrefixBytes)
        throw damagedBlock("too short");
    const auto* const in = static_cast<const uint8*>(src);
    const uint32 originalSize = readSizePrefix(in);
    if (originalSize > static_cast<uint32>(INT_MAX))
        throw damagedBlock("impossible size");
    if (originalSize > static_cast<uint32>(dstCapacity))
        throw CError("Decompressed data does not fit into the destination buffer.", String(), -1,
                     CProps()
                         .add("compressor", "lz4")
                         .add("size", static_cast<int64>(originalSize))
                         .add("capacity", dstCapacity));

    // Decoding stops at the original size, so nothing lands past it even when
    // the block is damaged.
    const int decoded =
        LZ4_decompress_safe(reinterpret_cast<const char*>(in + SizePrefixBytes), static_cast<char*>(dst),
                            srcSize - SizePrefixBytes, static_cast<int>(originalSize));
    if (decoded < 0)
        throw damagedBlock("malformed block");
    if (decoded != static_cast<int>(originalSize))
        throw damagedBlock("size mismatch");
    return decoded;
}

} // namespace zo
