#include "ImageSource.h"

#include "Interrupt.h"

#include "zo/Error.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cli {

CImageSource::CImageSource(const std::string& path, zo::int64 diskSize) : m_diskSize(diskSize)
{
    if (path == "-") {
        m_fd = STDIN_FILENO;
        m_name = "standard input";
    } else {
        m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (m_fd < 0)
            throw zo::makeErrnoError(errno, "open", zo::String(path));
        m_ownsFd = true;
        m_name = path;
    }
    struct stat info {};
    if (::fstat(m_fd, &info) == 0) {
        if (S_ISREG(info.st_mode)) {
            // Standard input may be a file that was partly read already.
            const off_t start = ::lseek(m_fd, 0, SEEK_CUR);
            m_regularFileStart = start >= 0 ? start : 0;
            m_size = info.st_size - m_regularFileStart;
        } else if (S_ISBLK(info.st_mode)) {
            const off_t end = ::lseek(m_fd, 0, SEEK_END);
            if (end >= 0 && ::lseek(m_fd, 0, SEEK_SET) == 0)
                m_size = end;
        }
    }
    if (m_size > diskSize) {
        const zo::CProps props =
            zo::CProps().add("image", zo::String(m_name)).add("imageSize", m_size).add("diskSize", diskSize);
        if (m_ownsFd)
            ::close(m_fd);
        throw zo::CError("Image is larger than the disk.", zo::String(), -1, props);
    }
}

CImageSource::~CImageSource()
{
    if (m_ownsFd)
        ::close(m_fd);
}

bool CImageSource::skipHole(int size)
{
    if (m_regularFileStart < 0 || size < 1 || m_position + size > m_size)
        return false;
    const off_t at = static_cast<off_t>(m_regularFileStart + m_position);
    const off_t data = ::lseek(m_fd, at, SEEK_DATA);
    const bool hole = (data < 0 && errno == ENXIO) || (data >= 0 && data >= at + size);
    if (::lseek(m_fd, hole ? at + size : at, SEEK_SET) < 0)
        throw zo::makeErrnoError(errno, "lseek", zo::String(m_name));
    if (hole)
        m_position += size;
    return hole;
}

int CImageSource::readFully(zo::uint8* dst, int size)
{
    int total = 0;
    while (total < size) {
        const ssize_t n = ::read(m_fd, dst + total, static_cast<size_t>(size - total));
        if (n < 0 && errno == EINTR) {
            throwIfInterrupted();
            continue;
        }
        if (n < 0)
            throw zo::makeErrnoError(errno, "read", zo::String(m_name));
        if (n == 0)
            break;
        total += static_cast<int>(n);
    }
    m_position += total;
    return total;
}

int CImageSource::read(zo::uint8* dst, int size)
{
    const int wanted = static_cast<int>(std::min<zo::int64>(size, m_diskSize - m_position));
    return wanted > 0 ? readFully(dst, wanted) : 0;
}

void CImageSource::refuseMoreThanDisk()
{
    zo::uint8 probe;
    if (m_position >= m_diskSize && readFully(&probe, 1) > 0)
        throw zo::CError("Image holds more than the disk size.", zo::String(), -1,
                         zo::CProps().add("image", zo::String(m_name)).add("diskSize", m_diskSize));
}

} // namespace cli
