#include "zo/LocalFileSystem.h"

#include "zo/CompletionPool.h"
#include "zo/FileSystemOp.h"
#include "zo/detail/LocalFileStore.h"
#include "zo/detail/LocalFileStream.h"
#include "zo/detail/LocalFolderLock.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zo {

namespace {

bool isMissingErrno(int errnoValue)
{
    return errnoValue == ENOENT || errnoValue == ENOTDIR;
}

// stat of `path`: true when it exists, false when it is missing; other
// failures throw.
bool statPath(const CURI& path, struct stat& info, bool followLinks = true)
{
    const std::string local = path.toLocalPath();
    if ((followLinks ? ::stat(local.c_str(), &info) : ::lstat(local.c_str(), &info)) == 0)
        return true;
    if (isMissingErrno(errno))
        return false;
    throw makeErrnoError(errno, "stat", path.toString(true));
}

bool isLocalFolder(const CURI& path)
{
    struct stat info {};
    return statPath(path, info) && S_ISDIR(info.st_mode);
}

CFileSystemError moveError(int errnoValue, const char* action, const CURI& from, const CURI& to)
{
    CFileSystemError error = makeErrnoError(errnoValue, action, from.toString(true));
    error.getProps().add("targetPath", to.toString(true));
    return error;
}

// Moves without replacing an existing target: one atomic renameat2 where the
// file system offers it, otherwise link and unlink. In that fallback a mover
// that finds the source gone after linking (another mover took it) removes
// its link again, so that only one mover ends with the file.
void moveLocalFileWithoutOverwrite(const CURI& from, const CURI& to)
{
    const std::string source = from.toLocalPath();
    const std::string target = to.toLocalPath();
    if (::renameat2(AT_FDCWD, source.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0)
        return;
    if (errno != EINVAL && errno != ENOSYS)
        throw moveError(errno, "rename", from, to);
    if (::link(source.c_str(), target.c_str()) != 0)
        throw moveError(errno, "link", from, to);
    if (::unlink(source.c_str()) != 0) {
        const int unlinkErrno = errno;
        ::unlink(target.c_str());
        throw moveError(unlinkErrno, "unlink", from, to);
    }
}

void moveLocalFile(const CURI& from, const CURI& to, bool overwrite, bool sync)
{
    if (!overwrite)
        moveLocalFileWithoutOverwrite(from, to);
    else if (::rename(from.toLocalPath().c_str(), to.toLocalPath().c_str()) != 0)
        throw moveError(errno, "rename", from, to);
    if (sync) {
        const std::string sourceFolder = localParentFolder(from);
        const std::string targetFolder = localParentFolder(to);
        syncLocalFolder(targetFolder);
        if (sourceFolder != targetFolder)
            syncLocalFolder(sourceFolder);
    }
}

// unlink; true when the file was there.
bool unlinkLocalFile(const CURI& file)
{
    if (::unlink(file.toLocalPath().c_str()) == 0)
        return true;
    if (errno == ENOENT)
        return false;
    throw makeErrnoError(errno, "unlink", file.toString(true));
}

void makeLocalFolder(const CURI& folder, int mode)
{
    if (::mkdir(folder.toLocalPath().c_str(), static_cast<mode_t>(mode)) != 0)
        throw makeErrnoError(errno, "mkdir", folder.toString(true));
}

// mkdir that accepts an existing folder and creates missing parents first.
void makeLocalFolderWithParents(const CURI& folder, int mode)
{
    const std::string path = folder.toLocalPath();
    int error = ::mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0 ? 0 : errno;
    if (error == ENOENT && !folder.getParent().isEmpty()) {
        makeLocalFolderWithParents(folder.getParent(), mode);
        error = ::mkdir(path.c_str(), static_cast<mode_t>(mode)) == 0 ? 0 : errno;
    }
    if (error == 0 || (error == EEXIST && isLocalFolder(folder)))
        return;
    throw makeErrnoError(error, "mkdir", folder.toString(true));
}

int openFlags(const CURI& file, IIOStream::Access access, int options)
{
    const int create = (options & IIOStream::OptionReplace) ? O_CREAT | O_TRUNC : 0;
    switch (access) {
    case IIOStream::AccessRead: return O_RDONLY;
    case IIOStream::AccessWrite: return O_WRONLY | create;
    case IIOStream::AccessReadWrite: return O_RDWR | create;
    }
    throw CInvalidArgError("zo::CLocalFileSystem::openStream", "Unknown access value.",
                           CProps().add("uri", file.toString(true)).add("access", static_cast<int>(access)));
}

// Removes temporary files from `folder` and the folders below it; returns how many.
int removeTemporaryFilesBelow(const std::string& folder)
{
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) {
        if (isMissingErrno(errno))
            return 0;
        throw makeErrnoError(errno, "opendir", String(folder));
    }
    TArray<std::string> subfolders;
    TArray<std::string> temporaries;
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        errno = 0;
        if (name == "." || name == "..")
            continue;
        unsigned char type = entry->d_type;
        if (type == DT_UNKNOWN) {
            struct stat info {};
            if (::lstat((folder + "/" + name).c_str(), &info) != 0)
                continue;
            type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_UNKNOWN;
        }
        if (type == DT_DIR)
            subfolders.push_back(folder + "/" + name);
        else if (type == DT_REG && isTemporaryFileName(name))
            temporaries.push_back(folder + "/" + name);
    }
    const int readErrno = errno;
    ::closedir(dir);
    if (readErrno != 0)
        throw makeErrnoError(readErrno, "readdir", String(folder));
    int removed = 0;
    for (const std::string& file : temporaries) {
        if (::unlink(file.c_str()) == 0)
            ++removed;
        else if (errno != ENOENT)
            throw makeErrnoError(errno, "unlink", String(file));
    }
    for (const std::string& subfolder : subfolders)
        removed += removeTemporaryFilesBelow(subfolder);
    return removed;
}

} // namespace

