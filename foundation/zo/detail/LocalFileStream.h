// CLocalFileStream: a stream over an open file of the local file system, as
// CLocalFileSystem::openStream returns it. Used by one thread at a time.
#pragma once

#include "zo/Error.h"
#include "zo/Stream.h"
#include "zo/StreamBase.h"
#include "zo/URI.h"

namespace zo {

class CLocalFileStream : public CStreamBase {
public:
    // Takes over `fd`, which is open with `access`; the stream closes it.
    // With `syncOnFlush`, flush() makes the written data durable (fsync).
    CLocalFileStream(int fd, const CURI& uri, Access access, bool syncOnFlush);
    // Closes the file; a failure to close is logged, never thrown.
    ~CLocalFileStream() override;
    CLocalFileStream(const CLocalFileStream&) = delete;
    CLocalFileStream& operator=(const CLocalFileStream&) = delete;

    // The file's current length (fstat).
    int64 getLength() override;
    int64 getPosition() override;
    CURI getURI() override;
    // Positions from 0 to the length are valid; others throw CIOError SeekOutOfRange.
    void seek(int64 position) override;
    // A POSIX record lock on the range (waits for it); CFileSystemError on failure.
    void lockRange(int64 start, int64 length, LockType type) override;
    // Closes the file; later calls other than close throw CIOError StreamClosed.
    void close() override;

    // Reading needs AccessRead or AccessReadWrite (CIOError ReadFailed otherwise).
    int readLax(void* dst, int size) override;
    // One read of what the file holds, up to `size` bytes.
    int readAvailable(void* dst, int size) override;
    bool waitReadable(int timeoutMillis) override;

    // Writing needs AccessWrite or AccessReadWrite (CIOError ReadOnly otherwise).
    void write(const void* src, int size, IWriteBarrier* barrier = nullptr) override;
    void flush() override;
    // Truncates or extends the file (ftruncate); the position stays within it.
    void setLength(int64 length) override;

private:
    void checkOpen() const;
    void checkReadable() const;
    void checkWritable() const;
    CFileSystemError errnoError(int errnoValue, const String& action) const;

    int m_fd;
    CURI m_uri;
    Access m_access;
    bool m_syncOnFlush;
    int64 m_position = 0;
};

} // namespace zo
