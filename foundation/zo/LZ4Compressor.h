// CLZ4Compressor: LZ4 blocks, fast or high-compression.
#pragma once

#include "zo/Compressor.h"
#include "zo/Export.h"

#include <vector>

namespace zo {

// A compressed block is the original size (4 bytes, little-endian) followed
// by one LZ4 block. LZ4 blocks carry no check, so a damaged block may
// decompress to wrong bytes of the right size; what the size prefix adds is
// that a truncated block, or one that decodes to another length, is refused.
//
// The compressor's working state is allocated on first use and kept, so a
// steady stream of blocks allocates nothing. Used by one thread at a time.
class BRICKDISK_EXPORT CLZ4Compressor : public CBase, public ICompressor {
public:
    // `highCompression` false: LZ4's fast compressor; true: LZ4 HC at its
    // default level (9), slower to compress, smaller, as fast to decompress.
    // Both write the same format.
    explicit CLZ4Compressor(bool highCompression);

    bool isHighCompression() const { return m_highCompression; }

    // Throws CInvalidArgError on a negative size or one beyond LZ4's limit.
    int getMaxCompressedSize(int sourceSize) override;
    // Throws CInvalidArgError on bad arguments, CError when the block does
    // not fit into `dstCapacity` bytes.
    int compress(const void* src, int srcSize, void* dst, int dstCapacity) override;
    // Throws CInvalidArgError on bad arguments, CError when the block is
    // truncated or malformed, or its original size exceeds `dstCapacity`.
    int decompress(const void* src, int srcSize, void* dst, int dstCapacity) override;

private:
    // LZ4 wants its state aligned like a pointer.
    void* getState();

    bool m_highCompression;
    std::vector<uint64> m_state;
};

} // namespace zo
