// CObjectStream: a stream over one object of an object store, as
// CObjectStoreFileSystem::openStream returns it. It holds a copy of the
// object's bytes taken at the open, so a reader keeps what it opened when
// the object is replaced. A writer changes its copy and the object at once,
// so its writes are visible to later opens. Seeking, reading past the end
// and closing behave as in CBufferStream. Used by one thread at a time.
#pragma once

#include "objectstore/ObjectStore.h"
#include "zo/BufferStream.h"

#include <string>

namespace zo {

class CObjectStream : public CBufferStream {
public:
    // Over `bytes`, the object `name` of `store`, opened as `file` with `access`.
    CObjectStream(IObjectStore* store, const CURI& file, const ObjectName& name, const std::string& bytes,
                  Access access);

    CURI getURI() override;
    // Always fails with CFileSystemError NotSupported.
    void lockRange(int64 start, int64 length, LockType type) override;

    // Reading needs AccessRead or AccessReadWrite (CIOError ReadFailed otherwise).
    void read(void* dst, int size) override;
    int readLax(void* dst, int size) override;
    int readAvailable(void* dst, int size) override;

    // Writing needs AccessWrite or AccessReadWrite (CIOError ReadOnly
    // otherwise); each write reaches the object before it returns.
    void write(const void* src, int size, IWriteBarrier* barrier = nullptr) override;
    void writeKeepBuffer(const TConstBufferSlice<uint8>& slice, IWriteBarrier* barrier = nullptr) override;
    // Truncates or extends the object with zeros; the position stays within it.
    void setLength(int64 length) override;

private:
    void checkReadable();
    void checkWritable();

    P<IObjectStore> m_store;
    CURI m_uri;
    ObjectName m_name;
    Access m_access;
};

} // namespace zo
