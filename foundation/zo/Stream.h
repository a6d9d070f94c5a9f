// The stream interfaces. A stream is counted; releasing its last reference
// closes it. Streams are used by one thread at a time.
#pragma once

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Export.h"

namespace zo {

class CURI;

// A point in a stream's writes that a writer can wait for.
class BRICKDISK_EXPORT IWriteBarrier : public virtual IBase {
public:
    // True once every write before the barrier is done.
    virtual bool isPassed() const = 0;
    // Waits up to `timeoutMillis` (-1: no limit); true when passed.
    virtual bool wait(int timeoutMillis) = 0;
};

// A barrier that is passed from the start, for streams that write synchronously.
class BRICKDISK_EXPORT CDummyWriteBarrier : public CBase, public IWriteBarrier {
public:
    bool isPassed() const override { return true; }
    bool wait(int) override { return true; }
};

class BRICKDISK_EXPORT IStreamBase : public virtual IBase {
public:
    enum LockType { SharedLock = 0, ExclusiveLock = 1 };

    // Length in bytes, -1 when unknown.
    virtual int64 getLength() = 0;
    virtual int64 getPosition() = 0;
    virtual CURI getURI() = 0;
    // Moves to `position`; CIOError SeekOutOfRange outside the stream.
    virtual void seek(int64 position) = 0;
    virtual void lockRange(int64 start, int64 length, LockType type) = 0;
    virtual void close() = 0;

    // The length, -1 when the stream cannot tell.
    int64 getSize() { return getLength(); }
};

class BRICKDISK_EXPORT IInStream : public virtual IStreamBase {
public:
    // Reads exactly `size` bytes or throws a CIOError (EndOfData when the data end).
    virtual void read(void* dst, int size) = 0;
    // Reads up to `size` bytes, fewer only at the end; returns the count.
    virtual int readLax(void* dst, int size) = 0;
    // Reads what can be had without waiting, up to `size`; returns the count.
    virtual int readAvailable(void* dst, int size) = 0;
    // Waits up to `timeoutMillis` until data can be read; true when it can.
    virtual bool waitReadable(int timeoutMillis) = 0;
    virtual bool isEndOfStream() = 0;
    // 1 at the end, 0 otherwise.
    virtual int isEndOfStream_NonBlocking() = 0;
};

class BRICKDISK_EXPORT IOutStream : public virtual IStreamBase {
public:
    // Writes `size` bytes. The barrier, when given, is passed once they are written.
    virtual void write(const void* src, int size, IWriteBarrier* barrier = nullptr) = 0;
    // Like write; the stream may keep the slice until the next flush.
    virtual void writeKeepBuffer(const TConstBufferSlice<uint8>& slice, IWriteBarrier* barrier = nullptr) = 0;
    // A barrier that is passed once everything written so far is stored.
    virtual P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) = 0;
    virtual void flush() = 0;
    virtual void setLength(int64 length) = 0;
};

class BRICKDISK_EXPORT IIOStream : public virtual IInStream, public virtual IOutStream {
public:
    // How a file is opened.
    enum Access { AccessRead = 1, AccessWrite = 2, AccessReadWrite = 3 };
    // Options of IFileSystem::openStream: OptionReplace creates the file or
    // empties an existing one. OptionRanges (with AccessRead) asks a file
    // system that would fetch a whole file at the open (one over an object
    // store) to fetch only the bytes each read asks for; such a stream reads
    // the file as it is at each read. Other file systems ignore it.
    enum Options { OptionNone = 0, OptionReplace = 2, OptionRanges = 4 };
};

} // namespace zo
