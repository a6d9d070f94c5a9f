// CZLibCompressor: deflate in the zlib format (RFC 1950), which carries an
// Adler-32 check of the data.
#pragma once

#include "zo/Compressor.h"
#include "zo/Export.h"

#include <memory>

namespace zo {

// Compresses each block into one complete zlib stream, the same format that
// zlib's compress2 writes. The deflate and inflate states are built on first
// use and then reset for every block, so a steady stream of blocks allocates
// nothing. Used by one thread at a time.
class BRICKDISK_EXPORT CZLibCompressor : public CBase, public ICompressor {
public:
    // `level` 0 (store only) to 9 (smallest), or -1 for zlib's default.
    // Throws CInvalidArgError for any other value.
    explicit CZLibCompressor(int level);
    ~CZLibCompressor() override;
    CZLibCompressor(const CZLibCompressor&) = delete;
    CZLibCompressor& operator=(const CZLibCompressor&) = delete;

    int getLevel() const { return m_level; }

    // Throws CInvalidArgError on a negative size or one whose bound would not
    // fit an int.
    int getMaxCompressedSize(int sourceSize) override;
    // Throws CInvalidArgError on bad arguments, CError when the stream does
    // not fit into `dstCapacity` bytes.
    int compress(const void* src, int srcSize, void* dst, int dstCapacity) override;
    // Throws CInvalidArgError on bad arguments, CError when the data is
    // damaged, truncated or followed by other bytes, or when it does not fit
    // into `dstCapacity` bytes.
    int decompress(const void* src, int srcSize, void* dst, int dstCapacity) override;

private:
    struct Streams;

    int m_level;
    std::unique_ptr<Streams> m_streams;
};

} // namespace zo
