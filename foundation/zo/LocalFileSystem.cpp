#include "zo/LocalFileSystem.h"

#include "zo/CompletionPool.h"
#include "zo/FileSystemOp.h"
#include "zo/detail/LocalFileStore.h"
#include "zo/detail/LocalFileStream.h"
#include "zo/detail/LocalFolderLock.h"
#include "zo/detail/LocalPath.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace zo {

namespace {

bool isMissingErrno(int errnoValue)
{
    return errnoValue == ENOENT || errnoValue == ENOTDIR;
}

// What is at `path` itself (a link is described, not followed), resolved
// without following any link on the way: true when something exists, false
// when it is missing; a link on the way and other failures throw.
bool statPath(const CURI& path, struct stat& info)
{
    const CFileDescriptor fd(openLocalPathWithoutLinks(path.toLocalPath(), O_PATH | O_NOFOLLOW));
    if (!fd.isOpen()) {
        if (isMissingErrno(errno))
            return false;
        throw localPathError(errno, "stat", path.toString(true));
    }
    if (::fstat(fd.get(), &info) != 0)
        throw makeErrnoError(errno, "fstat", path.toString(true));
    return true;
}

bool isLocalFolder(const CURI& path)
{
    struct stat info {};
    return statPath(path, info) && S_ISDIR(info.st_mode);
}

CFileSystemError moveError(int errnoValue, const char* action, const CURI& from, const CURI& to)
{
    CFileSystemError error = localPathError(errnoValue, action, from.toString(true));
    error.getProps().add("targetPath", to.toString(true));
    return error;
}

// Moves without replacing an existing target: one atomic renameat2 where the
// file system offers it, otherwise link and unlink. In that fallback a mover
// that finds the source gone after linking (another mover took it) removes
// its link again, so that only one mover ends with the file.
void moveLocalFileWithoutOverwrite(const CLocalEntry& source, const CLocalEntry& target, const CURI& from,
                                   const CURI& to)
{
    const int sourceFolder = source.folder.get();
    const int targetFolder = target.folder.get();
    if (::renameat2(sourceFolder, source.name.c_str(), targetFolder, target.name.c_str(), RENAME_NOREPLACE) == 0)
        return;
    if (errno != EINVAL && errno != ENOSYS)
        throw moveError(errno, "rename", from, to);
    if (::linkat(sourceFolder, source.name.c_str(), targetFolder, target.name.c_str(), 0) != 0)
        throw moveError(errno, "link", from, to);
    if (::unlinkat(sourceFolder, source.name.c_str(), 0) != 0) {
        const int unlinkErrno = errno;
        ::unlinkat(targetFolder, target.name.c_str(), 0);
        throw moveError(unlinkErrno, "unlink", from, to);
    }
}

// Moves the entry `from` itself (a link is moved as a link) into the folder
// of `to`, neither path going through a link.
void moveLocalFile(const CURI& from, const CURI& to, bool overwrite, bool sync)
{
    const CLocalEntry source = openLocalEntry(from.toLocalPath(), from.toString(true), "rename");
    const CLocalEntry target = openLocalEntry(to.toLocalPath(), to.toString(true), "rename");
    if (!overwrite)
        moveLocalFileWithoutOverwrite(source, target, from, to);
    else if (::renameat(source.folder.get(), source.name.c_str(), target.folder.get(), target.name.c_str()) != 0)
        throw moveError(errno, "rename", from, to);
    if (sync) {
        syncOpenFolder(target.folder.get(), to.toString(true));
        if (localParentFolder(from) != localParentFolder(to))
            syncOpenFolder(source.folder.get(), from.toString(true));
    }
}

// unlink of the entry itself (a link goes, not what it points to); true
// when it was there.
bool unlinkLocalFile(const CURI& file)
{
    CLocalEntry entry;
    if (!tryOpenLocalEntry(file.toLocalPath(), entry)) {
        if (errno == ENOENT)
            return false;
        throw localPathError(errno, "unlink", file.toString(true));
    }
    if (::unlinkat(entry.folder.get(), entry.name.c_str(), 0) == 0)
        return true;
    if (errno == ENOENT)
        return false;
    throw makeErrnoError(errno, "unlink", file.toString(true));
}

// mkdir of `folder` in its parent, opened without following links; 0 or
// the errno value of the failure.
int makeLocalFolderEntry(const CURI& folder, int mode)
{
    CLocalEntry entry;
    if (!tryOpenLocalEntry(folder.toLocalPath(), entry))
        return errno;
    return ::mkdirat(entry.folder.get(), entry.name.c_str(), static_cast<mode_t>(mode)) == 0 ? 0 : errno;
}

// The error of a mkdir that failed with `error`; a link in the way is named as such.
CFileSystemError makeFolderError(int error, const CURI& folder)
{
    struct stat info {};
    if (error == EEXIST && statPath(folder, info) && S_ISLNK(info.st_mode))
        error = ELOOP;
    return localPathError(error, "mkdir", folder.toString(true));
}

void makeLocalFolder(const CURI& folder, int mode)
{
    const int error = makeLocalFolderEntry(folder, mode);
    if (error != 0)
        throw makeFolderError(error, folder);
}

// mkdir that accepts an existing folder and creates missing parents first.
void makeLocalFolderWithParents(const CURI& folder, int mode)
{
    int error = makeLocalFolderEntry(folder, mode);
    if (error == ENOENT && !folder.getParent().isEmpty()) {
        makeLocalFolderWithParents(folder.getParent(), mode);
        error = makeLocalFolderEntry(folder, mode);
    }
    if (error == 0 || (error == EEXIST && isLocalFolder(folder)))
        return;
    throw makeFolderError(error, folder);
}

int openFlags(const CURI& file, IIOStream::Access access, int options)
{
    const int create = (options & IIOStream::OptionReplace) ? O_CREAT | O_TRUNC : 0;
    switch (access) {
    case IIOStream::AccessRead:
        return O_RDONLY;
    case IIOStream::AccessWrite:
        return O_WRONLY | create;
    case IIOStream::AccessReadWrite:
        return O_RDWR | create;
    }
    throw CInvalidArgError("zo::CLocalFileSystem::openStream", "Unknown access value.",
                           CProps().add("uri", file.toString(true)).add("access", static_cast<int>(access)));
}

// Opens the folder `name` below the open folder `parent` for listing; a link
// there fails with ELOOP (or ENOTDIR), a missing one with ENOENT.
int openSubfolder(int parent, const std::string& name)
{
    return ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// The names in the open folder `fd` (which the call takes over and closes),
// each with its type (DT_UNKNOWN resolved without following links).
TArray<std::pair<std::string, unsigned char>> readFolder(int fd, const String& pathText)
{
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        const int openErrno = errno;
        ::close(fd);
        throw makeErrnoError(openErrno, "opendir", pathText);
    }
    TArray<std::pair<std::string, unsigned char>> entries;
    errno = 0;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        unsigned char type = entry->d_type;
        if (name != "." && name != "..") {
            if (type == DT_UNKNOWN) {
                struct stat info {};
                if (::fstatat(::dirfd(dir), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0)
                    type = S_ISDIR(info.st_mode) ? DT_DIR : S_ISREG(info.st_mode) ? DT_REG : DT_UNKNOWN;
            }
            entries.emplace_back(name, type);
        }
        errno = 0;
    }
    const int readErrno = errno;
    ::closedir(dir);
    if (readErrno != 0)
        throw makeErrnoError(readErrno, "readdir", pathText);
    return entries;
}

// Removes temporary files from the open folder `fd` (taken over) and the
// folders below it, never through a link; returns how many.
int removeTemporaryFilesBelow(int fd, const std::string& folder)
{
    const CFileDescriptor self(::dup(fd));
    if (!self.isOpen()) {
        const int dupErrno = errno;
        ::close(fd);
        throw makeErrnoError(dupErrno, "dup", String(folder));
    }
    int removed = 0;
    TArray<std::string> subfolders;
    for (const auto& [name, type] : readFolder(fd, String(folder))) {
        if (type == DT_DIR) {
            subfolders.push_back(name);
        } else if (type == DT_REG && isTemporaryFileName(name)) {
            if (::unlinkat(self.get(), name.c_str(), 0) == 0)
                ++removed;
            else if (errno != ENOENT)
                throw makeErrnoError(errno, "unlink", String(folder + "/" + name));
        }
    }
    for (const std::string& name : subfolders) {
        const int subfolder = openSubfolder(self.get(), name);
        if (subfolder >= 0)
            removed += removeTemporaryFilesBelow(subfolder, folder + "/" + name);
        else if (!isMissingErrno(errno) && errno != ELOOP)
            throw makeErrnoError(errno, "open", String(folder + "/" + name));
    }
    return removed;
}

} // namespace

