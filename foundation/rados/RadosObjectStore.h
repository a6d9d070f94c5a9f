// CRadosObjectStore: IObjectStore over one connection to a Ceph cluster
// (librados). Containers are pools; their I/O contexts are opened on first
// use and kept. The asynchronous calls are librados's own and report from
// its callback threads.
#pragma once

#include "objectstore/ObjectStore.h"
#include "rados/RadosFileSystem.h"

#include <rados/librados.hpp>

#include <map>
#include <mutex>

namespace zo {

class CRadosObjectStore : public CBase, public IObjectStore {
public:
    // Connects (see CRadosFileSystem's constructor for the errors).
    explicit CRadosObjectStore(const RadosOptions& options);
    // Closes the connection; every call must have completed. Never throws.
    ~CRadosObjectStore() override;
    CRadosObjectStore(const CRadosObjectStore&) = delete;
    CRadosObjectStore& operator=(const CRadosObjectStore&) = delete;

    void beginPut(const ObjectName& name, std::string bytes, bool exclusive, Done done) override;
    void beginCopy(const ObjectName& from, const ObjectName& to, bool exclusive, Done done) override;
    void beginRemove(const ObjectName& name, Done done) override;
    std::optional<int64> stat(const ObjectName& name) override;
    std::string read(const ObjectName& name) override;
    // A read of the range at its offset.
    std::string readRange(const ObjectName& name, int64 offset, int size) override;
    void write(const ObjectName& name, int64 offset, const void* bytes, int size) override;
    void truncate(const ObjectName& name, int64 length) override;
    TList<std::string> list(const std::string& container, const std::string& prefix, int limit) override;
    // A RADOS lock "brickdisk" on the object, renewed by a thread of its own
    // every third of the lease.
    P<IFileSystemLock> lock(const ObjectName& name, bool exclusive) override;

    // The I/O context of `pool` (NotFound when the pool does not exist).
    librados::IoCtx& getIoCtx(const std::string& pool);
    // A CFileSystemError for the librados result `result` (a negative errno)
    // of `action` on `name`.
    CFileSystemError makeError(int result, const char* action, const ObjectName& name) const;

private:
    void submit(const ObjectName& name, const char* action, librados::ObjectWriteOperation& operation, Done done);

    librados::Rados m_cluster;
    RadosOptions m_options;
    std::mutex m_mutex;
    std::map<std::string, librados::IoCtx> m_ioContexts;
};

} // namespace zo
