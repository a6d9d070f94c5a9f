#include "zo/StreamBase.h"

#include "zo/Error.h"
#include "zo/URI.h"

namespace zo {

namespace {

// `props` with the stream's "uri" added when the stream has one.
CProps withURI(IStreamBase& stream, CProps props)
{
    const CURI uri = stream.getURI();
    if (!uri.isEmpty())
        props.add("uri", uri.toString(true));
    return props;
}

} // namespace

void CInStreamBase::read(void* dst, int size)
{
    const int got = readLax(dst, size);
    if (got < size)
        throw CIOError(CIOError::EndOfData, String(), withURI(*this, CProps().add("wanted", size).add("got", got)));
}

int CInStreamBase::readAvailable(void* dst, int size)
{
    return readLax(dst, size);
}

bool CInStreamBase::waitReadable(int)
{
    return true;
}

bool CInStreamBase::isEndOfStream()
{
    return getPosition() >= getLength();
}

int CInStreamBase::isEndOfStream_NonBlocking()
{
    return isEndOfStream() ? 1 : 0;
}

void CInStreamBase::lockRange(int64, int64, LockType)
{
    throw CFileSystemError(
        CFileSystemError::NotSupported,
        CError(String(m_kind) + " does not support lockRange.", String(), -1, withURI(*this, CProps())));
}

void CInStreamBase::throwReadOnly()
{
    throw CIOError(CIOError::ReadOnly, "The stream is open for reading only.", withURI(*this, CProps()));
}

void CStreamBase::writeKeepBuffer(const TConstBufferSlice<uint8>& slice, IWriteBarrier* barrier)
{
    write(slice.getData(), slice.getSize(), barrier);
}

P<IWriteBarrier> CStreamBase::createWriteBarrier(IWriteBarrier*)
{
    return P<IWriteBarrier>(new CDummyWriteBarrier());
}

void CReadOnlyStreamBase::write(const void*, int, IWriteBarrier*)
{
    checkOpen();
    throwReadOnly();
}

void CReadOnlyStreamBase::setLength(int64)
{
    checkOpen();
    throwReadOnly();
}

void CReadOnlyStreamBase::flush()
{
    checkOpen();
}

} // namespace zo
