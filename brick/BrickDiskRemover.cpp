#include "brick/BrickDiskRemover.h"

#include "brick/BrickDisk.h"
#include "brick/BrickDiskChain.h"
#include "brick/BrickDiskHeader.h"
#include "brick/BrickDiskLink.h"
#include "brick/BrickTree.h"
#include "brick/detail/FolderMode.h"

#include "zo/Error.h"
#include "zo/Signal.h"

#include <mutex>

namespace brick {

using zo::CError;
using zo::CURI;
using zo::String;

namespace {

// Waits for one asynchronous operation and keeps its error.
class CWaitingListener : public zo::CBase, public zo::IDoneListener {
public:
    void onDone(const CError* error) override
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (error)
                m_error = error->clone();
        }
        m_done.set();
    }
    // Waits for the end; throws the operation's error unless its problem is `tolerated`.
    void wait(zo::CFileSystemError::Problem tolerated)
    {
        m_done.wait(-1);
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_error && zo::CFileSystemError::getProblem(m_error->getProps()) != tolerated)
            m_error->throwClone();
    }

private:
    std::mutex m_mutex;
    zo::CSignal m_done;
    zo::P<CError> m_error;
};

void storeLinkTo(zo::IFileSystem* fs, const CURI& folder, const String& linkFileName, const CURI& target)
{
    CBrickDiskLink link;
    link.setTargetURI(target.toRelative(folder));
    link.store(fs, folder, linkFileName);
}

void deleteLink(zo::IFileSystem* fs, const CURI& folder, const String& linkFileName)
{
    for (int copy = 0; copy < 2; ++copy)
        fs->deleteFile(CBrickDiskLink::getAuxFileURI(folder, linkFileName, copy), true);
}

// Copies every brick file of the disk that the child lacks into the child.
zo::int64 copyMissingBricksIntoChild(zo::IFileSystem* fs, const CURI& diskFolder, const CURI& childFolder,
                                     const CBrickDiskHeader& header, const std::function<void()>& checkpoint)
{
    zo::int64 copied = 0;
    for (const CBrickTree::BrickFile& brick : CBrickTree::list(fs, diskFolder, header).bricks) {
        if (checkpoint)
            checkpoint();
        const CURI relative = brick.path.toRelative(diskFolder);
        const CURI target = childFolder << relative;
        if (fs->fileExists(target))
            continue;
        fs->createFolder(target.getParent(), kFolderMode);
        const zo::P<CWaitingListener> listener(new CWaitingListener());
        fs->beginCopyFile(brick.path, target, false, listener.get());
        // A brick that the child already has is the child's own: it stays.
        listener->wait(zo::CFileSystemError::AlreadyExists);
        ++copied;
    }
    return copied;
}

// The files below `folder`, folders left out. A symbolic link counts as a
// file (the file system says it is no folder): it is removed as a link,
// never followed.
zo::TArray<CURI> filesBelow(zo::IFileSystem* fs, const CURI& folder)
{
    zo::TArray<CURI> files;
    const auto walk = [&](const auto& self, const CURI& current) -> void {
        for (const String& name : fs->listFolder(current)) {
            const CURI path = current << name;
            if (fs->folderExists(path))
                self(self, path);
            else
                files.push_back(path);
        }
    };
    walk(walk, folder);
    return files;
}

// The copies of the header and of the parent link: deleted last, in this
// order, so that a removal cut short leaves a disk that still opens and
// names its parent, or once the header is gone only the parent link, which
// tells a second removal what to finish.
zo::TArray<CURI> lastFilesOf(const CURI& folder)
{
    return {CBrickDiskHeader::getHeaderURI(folder, 1), CBrickDiskHeader::getHeaderURI(folder, 0),
            CBrickDiskLink::getAuxFileURI(folder, CBrickDisk::getParentLinkFileName(), 1),
            CBrickDiskLink::getAuxFileURI(folder, CBrickDisk::getParentLinkFileName(), 0)};
}

bool isOneOf(const CURI& path, const zo::TArray<CURI>& paths)
{
    for (const CURI& candidate : paths) {
        if (candidate.toString(true) == path.toString(true))
            return true;
    }
    return false;
}

// Deletes `files` (what filesBelow listed in `folder`), the header and the
// parent link last.
zo::int64 deleteDiskFiles(zo::IFileSystem* fs, const CURI& folder, const zo::TArray<CURI>& files)
{
    zo::int64 deleted = 0;
    const zo::TArray<CURI> last = lastFilesOf(folder);
    for (const CURI& file : files) {
        if (!isOneOf(file, last)) {
            fs->deleteFile(file, true);
            ++deleted;
        }
    }
    for (const CURI& file : last) {
        if (fs->fileExists(file)) {
            fs->deleteFile(file, true);
            ++deleted;
        }
    }
    return deleted;
}

// A folder whose header is gone and that holds nothing but its parent link:
// what a removal that was cut short at its very end leaves.
bool isRemovalLeftover(zo::IFileSystem* fs, const CURI& folder)
{
    if (fs->fileExists(CBrickDiskHeader::getHeaderURI(folder, 0)) ||
        fs->fileExists(CBrickDiskHeader::getHeaderURI(folder, 1)) || !fs->folderExists(folder))
        return false;
    const zo::TArray<CURI> files = filesBelow(fs, folder);
    if (files.empty())
        return false;
    const zo::TArray<CURI> last = lastFilesOf(folder);
    for (const CURI& file : files) {
        if (!isOneOf(file, last))
            return false;
    }
    return true;
}

} // namespace

CBrickDiskRemover::Outcome CBrickDiskRemover::remove(zo::IFileSystem* fs, const CURI& diskFolder,
                                                     const std::function<void()>& checkpoint)
{
    Outcome outcome;
    if (isRemovalLeftover(fs, diskFolder)) {
        outcome.filesDeleted = deleteDiskFiles(fs, diskFolder, filesBelow(fs, diskFolder));
        return outcome;
    }
    const CBrickDiskChain chain(fs, diskFolder);
    chain.validate();
    if (chain.getMembers().size() < 2)
        throw CError("Only a disk with a parent disk can be removed from its chain.", String(), -1,
                     zo::CProps().add("diskFolder", diskFolder.toString(true)));
    const CURI disk = chain.getDiskFolder();
    const CURI parent = chain.getMembers()[1].folder;
    const CURI child = chain.getChildFolder();
    const String parentLink = CBrickDisk::getParentLinkFileName();
    const String childLink = CBrickDisk::getChildLinkFileName();

    // Listed before the chain changes: a folder that cannot be listed stops
    // the removal while parent and child still link to the disk.
    const zo::TArray<CURI> files = filesBelow(fs, disk);
    const CURI parentsChild = CBrickDiskChain::loadLinkedFolder(fs, parent, childLink);
    const bool stillLinked = parentsChild.toString(true) == disk.toString(true);
    if (stillLinked) {
        if (!child.isEmpty())
            outcome.bricksCopied = copyMissingBricksIntoChild(fs, disk, child, chain.getHeader(), checkpoint);
        if (child.isEmpty())
            deleteLink(fs, parent, childLink);
        else
            storeLinkTo(fs, parent, childLink, child);
    }
    if (!child.isEmpty() && fs->folderExists(child) &&
        CBrickDiskChain::loadLinkedFolder(fs, child, parentLink).toString(true) == disk.toString(true))
        storeLinkTo(fs, child, parentLink, parent);
    outcome.filesDeleted = deleteDiskFiles(fs, disk, files);
    return outcome;
}

} // namespace brick
