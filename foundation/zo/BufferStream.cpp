#include "zo/BufferStream.h"

#include "zo/Error.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace zo {

CBufferStream::CBufferStream(TBuffer<uint8>* buffer, double growFactor)
    : CStreamBase("Buffer stream"), m_growFactor(growFactor < 1.0 ? 1.0 : growFactor)
{
    if (!buffer) {
        m_owned = P<TBuffer<uint8>>(new TBuffer<uint8>());
        buffer = m_owned.get();
    }
    m_writable = buffer;
    m_readOnly = buffer;
}

CBufferStream::CBufferStream(const TBuffer<uint8>* buffer) : CStreamBase("Buffer stream"), m_readOnly(buffer)
{
    if (!buffer) {
        m_owned = P<TBuffer<uint8>>(new TBuffer<uint8>());
        m_readOnly = m_owned.get();
    }
}

P<TBuffer<uint8>> CBufferStream::getBuffer() const
{
    return P<TBuffer<uint8>>(m_writable ? m_writable : m_owned.get());
}

void CBufferStream::checkOpen() const
{
    if (m_closed)
        throw CIOError(CIOError::StreamClosed, String());
}

const TBuffer<uint8>& CBufferStream::readBuffer() const
{
    return *m_readOnly;
}

int64 CBufferStream::getLength()
{
    checkOpen();
    return readBuffer().getUsed();
}

int64 CBufferStream::getPosition()
{
    checkOpen();
    return m_position;
}

CURI CBufferStream::getURI()
{
    return CURI();
}

void CBufferStream::seek(int64 position)
{
    checkOpen();
    if (position < 0 || position > readBuffer().getUsed())
        throw CIOError(CIOError::SeekOutOfRange, String(),
                       CProps().add("pos", position).add("size", static_cast<int64>(readBuffer().getUsed())));
    m_position = position;
}

void CBufferStream::close()
{
    m_closed = true;
}

int CBufferStream::readLax(void* dst, int size)
{
    checkOpen();
    if (size <= 0)
        return 0;
    const int64 available = readBuffer().getUsed() - m_position;
    const int n = static_cast<int>(std::clamp<int64>(available, 0, size));
    if (n > 0)
        std::memcpy(dst, readBuffer().getData() + m_position, static_cast<size_t>(n));
    m_position += n;
    return n;
}

void CBufferStream::write(const void* src, int size, IWriteBarrier*)
{
    checkOpen();
    if (!m_writable)
        throwReadOnly();
    if (size <= 0)
        return;
    const int64 end = m_position + size;
    if (end > std::numeric_limits<int>::max())
        throw CIOError(CIOError::WriteBeyondSize, "Buffer stream cannot grow beyond 2 GiB.");
    if (end > m_writable->getCapacity()) {
        const double grown = std::ceil(m_writable->getCapacity() * m_growFactor);
        const int64 capacity =
            std::max<int64>(end, static_cast<int64>(std::min<double>(grown, std::numeric_limits<int>::max())));
        m_writable->reserve(static_cast<int>(capacity));
    }
    if (end > m_writable->getUsed())
        m_writable->setUsed(static_cast<int>(end));
    std::memcpy(m_writable->getData() + m_position, src, static_cast<size_t>(size));
    m_position = end;
}

void CBufferStream::flush()
{
    checkOpen();
}

void CBufferStream::setLength(int64 length)
{
    checkOpen();
    if (!m_writable)
        throwReadOnly();
    if (length < 0 || length > std::numeric_limits<int>::max())
        throw CIOError(CIOError::SeekOutOfRange, String(), CProps().add("length", length));
    const int oldLength = m_writable->getUsed();
    m_writable->setUsed(static_cast<int>(length));
    if (length > oldLength)
        std::memset(m_writable->getData() + oldLength, 0, static_cast<size_t>(length - oldLength));
    m_position = std::min<int64>(m_position, length);
}

} // namespace zo
