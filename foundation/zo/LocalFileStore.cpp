#include "zo/detail/LocalFileStore.h"

#include "zo/Error.h"
#include "zo/detail/LocalPath.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace zo {

namespace {

constexpr int copyChunkSize = 256 * 1024;
// Room left for the target's name in a temporary name (file names are at
// most 255 bytes).
constexpr size_t maxNamePartLength = 200;
constexpr int maxNameAttempts = 16;

uint64 randomNumber()
{
    thread_local std::mt19937_64 generator = [] {
        std::random_device device;
        std::seed_seq seed{device(), device(), device(), device(),
                           static_cast<unsigned>(std::hash<std::thread::id>()(std::this_thread::get_id()))};
        return std::mt19937_64(seed);
    }();
    return generator();
}

// Cuts UTF-8 text to at most `length` bytes without splitting a character.
std::string cutUTF8(const std::string& text, size_t length)
{
    if (text.size() <= length)
        return text;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
        --length;
    return text.substr(0, length);
}

void writeAll(int fd, const uint8* data, int size, const String& path)
{
    int done = 0;
    while (done < size) {
        const ssize_t put = ::write(fd, data + done, static_cast<size_t>(size - done));
        if (put < 0) {
            if (errno == EINTR)
                continue;
            throw makeErrnoError(errno, "write", path);
        }
        done += static_cast<int>(put);
    }
}

// A temporary file created exclusively in the open folder `folder` (which
// must outlive it). Removed again when the object goes, unless it has been
// renamed into place.
class CTemporaryFile {
public:
    CTemporaryFile(int folder, const std::string& targetName, const String& targetPath) : m_folder(folder)
    {
        for (int attempt = 0; attempt < maxNameAttempts; ++attempt) {
            m_name = makeTemporaryFileName(targetName);
            m_fd = ::openat(m_folder, m_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
            if (m_fd >= 0)
                return;
            if (errno != EEXIST)
                break;
        }
        m_name.clear();
        throw localPathError(errno, "open", targetPath);
    }
    ~CTemporaryFile()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        if (!m_name.empty())
            ::unlinkat(m_folder, m_name.c_str(), 0);
    }
    CTemporaryFile(const CTemporaryFile&) = delete;
    CTemporaryFile& operator=(const CTemporaryFile&) = delete;

    int getFd() const { return m_fd; }
    const std::string& getName() const { return m_name; }

    void close(const String& targetPath)
    {
        const int fd = m_fd;
        m_fd = -1;
        if (::close(fd) != 0 && errno != EINTR)
            throw makeErrnoError(errno, "close", targetPath);
    }
    // The file has been renamed into place: nothing is left to remove.
    void forget() { m_name.clear(); }
    // Removes the temporary name now (the file lives on under another name).
    void remove()
    {
        ::unlinkat(m_folder, m_name.c_str(), 0);
        m_name.clear();
    }

private:
    int m_folder;
    std::string m_name;
    int m_fd = -1;
};

void copyFromSource(int fd, int size, IInStream& source, const String& targetPath)
{
    std::vector<uint8> chunk(static_cast<size_t>(std::clamp(size, 1, copyChunkSize)));
    int done = 0;
    while (done < size) {
        const int wanted = std::min(size - done, copyChunkSize);
        const int got = source.readLax(chunk.data(), wanted);
        if (got < wanted)
            throw CIOError(CIOError::EndOfData, "The source delivered fewer bytes than the store expected.",
                           CProps().add("path", targetPath).add("size", size).add("got", done + std::max(got, 0)));
        writeAll(fd, chunk.data(), got, targetPath);
        done += got;
    }
}

} // namespace

std::string makeTemporaryFileName(const std::string& targetName)
{
    static const char digits[] = "0123456789abcdef";
    uint64 value = randomNumber();
    std::string hex(16, '0');
    for (char& digit : hex) {
        digit = digits[value & 0xF];
        value >>= 4;
    }
    return ".tmp-" + hex + "-" + cutUTF8(targetName, maxNamePartLength) + ".part";
}

std::string localParentFolder(const CURI& path)
{
    const CURI parent = path.getParent();
    return parent.isEmpty() ? std::string(".") : parent.toLocalPath();
}

void syncLocalFolder(const std::string& folder)
{
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        throw makeErrnoError(errno, "open", String(folder));
    // Some file systems cannot sync a folder (EINVAL); their entries are as
    // durable as they get.
    const bool failed = ::fsync(fd) != 0 && errno != EINVAL;
    const int syncErrno = errno;
    ::close(fd);
    if (failed)
        throw makeErrnoError(syncErrno, "fsync", String(folder));
}

