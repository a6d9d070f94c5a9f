#include "brick/chain/BrickDiskRemover.h"

#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskChain.h"
#include "brick/detail/FolderMode.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskIdentity.h"
#include "brick/format/BrickDiskLink.h"
#include "brick/format/BrickTree.h"

#include "zo/Error.h"

#include <algorithm>
#include <vector>

namespace brick {

using zo::CError;
using zo::CURI;
using zo::String;

namespace {

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

using Progress = CBrickDiskRemover::ProgressListener;
using Phase = CBrickDiskRemover::Phase;

// Copies every brick file of the disk that the child lacks into the child.
zo::int64 copyMissingBricksIntoChild(zo::IFileSystem* fs, const CURI& diskFolder, const CURI& childFolder,
                                     const CBrickDiskHeader& header, const std::function<void()>& checkpoint,
                                     const Progress& onProgress)
{
    zo::int64 copied = 0;
    const std::vector<CBrickTree::BrickFile> bricks = CBrickTree::list(fs, diskFolder, header).bricks;
    const auto total = static_cast<zo::int64>(bricks.size());
    zo::int64 handled = 0;
    for (const CBrickTree::BrickFile& brick : bricks) {
        if (checkpoint)
            checkpoint();
        const CURI relative = brick.path.toRelative(diskFolder);
        const CURI target = childFolder << relative;
        if (!fs->fileExists(target)) {
            fs->createFolder(target.getParent(), kFolderMode);
            // A brick that the child already has is the child's own: it stays.
            fs->beginCopyFile(brick.path, target, false, nullptr)->wait(zo::CFileSystemError::AlreadyExists);
            ++copied;
        }
        if (onProgress)
            onProgress(Phase::CopyingBricks, ++handled, total);
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

// The copies of the header, of the parent link and of the marks: deleted
// last, in this order, so that a removal cut short leaves a folder that
// still names its parent and is still marked as unfinished, which tells a
// second removal what to finish.
zo::TArray<CURI> lastFilesOf(const CURI& folder)
{
    zo::TArray<CURI> last{CBrickDiskHeader::getHeaderURI(folder, 1), CBrickDiskHeader::getHeaderURI(folder, 0)};
    for (const String& record : {CBrickDisk::getParentLinkFileName(), CBrickDisk::getCreatingMarkFileName(),
                                 CBrickDisk::getRemovingMarkFileName()}) {
        last.push_back(CBrickDiskLink::getAuxFileURI(folder, record, 1));
        last.push_back(CBrickDiskLink::getAuxFileURI(folder, record, 0));
    }
    return last;
}

bool isOneOf(const CURI& path, const zo::TArray<CURI>& paths)
{
    for (const CURI& candidate : paths) {
        if (candidate.toString(true) == path.toString(true))
            return true;
    }
    return false;
}

// Deletes `files` (what filesBelow listed in `folder`), the header, the
// parent link and the marks last.
zo::int64 deleteDiskFiles(zo::IFileSystem* fs, const CURI& folder, const zo::TArray<CURI>& files,
                          const Progress& onProgress)
{
    zo::int64 deleted = 0;
    const zo::TArray<CURI> last = lastFilesOf(folder);
    const auto total = static_cast<zo::int64>(files.size());
    const auto deleteOne = [&](const CURI& file) {
        fs->deleteFile(file, true);
        ++deleted;
        if (onProgress)
            onProgress(Phase::DeletingFiles, std::min(deleted, total), total);
    };
    for (const CURI& file : files) {
        if (!isOneOf(file, last))
            deleteOne(file);
    }
    for (const CURI& file : last) {
        if (fs->fileExists(file))
            deleteOne(file);
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

// Loads the header of the disk in `folder` into `header` when the folder
// holds one; leaves `header` as it is otherwise.
void loadHeaderIfThere(zo::IFileSystem* fs, const CURI& folder, CBrickDiskHeader& header)
{
    if (!folder.isEmpty() &&
        (fs->fileExists(CBrickDiskHeader::getHeaderURI(folder, 0)) ||
         fs->fileExists(CBrickDiskHeader::getHeaderURI(folder, 1))))
        header.load(fs, folder);
}

// Takes the disk out from between its parent and its child: the steps of
// the removal from the copying of bricks on, each done only where it is not
// done yet, so that a removal cut short anywhere is finished by this again.
CBrickDiskRemover::Outcome untie(zo::IFileSystem* fs, const CURI& disk, const CURI& parent, const CURI& child,
                                 const zo::TCryptBuffer<zo::uint8>& diskKey, const std::function<void()>& checkpoint,
                                 const Progress& onProgress)
{
    CBrickDiskRemover::Outcome outcome;
    const String parentLink = CBrickDisk::getParentLinkFileName();
    const String childLink = CBrickDisk::getChildLinkFileName();

    // Listed before the chain changes: a folder that cannot be listed stops
    // the removal while parent and child still link to the disk.
    const zo::TArray<CURI> files = filesBelow(fs, disk);
    const CURI parentsChild =
        fs->folderExists(parent) ? CBrickDiskChain::loadLinkedFolder(fs, parent, childLink) : CURI();
    const bool stillLinked = parentsChild.toString(true) == disk.toString(true);
    const bool childLinksHere = !child.isEmpty() && fs->folderExists(child) &&
        CBrickDiskChain::loadLinkedFolder(fs, child, parentLink).toString(true) == disk.toString(true);
    // Links of disks with an identity are tied under the key: the two disks
    // whose links change are loaded, and the key checked, before anything
    // changes.
    CBrickDiskHeader parentHeader;
    CBrickDiskHeader childHeader;
    if (stillLinked || childLinksHere) {
        loadHeaderIfThere(fs, parent, parentHeader);
        loadHeaderIfThere(fs, child, childHeader);
    }
    if (parentHeader.hasIdentity())
        CBrickDiskIdentity::requireKey(parentHeader, diskKey, parent);
    if (childHeader.hasIdentity())
        CBrickDiskIdentity::requireKey(childHeader, diskKey, child);
    if (stillLinked && !child.isEmpty()) {
        CBrickDiskHeader header;
        header.load(fs, disk);
        outcome.bricksCopied = copyMissingBricksIntoChild(fs, disk, child, header, checkpoint, onProgress);
    }
    // From here on the disk loses its view (its parent stops keeping it, its
    // files go): it must not open again.
    if (CBrickDisk::getCompletion(fs, disk) == CBrickDisk::Finished)
        storeLinkTo(fs, disk, CBrickDisk::getRemovingMarkFileName(), parent);
    using Kind = CBrickDiskIdentity::LinkKind;
    if (stillLinked) {
        if (child.isEmpty())
            deleteLink(fs, parent, childLink);
        else
            CBrickDiskIdentity::storeLink(fs, parent, parentHeader, Kind::Child, child.toRelative(parent), childHeader,
                                          diskKey);
    }
    if (childLinksHere)
        CBrickDiskIdentity::storeLink(fs, child, childHeader, Kind::Parent, parent.toRelative(child), parentHeader,
                                      diskKey);
    outcome.filesDeleted = deleteDiskFiles(fs, disk, files, onProgress);
    return outcome;
}

} // namespace

CBrickDiskRemover::Outcome CBrickDiskRemover::remove(zo::IFileSystem* fs, const CURI& diskFolder,
                                                     const std::function<void()>& checkpoint,
                                                     const ProgressListener& onProgress)
{
    return remove(fs, diskFolder, zo::TCryptBuffer<zo::uint8>(), checkpoint, onProgress);
}

CBrickDiskRemover::Outcome CBrickDiskRemover::remove(zo::IFileSystem* fs, const CURI& diskFolder,
                                                     const zo::TCryptBuffer<zo::uint8>& diskKey,
                                                     const std::function<void()>& checkpoint,
                                                     const ProgressListener& onProgress)
{
    if (isRemovalLeftover(fs, diskFolder)) {
        Outcome outcome;
        outcome.filesDeleted = deleteDiskFiles(fs, diskFolder, filesBelow(fs, diskFolder), onProgress);
        return outcome;
    }
    const CBrickDisk::Completion completion = CBrickDisk::getCompletion(fs, diskFolder);
    if (completion != CBrickDisk::Finished) {
        // Cut short before: the mark names the parent, the child link the child.
        const String mark = completion == CBrickDisk::CreationUnfinished ? CBrickDisk::getCreatingMarkFileName()
                                                                         : CBrickDisk::getRemovingMarkFileName();
        const CURI disk = diskFolder.toNormalized();
        return untie(fs, disk, CBrickDiskChain::loadLinkedFolder(fs, disk, mark),
                     CBrickDiskChain::loadLinkedFolder(fs, disk, CBrickDisk::getChildLinkFileName()), diskKey,
                     checkpoint, onProgress);
    }
    const CBrickDiskChain chain(fs, diskFolder);
    chain.validate();
    if (chain.getMembers().size() < 2)
        throw CError("Only a disk with a parent disk can be removed from its chain.", String(), -1,
                     zo::CProps().add("diskFolder", diskFolder.toString(true)));
    return untie(fs, chain.getDiskFolder(), chain.getMembers()[1].folder, chain.getChildFolder(), diskKey, checkpoint,
                 onProgress);
}

} // namespace brick
