#include "zo/LZ4Compressor.h"

#include "zo/Error.h"

#include <lz4.h>
#include <lz4hc.h>

#include <climits>

namespace zo {

namespace {

constexpr int SizePrefixBytes = 4;

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

CError damagedBlock(const char* reason)
{
    return CError("Compressed data is damaged or truncated.", String(), -1,
                  CProps().add("compressor", "lz4").add("reason", reason));
}

} // namespace

CLZ4Compressor::CLZ4Compressor(bool highCompression) : m_highCompression(highCompression) {}

void* CLZ4Compressor::getState()
{
    if (m_state.empty()) {
        const int bytes = m_highCompression ? LZ4_sizeofStateHC() : LZ4_sizeofState();
        m_state.resize((static_cast<size_t>(bytes) + sizeof(uint64) - 1) / sizeof(uint64));
    }
    return m_state.data();
}

int CLZ4Compressor::getMaxCompressedSize(int sourceSize)
{
    const int bound = LZ4_compressBound(sourceSize);
    if (sourceSize < 0 || bound <= 0 || bound > INT_MAX - SizePrefixBytes)
        throw CInvalidArgError("CLZ4Compressor::getMaxCompressedSize", "Invalid source size: " + toDecimalString(sourceSize));
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
    const int blockSize = m_highCompression
        ? LZ4_compress_HC_extStateHC(getState(), in, block, srcSize, blockCapacity, LZ4HC_CLEVEL_DEFAULT)
        : LZ4_compress_fast_extState(getState(), in, block, srcSize, blockCapacity, 1);
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
                     CProps().add("compressor", "lz4").add("size", static_cast<int64>(originalSize)).add("capacity", dstCapacity));

    // Decoding stops at the original size, so nothing lands past it even when
    // the block is damaged.
    const int decoded = LZ4_decompress_safe(reinterpret_cast<const char*>(in + SizePrefixBytes), static_cast<char*>(dst),
                                            srcSize - SizePrefixBytes, static_cast<int>(originalSize));
    if (decoded < 0)
        throw damagedBlock("malformed block");
    if (decoded != static_cast<int>(originalSize))
        throw damagedBlock("size mismatch");
    return decoded;
}

} // namespace zo
