#include "zo/detail/MemoryFileStream.h"

#include "zo/Error.h"

namespace zo {

CMemoryFileStream::CMemoryFileStream(CMemoryFileStore* store, const CURI& file, CMemoryFileStore::FileData* data,
                                     Access access)
    : CStreamBase("Memory file stream"), m_store(store), m_uri(file), m_data(data), m_access(access)
{}

int64 CMemoryFileStream::getLength()
{
    checkOpen();
    return m_store->getLength(*m_data);
}

int64 CMemoryFileStream::getPosition()
{
    checkOpen();
    return m_position;
}

CURI CMemoryFileStream::getURI()
{
    return m_uri;
}

void CMemoryFileStream::seek(int64 position)
{
    const int64 length = getLength();
    if (position < 0 || position > length)
        throw CIOError(CIOError::SeekOutOfRange, String(),
                       CProps().add("pos", position).add("size", length).add("uri", m_uri.toString(true)));
    m_position = position;
}

void CMemoryFileStream::close()
{
    m_closed = true;
}

int CMemoryFileStream::readLax(void* dst, int size)
{
    checkReadable();
    if (size <= 0)
        return 0;
    const int got = m_store->read(m_uri, *m_data, m_position, dst, size);
    m_position += got;
    return got;
}

bool CMemoryFileStream::waitReadable(int)
{
    checkReadable();
    return true;
}

void CMemoryFileStream::write(const void* src, int size, IWriteBarrier*)
{
    checkWritable();
    m_store->write(*m_data, m_position, src, size);
    if (size > 0)
        m_position += size;
}

void CMemoryFileStream::flush()
{
    checkOpen();
}

void CMemoryFileStream::setLength(int64 length)
{
    checkWritable();
    m_store->setLength(*m_data, length);
    if (m_position > length)
        m_position = length;
}

void CMemoryFileStream::checkOpen() const
{
    if (m_closed)
        throw CIOError(CIOError::StreamClosed, String(), CProps().add("uri", m_uri.toString(true)));
}

void CMemoryFileStream::checkReadable() const
{
    checkOpen();
    if (m_access == AccessWrite)
        throw CIOError(CIOError::ReadFailed, "The stream is open for writing only.",
                       CProps().add("uri", m_uri.toString(true)));
}

void CMemoryFileStream::checkWritable() const
{
    checkOpen();
    if (m_access == AccessRead)
        throw CIOError(CIOError::ReadOnly, "The stream is open for reading only.",
                       CProps().add("uri", m_uri.toString(true)));
}

} // namespace zo
