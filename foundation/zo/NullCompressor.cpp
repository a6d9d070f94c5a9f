#include "zo/NullCompressor.h"

#include "zo/Error.h"

#include <cstring>

namespace zo {

namespace {

int copyBlock(const char* where, const void* src, int srcSize, void* dst, int dstCapacity)
{
    if (srcSize < 0 || dstCapacity < 0 || (srcSize > 0 && !src) || (dstCapacity > 0 && !dst))
        throw CInvalidArgError(where, "Invalid buffer.", CProps().add("size", srcSize).add("capacity", dstCapacity));
    if (srcSize > dstCapacity)
        throw CError("Data does not fit into the destination buffer.", String(), -1,
                     CProps().add("compressor", "null").add("size", srcSize).add("capacity", dstCapacity));
    if (srcSize > 0)
        std::memcpy(dst, src, static_cast<size_t>(srcSize));
    return srcSize;
}

} // namespace

int CNullCompressor::getMaxCompressedSize(int sourceSize)
{
    if (sourceSize < 0)
        throw CInvalidArgError("CNullCompressor::getMaxCompressedSize",
                               "Negative source size: " + toDecimalString(sourceSize));
    return sourceSize;
}

int CNullCompressor::compress(const void* src, int srcSize, void* dst, int dstCapacity)
{
    return copyBlock("CNullCompressor::compress", src, srcSize, dst, dstCapacity);
}

int CNullCompressor::decompress(const void* src, int srcSize, void* dst, int dstCapacity)
{
    return copyBlock("CNullCompressor::decompress", src, srcSize, dst, dstCapacity);
}

} // namespace zo
