// CObjectRangeStream: a read-only stream over one object of an object store
// that fetches, at each read, only the bytes asked for (IObjectStore::
// readRange), as CObjectStoreFileSystem::openStream returns it for
// IIOStream::OptionRanges. Its length is the object's at the open; a read
// sees the object as it is then, so an object replaced meanwhile may read
// other bytes, or end early. Seeking, reading past the end and closing
// behave as in CBufferStream; writing fails with CIOError ReadOnly
// (CReadOnlyStreamBase). Used by one thread at a time.
#pragma once

#include "objectstore/ObjectStore.h"
#include "zo/StreamBase.h"

namespace zo {

class CObjectRangeStream : public CReadOnlyStreamBase {
public:
    // Over the object `name` of `store`, `length` bytes long, opened as `file`.
    CObjectRangeStream(IObjectStore* store, const CURI& file, const ObjectName& name, int64 length);

    int64 getLength() override;
    int64 getPosition() override;
    CURI getURI() override;
    // Throws CIOError SeekOutOfRange outside 0 to the length.
    void seek(int64 position) override;
    void close() override;
    // One ranged read of the store for the bytes up to the length; passes on
    // its errors.
    int readLax(void* dst, int size) override;

private:
    void checkOpen() const override;

    P<IObjectStore> m_store;
    CURI m_uri;
    ObjectName m_name;
    int64 m_length;
    int64 m_position = 0;
    bool m_closed = false;
};

} // namespace zo
