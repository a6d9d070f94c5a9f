#include "zo/detail/LocalFileStream.h"

#include "zo/Log.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zo {

CLocalFileStream::CLocalFileStream(int fd, const CURI& uri, Access access, bool syncOnFlush)
    : CStreamBase("Local file stream"), m_fd(fd), m_uri(uri), m_access(access), m_syncOnFlush(syncOnFlush)
{}

CLocalFileStream::~CLocalFileStream()
{
    try {
        close();
    } catch (const std::exception& e) {
        onExceptionInDestructorIgnored("zo::CLocalFileStream", e, true);
    }
}

int64 CLocalFileStream::getLength()
{
    checkOpen();
    struct stat info {};
    if (::fstat(m_fd, &info) != 0)
        throw errnoError(errno, "fstat");
    return info.st_size;
}

int64 CLocalFileStream::getPosition()
{
    checkOpen();
    return m_position;
}

CURI CLocalFileStream::getURI()
{
    return m_uri;
}

void CLocalFileStream::seek(int64 position)
{
    const int64 length = getLength();
    if (position < 0 || position > length)
        throw CIOError(CIOError::SeekOutOfRange, String(),
                       CProps().add("pos", position).add("size", length).add("uri", m_uri.toString(true)));
    m_position = position;
}

void CLocalFileStream::lockRange(int64 start, int64 length, LockType type)
{
    checkOpen();
    struct flock lock {};
    lock.l_type = type == ExclusiveLock ? F_WRLCK : F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = start;
    lock.l_len = length;
    while (::fcntl(m_fd, F_SETLKW, &lock) != 0) {
        if (errno != EINTR)
            throw errnoError(errno, "fcntl");
    }
}

void CLocalFileStream::close()
{
    if (m_fd < 0)
        return;
    const int fd = m_fd;
    m_fd = -1;
    // Linux releases the descriptor even when close reports EINTR, so it is
    // never retried.
    if (::close(fd) != 0 && errno != EINTR)
        throw errnoError(errno, "close");
}

int CLocalFileStream::readLax(void* dst, int size)
{
    checkReadable();
    auto* out = static_cast<uint8*>(dst);
    int done = 0;
    while (done < size) {
        const ssize_t got = ::pread(m_fd, out + done, static_cast<size_t>(size - done), m_position);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            throw errnoError(errno, "read");
        }
        if (got == 0)
            break;
        done += static_cast<int>(got);
        m_position += got;
    }
    return done;
}

int CLocalFileStream::readAvailable(void* dst, int size)
{
    checkReadable();
    if (size <= 0)
        return 0;
    for (;;) {
        const ssize_t got = ::pread(m_fd, dst, static_cast<size_t>(size), m_position);
        if (got >= 0) {
            m_position += got;
            return static_cast<int>(got);
        }
        if (errno != EINTR)
            throw errnoError(errno, "read");
    }
}

bool CLocalFileStream::waitReadable(int)
{
    checkReadable();
    return true;
}

void CLocalFileStream::write(const void* src, int size, IWriteBarrier*)
{
    checkWritable();
    const auto* in = static_cast<const uint8*>(src);
    int done = 0;
    while (done < size) {
        const ssize_t put = ::pwrite(m_fd, in + done, static_cast<size_t>(size - done), m_position);
        if (put < 0) {
            if (errno == EINTR)
                continue;
            throw errnoError(errno, "write");
        }
        done += static_cast<int>(put);
        m_position += put;
    }
}

void CLocalFileStream::flush()
{
    checkOpen();
    if (m_syncOnFlush && m_access != AccessRead && ::fsync(m_fd) != 0)
        throw errnoError(errno, "fsync");
}

void CLocalFileStream::setLength(int64 length)
{
    checkWritable();
    if (length < 0)
        throw CIOError(CIOError::SeekOutOfRange, String(),
                       CProps().add("length", length).add("uri", m_uri.toString(true)));
    while (::ftruncate(m_fd, length) != 0) {
        if (errno != EINTR)
            throw errnoError(errno, "ftruncate");
    }
    if (m_position > length)
        m_position = length;
}

void CLocalFileStream::checkOpen() const
{
    if (m_fd < 0)
        throw CIOError(CIOError::StreamClosed, String(), CProps().add("uri", m_uri.toString(true)));
}

void CLocalFileStream::checkReadable() const
{
    checkOpen();
    if (m_access == AccessWrite)
        throw CIOError(CIOError::ReadFailed, "The stream is open for writing only.",
                       CProps().add("uri", m_uri.toString(true)));
}

void CLocalFileStream::checkWritable() const
{
    checkOpen();
    if (m_access == AccessRead)
        throw CIOError(CIOError::ReadOnly, "The stream is open for reading only.",
                       CProps().add("uri", m_uri.toString(true)));
}

CFileSystemError CLocalFileStream::errnoError(int errnoValue, const String& action) const
{
    return makeErrnoError(errnoValue, action, m_uri.toString(true));
}

} // namespace zo
