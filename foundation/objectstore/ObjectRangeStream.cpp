#include "objectstore/ObjectRangeStream.h"

#include "zo/Error.h"

#include <algorithm>
#include <cstring>

namespace zo {

CObjectRangeStream::CObjectRangeStream(IObjectStore* store, const CURI& file, const ObjectName& name, int64 length)
    : CReadOnlyStreamBase("Object stream"), m_store(store), m_uri(file), m_name(name), m_length(length)
{}

int64 CObjectRangeStream::getLength()
{
    checkOpen();
    return m_length;
}

int64 CObjectRangeStream::getPosition()
{
    checkOpen();
    return m_position;
}

CURI CObjectRangeStream::getURI()
{
    return m_uri;
}

void CObjectRangeStream::seek(int64 position)
{
    checkOpen();
    if (position < 0 || position > m_length)
        throw CIOError(CIOError::SeekOutOfRange, String(),
                       CProps().add("pos", position).add("size", m_length).add("uri", m_uri.toString(true)));
    m_position = position;
}

void CObjectRangeStream::close()
{
    m_closed = true;
}

int CObjectRangeStream::readLax(void* dst, int size)
{
    checkOpen();
    const int wanted = static_cast<int>(std::clamp<int64>(m_length - m_position, 0, std::max(size, 0)));
    if (wanted == 0)
        return 0;
    const std::string bytes = m_store->readRange(m_name, m_position, wanted);
    const int got = static_cast<int>(std::min<std::size_t>(bytes.size(), static_cast<std::size_t>(wanted)));
    std::memcpy(dst, bytes.data(), static_cast<std::size_t>(got));
    m_position += got;
    return got;
}

void CObjectRangeStream::checkOpen() const
{
    if (m_closed)
        throw CIOError(CIOError::StreamClosed, String(), CProps().add("uri", m_uri.toString(true)));
}

} // namespace zo
