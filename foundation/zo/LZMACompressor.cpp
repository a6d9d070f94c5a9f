#include "zo/LZMACompressor.h"

#include "zo/Error.h"

#include <lzma.h>

#include <algorithm>
#include <climits>

namespace zo {

namespace {

constexpr uint64 DecoderBaseMemoryLimit = 64ull << 20;

void checkBuffers(const char* where, const void* src, int srcSize, const void* dst, int dstCapacity)
{
    if (srcSize < 0 || dstCapacity < 0 || (srcSize > 0 && !src) || (dstCapacity > 0 && !dst))
        throw CInvalidArgError(where, "Invalid buffer.", CProps().add("size", srcSize).add("capacity", dstCapacity));
}

CProps lzmaProps(lzma_ret result)
{
    return CProps().add("compressor", "lzma").add("lzmaResult", static_cast<int>(result));
}

} // namespace

// The LZMA2 settings of the preset, computed once.
struct CLZMACompressor::Options {
    lzma_options_lzma lzma{};
};

CLZMACompressor::CLZMACompressor(int preset, int extreme)
    : m_preset(preset), m_extreme(extreme != 0), m_options(std::make_unique<Options>())
{
    if (preset < 0 || preset > 9)
        throw CInvalidArgError("CLZMACompressor::CLZMACompressor", "Invalid LZMA preset: " + toDecimalString(preset));
    const uint32_t flags = static_cast<uint32_t>(preset) | (m_extreme ? LZMA_PRESET_EXTREME : 0);
    if (lzma_lzma_preset(&m_options->lzma, flags))
        throw CError("liblzma does not support the preset.", String(), -1,
                     CProps().add("compressor", "lzma").add("preset", preset).add("extreme", extreme));
}

CLZMACompressor::~CLZMACompressor() = default;

int CLZMACompressor::getMaxCompressedSize(int sourceSize)
{
    if (sourceSize < 0)
        throw CInvalidArgError("CLZMACompressor::getMaxCompressedSize",
                               "Negative source size: " + toDecimalString(sourceSize));
    const size_t bound = lzma_stream_buffer_bound(static_cast<size_t>(sourceSize));
    if (bound == 0 || bound > static_cast<size_t>(INT_MAX))
        throw CInvalidArgError("CLZMACompressor::getMaxCompressedSize",
                               "Source too large: " + toDecimalString(sourceSize));
    return static_cast<int>(bound);
}

int CLZMACompressor::compress(const void* src, int srcSize, void* dst, int dstCapacity)
{
    checkBuffers("CLZMACompressor::compress", src, srcSize, dst, dstCapacity);
    lzma_options_lzma options = m_options->lzma;
    options.dict_size = std::clamp(static_cast<uint32_t>(srcSize), static_cast<uint32_t>(LZMA_DICT_SIZE_MIN),
                                   std::max(options.dict_size, static_cast<uint32_t>(LZMA_DICT_SIZE_MIN)));
    const lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};

    // liblzma refuses null buffers even when they are empty.
    const uint8_t noInput = 0;
    uint8_t noOutput;
    size_t written = 0;
    const lzma_ret result = lzma_stream_buffer_encode(
        const_cast<lzma_filter*>(filters), LZMA_CHECK_CRC32, nullptr,
        srcSize > 0 ? static_cast<const uint8_t*>(src) : &noInput, static_cast<size_t>(srcSize),
        dstCapacity > 0 ? static_cast<uint8_t*>(dst) : &noOutput, &written, static_cast<size_t>(dstCapacity));
    if (result == LZMA_OK)
        return static_cast<int>(written);
    if (result == LZMA_BUF_ERROR)
        throw CError("Compressed data does not fit into the destination buffer.", String(), -1,
                     CProps().add("compressor", "lzma").add("capacity", dstCapacity));
    throw CError("LZMA compression failed.", String(), -1, lzmaProps(result));
}

int CLZMACompressor::decompress(const void* src, int srcSize, void* dst, int dstCapacity)
{
    checkBuffers("CLZMACompressor::decompress", src, srcSize, dst, dstCapacity);
    uint64_t memoryLimit = DecoderBaseMemoryLimit + static_cast<uint64>(dstCapacity);
    uint8_t noOutput;
    size_t read = 0;
    size_t written = 0;
    const lzma_ret result = lzma_stream_buffer_decode(
        &memoryLimit, 0, nullptr, static_cast<const uint8_t*>(src), &read, static_cast<size_t>(srcSize),
        dstCapacity > 0 ? static_cast<uint8_t*>(dst) : &noOutput, &written, static_cast<size_t>(dstCapacity));
    if (result == LZMA_OK && read == static_cast<size_t>(srcSize))
        return static_cast<int>(written);
    if (result == LZMA_BUF_ERROR && written == static_cast<size_t>(dstCapacity) && read < static_cast<size_t>(srcSize))
        throw CError("Decompressed data does not fit into the destination buffer.", String(), -1,
                     CProps().add("compressor", "lzma").add("capacity", dstCapacity));
    if (result == LZMA_MEMLIMIT_ERROR)
        throw CError("Compressed data needs too much memory to decompress.", String(), -1,
                     lzmaProps(result).add("memoryNeeded", static_cast<int64>(memoryLimit)));
    throw CError("Compressed data is damaged or truncated.", String(), -1, lzmaProps(result));
}

} // namespace zo