CLocalFileSystem::CLocalFileSystem(int threadCount) : m_pool(CCompletionPool::create(threadCount)) {}

CLocalFileSystem::~CLocalFileSystem()
{
    m_pool->shutdown();
}

void CLocalFileSystem::setSyncEnabled(bool enabled)
{
    m_syncEnabled = enabled;
}

bool CLocalFileSystem::isSyncEnabled() const
{
    return m_syncEnabled;
}

void CLocalFileSystem::waitUntilIdle()
{
    m_pool->waitUntilIdle();
}

void CLocalFileSystem::syncFolder(const std::string& path)
{
    syncLocalFolder(path);
}

bool CLocalFileSystem::setDirectIO(int fd, bool on, const std::string& path)
{
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0)
        throw makeErrnoError(errno, "fcntl F_GETFL", String(path));
    if (::fcntl(fd, F_SETFL, on ? flags | O_DIRECT : flags & ~O_DIRECT) == 0)
        return true;
    if (on && errno == EINVAL)
        return false;
    throw makeErrnoError(errno, "fcntl F_SETFL", String(path));
}

P<IFileSystemOp> CLocalFileSystem::beginStoreFile(const CURI& file, int size, IInStream* source, bool overwrite,
                                                  IDoneListener* listener)
{
    checkStoreFileArguments("zo::CLocalFileSystem::beginStoreFile", file, size, source);
    return postFileSystemOp(*m_pool, listener, [file, size, source = P<IInStream>(source), overwrite, sync = isSyncEnabled()] {
        storeLocalFile(file, size, *source, overwrite, sync);
    });
}

P<IFileSystemOp> CLocalFileSystem::beginCreateFolder(const CURI& folder, int mode, IDoneListener* listener)
{
    return postFileSystemOp(*m_pool, listener, [folder, mode] { makeLocalFolder(folder, mode); });
}

