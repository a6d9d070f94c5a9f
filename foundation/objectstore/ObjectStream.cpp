#include "objectstore/ObjectStream.h"

#include "zo/Error.h"

#include <algorithm>
#include <cstring>

namespace zo {

CObjectStream::CObjectStream(IObjectStore* store, const CURI& file, const ObjectName& name, std::string bytes,
                             Access access)
    : m_store(store), m_uri(file), m_name(name), m_bytes(std::move(bytes)), m_access(access)
{
}

int64 CObjectStream::getLength()
{
    checkOpen();
    return static_cast<int64>(m_bytes.size());
}

int64 CObjectStream::getPosition()
{
    checkOpen();
    return m_position;
}

CURI CObjectStream::getURI()
{
    return m_uri;
}

void CObjectStream::seek(int64 position)
{
    const int64 length = getLength();
    if (position < 0 || position > length)
        throw CIOError(CIOError::SeekOutOfRange, String(),
                       CProps().add("pos", position).add("size", length).add("uri", m_uri.toString(true)));
    m_position = position;
}

void CObjectStream::lockRange(int64, int64, LockType)
{
    throw CFileSystemError(CFileSystemError::NotSupported,
                           CError("Objects of an object store cannot lock ranges.", String(), -1,
                                  CProps().add("uri", m_uri.toString(true))));
}

void CObjectStream::close()
{
    m_closed = true;
}

void CObjectStream::read(void* dst, int size)
{
    const int got = readLax(dst, size);
    if (got < size)
        throw CIOError(CIOError::EndOfData, String(),
                       CProps().add("wanted", size).add("got", got).add("uri", m_uri.toString(true)));
}

int CObjectStream::readLax(void* dst, int size)
{
    checkReadable();
    if (size <= 0)
        return 0;
    const int64 available = static_cast<int64>(m_bytes.size()) - m_position;
    const int got = static_cast<int>(std::clamp<int64>(available, 0, size));
    std::memcpy(dst, m_bytes.data() + m_position, static_cast<size_t>(got));
    m_position += got;
    return got;
}

int CObjectStream::readAvailable(void* dst, int size)
{
    return readLax(dst, size);
}

bool CObjectStream::waitReadable(int)
{
    checkReadable();
    return true;
}

bool CObjectStream::isEndOfStream()
{
    return m_position >= getLength();
}

int CObjectStream::isEndOfStream_NonBlocking()
{
    return isEndOfStream() ? 1 : 0;
}

void CObjectStream::write(const void* src, int size, IWriteBarrier*)
{
    checkWritable();
    if (size <= 0)
        return;
    m_store->write(m_name, m_position, src, size);
    const size_t end = static_cast<size_t>(m_position) + static_cast<size_t>(size);
    if (m_bytes.size() < end)
        m_bytes.resize(end);
    std::memcpy(m_bytes.data() + m_position, src, static_cast<size_t>(size));
    m_position += size;
}

void CObjectStream::writeKeepBuffer(const TConstBufferSlice<uint8>& slice, IWriteBarrier* barrier)
{
    write(slice.getData(), slice.getSize(), barrier);
}

P<IWriteBarrier> CObjectStream::createWriteBarrier(IWriteBarrier*)
{
    return P<IWriteBarrier>(new CDummyWriteBarrier());
}

void CObjectStream::flush()
{
    checkOpen();
}

void CObjectStream::setLength(int64 length)
{
    checkWritable();
    m_store->truncate(m_name, length);
    m_bytes.resize(static_cast<size_t>(length));
    m_position = std::min(m_position, length);
}

void CObjectStream::checkOpen() const
{
    if (m_closed)
        throw CIOError(CIOError::StreamClosed, String(), CProps().add("uri", m_uri.toString(true)));
}

void CObjectStream::checkReadable() const
{
    checkOpen();
    if (m_access == AccessWrite)
        throw CIOError(CIOError::ReadFailed, "The stream is open for writing only.", CProps().add("uri", m_uri.toString(true)));
}

void CObjectStream::checkWritable() const
{
    checkOpen();
    if (m_access == AccessRead)
        throw CIOError(CIOError::ReadOnly, "The stream is open for reading only.", CProps().add("uri", m_uri.toString(true)));
}

} // namespace zo
