#include "DiskChain.h"

#include "brick/BrickDisk.h"
#include "brick/BrickDiskLink.h"
#include "zo/Error.h"

#include <set>

namespace cli {

zo::CURI linkedDiskFolder(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::String& linkFileName)
{
    if (!fs->fileExists(brick::CBrickDiskLink::getAuxFileURI(diskFolder, linkFileName, 0)) &&
        !fs->fileExists(brick::CBrickDiskLink::getAuxFileURI(diskFolder, linkFileName, 1)))
        return zo::CURI();
    brick::CBrickDiskLink link;
    link.load(fs, diskFolder, linkFileName);
    return (diskFolder << link.getTargetURI()).toNormalized();
}

std::vector<zo::CURI> parentDiskFolders(zo::IFileSystem* fs, const zo::CURI& diskFolder)
{
    std::vector<zo::CURI> parents;
    std::set<zo::CURI> visited{diskFolder.toNormalized()};
    zo::CURI current = diskFolder;
    for (;;) {
        const zo::CURI parent = linkedDiskFolder(fs, current, brick::CBrickDisk::getParentLinkFileName());
        if (parent.isEmpty())
            return parents;
        if (!visited.insert(parent).second)
            throw zo::CError("Parent link loop detected in brick disk.", zo::String(), -1,
                             zo::CProps()
                                 .add("diskFolder", diskFolder.toString(true))
                                 .add("loopFolder", parent.toString(true)));
        parents.push_back(parent);
        current = parent;
    }
}

} // namespace cli
