#include "brick/chain/BrickDiskLock.h"

#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/format/BrickDiskLink.h"

#include "seal/Random.h"
#include "zo/BufferStream.h"
#include "zo/Log.h"

#include <string>

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

bool holdsHeader(zo::IFileSystem* fs, const CURI& folder)
{
    return fs->fileExists(CBrickDiskHeader::getHeaderURI(folder, 0)) ||
        fs->fileExists(CBrickDiskHeader::getHeaderURI(folder, 1));
}

// A disk named by a store's address ("s3://b/d"), not by a local path.
bool isInStore(const CURI& diskFolder)
{
    return diskFolder.toString().toUTF8().find("://") != std::string::npos;
}

bool isMarkText(const std::string& text)
{
    if (text.empty() || text.size() > static_cast<size_t>(CBrickDiskLock::kMaxWriteMarkLength))
        return false;
    for (const char c : text)
        if (c <= ' ' || c > '~')
            return false;
    return true;
}

zo::String newRandomMark()
{
    unsigned char bytes[16];
    seal::fillRandomBytes(bytes, sizeof(bytes));
    return zo::String(zo::toHexDigits(bytes, sizeof(bytes)));
}

void storeWriteMark(zo::IFileSystem* fs, const CURI& diskFolder, const zo::String& mark)
{
    const std::string text = mark.toUTF8() + "\n";
    const zo::TBuffer<zo::uint8> bytes(reinterpret_cast<const zo::uint8*>(text.data()), static_cast<int>(text.size()));
    const P<zo::IInStream> source(new zo::CBufferStream(&bytes));
    fs->beginStoreFile(diskFolder << CBrickDiskLock::getWriteMarkFileName(), bytes.getUsed(), source.get(), true,
                       nullptr)
        ->wait();
}

} // namespace

zo::String CBrickDiskLock::readWriteMark(zo::IFileSystem* fs, const CURI& diskFolder)
{
    P<zo::IIOStream> stream;
    try {
        stream = fs->openStream(diskFolder << getWriteMarkFileName(), zo::IIOStream::AccessRead, 0);
    } catch (const CFileSystemError& e) {
        if (e.getProblem() == CFileSystemError::NotFound)
            return zo::String();
        throw;
    }
    const zo::int64 length = stream->getLength();
    if (length < 2 || length > kMaxWriteMarkLength + 1)
        return "unreadable";
    std::string text(static_cast<size_t>(length), '\0');
    stream->read(text.data(), static_cast<int>(length));
    if (text.back() != '\n')
        return "unreadable";
    text.pop_back();
    return isMarkText(text) ? zo::String(text) : zo::String("unreadable");
}

P<CBrickDiskLock> CBrickDiskLock::acquire(zo::IFileSystem* fs, const CURI& diskFolder, Mode mode,
                                          const zo::String& writeMark)
{
    if (!writeMark.isEmpty() && !isMarkText(writeMark.toUTF8()))
        throw zo::CInvalidArgError("CBrickDiskLock::acquire",
                                   "A write mark is printable text without white space, at most 64 characters.",
                                   zo::CProps().add("writeMark", writeMark));
    return CBrickDiskLock::lock(fs, diskFolder, mode, &writeMark);
}

P<CBrickDiskLock> CBrickDiskLock::acquireKeepingWriteMark(zo::IFileSystem* fs, const CURI& diskFolder, Mode mode)
{
    return CBrickDiskLock::lock(fs, diskFolder, mode, nullptr);
}

P<CBrickDiskLock> CBrickDiskLock::lock(zo::IFileSystem* fs, const CURI& diskFolder, Mode mode,
                                       const zo::String* writeMark)
{
    P<CBrickDiskLock> lock(new CBrickDiskLock(mode));
    lock->m_diskLock = lockDiskFolder(fs, diskFolder, mode == ForWriting);
    const bool marked = isInStore(diskFolder) && holdsHeader(fs, diskFolder);
    if (marked)
        lock->m_previousWriteMark = readWriteMark(fs, diskFolder);
    lock->m_writeMark = lock->m_previousWriteMark;
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
    const bool childHoldsDisk = !childFolder.isEmpty() && holdsHeader(fs, childFolder);
    if (childHoldsDisk)
        lock->m_childLock = lockDiskFolder(fs, childFolder, false);
    lock->m_removedTemporaryFiles = fs->removeTemporaryFiles(diskFolder);
    if (lock->m_childLock)
        lock->m_removedTemporaryFiles += fs->removeTemporaryFiles(childFolder);
    if (marked && writeMark) {
        lock->m_writeMark = writeMark->isEmpty() ? newRandomMark() : *writeMark;
        storeWriteMark(fs, diskFolder, lock->m_writeMark);
    }
    return lock;
}

} // namespace brick