namespace {

// Refuses to replace anything but a regular file: a rename would put the
// new file in place of a planted link, FIFO or device without a word, and
// the caller that meant to update a file of its own is told instead.
void checkReplaceable(const CLocalEntry& target, const String& targetPath)
{
    struct stat info {};
    if (::fstatat(target.folder.get(), target.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT)
            return;
        throw makeErrnoError(errno, "stat", targetPath);
    }
    if (S_ISLNK(info.st_mode))
        throw localPathError(ELOOP, "rename", targetPath);
    if (!S_ISREG(info.st_mode))
        throw notRegularFileError(targetPath, S_ISDIR(info.st_mode));
}

// Makes a filled temporary file's bytes durable (fdatasync: a new file's
// size and blocks are included, its times are not needed) and puts it in
// place as `target`'s entry: renamed over it (overwrite) or linked without
// replacing anything. With LocalStoreSync::Full the folder entry is synced too.
void placeTemporaryFile(CTemporaryFile& temporary, const CLocalEntry& target, const String& targetPath, bool overwrite,
                        LocalStoreSync sync)
{
    const int folder = target.folder.get();
    if (sync != LocalStoreSync::None && ::fdatasync(temporary.getFd()) != 0)
        throw makeErrnoError(errno, "fdatasync", targetPath);
    temporary.close(targetPath);
    if (overwrite) {
        checkReplaceable(target, targetPath);
        if (::renameat(folder, temporary.getName().c_str(), folder, target.name.c_str()) != 0)
            throw makeErrnoError(errno, "rename", targetPath);
        temporary.forget();
    } else {
        if (::linkat(folder, temporary.getName().c_str(), folder, target.name.c_str(), 0) != 0)
            throw makeErrnoError(errno, "link", targetPath);
        temporary.remove();
    }
    if (sync == LocalStoreSync::Full)
        syncOpenFolder(folder, targetPath);
}

CFileSystemError copyError(int errnoValue, const char* action, const CURI& from, const CURI& to)
{
    CFileSystemError error = localPathError(errnoValue, action, from.toString(true));
    error.getProps().add("targetPath", to.toString(true));
    return error;
}

// Opens the copy's source for reading: a regular file, never a link, a FIFO
// (O_NONBLOCK keeps its open from waiting for a writer) or a device.
CFileDescriptor openCopySource(const CLocalEntry& source, const CURI& from, const CURI& to)
{
    CFileDescriptor fd(
        ::openat(source.folder.get(), source.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.isOpen())
        throw copyError(errno, "open", from, to);
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0)
        throw copyError(errno, "fstat", from, to);
    if (!S_ISREG(info.st_mode))
        throw notRegularFileError(from.toString(true), S_ISDIR(info.st_mode));
    return fd;
}

// Refuses a copy source that is not a regular file before it is linked.
void checkCopySource(const CLocalEntry& source, const CURI& from, const CURI& to)
{
    struct stat info {};
    if (::fstatat(source.folder.get(), source.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        throw copyError(errno, "stat", from, to);
    if (!S_ISREG(info.st_mode))
        throw notRegularFileError(from.toString(true), S_ISDIR(info.st_mode));
}

// The whole-file copy for targets on another file system than the source.
void copyLocalFileBytes(const CLocalEntry& source, const CLocalEntry& target, const CURI& from, const CURI& to,
                        bool overwrite, bool sync)
{
    const CFileDescriptor sourceFd = openCopySource(source, from, to);
    const String targetPath = to.toString(true);
    CTemporaryFile temporary(target.folder.get(), target.name, targetPath);
    std::vector<uint8> chunk(static_cast<size_t>(copyChunkSize));
    for (;;) {
        const ssize_t got = ::read(sourceFd.get(), chunk.data(), chunk.size());
        if (got < 0) {
            if (errno == EINTR)
                continue;
            throw copyError(errno, "read", from, to);
        }
        if (got == 0)
            break;
        writeAll(temporary.getFd(), chunk.data(), static_cast<int>(got), targetPath);
    }
    placeTemporaryFile(temporary, target, targetPath, overwrite, sync ? LocalStoreSync::Full : LocalStoreSync::None);
}

// errno values of a link that the file systems involved cannot make, where a
// byte copy still can: another file system, no hard links, too many links.
bool linkImpossible(int errnoValue)
{
    return errnoValue == EXDEV || errnoValue == EPERM || errnoValue == EMLINK || errnoValue == ENOTSUP;
}

} // namespace

void storeLocalFile(const CURI& file, int size, IInStream& source, bool overwrite, LocalStoreSync sync)
{
    const String targetPath = file.toString(true);
    const CLocalEntry target = openLocalEntry(file.toLocalPath(), targetPath, "open");
    CTemporaryFile temporary(target.folder.get(), target.name, targetPath);
    copyFromSource(temporary.getFd(), size, source, targetPath);
    placeTemporaryFile(temporary, target, targetPath, overwrite, sync);
}

std::string stageLocalFile(const CURI& file, int size, IInStream& source)
{
    const String targetPath = file.toString(true);
    const CLocalEntry target = openLocalEntry(file.toLocalPath(), targetPath, "open");
    CTemporaryFile temporary(target.folder.get(), target.name, targetPath);
    copyFromSource(temporary.getFd(), size, source, targetPath);
    // Only a head start for the sync that placeStagedLocalFile makes: a
    // refusal changes nothing.
    ::sync_file_range(temporary.getFd(), 0, 0, SYNC_FILE_RANGE_WRITE);
    temporary.close(targetPath);
    const std::string name = temporary.getName();
    temporary.forget();
    return name;
}

void placeStagedLocalFile(const CURI& file, const std::string& stagedName, StagedFolder& open)
{
    const String targetPath = file.toString(true);
    const std::string parent = file.getParent().toString(true).toUTF8();
    CLocalEntry target;
    if (open.folder.isOpen() && open.path == parent) {
        target.folder = std::move(open.folder);
        target.name = file.getName().toUTF8();
    } else {
        target = openLocalEntry(file.toLocalPath(), targetPath, "open");
    }
    // Kept open for the next file only once this one is placed.
    open.path.clear();
    const int folder = target.folder.get();
    try {
        const int fd = ::openat(folder, stagedName.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0)
            throw makeErrnoError(errno, "open", targetPath);
        const bool failed = ::fdatasync(fd) != 0;
        const int syncErrno = errno;
        ::close(fd);
        if (failed)
            throw makeErrnoError(syncErrno, "fdatasync", targetPath);
        checkReplaceable(target, targetPath);
        if (::renameat(folder, stagedName.c_str(), folder, target.name.c_str()) != 0)
            throw makeErrnoError(errno, "rename", targetPath);
    } catch (...) {
        ::unlinkat(folder, stagedName.c_str(), 0);
        throw;
    }
    open.folder = std::move(target.folder);
    open.path = parent;
}

void copyLocalFile(const CURI& from, const CURI& to, bool overwrite, bool sync)
{
    const CLocalEntry source = openLocalEntry(from.toLocalPath(), from.toString(true), "open");
    const CLocalEntry target = openLocalEntry(to.toLocalPath(), to.toString(true), "open");
    checkCopySource(source, from, to);
    const int sourceFolder = source.folder.get();
    const int targetFolder = target.folder.get();
    if (!overwrite) {
        if (::linkat(sourceFolder, source.name.c_str(), targetFolder, target.name.c_str(), 0) != 0) {
            if (!linkImpossible(errno))
                throw copyError(errno, "link", from, to);
            copyLocalFileBytes(source, target, from, to, overwrite, sync);
            return;
        }
    } else {
        // A link under a temporary name, renamed over the target, replaces
        // the target atomically.
        checkReplaceable(target, to.toString(true));
        const std::string temporary = makeTemporaryFileName(target.name);
        if (::linkat(sourceFolder, source.name.c_str(), targetFolder, temporary.c_str(), 0) != 0) {
            if (!linkImpossible(errno))
                throw copyError(errno, "link", from, to);
            copyLocalFileBytes(source, target, from, to, overwrite, sync);
            return;
        }
        if (::renameat(targetFolder, temporary.c_str(), targetFolder, target.name.c_str()) != 0) {
            const int renameErrno = errno;
            ::unlinkat(targetFolder, temporary.c_str(), 0);
            throw copyError(renameErrno, "rename", from, to);
        }
    }
    if (sync)
        syncOpenFolder(targetFolder, to.toString(true));
}

bool isTemporaryFileName(const std::string& name)
{
    static const std::string prefix = ".tmp-";
    static const std::string suffix = ".part";
    return name.size() >= prefix.size() + 16 + 1 + suffix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0 && name[prefix.size() + 16] == '-';
}

} // namespace zo
