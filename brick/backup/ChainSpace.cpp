#include "brick/backup/ChainSpace.h"

#include "brick/chain/BrickDiskChain.h"
#include "brick/detail/ChainWalk.h"
#include "brick/format/BrickTree.h"

#include <set>

namespace brick {

CChainSpace::CChainSpace(zo::IFileSystem* fs, const zo::CURI& diskFolder)
{
    const CBrickDiskChain chain(fs, diskFolder);
    // Every disk of a valid chain has the disk's tree: the same disk and brick size.
    const CBrickDiskHeader& header = chain.getHeader();
    m_diskSize = header.getDiskSize();
    std::vector<CBrickTree::Listing> listings;
    for (const zo::CURI& folder : detail::walkChainDown(fs, chain)) {
        listings.push_back(CBrickTree::list(fs, folder, header));
        DiskSpace disk;
        disk.folder = folder;
        disk.brickFiles = static_cast<zo::int64>(listings.back().bricks.size());
        disk.bytes = listings.back().totalBrickBytes();
        m_disks.push_back(disk);
    }
    for (size_t i = 0; i < m_disks.size(); ++i) {
        const bool hasChild = i + 1 < m_disks.size();
        std::set<zo::int64> childBricks;
        if (hasChild) {
            for (const CBrickTree::BrickFile& brick : listings[i + 1].bricks)
                childBricks.insert(brick.index);
        }
        for (const CBrickTree::BrickFile& brick : listings[i].bricks) {
            if (hasChild && childBricks.count(brick.index) == 0)
                continue; // the child reads it through this disk: deleting would keep it
            ++m_disks[i].onlyBrickFiles;
            m_disks[i].onlyBytes += brick.size;
        }
    }
}

zo::int64 CChainSpace::getTotalBrickFiles() const
{
    zo::int64 total = 0;
    for (const DiskSpace& disk : m_disks)
        total += disk.brickFiles;
    return total;
}

zo::int64 CChainSpace::getTotalBytes() const
{
    zo::int64 total = 0;
    for (const DiskSpace& disk : m_disks)
        total += disk.bytes;
    return total;
}

} // namespace brick
