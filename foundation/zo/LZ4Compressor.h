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
// In high-compression mode, a block of 128 KiB or more whose sample (eight
// pieces of 4 KiB spread over it, each compressed alone by the fast
// compressor) shrinks by less than 1/32 is written as one LZ4 block of
// literals only, without searching it for matches: any LZ4 decoder reads it,
// and it costs about a copy of the block, where the high-compression search
// of random bytes is hundreds of times slower.
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
    // `state` sized to `bytes` on first use; LZ4 wants its state aligned like
    // a pointer.
    static void* getState(std::vector<uint64>& state, int bytes);
    // Whether the sample of the block says that compressing it gains nothing.
    bool looksIncompressible(const uint8* src, int srcSize);

    bool m_highCompression;
    std::vector<uint64> m_fastState;
    std::vector<uint64> m_highState;
    std::vector<uint64> m_sampleState;
    std::vector<uint8> m_sample;
};

} // namespace zo
