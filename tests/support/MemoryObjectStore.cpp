#include "support/MemoryObjectStore.h"

#include "seal/Digest.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace testsupport {

using zo::CFileSystemError;
using zo::ObjectName;

namespace {

CFileSystemError objectError(int errnoValue, const char* action, const ObjectName& name)
{
    return zo::makeErrnoError(errnoValue, action, zo::String::fromUTF8("memory://" + name.container + "/" + name.key));
}

// The MD5 of `bytes` in lower-case hexadecimal: the ETag that an S3 service
// gives an object stored by one PUT.
std::string md5Hex(const std::string& bytes)
{
    const zo::P<seal::IDigestContext> context = seal::CDigestManager().getType("md5")->createContext();
    context->update(bytes.data(), static_cast<int>(bytes.size()));
    context->finish();
    std::string hex;
    for (int i = 0; i < context->getSize(); ++i) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", context->getDigest()[i]);
        hex += digits;
    }
    return hex;
}

} // namespace

class CMemoryObjectStore::CLock : public zo::CBase, public zo::IFileSystemLock {
public:
    CLock(CMemoryObjectStore* store, Key key, bool exclusive)
        : m_store(store), m_key(std::move(key)), m_exclusive(exclusive)
    {}
    ~CLock() override { m_store->unlock(m_key); }
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

    bool isExclusive() const override { return m_exclusive; }

private:
    zo::P<CMemoryObjectStore> m_store;
    Key m_key;
    bool m_exclusive;
};

void CMemoryObjectStore::beginPut(const ObjectName& name, std::string bytes, bool exclusive, Done done)
{
    std::unique_lock lock(m_mutex);
    ++m_counts.puts;
    const Key key{name.container, name.key};
    if (exclusive && m_objects.count(key)) {
        lock.unlock();
        const CFileSystemError error = objectError(EEXIST, "write", name);
        done(&error);
        return;
    }
    m_objects[key] = std::move(bytes);
    lock.unlock();
    done(nullptr);
}

void CMemoryObjectStore::beginCopy(const ObjectName& from, const ObjectName& to, bool exclusive, Done done)
{
    std::unique_lock lock(m_mutex);
    ++m_counts.copies;
    const auto source = m_objects.find({from.container, from.key});
    const Key target{to.container, to.key};
    const int problem = source == m_objects.end() ? ENOENT : exclusive && m_objects.count(target) ? EEXIST : 0;
    if (problem == 0)
        m_objects[target] = source->second;
    lock.unlock();
    if (problem == 0) {
        done(nullptr);
        return;
    }
    const CFileSystemError error = objectError(problem, "copy", problem == ENOENT ? from : to);
    done(&error);
}

void CMemoryObjectStore::beginRemove(const ObjectName& name, Done done)
{
    std::unique_lock lock(m_mutex);
    ++m_counts.removes;
    const bool removed = m_objects.erase({name.container, name.key}) > 0;
    lock.unlock();
    if (removed) {
        done(nullptr);
        return;
    }
    const CFileSystemError error = objectError(ENOENT, "remove", name);
    done(&error);
}

std::optional<zo::int64> CMemoryObjectStore::stat(const ObjectName& name)
{
    std::lock_guard lock(m_mutex);
    ++m_counts.stats;
    const auto found = m_objects.find({name.container, name.key});
    if (found == m_objects.end())
        return std::nullopt;
    return static_cast<zo::int64>(found->second.size());
}

std::string CMemoryObjectStore::read(const ObjectName& name)
{
    std::lock_guard lock(m_mutex);
    ++m_counts.reads;
    const auto found = m_objects.find({name.container, name.key});
    if (found == m_objects.end())
        throw objectError(ENOENT, "read", name);
    m_counts.bytesFetched += static_cast<zo::int64>(found->second.size());
    m_bytesFetchedByKey[name.key] += static_cast<zo::int64>(found->second.size());
    return found->second;
}

std::string CMemoryObjectStore::readRange(const ObjectName& name, zo::int64 offset, int size)
{
    std::lock_guard lock(m_mutex);
    ++m_counts.reads;
    const auto found = m_objects.find({name.container, name.key});
    if (found == m_objects.end())
        throw objectError(ENOENT, "read", name);
    const std::string& object = found->second;
    const std::size_t start = std::min(object.size(), static_cast<std::size_t>(offset));
    std::string bytes = object.substr(start, static_cast<std::size_t>(size));
    m_counts.bytesFetched += static_cast<zo::int64>(bytes.size());
    m_bytesFetchedByKey[name.key] += static_cast<zo::int64>(bytes.size());
    return bytes;
}

void CMemoryObjectStore::write(const ObjectName& name, zo::int64 offset, const void* bytes, int size)
{
    std::lock_guard lock(m_mutex);
    ++m_counts.writes;
    std::string& object = m_objects[{name.container, name.key}];
    if (object.size() < static_cast<size_t>(offset + size))
        object.resize(static_cast<size_t>(offset + size), '\0');
    object.replace(static_cast<size_t>(offset), static_cast<size_t>(size), static_cast<const char*>(bytes),
                   static_cast<size_t>(size));
}

