// How much of a long kill or crash sweep a test build runs.
//
// The normal build runs every sweep whole. Under AddressSanitizer or
// ThreadSanitizer every program run costs several times as much, and the
// sanitizer looks for other faults (memory and races) than the sweep does
// (a lost or torn brick), which a part of the sweep finds as well; so a
// sanitized build runs a quarter of the rounds and every third cut.
#pragma once

#include <algorithm>

namespace testsupport {

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define BRICKDISK_TEST_SANITIZED
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(BRICKDISK_TEST_SANITIZED)
constexpr bool kSanitizedBuild = true;
#else
constexpr bool kSanitizedBuild = false;
#endif

// The rounds of a sweep whose whole is `full` rounds (at least 3).
constexpr int sweepRounds(int full)
{
    return kSanitizedBuild ? std::max(3, full / 4) : full;
}

// The step between the cut points of a step-by-step crash sweep.
constexpr int sweepStep()
{
    return kSanitizedBuild ? 3 : 1;
}

// The cut points that a sweep over `points` points takes with sweepStep().
constexpr int sweepCuts(int points)
{
    return (points + sweepStep() - 1) / sweepStep();
}

} // namespace testsupport
