// CChainSpace: the space that each disk of a chain takes in its store, read
// from the brick trees of the disks' folders without a password and without
// opening the disks.
//
// For each disk: the brick files it holds and their bytes, and the bytes that
// only it holds, which deleting it (CBrickDiskRemover) would free: its brick
// files minus those that its child (the next older snapshot) lacks, since
// those are copied into the child and stay in the store. The oldest disk
// has no child, so everything it holds would be freed. The top disk cannot
// be deleted; its figure says what it alone holds all the same.
#pragma once

#include "brick/format/BrickDiskHeader.h"

#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <vector>

namespace brick {

class BRICKDISK_EXPORT CChainSpace {
public:
    struct DiskSpace {
        zo::CURI folder;
        // The brick files in its folder and their bytes.
        zo::int64 brickFiles = 0;
        zo::int64 bytes = 0;
        // The brick files, and their bytes, that deleting the disk would free.
        zo::int64 onlyBrickFiles = 0;
        zo::int64 onlyBytes = 0;
    };

    // Lists the brick trees of every disk of the chain that `diskFolder` (any
    // disk of it) belongs to, top first, then each older snapshot along the
    // child links. Throws the errors of CBrickDiskChain for `diskFolder` and a
    // broken chain, CError "Child link loop detected in brick disk."
    // ("diskFolder", "loopFolder") when the child links run in a circle, and
    // the file system's errors. The file system is used only during
    // construction.
    CChainSpace(zo::IFileSystem* fs, const zo::CURI& diskFolder);

    // Top first, then each older snapshot.
    const std::vector<DiskSpace>& getDisks() const { return m_disks; }
    // The size of the disk, which every disk of the chain shares.
    zo::int64 getDiskSize() const { return m_diskSize; }
    // The brick files, and their bytes, of the whole chain.
    zo::int64 getTotalBrickFiles() const;
    zo::int64 getTotalBytes() const;

private:
    std::vector<DiskSpace> m_disks;
    zo::int64 m_diskSize = 0;
};

} // namespace brick
