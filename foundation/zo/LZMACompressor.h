// CLZMACompressor: LZMA2 in the .xz container, which carries a CRC32 of the
// data.
#pragma once

#include "zo/Compressor.h"
#include "zo/Export.h"

#include <memory>

namespace zo {

// Compresses each block into one complete .xz stream (LZMA2, CRC32 check).
// The dictionary is never larger than the block itself (and at least 4 KiB):
// a larger one cannot find more matches, and it would make both compressing
// and decompressing reserve memory for nothing.
//
// Decompressing refuses any stream whose decoder would need more than
// 64 MiB plus the destination capacity of memory. Used by one thread at a
// time.
class BRICKDISK_EXPORT CLZMACompressor : public CBase, public ICompressor {
public:
    // `preset` 0 (fastest) to 9 (smallest), the levels of xz's -0 to -9.
    // `extreme` other than 0 adds LZMA_PRESET_EXTREME (xz's --extreme):
    // slower compression for a slightly smaller result; decompression is
    // unaffected. Throws CInvalidArgError on a preset outside 0 to 9.
    CLZMACompressor(int preset, int extreme);
    ~CLZMACompressor() override;
    CLZMACompressor(const CLZMACompressor&) = delete;
    CLZMACompressor& operator=(const CLZMACompressor&) = delete;

    int getPreset() const { return m_preset; }
    bool isExtreme() const { return m_extreme; }

    // Throws CInvalidArgError on a negative size or one whose bound would not
    // fit an int.
    int getMaxCompressedSize(int sourceSize) override;
    // Throws CInvalidArgError on bad arguments, CError when the stream does
    // not fit into `dstCapacity` bytes or liblzma fails.
    int compress(const void* src, int srcSize, void* dst, int dstCapacity) override;
    // Throws CInvalidArgError on bad arguments, CError when the stream is
    // damaged, truncated or followed by other bytes, needs too much memory, or
    // does not fit into `dstCapacity` bytes.
    int decompress(const void* src, int srcSize, void* dst, int dstCapacity) override;

private:
    struct Options;

    int m_preset;
    bool m_extreme;
    std::unique_ptr<Options> m_options;
};

} // namespace zo
