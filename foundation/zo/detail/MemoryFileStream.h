// CMemoryFileStream: a stream over a file of a CMemoryFileSystem, as its
// openStream returns it. Like a POSIX descriptor it keeps the file it opened:
// a later store or move over the path gives the path new bytes and leaves the
// stream's alone. Its writes are visible at once to later opens of the path
// and to every other stream on the same file. Used by one thread at a time.
#pragma once

#include "zo/Stream.h"
#include "zo/StreamBase.h"
#include "zo/URI.h"
#include "zo/detail/MemoryFileStore.h"

namespace zo {

class CMemoryFileStream : public CStreamBase {
public:
    // Over `data` of `store`, opened as `file` with `access`.
    CMemoryFileStream(CMemoryFileStore* store, const CURI& file, CMemoryFileStore::FileData* data, Access access);

    int64 getLength() override;
    int64 getPosition() override;
    CURI getURI() override;
    // Positions from 0 to the length are valid; others throw CIOError SeekOutOfRange.
    void seek(int64 position) override;
    // Later calls other than close throw CIOError StreamClosed.
    void close() override;

    // Reading needs AccessRead or AccessReadWrite (CIOError ReadFailed otherwise).
    int readLax(void* dst, int size) override;
    bool waitReadable(int timeoutMillis) override;

    // Writing needs AccessWrite or AccessReadWrite (CIOError ReadOnly otherwise).
    void write(const void* src, int size, IWriteBarrier* barrier = nullptr) override;
    void flush() override;
    // Truncates or extends the file with zeros; the position stays within it.
    void setLength(int64 length) override;

private:
    void checkOpen() const;
    void checkReadable() const;
    void checkWritable() const;

    P<CMemoryFileStore> m_store;
    CURI m_uri;
    P<CMemoryFileStore::FileData> m_data;
    Access m_access;
    int64 m_position = 0;
    bool m_closed = false;
};

} // namespace zo
