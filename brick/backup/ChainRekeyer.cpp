#include "brick/backup/ChainRekeyer.h"

#include "brick/backup/RetentionPlan.h"
#include "brick/chain/BrickDisk.h"
#include "brick/detail/FolderMode.h"
#include "brick/detail/WaitingListener.h"
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskAuxFileBase.h"
#include "brick/format/BrickDiskCreationTime.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskIdentity.h"
#include "brick/format/BrickDiskKeyWrap.h"
#include "brick/format/BrickDiskLink.h"
#include "brick/format/BrickTree.h"
#include "zo/Error.h"

#include <optional>
#include <string>

namespace brick {

namespace {

using zo::CError;
using zo::CURI;
using zo::String;
using Kind = CBrickDiskIdentity::LinkKind;

// One disk of the chain: where it is, where it goes, its header in the
// source and the header of its copy.
struct RekeyedDisk {
    CURI source;
    CURI destination;
    CBrickDiskHeader sourceHeader;
    CBrickDiskHeader header;
};

CError rekeyError(const String& message, const CURI& source, const CURI& destination)
{
    return CError(
        message, String(), -1,
        zo::CProps().add("diskFolder", source.toString(true)).add("destinationFolder", destination.toString(true)));
}

zo::TBuffer<zo::uint8> readWholeFile(zo::IFileSystem* fs, const CURI& file, zo::int64 size)
{
    const zo::P<zo::IIOStream> stream = fs->openStream(file, zo::IIOStream::AccessRead, 0);
    zo::TBuffer<zo::uint8> bytes(static_cast<int>(size));
    stream->read(bytes.getData(), static_cast<int>(size));
    return bytes;
}

// True when `folder` is not there, or is a folder that holds nothing but the
// lock file of the folder lock (which the caller may take before it copies).
bool isNewOrEmpty(zo::IFileSystem* fs, const CURI& folder)
{
    if (!fs->pathExists(folder))
        return true;
    if (!fs->folderExists(folder))
        return false;
    for (const String& name : fs->listFolder(folder))
        if (name != String(".lock"))
            return false;
    return true;
}

// True when `path` is `folder` or lies below it (both normalized; of one
// store when their schemes agree).
bool isSameOrBelow(const CURI& path, const CURI& folder)
{
    const std::string inner = path.toNormalized().toString(true).toUTF8();
    const std::string outer = folder.toNormalized().toString(true).toUTF8();
    return inner == outer ||
        (inner.size() > outer.size() && inner.compare(0, outer.size(), outer) == 0 &&
         (outer.back() == '/' || inner[outer.size()] == '/'));
}

// Each brick file of `disk`, decoded with the source's key and encoded with
// the copy's, stored at the same place below the copy's folder.
zo::int64 reencodeBricks(zo::IFileSystem* sourceFs, zo::IFileSystem* destinationFs, const RekeyedDisk& disk,
                         const zo::TCryptBuffer<zo::uint8>& oldKey, const zo::TCryptBuffer<zo::uint8>& newKey,
                         const CChainRekeyer::Options& options)
{
    const zo::P<CBrickDataPreparer> decoder(new CBrickDataPreparer(disk.sourceHeader, oldKey));
    const zo::P<CBrickDataPreparer> encoder(new CBrickDataPreparer(disk.header, newKey));
    zo::int64 count = 0;
    for (const CBrickTree::BrickFile& brick : CBrickTree::list(sourceFs, disk.source, disk.sourceHeader).bricks) {
        if (options.checkpoint)
            options.checkpoint();
        zo::TBuffer<zo::uint8> plain;
        zo::TBuffer<zo::uint8> prepared;
        decoder->unprepareData(readWholeFile(sourceFs, brick.path, brick.size), plain, brick.index);
        encoder->prepareData(plain, prepared, brick.index);
        const CURI target = disk.destination << brick.path.toRelative(disk.source);
        destinationFs->createFolder(target.getParent(), kFolderMode);
        detail::replaceFileAndWait(destinationFs, target, prepared);
        ++count;
    }
    return count;
}

} // namespace

CChainRekeyer::Summary CChainRekeyer::copy(zo::IFileSystem* sourceFs, const CURI& source,
                                           zo::IFileSystem* destinationFs, const CURI& destination,
                                           const Options& options)
{
    if (options.newPassword.isEmpty())
        throw zo::CInvalidArgError("CChainRekeyer::copy", "The new password is empty.");
    const CURI sourceTop = source.toNormalized();
    const CURI destinationTop = destination.toNormalized();

    // The chain, top first, each disk opened with the password.
    const std::vector<CRetentionPlan::Disk> chain = CRetentionPlan::readChain(sourceFs, sourceTop);
    if (chain.front().folder.toNormalized() != sourceTop)
        throw rekeyError("The source must be the top disk of its chain; its top is " +
                             chain.front().folder.toString(true) + ".",
                         sourceTop, destinationTop);
    std::vector<RekeyedDisk> disks;
    zo::TCryptBuffer<zo::uint8> oldKey;
    for (const CRetentionPlan::Disk& member : chain) {
        if (member.unfinished)
            throw rekeyError("The source chain holds a snapshot whose making or deletion was cut short (" +
                                 member.folder.toString(true) + "); finish it with forget or delete first.",
                             sourceTop, destinationTop);
        RekeyedDisk disk;
        disk.source = member.folder.toNormalized();
        disk.destination = (destinationTop << disk.source.toRelative(sourceTop).toNormalized()).toNormalized();
        for (const CRetentionPlan::Disk& other : chain)
            if (isSameOrBelow(disk.destination, other.folder) || isSameOrBelow(other.folder, disk.destination))
                throw rekeyError("The copy of " + disk.source.toString(true) +
                                     " would land in or around the "
                                     "source's disk " +
                                     other.folder.toString(true) + ".",
                                 sourceTop, destinationTop);
        if (!isNewOrEmpty(destinationFs, disk.destination))
            throw rekeyError("A copy with a new key goes into a new or empty folder: " +
                                 disk.destination.toString(true) + " holds files.",
                             sourceTop, destinationTop);
        disk.sourceHeader.load(sourceFs, disk.source);
        if (!disk.sourceHeader.isEncrypted() || !CBrickDiskKeyWrap::isKeyWrapped(disk.sourceHeader))
            throw rekeyError("Only a disk of the authenticated format, encrypted, can be copied with a new key.",
                             disk.source, destinationTop);
        zo::TCryptBuffer<zo::uint8> key;
        if (!CBrickDisk::isEncryptPasswordCorrect(disk.sourceHeader, options.password, &key,
                                                  options.allowExpensiveKeyDerivation))
            throw CBrickDiskError(CBrickDiskError::IncorrectPassword, disk.source);
        if (!oldKey.isEmpty() && !(key == oldKey))
            throw rekeyError("Disk does not share the key of the other disks.", disk.source, destinationTop);
        oldKey = key;
        disks.push_back(disk);
    }

    // The copies' headers: the top's with a new key and identity, each
    // snapshot's the top's with an identity of its own, as a snapshot's is.
    zo::TCryptBuffer<zo::uint8> newKey;
    CBrickDiskHeader top(disks.front().sourceHeader);
    top.setHasKeyList(false);
    CBrickDiskIdentity::giveNewIdentity(top, false);
    CBrickDiskKeyWrap::setUpNewKey(top, options.newPassword, options.cost, newKey);
    for (RekeyedDisk& disk : disks) {
        disk.header = top;
        if (&disk != &disks.front())
            CBrickDiskIdentity::giveNewIdentity(disk.header, true);
        CBrickDiskIdentity::sealIdentity(disk.header, newKey);
    }

    // The oldest snapshot first, each under its creating mark, which names
    // its parent (the top's names itself).
    Summary summary;
    const String mark = CBrickDisk::getCreatingMarkFileName();
    for (size_t i = disks.size(); i-- > 0;) {
        const RekeyedDisk& disk = disks[i];
        destinationFs->createFolder(disk.destination, kFolderMode);
        CBrickDiskLink creating;
        creating.setTargetURI(i == 0 ? CURI(".") : disks[i - 1].destination.toRelative(disk.destination));
        creating.store(destinationFs, disk.destination, mark);
        summary.bricksReencoded += reencodeBricks(sourceFs, destinationFs, disk, oldKey, newKey, options);
        if (const std::optional<zo::int64> created = CBrickDiskCreationTime::load(sourceFs, disk.source))
            CBrickDiskCreationTime::store(destinationFs, disk.destination, *created);
        disk.header.store(destinationFs, disk.destination);
        if (i > 0)
            CBrickDiskIdentity::storeLink(destinationFs, disk.destination, disk.header, Kind::Parent,
                                          disks[i - 1].destination.toRelative(disk.destination), disks[i - 1].header,
                                          newKey);
        if (i + 1 < disks.size())
            CBrickDiskIdentity::storeLink(destinationFs, disk.destination, disk.header, Kind::Child,
                                          disks[i + 1].destination.toRelative(disk.destination), disks[i + 1].header,
                                          newKey);
        summary.disksMade.push_back(disk.destination);
    }
    // The marks go, the top's first: a disk opens only once every newer
    // disk it reads through is whole.
    for (const RekeyedDisk& disk : disks)
        for (int copy = 0; copy < 2; ++copy)
            destinationFs->deleteFile(CBrickDiskAuxFileBase::getAuxFileURI(disk.destination, mark, copy), true);
    return summary;
}

} // namespace brick
