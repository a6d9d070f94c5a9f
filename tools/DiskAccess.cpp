#include "DiskAccess.h"

#include "UsageError.h"

#include "brick/Brick.h"
#include "brick/BrickDiskChain.h"
#include "brick/BrickDiskError.h"
#include "zo/Error.h"
#ifdef BRICKDISK_HAVE_RADOS
#include "rados/RadosFileSystem.h"
#endif
#ifdef BRICKDISK_HAVE_S3
#include "s3/S3FileSystem.h"
#endif

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>

namespace cli {

namespace {

const std::string radosPrefix = "rados://";
const std::string s3Prefix = "s3://";

CephCluster& cephCluster()
{
    static CephCluster cluster;
    return cluster;
}

S3Service& s3Service()
{
    static S3Service service;
    return service;
}

bool startsWith(const std::string& path, const std::string& prefix)
{
    return path.compare(0, prefix.size(), prefix) == 0;
}

bool isOnCeph(const std::string& path)
{
    return startsWith(path, radosPrefix);
}

bool isOnS3(const std::string& path)
{
    return startsWith(path, s3Prefix);
}

zo::P<zo::IFileSystem> newCephFileSystem([[maybe_unused]] int threadCount)
{
#ifdef BRICKDISK_HAVE_RADOS
    zo::RadosOptions options;
    options.configFile = zo::String::fromUTF8(cephCluster().configFile);
    options.clientId = zo::String::fromUTF8(cephCluster().clientId);
    options.lockLeaseSeconds = cephCluster().lockLeaseSeconds;
    options.operationTimeoutSeconds = cephCluster().operationTimeoutSeconds;
    options.threadCount = threadCount;
    return zo::P<zo::IFileSystem>(new zo::CRadosFileSystem(options));
#else
    throw UsageError("this brickdisk was built without Ceph (librados): rados:// disks are not available");
#endif
}

zo::P<zo::IFileSystem> newS3FileSystem([[maybe_unused]] int threadCount)
{
#ifdef BRICKDISK_HAVE_S3
    zo::S3Options options = zo::loadS3Options(s3Service().endpoint);
    options.virtualHostStyle = options.virtualHostStyle || s3Service().virtualHost;
    options.conditionalWrites = !s3Service().noConditionalPut;
    options.lockLeaseSeconds = s3Service().lockLeaseSeconds;
    options.maxAttempts = s3Service().attempts;
    // Requests run side by side on the transfer thread; the workers only
    // check paths, and a few more keep the requests coming.
    options.threadCount = std::max(threadCount, 8);
    return zo::P<zo::IFileSystem>(new zo::CS3FileSystem(options));
#else
    throw UsageError("this brickdisk was built without S3 (libcurl): s3:// disks are not available");
#endif
}

// The scheme a path starts with: a word (a letter, then letters, digits,
// "+", "-" or ".") followed by ":/", as "s3:" in "s3:/bucket" or "http:" in
// "http://host"; empty when the path starts otherwise.
std::string schemeOf(const std::string& path)
{
    if (path.empty() || !std::isalpha(static_cast<unsigned char>(path[0])))
        return std::string();
    size_t end = 1;
    while (end < path.size() && (std::isalnum(static_cast<unsigned char>(path[end])) || path[end] == '+' ||
                                 path[end] == '-' || path[end] == '.'))
        ++end;
    if (path.compare(end, 2, ":/") != 0)
        return std::string();
    return path.substr(0, end + 1);
}

// Refuses a path that starts like a store's address but is not one of the
// known schemes (a mistyped "s3:/bucket", "S3://bucket", "file:///srv"), which
// would otherwise become a local folder of that odd name.
void checkScheme(const std::string& path)
{
    if (isOnCeph(path) || isOnS3(path))
        return;
    const std::string scheme = schemeOf(path);
    if (scheme.empty())
        return;
    throw UsageError("Unknown storage scheme \"" + scheme + "\" in " + path + ": disks are named " + radosPrefix +
                     "POOL/path (Ceph), " + s3Prefix + "BUCKET/path (S3) or by a local folder; a local folder of "
                     "that name is given as ./" + path + ".");
}

} // namespace

bool isSameStore(const zo::CURI& first, const zo::CURI& second)
{
    const std::string a = first.toLocalPath();
    const std::string b = second.toLocalPath();
    return isOnCeph(a) == isOnCeph(b) && isOnS3(a) == isOnS3(b);
}

bool isLocalFolder(const zo::CURI& folder)
{
    const std::string path = folder.toLocalPath();
    return !isOnCeph(path) && !isOnS3(path);
}

void setS3Service(const S3Service& service)
{
    s3Service() = service;
}

void setCephCluster(const CephCluster& cluster)
{
    cephCluster() = cluster;
}

zo::CURI diskFolderURI(const std::string& path)
{
    if (path.empty())
        throw UsageError("the disk path is empty");
    checkScheme(path);
    if (isOnCeph(path) || isOnS3(path))
        return zo::CURI(zo::String::fromUTF8(path)).toNormalized();
    // The user's own symbolic links on the way to the disk are resolved here,
    // once: the local file system follows no link, so that links planted
    // inside a disk folder never lead out of it.
    std::error_code ignored;
    const std::filesystem::path given = std::filesystem::absolute(std::filesystem::path(path)).lexically_normal();
    const std::filesystem::path resolved = std::filesystem::weakly_canonical(given, ignored);
    std::string absolute = (resolved.empty() ? given : resolved).string();
    while (absolute.size() > 1 && absolute.back() == '/')
        absolute.pop_back();
    return zo::CURI(zo::String(absolute));
}

zo::P<zo::IFileSystem> newFileSystem(const zo::CURI& folder, bool syncEnabled, int threadCount)
{
    if (isOnCeph(folder.toLocalPath()))
        return newCephFileSystem(threadCount);
    if (isOnS3(folder.toLocalPath()))
        return newS3FileSystem(threadCount);
    zo::P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(threadCount));
    fs->setSyncEnabled(syncEnabled);
    return zo::P<zo::IFileSystem>(fs.get());
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
    const zo::String password =
        header.getCipherID() == "null" ? zo::String() : passwords.forExistingDisk(folder.toLocalPath());
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
    if (!header.hasIdentity() || header.getCipherID() == "null")
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

zo::P<brick::CBrickDiskLock> acquireLock(zo::IFileSystem* fs, const zo::CURI& folder, brick::CBrickDiskLock::Mode mode,
                                         bool offersForceShare)
{
    zo::P<brick::CBrickDiskLock> lock;
    try {
        lock = brick::CBrickDiskLock::acquire(fs, folder, mode);
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
        std::fprintf(stderr, "brickdisk: warning: the file system of %s cannot lock it; nothing keeps other "
                             "processes from using it at the same time\n",
                     folder.toLocalPath().c_str());
    return lock;
}

} // namespace

zo::P<brick::CBrickDiskLock> lockDisk(zo::IFileSystem* fs, const zo::CURI& folder, brick::CBrickDiskLock::Mode mode)
{
    return acquireLock(fs, folder, mode, false);
}

zo::P<brick::CBrickDiskLock> lockDisk(zo::IFileSystem* fs, const zo::CURI& folder, brick::CBrickDiskLock::Mode mode,
                                      bool forceShare)
{
    if (forceShare && mode == brick::CBrickDiskLock::ForReading)
        return zo::P<brick::CBrickDiskLock>();
    return acquireLock(fs, folder, mode, true);
}

std::vector<zo::CURI> parentDiskFolders(zo::IFileSystem* fs, const zo::CURI& folder)
{
    const brick::CBrickDiskChain chain(fs, folder);
    std::vector<zo::CURI> parents;
    for (size_t i = 1; i < chain.getMembers().size(); ++i)
        parents.push_back(chain.getMembers()[i].folder);
    return parents;
}

zo::CURI locateBrickFile(zo::IFileSystem* fs, const brick::CBrickDisk& disk, zo::int64 index)
{
    const zo::CURI relative = brick::CBrick::getRelativeBrickURI(disk.getHeader(), index);
    if (fs->fileExists(disk.getDiskFolder() << relative))
        return disk.getDiskFolder() << relative;
    for (const zo::CURI& folder : disk.getParentDiskFolders()) {
        if (fs->fileExists(folder << relative))
            return folder << relative;
    }
    return disk.getDiskFolder() << relative;
}

void throwBrickReadError(zo::IFileSystem* fs, const brick::CBrickDisk& disk, zo::int64 index, const zo::CError& cause)
{
    throw zo::CError("Cannot read brick " + zo::toDecimalString(index) + ".", zo::String(), -1,
                     zo::CProps()
                         .add("brickIndex", index)
                         .add("brickFile", locateBrickFile(fs, disk, index).toString(true)),
                     &cause);
}

} // namespace cli
