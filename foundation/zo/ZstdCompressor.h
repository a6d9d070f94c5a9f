// CZstdCompressor: Zstandard frames, one per block.
#pragma once

#include "zo/Compressor.h"
#include "zo/Export.h"

#include <memory>

namespace zo {

// Compresses each block into one complete zstd frame that records the
// original size and ends with zstd's content checksum, the format that the
// `zstd` tool reads. Damaged data is refused rather than decoded to wrong
// bytes, except in the unlikely case that the damage also matches the
// checksum.
//
// A block of 128 KiB or more whose sample (eight pieces of 4 KiB spread over
// it, each compressed alone by LZ4's fast compressor) shrinks by less than
// 1/10 is compressed at level 1, with a window as large as the block, whatever
// the compressor's level: on such blocks the higher levels are several times
// slower and end no smaller. Any zstd decoder reads either frame.
//
// The compression and decompression contexts are created on first use and
// kept, so a steady stream of blocks allocates nothing. What the compression
// context holds grows with the level and the block: about 1.3 MiB at level 3,
// 6.5 MiB at level 9 with 512 KiB blocks and 50 MiB at level 19 with 4 MiB
// blocks (libzstd 1.5.4). Used by one thread at a time.
class BRICKDISK_EXPORT CZstdCompressor : public CBase, public ICompressor {
public:
    // The levels a compressor accepts: kMinLevel (fastest) to kMaxLevel
    // (smallest, and slow).
    static constexpr int kMinLevel = 1;
    static constexpr int kMaxLevel = 19;

    // Throws CInvalidArgError for a level outside kMinLevel to kMaxLevel.
    explicit CZstdCompressor(int level);
    ~CZstdCompressor() override;
    CZstdCompressor(const CZstdCompressor&) = delete;
    CZstdCompressor& operator=(const CZstdCompressor&) = delete;

    int getLevel() const { return m_level; }

    // Throws CInvalidArgError on a negative size or one whose bound would not
    // fit an int.
    int getMaxCompressedSize(int sourceSize) override;
    // Throws CInvalidArgError on bad arguments, CError when the frame does
    // not fit into `dstCapacity` bytes.
    int compress(const void* src, int srcSize, void* dst, int dstCapacity) override;
    // Throws CInvalidArgError on bad arguments, CError when the data is not
    // exactly one frame, is damaged or truncated, or when its original size
    // exceeds `dstCapacity`.
    int decompress(const void* src, int srcSize, void* dst, int dstCapacity) override;

private:
    struct Contexts;

    int m_level;
    std::unique_ptr<Contexts> m_contexts;
};

} // namespace zo
