#include "brick/chain/BrickDiskLock.h"

#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskLink.h"

#include "zo/Log.h"

namespace brick {

using zo::CFileSystemError;
using zo::CURI;
using zo::P;

namespace {

// The folder of the disk's child, empty when it has none.
CURI childFolderOf(zo::IFileSystem* fs, const CURI& diskFolder)
{
    if (!fs->fileExists(diskFolder << CBrickDisk::getChildLinkFileName()))
        return CURI();
    CBrickDiskLink link;
    link.load(fs, diskFolder, CBrickDisk::getChildLinkFileName());
    return (diskFolder << link.getTargetURI()).toNormalized();
}

// Locks one folder. Null when the file system cannot lock; a conflict becomes
// the disk's own error.
P<zo::IFileSystemLock> lockDiskFolder(zo::IFileSystem* fs, const CURI& folder, bool exclusive)
{
    try {
        return fs->lockFolder(folder, exclusive);
    } catch (const CFileSystemError& e) {
        if (e.getProblem() == CFileSystemError::NotSupported)
            return P<zo::IFileSystemLock>();
        if (e.getProblem() != CFileSystemError::Locked)
            throw;
        CBrickDiskError error(CBrickDiskError::DiskInUse, folder, &e);
        const zo::String holder = e.getProps().lookup("holder");
        if (!holder.isEmpty())
            error.getProps().add("holder", holder);
        throw error;
    }
}

} // namespace

P<CBrickDiskLock> CBrickDiskLock::acquire(zo::IFileSystem* fs, const CURI& diskFolder, Mode mode)
{
    P<CBrickDiskLock> lock(new CBrickDiskLock(mode));
    lock->m_diskLock = lockDiskFolder(fs, diskFolder, mode == ForWriting);
    if (!lock->isHeld()) {
        zo::logLine(zo::LogLevel::Warning,
                    "The file system of the disk cannot lock it; the disk is used unlocked "
                    "(diskFolder:" +
                        diskFolder.toString(true) + ").");
        return lock;
    }
    if (mode == ForReading)
        return lock;
    const CURI childFolder = childFolderOf(fs, diskFolder);
    // Only a folder that holds a disk is locked (and cleaned): a child link
    // pointed at any other folder must not make a lock file there.
    const bool childHoldsDisk = !childFolder.isEmpty() &&
        (fs->fileExists(CBrickDiskHeader::getHeaderURI(childFolder, 0)) ||
         fs->fileExists(CBrickDiskHeader::getHeaderURI(childFolder, 1)));
    if (childHoldsDisk)
        lock->m_childLock = lockDiskFolder(fs, childFolder, false);
    lock->m_removedTemporaryFiles = fs->removeTemporaryFiles(diskFolder);
    if (lock->m_childLock)
        lock->m_removedTemporaryFiles += fs->removeTemporaryFiles(childFolder);
    return lock;
}

} // namespace brick
