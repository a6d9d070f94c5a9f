// Walking a chain: up from a disk along its parent links (the one walk that
// an opened disk and CBrickDiskChain share), and down from its top: the
// folders of every disk, top first, then each older snapshot. Used inside
// the library only (opening a disk, the chain, the retention plan and the
// space accounting); not part of the public API.
#pragma once

#include "brick/chain/BrickDiskChain.h"
#include "brick/format/BrickDiskHeader.h"

#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <functional>
#include <vector>

namespace brick::detail {

// The disk that one parent link leads to.
struct ParentStep {
    // Its folder, normalized; empty ends the walk before it.
    zo::CURI folder;
    // Its header, which rules the link after it (its identity says whether it
    // has a parent); a default header for a disk followed without one.
    CBrickDiskHeader header;
    // False when the walk ends with this disk (it is missing, or not the disk
    // that the link promises).
    bool goOn = true;
};

// Follows the parent link of the disk in `folder`, whose header is `header`;
// called only for a disk that holds a parent link (either copy).
using ParentStepper = std::function<ParentStep(const zo::CURI& folder, const CBrickDiskHeader& header)>;

// The folders of the ancestors of the disk in `diskFolder` (header
// `header`), nearest first, each found by `step` from the one below it. A
// disk without a parent link is the top of the chain, unless its header has
// an identity that says it has a parent: then CError "The disk has a parent
// disk, but its parent link is missing." ("diskFolder": that disk's folder)
// is thrown, as an opening and a reading of the chain both refuse a disk that
// would read holes where its parent's bricks are. Throws CError "Parent link
// loop detected in brick disk." ("diskFolder" = `diskFolder`, "loopFolder")
// when a link leads back to a disk of the walk, and passes on what `step`
// and the file system throw.
std::vector<zo::CURI> walkParentLinks(zo::IFileSystem* fs, const zo::CURI& diskFolder, const CBrickDiskHeader& header,
                                      const ParentStepper& step);

// The chain that `diskFolder` belongs to: `chain` is the CBrickDiskChain of
// `diskFolder`, whose last member is the top. Throws what
// CBrickDiskChain::validate throws for a broken chain, CError "Child link
// loop detected in brick disk." ("diskFolder", "loopFolder") when the child
// links run in a circle, and the errors of link files that cannot be read.
// A disk whose removal was cut short once its parent already names its child
// is found through the child's parent link and listed between the two.
std::vector<zo::CURI> walkChainDown(zo::IFileSystem* fs, const CBrickDiskChain& chain);

} // namespace brick::detail
