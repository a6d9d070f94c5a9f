// CNullCompressor: the compressor that leaves data as it is.
#pragma once

#include "zo/Compressor.h"
#include "zo/Export.h"

namespace zo {

// Copies blocks unchanged both ways. A copy carries neither its size nor a
// check, so decompress cannot tell a truncated or damaged block from a good
// one: it copies whatever it is given. Used by one thread at a time.
class BRICKDISK_EXPORT CNullCompressor : public CBase, public ICompressor {
public:
    CNullCompressor() = default;

    // `sourceSize` itself. Throws CInvalidArgError when it is negative.
    int getMaxCompressedSize(int sourceSize) override;
    // Copies `src` to `dst`. Throws CInvalidArgError on negative sizes or a
    // null buffer of non-zero size, and CError when `srcSize` exceeds
    // `dstCapacity`.
    int compress(const void* src, int srcSize, void* dst, int dstCapacity) override;
    // Same as compress.
    int decompress(const void* src, int srcSize, void* dst, int dstCapacity) override;
};

} // namespace zo