CLocalFileSystem::CLocalFileSystem(int threadCount) : m_pool(CCompletionPool::create(threadCount))
{}

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

CURI CLocalFileSystem::resolveUserPath(const std::string& path)
{
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(std::filesystem::path(path), error);
    if (error)
        throw makeErrnoError(error.value(), "getcwd", String::fromUTF8(path));
    const std::filesystem::path given = absolute.lexically_normal();
    const std::filesystem::path resolved = std::filesystem::weakly_canonical(given, error);
    std::string text = (error || resolved.empty() ? given : resolved).string();
    while (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return CURI(String::fromUTF8(text));
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
    return postFileSystemOp(
        *m_pool, listener, [file, size, source = P<IInStream>(source), overwrite, sync = isSyncEnabled()] {
            storeLocalFile(file, size, *source, overwrite, sync ? LocalStoreSync::Full : LocalStoreSync::None);
        });
}

P<IFileSystemOp> CLocalFileSystem::beginStoreFileBatched(const CURI& file, int size, IInStream* source, bool overwrite,
                                                         IDoneListener* listener)
{
    checkStoreFileArguments("zo::CLocalFileSystem::beginStoreFileBatched", file, size, source);
    // The pool's threads end before this object does (the destructor shuts
    // the pool down), so the operation may note into it.
    return postFileSystemOp(
        *m_pool, listener, [this, file, size, source = P<IInStream>(source), overwrite, sync = isSyncEnabled()] {
            storeLocalFile(file, size, *source, overwrite, sync ? LocalStoreSync::Content : LocalStoreSync::None);
            noteChangedFolder(file, sync);
        });
}

void CLocalFileSystem::noteChangedFolder(const CURI& path, bool sync)
{
    if (!sync)
        return;
    std::string folder = localParentFolder(path);
    CMutexLock lock(m_batchMutex);
    m_batchFolders.insert(std::move(folder));
}

P<IFileSystemOp> CLocalFileSystem::beginStoreFileStaged(const CURI& file, int size, IInStream* source,
                                                        IDoneListener* listener)
{
    checkStoreFileArguments("zo::CLocalFileSystem::beginStoreFileStaged", file, size, source);
    // The pool's threads end before this object does (the destructor shuts
    // the pool down), so the operation may note into it.
    return postFileSystemOp(*m_pool, listener,
                            [this, file, size, source = P<IInStream>(source), sync = isSyncEnabled()] {
                                if (!sync) {
                                    storeLocalFile(file, size, *source, true, LocalStoreSync::None);
                                    return;
                                }
                                std::string name = stageLocalFile(file, size, *source);
                                CMutexLock lock(m_batchMutex);
                                m_staged.emplace_back(file, std::move(name));
                            });
}

void CLocalFileSystem::syncBatch()
{
    std::vector<std::pair<CURI, std::string>> staged;
    {
        CMutexLock lock(m_batchMutex);
        staged.swap(m_staged);
    }
    // In the order of their paths, so that the files of one folder follow
    // one another and the folder is opened once for them.
    std::sort(staged.begin(), staged.end(), [](const auto& a, const auto& b) {
        return a.first.toString(true).toUTF8() < b.first.toString(true).toUTF8();
    });
    StagedFolder open;
    for (auto it = staged.begin(); it != staged.end(); ++it) {
        try {
            placeStagedLocalFile(it->first, it->second, open);
        } catch (const CError&) {
            CMutexLock lock(m_batchMutex);
            m_staged.insert(m_staged.end(), std::next(it), staged.end());
            throw;
        }
        noteChangedFolder(it->first, true);
    }
    std::set<std::string> folders;
    {
        CMutexLock lock(m_batchMutex);
        folders.swap(m_batchFolders);
    }
    for (auto it = folders.begin(); it != folders.end(); ++it) {
        try {
            syncLocalFolder(*it);
        } catch (const CFileSystemError& e) {
            if (e.getProblem() == CFileSystemError::NotFound)
                continue;
            CMutexLock lock(m_batchMutex);
            m_batchFolders.insert(it, folders.end());
            throw;
        }
    }
}

P<IFileSystemOp> CLocalFileSystem::beginCreateFolder(const CURI& folder, int mode, IDoneListener* listener)
{
    return postFileSystemOp(*m_pool, listener, [this, folder, mode, sync = isSyncEnabled()] {
        makeLocalFolder(folder, mode);
        noteChangedFolder(folder, sync);
    });
}

P<IFileSystemOp> CLocalFileSystem::beginMoveFile(const CURI& from, const CURI& to, bool overwrite,
                                                 IDoneListener* listener)
{
    return postFileSystemOp(
        *m_pool, listener, [from, to, overwrite, sync = isSyncEnabled()] { moveLocalFile(from, to, overwrite, sync); });
}

P<IFileSystemOp> CLocalFileSystem::beginCopyFile(const CURI& from, const CURI& to, bool overwrite,
                                                 IDoneListener* listener)
{
    return postFileSystemOp(
        *m_pool, listener, [from, to, overwrite, sync = isSyncEnabled()] { copyLocalFile(from, to, overwrite, sync); });
}

P<IFileSystemOp> CLocalFileSystem::beginDeleteFile(const CURI& file, IDoneListener* listener)
{
    return postFileSystemOp(*m_pool, listener, [this, file, sync = isSyncEnabled()] {
        unlinkLocalFile(file);
        noteChangedFolder(file, sync);
    });
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
    // O_NONBLOCK: opening a FIFO must not wait for its other end; what was
    // opened is checked to be a regular file before anything is read.
    CFileDescriptor fd(openLocalPathWithoutLinks(file.toLocalPath(), flags | O_NOFOLLOW | O_NONBLOCK, 0666));
    if (!fd.isOpen())
        throw localPathError(errno, "open", file.toString(true));
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0)
        throw makeErrnoError(errno, "fstat", file.toString(true));
    if (S_ISDIR(info.st_mode))
        throw makeErrnoError(EISDIR, "open", file.toString(true));
    if (!S_ISREG(info.st_mode))
        throw notRegularFileError(file.toString(true));
    if (::fcntl(fd.get(), F_SETFL, ::fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK) != 0)
        throw makeErrnoError(errno, "fcntl F_SETFL", file.toString(true));
    return P<IIOStream>(new CLocalFileStream(fd.release(), file, access, isSyncEnabled()));
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
    return statPath(path, info);
}

