#include "zo/detail/LocalFileStore.h"

#include "zo/Error.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <random>
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

// A temporary file created exclusively in a folder. Removed again when the
// object goes, unless it has been renamed into place.
class CTemporaryFile {
public:
    CTemporaryFile(const std::string& folder, const std::string& targetName, const String& targetPath)
    {
        for (int attempt = 0; attempt < maxNameAttempts; ++attempt) {
            m_path = folder + "/" + makeTemporaryFileName(targetName);
            m_fd = ::open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (m_fd >= 0)
                return;
            if (errno != EEXIST)
                break;
        }
        throw makeErrnoError(errno, "open", targetPath);
    }
    ~CTemporaryFile()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        if (!m_path.empty())
            ::unlink(m_path.c_str());
    }
    CTemporaryFile(const CTemporaryFile&) = delete;
    CTemporaryFile& operator=(const CTemporaryFile&) = delete;

    int getFd() const { return m_fd; }
    const std::string& getPath() const { return m_path; }

    void close(const String& targetPath)
    {
        const int fd = m_fd;
        m_fd = -1;
        if (::close(fd) != 0 && errno != EINTR)
            throw makeErrnoError(errno, "close", targetPath);
    }
    // The file has been renamed into place: nothing is left to remove.
    void forget() { m_path.clear(); }
    // Removes the temporary name now (the file lives on under another name).
    void remove()
    {
        ::unlink(m_path.c_str());
        m_path.clear();
    }

private:
    std::string m_path;
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

// Makes a filled temporary file durable and puts it in place as `file`:
// renamed over it (overwrite) or linked without replacing anything.
void placeTemporaryFile(CTemporaryFile& temporary, const CURI& file, bool overwrite, bool sync)
{
    const String targetPath = file.toString(true);
    const std::string target = file.toLocalPath();
    if (sync && ::fsync(temporary.getFd()) != 0)
        throw makeErrnoError(errno, "fsync", targetPath);
    temporary.close(targetPath);
    if (overwrite) {
        if (::rename(temporary.getPath().c_str(), target.c_str()) != 0)
            throw makeErrnoError(errno, "rename", targetPath);
        temporary.forget();
    } else {
        if (::link(temporary.getPath().c_str(), target.c_str()) != 0)
            throw makeErrnoError(errno, "link", targetPath);
        temporary.remove();
    }
    if (sync)
        syncLocalFolder(localParentFolder(file));
}

CFileSystemError copyError(int errnoValue, const char* action, const CURI& from, const CURI& to)
{
    CFileSystemError error = makeErrnoError(errnoValue, action, from.toString(true));
    error.getProps().add("targetPath", to.toString(true));
    return error;
}

// An open file descriptor, closed when the object goes.
class CFileDescriptor {
public:
    explicit CFileDescriptor(int fd) : m_fd(fd) {}
    ~CFileDescriptor() { ::close(m_fd); }
    CFileDescriptor(const CFileDescriptor&) = delete;
    CFileDescriptor& operator=(const CFileDescriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

// The whole-file copy for targets on another file system than the source.
void copyLocalFileBytes(const CURI& from, const CURI& to, bool overwrite, bool sync)
{
    const int sourceFd = ::open(from.toLocalPath().c_str(), O_RDONLY | O_CLOEXEC);
    if (sourceFd < 0)
        throw copyError(errno, "open", from, to);
    const CFileDescriptor source(sourceFd);
    const String targetPath = to.toString(true);
    CTemporaryFile temporary(localParentFolder(to), to.getName().toUTF8(), targetPath);
    std::vector<uint8> chunk(static_cast<size_t>(copyChunkSize));
    for (;;) {
        const ssize_t got = ::read(source.get(), chunk.data(), chunk.size());
        if (got < 0) {
            if (errno == EINTR)
                continue;
            throw copyError(errno, "read", from, to);
        }
        if (got == 0)
            break;
        writeAll(temporary.getFd(), chunk.data(), static_cast<int>(got), targetPath);
    }
    placeTemporaryFile(temporary, to, overwrite, sync);
}

// errno values of a link that the file systems involved cannot make, where a
// byte copy still can: another file system, no hard links, too many links.
bool linkImpossible(int errnoValue)
{
    return errnoValue == EXDEV || errnoValue == EPERM || errnoValue == EMLINK || errnoValue == ENOTSUP;
}

} // namespace

void storeLocalFile(const CURI& file, int size, IInStream& source, bool overwrite, bool sync)
{
    CTemporaryFile temporary(localParentFolder(file), file.getName().toUTF8(), file.toString(true));
    copyFromSource(temporary.getFd(), size, source, file.toString(true));
    placeTemporaryFile(temporary, file, overwrite, sync);
}

void copyLocalFile(const CURI& from, const CURI& to, bool overwrite, bool sync)
{
    const std::string source = from.toLocalPath();
    const std::string target = to.toLocalPath();
    const std::string folder = localParentFolder(to);
    if (!overwrite) {
        if (::link(source.c_str(), target.c_str()) != 0) {
            if (!linkImpossible(errno))
                throw copyError(errno, "link", from, to);
            copyLocalFileBytes(from, to, overwrite, sync);
            return;
        }
    } else {
        // A link under a temporary name, renamed over the target, replaces
        // the target atomically.
        const std::string temporary = folder + "/" + makeTemporaryFileName(to.getName().toUTF8());
        if (::link(source.c_str(), temporary.c_str()) != 0) {
            if (!linkImpossible(errno))
                throw copyError(errno, "link", from, to);
            copyLocalFileBytes(from, to, overwrite, sync);
            return;
        }
        if (::rename(temporary.c_str(), target.c_str()) != 0) {
            const int renameErrno = errno;
            ::unlink(temporary.c_str());
            throw copyError(renameErrno, "rename", from, to);
        }
    }
    if (sync)
        syncLocalFolder(folder);
}

bool isTemporaryFileName(const std::string& name)
{
    static const std::string prefix = ".tmp-";
    static const std::string suffix = ".part";
    return name.size() >= prefix.size() + 16 + 1 + suffix.size() && name.compare(0, prefix.size(), prefix) == 0 &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0 &&
           name[prefix.size() + 16] == '-';
}

} // namespace zo
