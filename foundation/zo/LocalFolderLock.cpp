#include "zo/detail/LocalFolderLock.h"

#include "zo/Log.h"
#include "zo/detail/LocalPath.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace zo {

namespace {

constexpr int maxHolderLength = 200;

class CLocalFolderLock : public CBase, public IFileSystemLock {
public:
    CLocalFolderLock(int fd, bool exclusive) : m_fd(fd), m_exclusive(exclusive) {}
    // Closing the only descriptor of the open file description releases the
    // lock; an exclusive holder first wipes its name from the file.
    ~CLocalFolderLock() override
    {
        if (m_exclusive && ::ftruncate(m_fd, 0) != 0) {
            // The lock goes with the close all the same; a stale name in the
            // file is only reported while someone holds the lock again.
        }
        ::close(m_fd);
    }
    CLocalFolderLock(const CLocalFolderLock&) = delete;
    CLocalFolderLock& operator=(const CLocalFolderLock&) = delete;
    bool isExclusive() const override { return m_exclusive; }

private:
    int m_fd;
    bool m_exclusive;
};

CFileSystemError lockError(CFileSystemError::Problem problem, const String& message, const String& path,
                           const String& holder = String())
{
    CProps props;
    props.add("path", path).add("action", String("lock"));
    if (!holder.isEmpty())
        props.add("holder", holder);
    return CFileSystemError(problem, CError(message, String(), -1, props));
}

// Who holds the lock that refused ours: the exclusive holder's own words from
// the file, or a note that readers hold it.
String describeHolder(int fd)
{
    struct flock probe {};
    probe.l_type = F_WRLCK;
    probe.l_whence = SEEK_SET;
    if (::fcntl(fd, F_OFD_GETLK, &probe) != 0 || probe.l_type == F_UNLCK)
        return String();
    if (probe.l_type == F_RDLCK)
        return String("processes that read it");
    char text[maxHolderLength + 1];
    const ssize_t got = ::pread(fd, text, maxHolderLength, 0);
    if (got <= 0)
        return String("another process");
    return String(std::string(text, static_cast<size_t>(got)));
}

// Opens the lock file `name` in the open folder `folder`. The file is never
// followed as a link, and must be a regular file: a FIFO, a folder or a
// link planted there fails with an error that names the lock file.
int openLockFile(int folder, const char* name, bool exclusive, const String& folderText, const String& lockText)
{
    constexpr int noSurprises = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    int fd = ::openat(folder, name, O_RDWR | O_CREAT | noSurprises, 0666);
    if (fd < 0 && (errno == EACCES || errno == EROFS)) {
        // A reader of a folder it may not write can still share a lock on a
        // lock file that exists.
        if (exclusive || (fd = ::openat(folder, name, O_RDONLY | noSurprises)) < 0)
            throw lockError(CFileSystemError::NotSupported, "The folder cannot hold a lock file.", folderText);
    }
    if (fd < 0) {
        if (errno == EISDIR)
            throw notRegularFileError(lockText, true);
        throw localPathError(errno, "open", lockText);
    }
    CFileDescriptor lockFile(fd);
    struct stat info {};
    if (::fstat(fd, &info) != 0)
        throw makeErrnoError(errno, "fstat", lockText);
    if (!S_ISREG(info.st_mode))
        throw notRegularFileError(lockText, S_ISDIR(info.st_mode));
    return lockFile.release();
}

} // namespace

const char* getLocalFolderLockFileName()
{
    return ".lock";
}

P<IFileSystemLock> lockLocalFolder(const CURI& folder, bool exclusive)
{
    const String folderText = folder.toString(true);
    const CFileDescriptor folderFd(
        openLocalPathWithoutLinks(folder.toLocalPath(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
    if (!folderFd.isOpen())
        throw localPathError(errno, "lock", folderText);

    const int fd = openLockFile(folderFd.get(), getLocalFolderLockFileName(), exclusive, folderText,
                                (folder << getLocalFolderLockFileName()).toString(true));
    struct flock request {};
    request.l_type = exclusive ? F_WRLCK : F_RDLCK;
    request.l_whence = SEEK_SET;
    if (::fcntl(fd, F_OFD_SETLK, &request) != 0) {
        const int lockErrno = errno;
        const String holder = (lockErrno == EAGAIN || lockErrno == EACCES) ? describeHolder(fd) : String();
        ::close(fd);
        if (lockErrno == EAGAIN || lockErrno == EACCES)
            throw lockError(CFileSystemError::Locked, "The folder is locked by someone else.", folderText, holder);
        if (lockErrno == EINVAL || lockErrno == ENOLCK || lockErrno == ENOSYS)
            throw lockError(CFileSystemError::NotSupported, "The folder's file system cannot lock files.", folderText);
        throw makeErrnoError(lockErrno, "lock", folderText);
    }
    P<IFileSystemLock> lock(new CLocalFolderLock(fd, exclusive));
    if (exclusive) {
        const std::string holder = "process " + std::to_string(::getpid()) + " (" + program_invocation_short_name + ")";
        if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, holder.data(), holder.size(), 0) < 0) {
            // Only the description of the holder is missing; the lock holds.
        }
    }
    return lock;
}

} // namespace zo
