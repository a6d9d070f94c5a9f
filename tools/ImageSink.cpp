#include "ImageSink.h"

#include "zo/LocalFileSystem.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cli {

namespace {

// Chunks queued for the writer before append waits.
constexpr size_t kMaxQueued = 4;

// The process's file mode creation mask, read without changing it for good.
mode_t currentUmask()
{
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

// The folder that holds `path` ("." for a bare name).
std::string folderOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

} // namespace

CImageSink::CImageSink(const std::string& path, zo::int64 size, bool force) : m_path(path)
{
    struct stat info {};
    const bool exists = path != "-" && ::lstat(path.c_str(), &info) == 0;
    if (path == "-" || (exists && !S_ISREG(info.st_mode) && !S_ISLNK(info.st_mode) && !S_ISDIR(info.st_mode))) {
        openInPlace(size);
    } else {
        if (exists && S_ISDIR(info.st_mode))
            throw zo::CError("The image path is a folder.", zo::String(), -1, zo::CProps().add("image", path));
        if (exists && S_ISLNK(info.st_mode) && !force)
            throw zo::CError("The image path is a symbolic link; give --force to replace the link with the image.",
                             zo::String(), -1, zo::CProps().add("image", path));
        if (exists && S_ISREG(info.st_mode) && info.st_size > 0 && !force)
            throw zo::CError("The image file exists and is not empty; give --force to replace it.", zo::String(), -1,
                             zo::CProps().add("image", path));
        openTemporary();
    }
    m_writer = zo::startThread([this] { writerLoop(); });
}

void CImageSink::openInPlace(zo::int64 size)
{
    if (m_path == "-") {
        m_fd = STDOUT_FILENO;
        m_path = "standard output";
        return;
    }
    m_fd = ::open(m_path.c_str(), O_WRONLY | O_CLOEXEC);
    if (m_fd < 0)
        throw zo::makeErrnoError(errno, "open", zo::String(m_path));
    m_ownsFd = true;
    struct stat info {};
    if (::fstat(m_fd, &info) == 0 && S_ISBLK(info.st_mode)) {
        unsigned long long deviceSize = 0;
        if (::ioctl(m_fd, BLKGETSIZE64, &deviceSize) != 0)
            throw zo::makeErrnoError(errno, "ioctl BLKGETSIZE64", zo::String(m_path));
        if (static_cast<zo::int64>(deviceSize) < size)
            throw zo::CError("The block device is smaller than the disk.", zo::String(), -1,
                             zo::CProps()
                                 .add("image", m_path)
                                 .add("deviceSize", static_cast<zo::int64>(deviceSize))
                                 .add("diskSize", size));
    }
}

void CImageSink::openTemporary()
{
    const std::string folder = folderOf(m_path);
    const std::string name = m_path.substr(m_path.rfind('/') == std::string::npos ? 0 : m_path.rfind('/') + 1);
    std::string pattern = folder + "/." + name + ".XXXXXX.part";
    m_fd = ::mkostemps(pattern.data(), 5, O_CLOEXEC);
    if (m_fd < 0)
        throw zo::makeErrnoError(errno, "create", zo::String(m_path));
    ::fchmod(m_fd, 0666 & ~currentUmask());
    m_ownsFd = true;
    m_sparse = true;
    m_temporaryPath = pattern;
    m_direct = zo::CLocalFileSystem::setDirectIO(m_fd, true, m_temporaryPath);
}

void CImageSink::stopDirectIO()
{
    m_direct = false;
    zo::CLocalFileSystem::setDirectIO(m_fd, false, m_temporaryPath);
}

CImageSink::~CImageSink()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_writer->join();
    if (m_ownsFd)
        ::close(m_fd);
    discard();
}

CImageSink::Chunk CImageSink::takeChunk()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_spare.empty())
        return Chunk();
    // The old bytes stay: the caller overwrites them, and resizing to the
    // same size then costs no clearing.
    Chunk chunk = std::move(m_spare.back());
    m_spare.pop_back();
    return chunk;
}

void CImageSink::rethrowWriteError()
{
    if (m_error)
        m_error->throwClone();
}

void CImageSink::append(Chunk chunk, bool allZero)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, [this] { return m_queue.size() < kMaxQueued || m_error; });
    rethrowWriteError();
    m_queue.push_back(Queued{std::move(chunk), allZero});
    m_changed.notify_all();
}

void CImageSink::finish()
{
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return (m_queue.empty() && !m_writing) || m_error; });
        rethrowWriteError();
    }
    if (m_temporaryPath.empty())
        return;
    if (::ftruncate(m_fd, m_position) != 0)
        throw zo::makeErrnoError(errno, "ftruncate", zo::String(m_path));
    if (::fsync(m_fd) != 0)
        throw zo::makeErrnoError(errno, "fsync", zo::String(m_path));
    if (::rename(m_temporaryPath.c_str(), m_path.c_str()) != 0)
        throw zo::makeErrnoError(errno, "rename", zo::String(m_path));
    m_temporaryPath.clear();
    zo::CLocalFileSystem::syncFolder(folderOf(m_path));
}

void CImageSink::discard()
{
    if (!m_temporaryPath.empty())
        ::unlink(m_temporaryPath.c_str());
    m_temporaryPath.clear();
}

void CImageSink::writerLoop()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_stopping || !m_queue.empty(); });
        if (m_stopping)
            return;
        Queued item = std::move(m_queue.front());
        m_queue.pop_front();
        m_writing = true;
        // After a failed write nothing more is written.
        const bool failedBefore = static_cast<bool>(m_error);
        lock.unlock();
        zo::P<zo::CError> error;
        try {
            if (!failedBefore)
                writeOut(item);
        } catch (const zo::CError& e) {
            error = e.clone();
        }
        lock.lock();
        m_writing = false;
        if (error && !m_error)
            m_error = error;
        m_spare.push_back(std::move(item.chunk));
        m_changed.notify_all();
    }
}

void CImageSink::writeOut(const Queued& item)
{
    if (item.allZero && m_sparse) {
        m_position += static_cast<zo::int64>(item.chunk.size());
        return;
    }
    writeAll(item.chunk.data(), item.chunk.size());
}

void CImageSink::writeAll(const zo::uint8* data, size_t size)
{
    while (size > 0) {
        const size_t page = PageAlignedAllocator<zo::uint8>::kPage;
        if (m_direct &&
            (reinterpret_cast<uintptr_t>(data) % page != 0 || size % page != 0 ||
             static_cast<zo::uint64>(m_position) % page != 0))
            stopDirectIO();
        const ssize_t n = m_sparse ? ::pwrite(m_fd, data, size, m_position) : ::write(m_fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        // A device with larger blocks than a page refuses the write.
        if (n < 0 && errno == EINVAL && m_direct) {
            stopDirectIO();
            continue;
        }
        if (n < 0)
            throw zo::makeErrnoError(errno, "write", zo::String(m_path));
        data += n;
        size -= static_cast<size_t>(n);
        m_position += n;
    }
}

} // namespace cli
