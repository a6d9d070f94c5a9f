#include "SharedKey.h"

#include "DiskAccess.h"

#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "zo/Error.h"

namespace cli {

zo::TList<zo::CURI> sharedKeyFolders(zo::IFileSystem* fs, const zo::CURI& folder)
{
    zo::TList<zo::CURI> folders{folder};
    zo::TSet<zo::String> seen{folder.toString(true)};
    for (const zo::CURI& parent : parentDiskFolders(fs, folder)) {
        folders.push_back(parent);
        seen.insert(parent.toString(true));
    }
    const zo::String childLink = brick::CBrickDisk::getChildLinkFileName();
    for (zo::CURI child = brick::CBrickDiskChain::loadLinkedFolder(fs, folder, childLink);
         !child.isEmpty() && seen.insert(child.toString(true)).second;
         child = brick::CBrickDiskChain::loadLinkedFolder(fs, child, childLink))
        folders.push_back(child);
    return folders;
}

std::vector<zo::P<brick::CBrickDiskLock>> lockSharedKeyFolders(zo::IFileSystem* fs, const zo::TList<zo::CURI>& folders)
{
    std::vector<zo::P<brick::CBrickDiskLock>> locks;
    for (const zo::CURI& shared : folders)
        locks.push_back(lockDisk(fs, shared, brick::CBrickDiskLock::ForReading));
    return locks;
}

void checkKeysCanChange(const brick::CBrickDiskHeader& header, const zo::CURI& folder, const std::string& what)
{
    const zo::CProps props = zo::CProps().add("diskFolder", folder.toString(true));
    if (!header.isEncrypted())
        throw zo::CError("The disk is not encrypted: it has no " + zo::String(what) + ".", zo::String(), -1, props);
    if (!brick::CBrickDiskKeyWrap::isKeyWrapped(header))
        throw zo::CError("The " + zo::String(what) +
                             " of this disk cannot change: its bricks are encrypted with the key derived "
                             "from the password itself (key deriver " +
                             header.getCipherKeyDeriverID() +
                             "). Export the disk and import the image into a new disk, whose " + zo::String(what) +
                             " can change.",
                         zo::String(), -1, props);
}

} // namespace cli
