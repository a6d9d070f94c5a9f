#include "zo/ZLibCompressor.h"

#include "zo/Error.h"

#include <zlib.h>

#include <climits>

namespace zo {

namespace {

void checkBuffers(const char* where, const void* src, int srcSize, const void* dst, int dstCapacity)
{
    if (srcSize < 0 || dstCapacity < 0 || (srcSize > 0 && !src) || (dstCapacity > 0 && !dst))
        throw CInvalidArgError(where, "Invalid buffer.", CProps().add("size", srcSize).add("capacity", dstCapacity));
}

CProps zlibProps(const z_stream& stream, int result)
{
    CProps props;
    props.add("compressor", "zlib").add("zlibResult", result);
    if (stream.msg)
        props.add("zlibMessage", String(stream.msg));
    return props;
}

} // namespace

struct CZLibCompressor::Streams {
    z_stream deflater{};
    z_stream inflater{};
    bool deflaterReady = false;
    bool inflaterReady = false;

    Streams() = default;
    Streams(const Streams&) = delete;
    Streams& operator=(const Streams&) = delete;
    ~Streams()
    {
        if (deflaterReady)
            deflateEnd(&deflater);
        if (inflaterReady)
            inflateEnd(&inflater);
    }
};

CZLibCompressor::CZLibCompressor(int level) : m_level(level), m_streams(std::make_unique<Streams>())
{
    if (level < Z_DEFAULT_COMPRESSION || level > Z_BEST_COMPRESSION)
        throw CInvalidArgError("CZLibCompressor::CZLibCompressor",
                               "Invalid zlib compression level: " + toDecimalString(level));
}

CZLibCompressor::~CZLibCompressor() = default;

int CZLibCompressor::getMaxCompressedSize(int sourceSize)
{
    if (sourceSize < 0)
        throw CInvalidArgError("CZLibCompressor::getMaxCompressedSize",
                               "Negative source size: " + toDecimalString(sourceSize));
    const uLong bound = compressBound(static_cast<uLong>(sourceSize));
    if (bound > static_cast<uLong>(INT_MAX))
        throw CInvalidArgError("CZLibCompressor::getMaxCompressedSize",
                               "Source too large: " + toDecimalString(sourceSize));
    return static_cast<int>(bound);
}

int CZLibCompressor::compress(const void* src, int srcSize, void* dst, int dstCapacity)
{
    checkBuffers("CZLibCompressor::compress", src, srcSize, dst, dstCapacity);
    z_stream& stream = m_streams->deflater;
    if (!m_streams->deflaterReady) {
        const int result = deflateInit(&stream, m_level);
        if (result != Z_OK)
            throw CError("zlib compression could not start.", String(), -1, zlibProps(stream, result));
        m_streams->deflaterReady = true;
    } else if (const int result = deflateReset(&stream); result != Z_OK) {
        throw CError("zlib compression could not restart.", String(), -1, zlibProps(stream, result));
    }

    // zlib refuses a null output pointer even when there is no room at all.
    Bytef noOutput;
    stream.next_in = static_cast<Bytef*>(const_cast<void*>(src));
    stream.avail_in = static_cast<uInt>(srcSize);
    stream.next_out = dstCapacity > 0 ? static_cast<Bytef*>(dst) : &noOutput;
    stream.avail_out = static_cast<uInt>(dstCapacity);
    const int result = deflate(&stream, Z_FINISH);
    if (result == Z_STREAM_END)
        return static_cast<int>(stream.total_out);
    if (result == Z_OK || result == Z_BUF_ERROR)
        throw CError("Compressed data does not fit into the destination buffer.", String(), -1,
                     CProps().add("compressor", "zlib").add("capacity", dstCapacity));
    throw CError("zlib compression failed.", String(), -1, zlibProps(stream, result));
}

int CZLibCompressor::decompress(const void* src, int srcSize, void* dst, int dstCapacity)
{
    checkBuffers("CZLibCompressor::decompress", src, srcSize, dst, dstCapacity);
    z_stream& stream = m_streams->inflater;
    if (!m_streams->inflaterReady) {
        const int result = inflateInit(&stream);
        if (result != Z_OK)
            throw CError("zlib decompression could not start.", String(), -1, zlibProps(stream, result));
        m_streams->inflaterReady = true;
    } else if (const int result = inflateReset(&stream); result != Z_OK) {
        throw CError("zlib decompression could not restart.", String(), -1, zlibProps(stream, result));
    }

    Bytef noOutput;
    stream.next_in = static_cast<Bytef*>(const_cast<void*>(src));
    stream.avail_in = static_cast<uInt>(srcSize);
    stream.next_out = dstCapacity > 0 ? static_cast<Bytef*>(dst) : &noOutput;
    stream.avail_out = static_cast<uInt>(dstCapacity);
    const int result = inflate(&stream, Z_FINISH);
    if (result == Z_STREAM_END && stream.avail_in == 0)
        return static_cast<int>(stream.total_out);
    if (result == Z_BUF_ERROR && stream.avail_out == 0 && stream.avail_in > 0)
        throw CError("Decompressed data does not fit into the destination buffer.", String(), -1,
                     CProps().add("compressor", "zlib").add("capacity", dstCapacity));
    throw CError("Compressed data is damaged or truncated.", String(), -1, zlibProps(stream, result));
}

} // namespace zo
