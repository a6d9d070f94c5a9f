// CMemoryObjectStore: an IObjectStore in memory for tests of
// CObjectStoreFileSystem without a cluster. It counts its calls, so tests can
// tell how many round trips an operation would cost on a real store. The
// asynchronous calls report before they return, on the caller's thread. Any
// thread may call it.
#pragma once

#include "objectstore/ObjectStore.h"

#include <map>
#include <mutex>
#include <string>
#include <utility>

namespace testsupport {

class CMemoryObjectStore : public zo::CBase, public zo::IObjectStore {
public:
    // The calls made so far, by kind.
    struct Counts {
        int puts = 0;
        int copies = 0;
        int removes = 0;
        int stats = 0;
        int reads = 0;
        int writes = 0;
        int lists = 0;
        int locks = 0;
        // The object bytes that read and readRange returned.
        zo::int64 bytesFetched = 0;

        int total() const { return puts + copies + removes + stats + reads + writes + lists + locks; }
    };

    void beginPut(const zo::ObjectName& name, std::string bytes, bool exclusive, Done done) override;
    void beginCopy(const zo::ObjectName& from, const zo::ObjectName& to, bool exclusive, Done done) override;
    void beginRemove(const zo::ObjectName& name, Done done) override;
    std::optional<zo::int64> stat(const zo::ObjectName& name) override;
    std::string read(const zo::ObjectName& name) override;
    // Counted as a read.
    std::string readRange(const zo::ObjectName& name, zo::int64 offset, int size) override;
    void write(const zo::ObjectName& name, zo::int64 offset, const void* bytes, int size) override;
    void truncate(const zo::ObjectName& name, zo::int64 length) override;
    zo::TList<std::string> list(const std::string& container, const std::string& prefix, int limit) override;
    // A level of up to the page size's names (setLevelPageSize), counted as
    // a list.
    std::optional<Level> listLevelInOneRequest(const std::string& container, const std::string& prefix) override;
    // The whole level with the objects' sizes and, as an S3 service gives
    // them, their tags (the hexadecimal MD5 of their bytes), counted as one
    // list; nothing when the level page size is 0, as listLevelInOneRequest.
    std::optional<SizedLevel> listLevelWithSizes(const std::string& container, const std::string& prefix) override;
    // A lock that lives as long as the returned object (no lease).
    zo::P<zo::IFileSystemLock> lock(const zo::ObjectName& name, bool exclusive) override;

    Counts getCounts() const;
    // The object bytes that read and readRange returned, by key, since the
    // start.
    std::map<std::string, zo::int64> getBytesFetchedByKey() const;
    // True when the object exists; not counted.
    bool holds(const zo::ObjectName& name) const;
    // Removes an object as another program would, uncounted.
    void removeBehindTheBack(const zo::ObjectName& name);
    // Stores an object as another program would, uncounted.
    void putBehindTheBack(const zo::ObjectName& name, const std::string& bytes);
    // The most names that listLevelInOneRequest lists (1000 at first); 0
    // makes it list nothing, as a store that cannot list a level.
    void setLevelPageSize(int names);
    // Makes listLevelInOneRequest fail with AccessDenied (true) or list again.
    void denyLevelListings(bool deny);

private:
    class CLock;
    using Key = std::pair<std::string, std::string>;
    struct LockState {
        int holders = 0;
        bool exclusive = false;
    };

    void unlock(const Key& key);

    mutable std::mutex m_mutex;
    std::map<Key, std::string> m_objects;
    std::map<Key, LockState> m_locks;
    Counts m_counts;
    std::map<std::string, zo::int64> m_bytesFetchedByKey;
    int m_levelPageSize = 1000;
    bool m_levelListingsDenied = false;
};

} // namespace testsupport
