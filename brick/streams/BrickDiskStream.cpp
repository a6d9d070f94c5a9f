#include "brick/streams/BrickDiskStream.h"

#include <iterator>

#include "zo/Error.h"
#include "zo/Log.h"

namespace brick {

using zo::CIOError;

CBrickDiskStream::CBrickDiskStream(CBrickDisk* disk)
    : CStreamBase("Brick disk stream"), m_disk(disk), m_uri(disk->getDiskFolder()), m_virtualLength(disk->getSize())
{}

CBrickDiskStream::~CBrickDiskStream()
{
    try {
        close();
    } catch (const std::exception& e) {
        zo::onExceptionInDestructorIgnored("brick::CBrickDiskStream", e, true);
    }
}

void CBrickDiskStream::checkOpen() const
{
    if (!m_disk)
        throw CIOError(CIOError::StreamClosed, String());
}

int64 CBrickDiskStream::getLength()
{
    checkOpen();
    return m_virtualLength;
}

int64 CBrickDiskStream::getPosition()
{
    checkOpen();
    return m_disk->getPosition();
}

CURI CBrickDiskStream::getURI()
{
    return m_uri;
}

void CBrickDiskStream::seek(int64 position)
{
    checkOpen();
    if (position < 0 || position > m_virtualLength)
        throw CIOError(CIOError::SeekOutOfRange, String());
    m_disk->seek(position);
}

void CBrickDiskStream::close()
{
    m_disk = nullptr;
}

void CBrickDiskStream::read(void* dst, int size)
{
    checkOpen();
    m_disk->read(dst, size);
}

int CBrickDiskStream::readLax(void* dst, int size)
{
    const int64 remaining = getLength() - getPosition();
    const int count = size <= remaining ? size : static_cast<int>(remaining);
    read(dst, count);
    return count;
}

bool CBrickDiskStream::waitReadable(int)
{
    checkOpen();
    return true;
}

void CBrickDiskStream::write(const void* src, int size, zo::IWriteBarrier*)
{
    checkOpen();
    m_disk->write(src, size);
    if (m_disk->getPosition() > m_virtualLength)
        m_virtualLength = m_disk->getPosition();
}

P<zo::IWriteBarrier> CBrickDiskStream::createWriteBarrier(zo::IWriteBarrier*)
{
    flush();
    return P<zo::IWriteBarrier>(new zo::CDummyWriteBarrier());
}

void CBrickDiskStream::flush()
{
    checkOpen();
    m_disk->flushChanges();
    const zo::TList<CBrick::Error>& errors = m_disk->getBackgroundErrorList();
    if (errors.size() <= m_reportedSaveErrors)
        return;
    const CBrick::Error& first = *std::next(errors.begin(), static_cast<std::ptrdiff_t>(m_reportedSaveErrors));
    const auto failed = static_cast<int64>(errors.size() - m_reportedSaveErrors);
    m_reportedSaveErrors = errors.size();
    throw zo::CError("Storing changed bricks failed.", String(), -1,
                     zo::CProps()
                         .add("diskFolder", m_disk->getDiskFolder().toString(true))
                         .add("brickIndex", first.brickIndex)
                         .add("failedBricks", failed),
                     first.error.get());
}

void CBrickDiskStream::setLength(int64)
{
    checkOpen();
    throw CIOError(CIOError::SetLengthNotSupported, String());
}

void CBrickDiskStream::setVirtualLength(int64 length)
{
    if (getPosition() > length)
        seek(length);
    m_virtualLength = length;
}

} // namespace brick
