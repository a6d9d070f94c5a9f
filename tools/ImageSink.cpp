#include "ImageSink.h"

#include "zo/Error.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace cli {

CImageSink::CImageSink(const std::string& path) : m_path(path)
{
    if (path == "-") {
        m_fd = STDOUT_FILENO;
        m_path = "standard output";
        return;
    }
    struct stat info {};
    const bool existsAsOther = ::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode);
    const int flags = O_WRONLY | O_CLOEXEC | (existsAsOther ? 0 : O_CREAT | O_TRUNC);
    m_fd = ::open(path.c_str(), flags, 0666);
    if (m_fd < 0)
        throw zo::makeErrnoError(errno, "open", zo::String(path));
    m_ownsFd = true;
    m_sparse = ::fstat(m_fd, &info) == 0 && S_ISREG(info.st_mode);
}

CImageSink::~CImageSink()
{
    if (m_ownsFd)
        ::close(m_fd);
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

void CImageSink::write(const zo::uint8* data, int size)
{
    writeAll(data, static_cast<size_t>(size));
}

void CImageSink::skipZeros(int size)
{
    if (m_sparse) {
        m_position += size;
        return;
    }
    const std::vector<zo::uint8> zeros(static_cast<size_t>(size), 0);
    writeAll(zeros.data(), zeros.size());
}

void CImageSink::finish()
{
    if (m_sparse && ::ftruncate(m_fd, m_position) != 0)
        throw zo::makeErrnoError(errno, "ftruncate", zo::String(m_path));
}

void CImageSink::discard()
{
    if (m_sparse)
        ::unlink(m_path.c_str());
}

} // namespace cli
