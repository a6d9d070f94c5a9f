// CBufferStream: a seekable in/out stream over a TBuffer.
#pragma once

#include "zo/Buffer.h"
#include "zo/Export.h"
#include "zo/Stream.h"
#include "zo/StreamBase.h"
#include "zo/URI.h"

namespace zo {

class BRICKDISK_EXPORT CBufferStream : public CStreamBase {
public:
    // Over a writable buffer, which the caller keeps alive and owns; a null
    // buffer makes the stream own a new one. Writes grow the buffer's capacity
    // by `growFactor` (at least to what the write needs). Position 0.
    CBufferStream(TBuffer<uint8>* buffer, double growFactor);
    // Over a read-only buffer that the caller keeps alive; writes throw ReadOnly.
    explicit CBufferStream(const TBuffer<uint8>* buffer);

    // The buffer written to: the stream's own, or the caller's buffer given
    // to the writable constructor (which must then be a counted heap object,
    // since the returned P<> holds a reference to it). Null for a stream over
    // a caller's read-only buffer.
    P<TBuffer<uint8>> getBuffer() const;

    int64 getLength() override;
    int64 getPosition() override;
    CURI getURI() override;
    void seek(int64 position) override;
    void close() override;

    int readLax(void* dst, int size) override;

    void write(const void* src, int size, IWriteBarrier* barrier = nullptr) override;
    void flush() override;
    // Cuts or extends the data (new bytes are zero); a position beyond the
    // new end moves to it. ReadOnly for a read-only stream, SeekOutOfRange
    // below 0 or beyond 2 GiB.
    void setLength(int64 length) override;

private:
    void checkOpen() const;
    const TBuffer<uint8>& readBuffer() const;

    P<TBuffer<uint8>> m_owned;
    TBuffer<uint8>* m_writable = nullptr;
    const TBuffer<uint8>* m_readOnly = nullptr;
    double m_growFactor = 2.0;
    int64 m_position = 0;
    bool m_closed = false;
};

} // namespace zo
