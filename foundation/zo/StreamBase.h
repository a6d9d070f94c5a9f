// Bases for streams: the calls that most streams answer the same way, in
// terms of the calls each stream implements itself. A stream derives from
// CInStreamBase (read only) or CStreamBase (read and write) and overrides a
// default only where it behaves otherwise.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"
#include "zo/Stream.h"

namespace zo {

// Reading defaults. What is left to the stream: getLength, getPosition,
// getURI, seek, close and readLax. Used by one thread at a time, as the
// stream itself.
class BRICKDISK_EXPORT CInStreamBase : public CBase, public virtual IInStream {
public:
    // Reads with readLax; fewer than `size` bytes throw CIOError EndOfData
    // with "wanted", "got" and, when the stream has one, its "uri".
    void read(void* dst, int size) override;
    // readLax: the stream never makes a reader wait.
    int readAvailable(void* dst, int size) override;
    // True at once: the stream never makes a reader wait.
    bool waitReadable(int timeoutMillis) override;
    // True when the position has reached the length.
    bool isEndOfStream() override;
    // 1 when isEndOfStream, else 0.
    int isEndOfStream_NonBlocking() override;
    // Throws CFileSystemError NotSupported around "<kind> does not support
    // lockRange." (with "uri" when the stream has one), open or closed.
    void lockRange(int64 start, int64 length, LockType type) override;

protected:
    // `kind` names the stream in the messages of the defaults ("Buffer
    // stream"); a literal, or text that outlives the stream.
    explicit CInStreamBase(const char* kind) : m_kind(kind) {}

    // Refuses a write to a stream open for reading only: throws CIOError
    // ReadOnly "The stream is open for reading only." (with "uri" when the
    // stream has one).
    [[noreturn]] void throwReadOnly();

private:
    const char* m_kind;
};

// Reading and writing defaults. What is left to the stream, besides what
// CInStreamBase leaves: write, flush and setLength.
class BRICKDISK_EXPORT CStreamBase : public CInStreamBase, public virtual IIOStream {
public:
    // write() of the slice's bytes; the slice is not kept.
    void writeKeepBuffer(const TConstBufferSlice<uint8>& slice, IWriteBarrier* barrier = nullptr) override;
    // A barrier that is already passed: the stream's writes are done when
    // write returns.
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) override;

protected:
    explicit CStreamBase(const char* kind) : CInStreamBase(kind) {}
};

// Defaults of a stream that is open for reading only, for the calls of an
// in/out stream. What is left to the stream: what CInStreamBase leaves, and
// checkOpen.
class BRICKDISK_EXPORT CReadOnlyStreamBase : public CStreamBase {
public:
    // Throw what checkOpen throws, else the error of throwReadOnly.
    void write(const void* src, int size, IWriteBarrier* barrier = nullptr) override;
    void setLength(int64 length) override;
    // Nothing was written: only checkOpen.
    void flush() override;

protected:
    explicit CReadOnlyStreamBase(const char* kind) : CStreamBase(kind) {}

    // Throws CIOError StreamClosed once the stream is closed.
    virtual void checkOpen() const = 0;
};

} // namespace zo
