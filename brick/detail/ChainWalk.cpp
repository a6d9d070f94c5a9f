#include "brick/detail/ChainWalk.h"

#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskLink.h"

#include "zo/Error.h"

#include <set>

namespace brick::detail {

namespace {

bool holdsParentLink(zo::IFileSystem* fs, const zo::CURI& folder)
{
    const zo::String linkFileName = CBrickDisk::getParentLinkFileName();
    return fs->fileExists(CBrickDiskLink::getAuxFileURI(folder, linkFileName, 0)) ||
        fs->fileExists(CBrickDiskLink::getAuxFileURI(folder, linkFileName, 1));
}

void addOnce(std::vector<zo::CURI>& folders, std::set<zo::String>& seen, const zo::CURI& folder,
             const zo::CURI& diskFolder)
{
    if (!seen.insert(folder.toString(true)).second)
        throw zo::CError(
            "Child link loop detected in brick disk.", zo::String(), -1,
            zo::CProps().add("diskFolder", diskFolder.toString(true)).add("loopFolder", folder.toString(true)));
    folders.push_back(folder);
}

} // namespace

std::vector<zo::CURI> walkParentLinks(zo::IFileSystem* fs, const zo::CURI& diskFolder, const CBrickDiskHeader& header,
                                      const ParentStepper& step)
{
    std::vector<zo::CURI> parents;
    std::set<zo::String> visited{diskFolder.toNormalized().toString(true)};
    zo::CURI current = diskFolder;
    CBrickDiskHeader currentHeader(header);
    for (;;) {
        if (!holdsParentLink(fs, current)) {
            if (currentHeader.hasIdentity() && currentHeader.getHasParent())
                throw zo::CError("The disk has a parent disk, but its parent link is missing.", zo::String(), -1,
                                 zo::CProps().add("diskFolder", current.toString(true)));
            return parents;
        }
        ParentStep parent = step(current, currentHeader);
        if (parent.folder.isEmpty())
            return parents;
        const zo::String parentString = parent.folder.toString(true);
        if (!visited.insert(parentString).second)
            throw zo::CError("Parent link loop detected in brick disk.", zo::String(), -1,
                             zo::CProps().add("diskFolder", diskFolder.toString(true)).add("loopFolder", parentString));
        parents.push_back(parent.folder);
        if (!parent.goOn)
            return parents;
        current = parent.folder;
        currentHeader = parent.header;
    }
}

std::vector<zo::CURI> walkChainDown(zo::IFileSystem* fs, const CBrickDiskChain& chain)
{
    chain.validate();
    std::vector<zo::CURI> folders;
    std::set<zo::String> seen;
    zo::CURI current = chain.getMembers().back().folder;
    addOnce(folders, seen, current, chain.getDiskFolder());
    for (;;) {
        const zo::CURI child = CBrickDiskChain::loadLinkedFolder(fs, current, CBrickDisk::getChildLinkFileName());
        if (child.isEmpty())
            return folders;
        // A removal cut short after the parent was tied to the child leaves
        // the child's parent link naming the marked disk.
        const zo::CURI skipped = CBrickDiskChain::loadLinkedFolder(fs, child, CBrickDisk::getParentLinkFileName());
        if (!skipped.isEmpty() && !(skipped == current) &&
            CBrickDisk::getCompletion(fs, skipped) == CBrickDisk::RemovalUnfinished)
            addOnce(folders, seen, skipped, chain.getDiskFolder());
        addOnce(folders, seen, child, chain.getDiskFolder());
        current = child;
    }
}

} // namespace brick::detail
