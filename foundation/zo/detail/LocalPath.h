// Path resolution of CLocalFileSystem that follows no symbolic link. A disk
// folder may hold entries planted by someone else; resolving every path
// without links keeps each operation inside the folders it names, and
// checking the type of what was opened keeps FIFOs and devices out.
#pragma once

#include "zo/Error.h"

#include <string>
#include <sys/types.h>

namespace zo {

// An open file descriptor, closed when the object goes (-1: none).
class CFileDescriptor {
public:
    explicit CFileDescriptor(int fd = -1) : m_fd(fd) {}
    ~CFileDescriptor();
    CFileDescriptor(CFileDescriptor&& other) noexcept : m_fd(other.release()) {}
    CFileDescriptor& operator=(CFileDescriptor&& other) noexcept;
    CFileDescriptor(const CFileDescriptor&) = delete;
    CFileDescriptor& operator=(const CFileDescriptor&) = delete;

    int get() const { return m_fd; }
    bool isOpen() const { return m_fd >= 0; }
    // Hands the descriptor over to the caller, who closes it.
    int release();

private:
    int m_fd;
};

// open(2) of `path` (relative to the working folder when not absolute) with
// `flags` (O_CLOEXEC is added), following no symbolic link in any component:
// a link on the way fails with ELOOP, and so does a link as the last
// component unless `flags` holds O_PATH | O_NOFOLLOW, which opens the link
// itself. Returns the descriptor, or -1 with errno set. Uses openat2 with
// RESOLVE_NO_SYMLINKS, or opens one component after the other where the
// kernel lacks openat2.
int openLocalPathWithoutLinks(const std::string& path, int flags, mode_t mode = 0);

// The same, opening one component after the other; exposed for its tests.
int openLocalPathStepByStep(const std::string& path, int flags, mode_t mode);

// The folder that holds the last component of a path, opened (O_RDONLY, so
// that it can be synced) without following links, and that component's
// name: the base for the *at() calls that act on the entry itself, never on
// what a link there points to.
struct CLocalEntry {
    CFileDescriptor folder;
    std::string name;
};

// Opens the folder holding `path`'s last component into `entry`; false with
// errno set when that fails.
bool tryOpenLocalEntry(const std::string& path, CLocalEntry& entry);
// The same, throwing what localPathError makes of a failure (NotFound for a
// missing folder) with `pathText` and `action` as context.
CLocalEntry openLocalEntry(const std::string& path, const String& pathText, const String& action);

// fsync of an open folder. Some file systems cannot sync a folder (EINVAL);
// their entries are as durable as they get. Throws makeErrnoError's error
// with `pathText`.
void syncOpenFolder(int folder, const String& pathText);

// makeErrnoError for the local file system: a refused symbolic link (ELOOP)
// becomes the error "The path is, or goes through, a symbolic link, which is
// not followed." with `path` and `action` as properties.
CFileSystemError localPathError(int errnoValue, const String& action, const String& path);

// The error "The path is not a regular file." with `path` as property
// (problem IsAFolder for a folder, Unclassified for a FIFO, a device, a
// socket or a link).
CFileSystemError notRegularFileError(const String& path, bool isFolder = false);

} // namespace zo
