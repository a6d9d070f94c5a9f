// CObjectStream: a stream over one object of an object store, as
// CObjectStoreFileSystem::openStream returns it. It holds a copy of the
// object's bytes taken at the open, so a reader keeps what it opened when
// the object is replaced. A writer changes its copy and the object at once,
// so its writes are visible to later opens. Used by one thread at a time.
#pragma once

#include "objectstore/ObjectStore.h"
#include "zo/Stream.h"
#include "zo/URI.h"

#include <string>

namespace zo {

class CObjectStream : public CBase, public IIOStream {
public:
    // Over `bytes`, the object `name` of `store`, opened as `file` with `access`.
    CObjectStream(IObjectStore* store, const CURI& file, const ObjectName& name, std::string bytes, Access access);

    int64 getLength() override;
    int64 getPosition() override;
    CURI getURI() override;
    // Positions from 0 to the length are valid; others throw CIOError SeekOutOfRange.
    void seek(int64 position) override;
    // Always fails with CFileSystemError NotSupported.
    void lockRange(int64 start, int64 length, LockType type) override;
    // Later calls other than close throw CIOError StreamClosed.
    void close() override;

    // Reading needs AccessRead or AccessReadWrite (CIOError ReadFailed otherwise).
    void read(void* dst, int size) override;
    int readLax(void* dst, int size) override;
    int readAvailable(void* dst, int size) override;
    bool waitReadable(int timeoutMillis) override;
    bool isEndOfStream() override;
    int isEndOfStream_NonBlocking() override;

    // Writing needs AccessWrite or AccessReadWrite (CIOError ReadOnly
    // otherwise); each write reaches the object before it returns.
    void write(const void* src, int size, IWriteBarrier* barrier = nullptr) override;
    void writeKeepBuffer(const TConstBufferSlice<uint8>& slice, IWriteBarrier* barrier = nullptr) override;
    P<IWriteBarrier> createWriteBarrier(IWriteBarrier* previous) override;
    void flush() override;
    // Truncates or extends the object with zeros; the position stays within it.
    void setLength(int64 length) override;

private:
    void checkOpen() const;
    void checkReadable() const;
    void checkWritable() const;

    P<IObjectStore> m_store;
    CURI m_uri;
    ObjectName m_name;
    std::string m_bytes;
    Access m_access;
    int64 m_position = 0;
    bool m_closed = false;
};

} // namespace zo
