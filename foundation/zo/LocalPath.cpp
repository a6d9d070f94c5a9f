#include "zo/detail/LocalPath.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace zo {

CFileDescriptor::~CFileDescriptor()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

CFileDescriptor& CFileDescriptor::operator=(CFileDescriptor&& other) noexcept
{
    if (this != &other) {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = other.release();
    }
    return *this;
}

int CFileDescriptor::release()
{
    const int fd = m_fd;
    m_fd = -1;
    return fd;
}

namespace {

// Opens one component below the open folder `folder` without following it.
// A link fails with ELOOP unless the caller asked for the link itself.
int openComponent(int folder, const std::string& name, int flags, mode_t mode)
{
    const int fd = ::openat(folder, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0 && errno == ENOTDIR && (flags & O_DIRECTORY)) {
        // O_DIRECTORY reports a link as "not a folder": tell it apart.
        struct stat info {};
        if (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(info.st_mode))
            errno = ELOOP;
        else
            errno = ENOTDIR;
    }
    return fd;
}

} // namespace

int openLocalPathStepByStep(const std::string& path, int flags, mode_t mode)
{
    CFileDescriptor folder(::open(path.rfind('/', 0) == 0 ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder.isOpen())
        return -1;
    size_t start = 0;
    for (;;) {
        while (start < path.size() && path[start] == '/')
            ++start;
        const size_t end = path.find('/', start);
        const std::string name = path.substr(start, end == std::string::npos ? std::string::npos : end - start);
        size_t next = end;
        while (next != std::string::npos && next < path.size() && path[next] == '/')
            ++next;
        const bool last = end == std::string::npos || next >= path.size();
        if (last)
            return openComponent(folder.get(), name.empty() ? std::string(".") : name, flags, mode);
        folder = CFileDescriptor(openComponent(folder.get(), name, O_PATH | O_DIRECTORY, 0));
        if (!folder.isOpen())
            return -1;
        start = next;
    }
}

int openLocalPathWithoutLinks(const std::string& path, int flags, mode_t mode)
{
    open_how how{};
    how.flags = static_cast<uint64>(flags | O_CLOEXEC);
    how.mode = (flags & (O_CREAT | O_TMPFILE)) ? mode : 0;
    how.resolve = RESOLVE_NO_SYMLINKS;
    const long fd = ::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how);
    if (fd >= 0 || errno != ENOSYS)
        return static_cast<int>(fd);
    return openLocalPathStepByStep(path, flags, mode);
}

bool tryOpenLocalEntry(const std::string& path, CLocalEntry& entry)
{
    std::string trimmed = path;
    while (trimmed.size() > 1 && trimmed.back() == '/')
        trimmed.pop_back();
    const size_t slash = trimmed.rfind('/');
    std::string folder;
    if (slash == std::string::npos) {
        folder = ".";
        entry.name = trimmed;
    } else {
        folder = slash == 0 ? std::string("/") : trimmed.substr(0, slash);
        entry.name = trimmed.substr(slash + 1);
    }
    if (entry.name.empty())
        entry.name.assign(1, '.');
    entry.folder = CFileDescriptor(openLocalPathWithoutLinks(folder, O_RDONLY | O_DIRECTORY));
    return entry.folder.isOpen();
}

CLocalEntry openLocalEntry(const std::string& path, const String& pathText, const String& action)
{
    CLocalEntry entry;
    if (!tryOpenLocalEntry(path, entry))
        throw localPathError(errno, action, pathText);
    return entry;
}

void syncOpenFolder(int folder, const String& pathText)
{
    if (::fsync(folder) != 0 && errno != EINVAL)
        throw makeErrnoError(errno, "fsync", pathText);
}

CFileSystemError localPathError(int errnoValue, const String& action, const String& path)
{
    if (errnoValue != ELOOP)
        return makeErrnoError(errnoValue, action, path);
    return CFileSystemError(CFileSystemError::Unclassified,
                            CError("The path is, or goes through, a symbolic link, which is not followed.", String(),
                                   -1, CProps().add("path", path).add("action", action)));
}

CFileSystemError notRegularFileError(const String& path, bool isFolder)
{
    return CFileSystemError(isFolder ? CFileSystemError::IsAFolder : CFileSystemError::Unclassified,
                            CError("The path is not a regular file.", String(), -1, CProps().add("path", path)));
}

} // namespace zo
