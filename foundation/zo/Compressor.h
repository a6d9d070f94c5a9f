// ICompressor: one block in, one block out. Implementations: CNullCompressor,
// CZLibCompressor, CLZ4Compressor, CLZMACompressor, CZstdCompressor. A
// compressor object keeps no state between calls that a caller can see, but
// is used by one thread at a time.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"

namespace zo {

class BRICKDISK_EXPORT ICompressor : public virtual IBase {
public:
    // The most bytes compress() can write for `sourceSize` bytes of input.
    virtual int getMaxCompressedSize(int sourceSize) = 0;
    // Compresses `srcSize` bytes into `dst` (room for `dstCapacity` bytes);
    // returns the bytes written. Throws CError when they do not fit.
    virtual int compress(const void* src, int srcSize, void* dst, int dstCapacity) = 0;
    // Restores compressed data into `dst`; returns the bytes written. Damaged
    // or truncated data, or data that would not fit into `dstCapacity` bytes,
    // throw CError; nothing is ever written past `dst + dstCapacity`.
    virtual int decompress(const void* src, int srcSize, void* dst, int dstCapacity) = 0;
};

} // namespace zo
