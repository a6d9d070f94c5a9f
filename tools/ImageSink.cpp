#include "ImageSink.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cli {

namespace {

// Chunks queued for the writer before append waits.
constexpr size_t kMaxQueued = 4;

} // namespace

CImageSink::CImageSink(const std::string& path) : m_path(path)
{
    if (path == "-") {
        m_fd = STDOUT_FILENO;
        m_path = "standard output";
    } else {
        struct stat info {};
        const bool existsAsOther = ::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode);
        const int flags = O_WRONLY | O_CLOEXEC | (existsAsOther ? 0 : O_CREAT | O_TRUNC);
        m_fd = ::open(path.c_str(), flags, 0666);
        if (m_fd < 0)
            throw zo::makeErrnoError(errno, "open", zo::String(path));
        m_ownsFd = true;
        m_sparse = ::fstat(m_fd, &info) == 0 && S_ISREG(info.st_mode);
    }
    m_writer = std::thread([this] { writerLoop(); });
}

CImageSink::~CImageSink()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_writer.join();
    if (m_ownsFd)
        ::close(m_fd);
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
    if (m_sparse && ::ftruncate(m_fd, m_position) != 0)
        throw zo::makeErrnoError(errno, "ftruncate", zo::String(m_path));
}

void CImageSink::discard()
{
    if (m_sparse)
        ::unlink(m_path.c_str());
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
        const ssize_t n = m_sparse ? ::pwrite(m_fd, data, size, m_position) : ::write(m_fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw zo::makeErrnoError(errno, "write", zo::String(m_path));
        data += n;
        size -= static_cast<size_t>(n);
        m_position += n;
    }
}

} // namespace cli