void CLocalFileSystem::deleteFile(const CURI& file, bool ignoreMissing)
{
    if (!unlinkLocalFile(file) && !ignoreMissing)
        throw makeErrnoError(ENOENT, "unlink", file.toString(true));
}

TList<String> CLocalFileSystem::listFolder(const CURI& folder)
{
    const int fd = openLocalPathWithoutLinks(folder.toLocalPath(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (fd < 0)
        throw localPathError(errno, "opendir", folder.toString(true));
    TArray<String> names;
    for (const auto& entry : readFolder(fd, folder.toString(true)))
        names.emplace_back(entry.first);
    std::sort(names.begin(), names.end());
    return TList<String>(names.begin(), names.end());
}

P<IFileSystemLock> CLocalFileSystem::lockFolder(const CURI& folder, bool exclusive)
{
    return lockLocalFolder(folder, exclusive);
}

int CLocalFileSystem::removeTemporaryFiles(const CURI& folder)
{
    const int fd = openLocalPathWithoutLinks(folder.toLocalPath(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (fd < 0) {
        if (isMissingErrno(errno))
            return 0;
        throw localPathError(errno, "opendir", folder.toString(true));
    }
    return removeTemporaryFilesBelow(fd, folder.toLocalPath());
}

void CLocalFileSystem::syncAllBelow(const CURI& folder)
{
    const CFileDescriptor fd(openLocalPathWithoutLinks(folder.toLocalPath(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    if (!fd.isOpen())
        throw localPathError(errno, "open", folder.toString(true));
    if (::syncfs(fd.get()) != 0)
        throw makeErrnoError(errno, "syncfs", folder.toString(true));
}

} // namespace zo
