// Walking a chain down from its top: the folders of every disk, top first,
// then each older snapshot. Used inside the library only (the retention plan
// and the space accounting); not part of the public API.
#pragma once

#include "brick/BrickDiskChain.h"

#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <vector>

namespace brick::detail {

// The chain that `diskFolder` belongs to: `chain` is the CBrickDiskChain of
// `diskFolder`, whose last member is the top. Throws what
// CBrickDiskChain::validate throws for a broken chain, CError "Child link
// loop detected in brick disk." ("diskFolder", "loopFolder") when the child
// links run in a circle, and the errors of link files that cannot be read.
// A disk whose removal was cut short once its parent already names its child
// is found through the child's parent link and listed between the two.
std::vector<zo::CURI> walkChainDown(zo::IFileSystem* fs, const CBrickDiskChain& chain);

} // namespace brick::detail