P<IFileSystemOp> CLocalFileSystem::beginMoveFile(const CURI& from, const CURI& to, bool overwrite,
                                                 IDoneListener* listener)
{
    return postFileSystemOp(*m_pool, listener, [from, to, overwrite, sync = isSyncEnabled()] { moveLocalFile(from, to, overwrite, sync); });
}

P<IFileSystemOp> CLocalFileSystem::beginCopyFile(const CURI& from, const CURI& to, bool overwrite,
                                                 IDoneListener* listener)
{
    return postFileSystemOp(*m_pool, listener, [from, to, overwrite, sync = isSyncEnabled()] { copyLocalFile(from, to, overwrite, sync); });
}

P<IFileSystemOp> CLocalFileSystem::beginDeleteFile(const CURI& file, IDoneListener* listener)
{
    return postFileSystemOp(*m_pool, listener, [file] { unlinkLocalFile(file); });
}

P<IFileInfo> CLocalFileSystem::getFileInfo(const CURI& path, bool throwIfMissing)
{
    struct stat info {};
    if (statPath(path, info)) {
        const bool folder = S_ISDIR(info.st_mode);
        return P<IFileInfo>(new CFileInfo(true, folder, folder ? 0 : info.st_size));
    }
    if (throwIfMissing)
        throw makeErrnoError(ENOENT, "stat", path.toString(true));
    return P<IFileInfo>(new CFileInfo(false, false, 0));
}

P<IIOStream> CLocalFileSystem::openStream(const CURI& file, IIOStream::Access access, const int& options)
{
    const int flags = openFlags(file, access, options);
    const int fd = ::open(file.toLocalPath().c_str(), flags | O_CLOEXEC, 0666);
    if (fd < 0)
        throw makeErrnoError(errno, "open", file.toString(true));
    P<IIOStream> stream(new CLocalFileStream(fd, file, access, isSyncEnabled()));
    struct stat info {};
    if (::fstat(fd, &info) != 0)
        throw makeErrnoError(errno, "fstat", file.toString(true));
    if (S_ISDIR(info.st_mode))
        throw makeErrnoError(EISDIR, "open", file.toString(true));
    return stream;
}

void CLocalFileSystem::createFolder(const CURI& folder, int mode)
{
    makeLocalFolderWithParents(folder, mode);
}

bool CLocalFileSystem::fileExists(const CURI& file)
{
    struct stat info {};
    return statPath(file, info) && S_ISREG(info.st_mode);
}

bool CLocalFileSystem::folderExists(const CURI& folder)
{
    return isLocalFolder(folder);
}

bool CLocalFileSystem::pathExists(const CURI& path)
{
    struct stat info {};
    return statPath(path, info, false);
}

void CLocalFileSystem::deleteFile(const CURI& file, bool ignoreMissing)
{
    if (!unlinkLocalFile(file) && !ignoreMissing)
        throw makeErrnoError(ENOENT, "unlink", file.toString(true));
}

TList<String> CLocalFileSystem::listFolder(const CURI& folder)
{
    DIR* dir = ::opendir(folder.toLocalPath().c_str());
    if (!dir)
        throw makeErrnoError(errno, "opendir", folder.toString(true));
    TArray<String> names;
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.emplace_back(name);
        errno = 0;
    }
    const int readErrno = errno;
    ::closedir(dir);
    if (readErrno != 0)
        throw makeErrnoError(readErrno, "readdir", folder.toString(true));
    std::sort(names.begin(), names.end());
    return TList<String>(names.begin(), names.end());
}

P<IFileSystemLock> CLocalFileSystem::lockFolder(const CURI& folder, bool exclusive)
{
    return lockLocalFolder(folder, exclusive);
}

int CLocalFileSystem::removeTemporaryFiles(const CURI& folder)
{
    return removeTemporaryFilesBelow(folder.toLocalPath());
}

} // namespace zo
