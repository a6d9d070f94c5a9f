#include "rados/RadosObjectStore.h"

#include "rados/RadosLock.h"

#include <cerrno>

namespace zo {

namespace {

// What an asynchronous call keeps until librados calls back.
struct AsyncCall {
    const CRadosObjectStore* store;
    ObjectName name;
    const char* action;
    IObjectStore::Done done;
    librados::AioCompletion* completion = nullptr;
};

void onAsyncCallDone(librados::completion_t, void* argument)
{
    std::unique_ptr<AsyncCall> call(static_cast<AsyncCall*>(argument));
    const int result = call->completion->get_return_value();
    call->completion->release();
    if (result < 0) {
        const CFileSystemError error = call->store->makeError(result, call->action, call->name);
        call->done(&error);
    } else {
        call->done(nullptr);
    }
}

CFileSystemError connectError(int result, const char* action, const RadosOptions& options)
{
    CFileSystemError error = makeErrnoError(-result, action, options.configFile);
    error.getProps().add("configFile", options.configFile).add("clientId", options.clientId);
    return error;
}

void setOption(librados::Rados& cluster, const char* option, int seconds, const RadosOptions& options)
{
    const int result = cluster.conf_set(option, std::to_string(seconds).c_str());
    if (result < 0)
        throw connectError(result, "set Ceph option", options);
}

librados::bufferlist toBufferList(const void* bytes, size_t size)
{
    librados::bufferlist list;
    list.append(static_cast<const char*>(bytes), static_cast<unsigned>(size));
    return list;
}

} // namespace

CRadosObjectStore::CRadosObjectStore(const RadosOptions& options) : m_options(options)
{
    const std::string user = "client." + options.clientId.toUTF8();
    int result = m_cluster.init2(user.c_str(), "ceph", 0);
    if (result < 0)
        throw connectError(result, "initialise the Ceph client", options);
    const std::string configFile = options.configFile.toUTF8();
    result = m_cluster.conf_read_file(configFile.empty() ? nullptr : configFile.c_str());
    if (result < 0)
        throw connectError(result, "read the Ceph configuration", options);
    setOption(m_cluster, "client_mount_timeout", options.connectTimeoutSeconds, options);
    setOption(m_cluster, "rados_mon_op_timeout", options.operationTimeoutSeconds, options);
    setOption(m_cluster, "rados_osd_op_timeout", options.operationTimeoutSeconds, options);
    result = m_cluster.connect();
    if (result < 0)
        throw connectError(result, "connect to the Ceph cluster", options);
}

CRadosObjectStore::~CRadosObjectStore()
{
    m_ioContexts.clear();
    m_cluster.shutdown();
}

librados::IoCtx& CRadosObjectStore::getIoCtx(const std::string& pool)
{
    std::lock_guard lock(m_mutex);
    auto found = m_ioContexts.find(pool);
    if (found != m_ioContexts.end())
        return found->second;
    librados::IoCtx context;
    const int result = m_cluster.ioctx_create(pool.c_str(), context);
    if (result < 0)
        throw makeError(result, "open the pool", ObjectName{pool, std::string()});
    context.set_namespace(m_options.nameSpace.toUTF8());
    return m_ioContexts.emplace(pool, std::move(context)).first->second;
}

CFileSystemError CRadosObjectStore::makeError(int result, const char* action, const ObjectName& name) const
{
    CFileSystemError error = makeErrnoError(-result, action, "rados://" + name.container + "/" + name.key);
    error.getProps().add("pool", String::fromUTF8(name.container)).add("object", String::fromUTF8(name.key));
    if (!m_options.nameSpace.isEmpty())
        error.getProps().add("namespace", m_options.nameSpace);
    return error;
}

void CRadosObjectStore::submit(const ObjectName& name, const char* action, librados::ObjectWriteOperation& operation,
                               Done done)
{
    librados::IoCtx& context = getIoCtx(name.container);
    auto call = std::make_unique<AsyncCall>(AsyncCall{this, name, action, std::move(done)});
    call->completion = librados::Rados::aio_create_completion(call.get(), onAsyncCallDone);
    const int result = context.aio_operate(name.key, call->completion, &operation);
    if (result < 0) {
        call->completion->release();
        throw makeError(result, action, name);
    }
    call.release();
}

void CRadosObjectStore::beginPut(const ObjectName& name, std::string bytes, bool exclusive, Done done)
{
    librados::ObjectWriteOperation operation;
    if (exclusive)
        operation.create(true);
    operation.write_full(toBufferList(bytes.data(), bytes.size()));
    submit(name, "write", operation, std::move(done));
}

void CRadosObjectStore::beginCopy(const ObjectName& from, const ObjectName& to, bool exclusive, Done done)
{
    librados::ObjectWriteOperation operation;
    if (exclusive)
        operation.create(true);
    operation.copy_from(from.key, getIoCtx(from.container), 0, 0);
    submit(to, "copy", operation, std::move(done));
}

void CRadosObjectStore::beginRemove(const ObjectName& name, Done done)
{
    librados::ObjectWriteOperation operation;
    operation.remove();
    submit(name, "remove", operation, std::move(done));
}

std::optional<int64> CRadosObjectStore::stat(const ObjectName& name)
{
    uint64_t size = 0;
    const int result = getIoCtx(name.container).stat(name.key, &size, nullptr);
    if (result == -ENOENT)
        return std::nullopt;
    if (result < 0)
        throw makeError(result, "stat", name);
    return static_cast<int64>(size);
}

std::string CRadosObjectStore::read(const ObjectName& name)
{
    librados::ObjectReadOperation operation;
    librados::bufferlist bytes;
    int readResult = 0;
    operation.read(0, 0, &bytes, &readResult);
    const int result = getIoCtx(name.container).operate(name.key, &operation, nullptr);
    if (result < 0 || readResult < 0)
        throw makeError(result < 0 ? result : readResult, "read", name);
    return bytes.to_str();
}

std::string CRadosObjectStore::readRange(const ObjectName& name, int64 offset, int size)
{
    librados::ObjectReadOperation operation;
    librados::bufferlist bytes;
    int readResult = 0;
    operation.read(static_cast<uint64_t>(offset), static_cast<uint64_t>(size), &bytes, &readResult);
    const int result = getIoCtx(name.container).operate(name.key, &operation, nullptr);
    if (result < 0 || readResult < 0)
        throw makeError(result < 0 ? result : readResult, "read", name);
    return bytes.to_str();
}

void CRadosObjectStore::write(const ObjectName& name, int64 offset, const void* bytes, int size)
{
    librados::bufferlist list = toBufferList(bytes, static_cast<size_t>(size));
    const int result =
        getIoCtx(name.container).write(name.key, list, static_cast<size_t>(size), static_cast<uint64_t>(offset));
    if (result < 0)
        throw makeError(result, "write", name);
}

void CRadosObjectStore::truncate(const ObjectName& name, int64 length)
{
    const int result = getIoCtx(name.container).trunc(name.key, static_cast<uint64_t>(length));
    if (result < 0)
        throw makeError(result, "truncate", name);
}

TList<std::string> CRadosObjectStore::list(const std::string& container, const std::string& prefix, int limit)
{
    librados::IoCtx& context = getIoCtx(container);
    TList<std::string> keys;
    try {
        for (auto object = context.nobjects_begin(); object != context.nobjects_end(); ++object) {
            if (object->get_oid().compare(0, prefix.size(), prefix) != 0)
                continue;
            keys.push_back(object->get_oid());
            if (limit > 0 && static_cast<int>(keys.size()) >= limit)
                break;
        }
    } catch (const std::system_error& e) {
        throw makeError(-e.code().value(), "list", ObjectName{container, prefix});
    }
    return keys;
}

P<IFileSystemLock> CRadosObjectStore::lock(const ObjectName& name, bool exclusive)
{
    return P<IFileSystemLock>(new CRadosLock(this, name, exclusive, m_options.lockLeaseSeconds));
}

} // namespace zo
