// Binary records over streams. Integers are little-endian; a string is an
// int32 byte count followed by that many UTF-8 bytes.
#pragma once

#include "zo/Export.h"
#include "zo/Stream.h"
#include "zo/String.h"

namespace zo {

// Writes to a stream that the caller keeps alive.
class BRICKDISK_EXPORT CDataOutStream {
public:
    explicit CDataOutStream(IOutStream* stream) : m_stream(stream) {}

    CDataOutStream& write(const void* src, int size, IWriteBarrier* barrier = nullptr);
    CDataOutStream& writeInt16(int16_t value);
    CDataOutStream& writeInt32(int32 value);
    CDataOutStream& writeInt64(int64 value);
    CDataOutStream& writeString(const String& value);

private:
    IOutStream* m_stream;
};

// Reads from a stream that the caller keeps alive. Every read takes exactly
// the bytes it needs or throws CIOError EndOfData.
class BRICKDISK_EXPORT CDataInStream {
public:
    explicit CDataInStream(IInStream* stream) : m_stream(stream) {}

    void read(void* dst, int size);
    int16_t readInt16();
    int32 readInt32();
    int64 readInt64();
    // Throws CIOError InvalidData for a negative byte count; a count beyond
    // what the stream holds ends in EndOfData without allocating it first.
    String readString();

private:
    IInStream* m_stream;
};

} // namespace zo
