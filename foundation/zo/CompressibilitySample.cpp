#include "zo/detail/CompressibilitySample.h"

#include <lz4.h>

namespace zo::detail {

namespace {

constexpr int SamplePieceBytes = 4096;
constexpr int SampleCount = 8;
static_assert(kSampledBlockBytes >= SampleCount * SamplePieceBytes);

} // namespace

bool sampleGainsLessThan(const uint8* block, int blockSize, int gainDivisor, std::vector<uint64>& state,
                         std::vector<uint8>& scratch)
{
    if (blockSize < kSampledBlockBytes)
        return false;
    // LZ4 wants its state aligned like a pointer, which 64-bit words are.
    if (state.empty())
        state.resize((static_cast<size_t>(LZ4_sizeofState()) + sizeof(uint64) - 1) / sizeof(uint64));
    scratch.resize(static_cast<size_t>(LZ4_compressBound(SamplePieceBytes)));
    const int64 stride = (blockSize - SamplePieceBytes) / (SampleCount - 1);
    int64 sampled = 0;
    for (int i = 0; i < SampleCount; ++i) {
        const char* const piece = reinterpret_cast<const char*>(block + i * stride);
        sampled += LZ4_compress_fast_extState(state.data(), piece, reinterpret_cast<char*>(scratch.data()),
                                              SamplePieceBytes, static_cast<int>(scratch.size()), 1);
    }
    const int64 sampleBytes = int64(SampleCount) * SamplePieceBytes;
    return sampled > sampleBytes - sampleBytes / gainDivisor;
}

} // namespace zo::detail
