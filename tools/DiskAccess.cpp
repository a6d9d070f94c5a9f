#include "DiskAccess.h"

#include "UsageError.h"

#include "brick/chain/BrickDiskChain.h"
#include "brick/format/BrickDiskError.h"
#include "brick/format/BrickTree.h"
#include "zo/Error.h"
#include "zo/LocalFileSystem.h"

#include <CLI/CLI.hpp>

#include <cstdio>

namespace cli {

namespace {

brick::StoreSettings& storeSettings()
{
    static brick::StoreSettings settings;
    return settings;
}

} // namespace

bool isLocalFolder(const zo::CURI& folder)
{
    return brick::getStoreKind(folder.toLocalPath()) == brick::StoreKind::LocalFolder;
}

void setStoreSettings(const brick::StoreSettings& settings)
{
    storeSettings() = settings;
}

const brick::StoreSettings& getStoreSettings()
{
    return storeSettings();
}

zo::CURI diskFolderURI(const std::string& path)
{
    if (path.empty())
        throw UsageError("the disk path is empty");
    try {
        brick::checkStoreScheme(path);
    } catch (const zo::CError& e) {
        throw UsageError(e.getMessage().toUTF8());
    }
    if (brick::getStoreKind(path) != brick::StoreKind::LocalFolder)
        return zo::CURI(zo::String::fromUTF8(path)).toNormalized();
    // The user's own symbolic links on the way to the disk are resolved here,
    // once: the local file system follows no link, so that links planted
    // inside a disk folder never lead out of it.
    return zo::CLocalFileSystem::resolveUserPath(path);
}

zo::P<zo::IFileSystem> newFileSystem(const zo::CURI& folder, bool syncEnabled, int threadCount)
{
    return brick::openStore(folder, storeSettings(), syncEnabled, threadCount);
}

brick::CBrickDiskHeader loadDiskHeader(zo::IFileSystem* fs, const zo::CURI& folder)
{
    const zo::CProps props = zo::CProps().add("diskFolder", folder.toString(true));
    if (fs->fileExists(folder))
        throw zo::CError("The disk path is a file, not a folder.", zo::String(), -1, props);
    if (!fs->folderExists(folder))
        throw zo::CError("Disk folder does not exist.", zo::String(), -1, props);
    throwUnfinished(fs, folder);
    if (!fs->fileExists(brick::CBrickDiskHeader::getHeaderURI(folder, 0)) &&
        !fs->fileExists(brick::CBrickDiskHeader::getHeaderURI(folder, 1)))
        throw zo::CError("Folder holds no brick disk: disk.brickdisk and its fallback copy are both missing.",
                         zo::String(), -1, props);
    brick::CBrickDiskHeader header;
    header.load(fs, folder);
    return header;
}

void throwUnfinished(zo::IFileSystem* fs, const zo::CURI& folder)
{
    const brick::CBrickDisk::Completion completion = brick::CBrickDisk::getCompletion(fs, folder);
    if (completion == brick::CBrickDisk::Finished)
        return;
    const bool creating = completion == brick::CBrickDisk::CreationUnfinished;
    zo::CProps props = zo::CProps().add("diskFolder", folder.toLocalPath());
    std::string parent = "DISK";
    try {
        const zo::CURI parentFolder = brick::CBrickDiskChain::loadLinkedFolder(
            fs, folder,
            creating ? brick::CBrickDisk::getCreatingMarkFileName() : brick::CBrickDisk::getRemovingMarkFileName());
        parent = parentFolder.toLocalPath();
        props.add("parentFolder", parent);
    } catch (const zo::CError&) {
        // The mark alone says enough; its target only completes the advice.
    }
    const std::string path = folder.toLocalPath();
    if (creating)
        throw zo::CError(zo::String("The disk is an unfinished snapshot: its making was cut short. Run \"brickdisk "
                                    "snapshot " +
                                    parent + " " + path + "\" again to finish it, or \"brickdisk delete " + path +
                                    "\" to remove it."),
                         zo::String(), -1, props);
    throw zo::CError(zo::String("The disk is a snapshot whose deletion was cut short. Run \"brickdisk delete " + path +
                                "\" again to finish it."),
                     zo::String(), -1, props);
}

bool isMissingOrEmptyFolder(zo::IFileSystem* fs, const zo::CURI& folder)
{
    return !fs->pathExists(folder) || (fs->folderExists(folder) && fs->listFolder(folder).empty());
}

zo::P<brick::CBrickDisk> openDisk(zo::IFileSystem* fs, const zo::CURI& folder, const CPasswordSource& passwords,
                                  zo::IIOStream::Access access, int maxBackgroundOps)
{
    const brick::CBrickDiskHeader header = loadDiskHeader(fs, folder);
    brick::CBrickDiskChain(fs, folder).validate();
    const zo::String password = header.isEncrypted() ? passwords.forExistingDisk(folder.toLocalPath()) : zo::String();
    brick::CBrickDisk::OpenOptions options;
    options.allowExpensiveKeyDerivation = passwords.allowsExpensiveKdf();
    return zo::P<brick::CBrickDisk>(new brick::CBrickDisk(fs, folder, password, access, maxBackgroundOps, options));
}

zo::TCryptBuffer<zo::uint8> keyForLinks(zo::IFileSystem* fs, const zo::CURI& folder, const CPasswordSource& passwords)
{
    zo::TCryptBuffer<zo::uint8> key;
    // Also the header of a disk whose making or removal was cut short.
    brick::CBrickDiskHeader header;
    header.load(fs, folder);
    if (!header.hasIdentity() || !header.isEncrypted())
        return key;
    const zo::String password = passwords.forExistingDisk(folder.toLocalPath());
    if (!brick::CBrickDisk::isEncryptPasswordCorrect(header, password, &key, passwords.allowsExpensiveKdf()))
        throw brick::CBrickDiskError(brick::CBrickDiskError::IncorrectPassword, folder);
    return key;
}

void addForceShareOption(CLI::App& command, bool& forceShare)
{
    command.add_flag("--force-share", forceShare,
                     "Read the disk even while another process writes it, at your own risk: what is read may "
                     "mix bricks from before and after that process's changes");
}

namespace {

// Empty: a writing lock writes a new random write mark.
const zo::String kNewWriteMark;

// `writeMark` null: the lock leaves the disk's write mark as it is.
zo::P<brick::CBrickDiskLock> acquireLock(zo::IFileSystem* fs, const zo::CURI& folder, brick::CBrickDiskLock::Mode mode,
                                         bool offersForceShare, const zo::String* writeMark)
{
    zo::P<brick::CBrickDiskLock> lock;
    try {
        lock = writeMark ? brick::CBrickDiskLock::acquire(fs, folder, mode, *writeMark)
                         : brick::CBrickDiskLock::acquireKeepingWriteMark(fs, folder, mode);
    } catch (const brick::CBrickDiskError& e) {
        if (e.getErrorCode() != brick::CBrickDiskError::DiskInUse)
            throw;
        zo::String holder = e.getProps().lookup("holder");
        zo::String message = "The disk is in use by another process.";
        if (offersForceShare && mode == brick::CBrickDiskLock::ForReading)
            message += " Give --force-share to read it all the same, at your own risk.";
        zo::CProps props;
        props.add("diskFolder", e.getDiskFolder().toLocalPath());
        if (!holder.isEmpty())
            props.add("holder", holder);
        throw zo::CError(message, zo::String(), -1, props);
    }
    if (!lock->isHeld())
        std::fprintf(stderr,
                     "brickdisk: warning: the file system of %s cannot lock it; nothing keeps other "
                     "processes from using it at the same time\n",
                     folder.toLocalPath().c_str());
    return lock;
}

} // namespace

zo::P<brick::CBrickDiskLock> lockDisk(zo::IFileSystem* fs, const zo::CURI& folder, brick::CBrickDiskLock::Mode mode)
{
    return acquireLock(fs, folder, mode, false, &kNewWriteMark);
}

zo::P<brick::CBrickDiskLock> lockDiskForWriting(zo::IFileSystem* fs, const zo::CURI& folder,
                                                const zo::String& writeMark)
{
    return acquireLock(fs, folder, brick::CBrickDiskLock::ForWriting, false, &writeMark);
}

zo::P<brick::CBrickDiskLock> lockDiskKeepingWriteMark(zo::IFileSystem* fs, const zo::CURI& folder,
                                                      brick::CBrickDiskLock::Mode mode)
{
    return acquireLock(fs, folder, mode, false, nullptr);
}

void checkDiskFree(zo::IFileSystem* fs, const zo::CURI& folder, brick::CBrickDiskLock::Mode mode)
{
    lockDiskKeepingWriteMark(fs, folder, mode);
}

zo::P<brick::CBrickDiskLock> lockDisk(zo::IFileSystem* fs, const zo::CURI& folder, brick::CBrickDiskLock::Mode mode,
                                      bool forceShare)
{
    if (forceShare && mode == brick::CBrickDiskLock::ForReading)
        return zo::P<brick::CBrickDiskLock>();
    return acquireLock(fs, folder, mode, true, &kNewWriteMark);
}

std::vector<zo::CURI> parentDiskFolders(zo::IFileSystem* fs, const zo::CURI& folder)
{
    const brick::CBrickDiskChain chain(fs, folder);
    std::vector<zo::CURI> parents;
    for (size_t i = 1; i < chain.getMembers().size(); ++i)
        parents.push_back(chain.getMembers()[i].folder);
    return parents;
}

zo::CURI locateBrickFile(const brick::CBrickDisk& disk, zo::int64 index)
{
    const brick::CBrickReader::Location location = disk.getBrickReader()->locate(index);
    if (!location.isHole())
        return location.file;
    return disk.getDiskFolder() << brick::CBrickTree::getRelativeBrickURI(disk.getHeader(), index);
}

void throwBrickReadError(const brick::CBrickDisk& disk, zo::int64 index, const zo::CError& cause)
{
    throw zo::CError(
        "Cannot read brick " + zo::toDecimalString(index) + ".", zo::String(), -1,
        zo::CProps().add("brickIndex", index).add("brickFile", locateBrickFile(disk, index).toString(true)), &cause);
}

} // namespace cli