void CMemoryObjectStore::truncate(const ObjectName& name, zo::int64 length)
{
    std::lock_guard lock(m_mutex);
    ++m_counts.writes;
    const auto found = m_objects.find({name.container, name.key});
    if (found == m_objects.end())
        throw objectError(ENOENT, "truncate", name);
    found->second.resize(static_cast<size_t>(length), '\0');
}

zo::TList<std::string> CMemoryObjectStore::list(const std::string& container, const std::string& prefix, int limit)
{
    std::lock_guard lock(m_mutex);
    ++m_counts.lists;
    zo::TList<std::string> keys;
    for (const auto& [key, bytes] : m_objects) {
        if (key.first != container || key.second.compare(0, prefix.size(), prefix) != 0)
            continue;
        keys.push_back(key.second);
        if (limit > 0 && static_cast<int>(keys.size()) >= limit)
            break;
    }
    return keys;
}

std::optional<zo::IObjectStore::Level> CMemoryObjectStore::listLevelInOneRequest(const std::string& container,
                                                                                 const std::string& prefix)
{
    std::lock_guard lock(m_mutex);
    if (m_levelPageSize <= 0)
        return std::nullopt;
    ++m_counts.lists;
    if (m_levelListingsDenied)
        throw zo::CFileSystemError(zo::CFileSystemError::AccessDenied,
                                   zo::CError("Listing denied.", zo::String(), -1, zo::CProps().add("prefix", prefix)));
    Level level;
    for (const auto& [key, bytes] : m_objects) {
        if (key.first != container || key.second.compare(0, prefix.size(), prefix) != 0)
            continue;
        if (key.second.size() == prefix.size()) {
            level.hasMarker = true;
            continue;
        }
        const std::string rest = key.second.substr(prefix.size());
        const size_t slash = rest.find('/');
        if (slash == std::string::npos)
            level.files.insert(rest);
        else
            level.folders.insert(rest.substr(0, slash));
        if (static_cast<int>(level.files.size() + level.folders.size()) > m_levelPageSize)
            return std::nullopt;
    }
    return level;
}

std::optional<zo::IObjectStore::SizedLevel> CMemoryObjectStore::listLevelWithSizes(const std::string& container,
                                                                                   const std::string& prefix)
{
    std::lock_guard lock(m_mutex);
    if (m_levelPageSize <= 0)
        return std::nullopt;
    ++m_counts.lists;
    SizedLevel level;
    for (const auto& [key, bytes] : m_objects) {
        if (key.first != container || key.second.compare(0, prefix.size(), prefix) != 0)
            continue;
        if (key.second.size() == prefix.size()) {
            level.hasMarker = true;
            continue;
        }
        const std::string rest = key.second.substr(prefix.size());
        const size_t slash = rest.find('/');
        if (slash == std::string::npos) {
            level.files.emplace(rest, static_cast<zo::int64>(bytes.size()));
            level.tags.emplace(rest, md5Hex(bytes));
        } else {
            level.folders.insert(rest.substr(0, slash));
        }
    }
    return level;
}

zo::P<zo::IFileSystemLock> CMemoryObjectStore::lock(const ObjectName& name, bool exclusive)
{
    std::lock_guard lock(m_mutex);
    ++m_counts.locks;
    const Key key{name.container, name.key};
    LockState& state = m_locks[key];
    if (state.holders > 0 && (exclusive || state.exclusive))
        throw CFileSystemError(CFileSystemError::Locked,
                               zo::CError("The folder is locked by someone else.", zo::String(), -1,
                                          zo::CProps().add("object", zo::String::fromUTF8(name.key))));
    ++state.holders;
    state.exclusive = exclusive;
    return zo::P<zo::IFileSystemLock>(new CLock(this, key, exclusive));
}

void CMemoryObjectStore::unlock(const Key& key)
{
    std::lock_guard lock(m_mutex);
    if (--m_locks[key].holders == 0)
        m_locks.erase(key);
}

CMemoryObjectStore::Counts CMemoryObjectStore::getCounts() const
{
    std::lock_guard lock(m_mutex);
    return m_counts;
}

std::map<std::string, zo::int64> CMemoryObjectStore::getBytesFetchedByKey() const
{
    std::lock_guard lock(m_mutex);
    return m_bytesFetchedByKey;
}

bool CMemoryObjectStore::holds(const ObjectName& name) const
{
    std::lock_guard lock(m_mutex);
    return m_objects.count({name.container, name.key}) > 0;
}

void CMemoryObjectStore::removeBehindTheBack(const ObjectName& name)
{
    std::lock_guard lock(m_mutex);
    m_objects.erase({name.container, name.key});
}

void CMemoryObjectStore::putBehindTheBack(const ObjectName& name, const std::string& bytes)
{
    std::lock_guard lock(m_mutex);
    m_objects[{name.container, name.key}] = bytes;
}

void CMemoryObjectStore::denyLevelListings(bool deny)
{
    std::lock_guard lock(m_mutex);
    m_levelListingsDenied = deny;
}

void CMemoryObjectStore::setLevelPageSize(int names)
{
    std::lock_guard lock(m_mutex);
    m_levelPageSize = names;
}

} // namespace testsupport
