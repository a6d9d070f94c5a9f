#include "zo/DataStream.h"

#include "zo/Error.h"

#include <algorithm>
#include <string>

namespace zo {

namespace {

template <class T>
void toLittleEndian(T value, uint8* out)
{
    auto v = static_cast<std::make_unsigned_t<T>>(value);
    for (size_t i = 0; i < sizeof(T); ++i) {
        out[i] = static_cast<uint8>(v & 0xFF);
        v = static_cast<decltype(v)>(v >> 8);
    }
}

template <class T>
T fromLittleEndian(const uint8* in)
{
    std::make_unsigned_t<T> v = 0;
    for (size_t i = sizeof(T); i-- > 0;)
        v = static_cast<decltype(v)>((v << 8) | in[i]);
    return static_cast<T>(v);
}

} // namespace

CDataOutStream& CDataOutStream::write(const void* src, int size, IWriteBarrier* barrier)
{
    m_stream->write(src, size, barrier);
    return *this;
}

CDataOutStream& CDataOutStream::writeInt16(int16_t value)
{
    uint8 bytes[2];
    toLittleEndian(value, bytes);
    return write(bytes, 2);
}

CDataOutStream& CDataOutStream::writeInt32(int32 value)
{
    uint8 bytes[4];
    toLittleEndian(value, bytes);
    return write(bytes, 4);
}

CDataOutStream& CDataOutStream::writeInt64(int64 value)
{
    uint8 bytes[8];
    toLittleEndian(value, bytes);
    return write(bytes, 8);
}

CDataOutStream& CDataOutStream::writeString(const String& value)
{
    const std::string utf8 = value.toUTF8();
    writeInt32(static_cast<int32>(utf8.size()));
    return write(utf8.data(), static_cast<int>(utf8.size()));
}

void CDataInStream::read(void* dst, int size)
{
    m_stream->read(dst, size);
}

int16_t CDataInStream::readInt16()
{
    uint8 bytes[2];
    read(bytes, 2);
    return fromLittleEndian<int16_t>(bytes);
}

int32 CDataInStream::readInt32()
{
    uint8 bytes[4];
    read(bytes, 4);
    return fromLittleEndian<int32>(bytes);
}

int64 CDataInStream::readInt64()
{
    uint8 bytes[8];
    read(bytes, 8);
    return fromLittleEndian<int64>(bytes);
}

String CDataInStream::readString()
{
    const int32 size = readInt32();
    if (size < 0)
        throw CIOError(CIOError::InvalidData, "Negative string length in data stream.", CProps().add("length", size));
    // Read in chunks so that a damaged length cannot make us allocate gigabytes
    // before the stream runs out.
    std::string utf8;
    int remaining = size;
    char chunk[4096];
    while (remaining > 0) {
        const int n = std::min<int>(remaining, sizeof chunk);
        read(chunk, n);
        utf8.append(chunk, static_cast<size_t>(n));
        remaining -= n;
    }
    return String(std::string_view(utf8));
}

} // namespace zo
