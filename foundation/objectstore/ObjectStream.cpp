#include "objectstore/ObjectStream.h"

#include "zo/Error.h"

namespace zo {

CObjectStream::CObjectStream(IObjectStore* store, const CURI& file, const ObjectName& name, const std::string& bytes,
                             Access access)
    : CBufferStream(nullptr, 2.0), m_store(store), m_uri(file), m_name(name), m_access(access)
{
    CBufferStream::write(bytes.data(), static_cast<int>(bytes.size()));
    seek(0);
}

CURI CObjectStream::getURI()
{
    return m_uri;
}

void CObjectStream::lockRange(int64, int64, LockType)
{
    throw CFileSystemError(CFileSystemError::NotSupported,
                           CError("Objects of an object store cannot lock ranges.", String(), -1,
                                  CProps().add("uri", m_uri.toString(true))));
}

void CObjectStream::read(void* dst, int size)
{
    checkReadable();
    CBufferStream::read(dst, size);
}

int CObjectStream::readLax(void* dst, int size)
{
    checkReadable();
    return CBufferStream::readLax(dst, size);
}

int CObjectStream::readAvailable(void* dst, int size)
{
    checkReadable();
    return CBufferStream::readAvailable(dst, size);
}

void CObjectStream::write(const void* src, int size, IWriteBarrier* barrier)
{
    checkWritable();
    if (size > 0)
        m_store->write(m_name, getPosition(), src, size);
    CBufferStream::write(src, size, barrier);
}

void CObjectStream::writeKeepBuffer(const TConstBufferSlice<uint8>& slice, IWriteBarrier* barrier)
{
    write(slice.getData(), slice.getSize(), barrier);
}

void CObjectStream::setLength(int64 length)
{
    checkWritable();
    m_store->truncate(m_name, length);
    CBufferStream::setLength(length);
}

void CObjectStream::checkReadable()
{
    getPosition(); // throws StreamClosed after close
    if (m_access == AccessWrite)
        throw CIOError(CIOError::ReadFailed, "The stream is open for writing only.",
                       CProps().add("uri", m_uri.toString(true)));
}

void CObjectStream::checkWritable()
{
    getPosition(); // throws StreamClosed after close
    if (m_access == AccessRead)
        throw CIOError(CIOError::ReadOnly, "The stream is open for reading only.",
                       CProps().add("uri", m_uri.toString(true)));
}

} // namespace zo
