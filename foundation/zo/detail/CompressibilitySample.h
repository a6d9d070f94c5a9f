// A quick judgement of whether a block is worth a compressor's full search.
#pragma once

#include "zo/Base.h"

#include <vector>

namespace zo::detail {

// Blocks smaller than this are never judged from a sample: compressing them
// costs little more than sampling would.
constexpr int kSampledBlockBytes = 128 * 1024;

// Whether the block's sample shrinks by less than one part in `gainDivisor`.
// The sample is eight pieces of 4 KiB spread evenly over the block, each
// compressed alone by LZ4's fast compressor: 32 KiB of the quickest
// compression there is, a small cost next to a full search of 128 KiB or
// more. Blocks smaller than kSampledBlockBytes give false. `state` and
// `scratch` are the caller's, sized on first use and kept, so that a steady
// stream of blocks allocates nothing.
bool sampleGainsLessThan(const uint8* block, int blockSize, int gainDivisor, std::vector<uint64>& state,
                         std::vector<uint8>& scratch);

} // namespace zo::detail
