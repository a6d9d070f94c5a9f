// CCountingObjectStore: passes every call to an object store and counts, by
// key, the calls that ask about one object (stat, read and readRange) and,
// by prefix, the listings of one level with sizes, so that a test tells how
// many requests an operation makes per object; and every request of any kind
// in the order made ("kind key"). Any thread may call it.
#pragma once

#include "objectstore/ObjectStore.h"

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

class CCountingObjectStore : public zo::CBase, public zo::IObjectStore {
public:
    explicit CCountingObjectStore(zo::IObjectStore* inner) : m_inner(inner) {}

    void beginPut(const zo::ObjectName& name, std::string bytes, bool exclusive, Done done) override
    {
        log("put", name.key);
        m_inner->beginPut(name, std::move(bytes), exclusive, std::move(done));
    }
    void beginCopy(const zo::ObjectName& from, const zo::ObjectName& to, bool exclusive, Done done) override
    {
        log("copy", to.key);
        m_inner->beginCopy(from, to, exclusive, std::move(done));
    }
    void beginRemove(const zo::ObjectName& name, Done done) override
    {
        log("remove", name.key);
        m_inner->beginRemove(name, std::move(done));
    }
    std::optional<zo::int64> stat(const zo::ObjectName& name) override
    {
        note(m_stats, name.key);
        log("stat", name.key);
        return m_inner->stat(name);
    }
    std::string read(const zo::ObjectName& name) override
    {
        note(m_reads, name.key);
        log("read", name.key);
        return m_inner->read(name);
    }
    std::string readRange(const zo::ObjectName& name, zo::int64 offset, int size) override
    {
        note(m_ranges, name.key);
        log("range", name.key);
        return m_inner->readRange(name, offset, size);
    }
    void write(const zo::ObjectName& name, zo::int64 offset, const void* bytes, int size) override
    {
        log("write", name.key);
        m_inner->write(name, offset, bytes, size);
    }
    void truncate(const zo::ObjectName& name, zo::int64 length) override
    {
        log("truncate", name.key);
        m_inner->truncate(name, length);
    }
    zo::TList<std::string> list(const std::string& container, const std::string& prefix, int limit) override
    {
        log("list", prefix);
        return m_inner->list(container, prefix, limit);
    }
    zo::TList<std::string> listChildren(const std::string& container, const std::string& prefix) override
    {
        log("listChildren", prefix);
        return m_inner->listChildren(container, prefix);
    }
    std::optional<Level> listLevelInOneRequest(const std::string& container, const std::string& prefix) override
    {
        log("listLevel", prefix);
        return m_inner->listLevelInOneRequest(container, prefix);
    }
    std::optional<SizedLevel> listLevelWithSizes(const std::string& container, const std::string& prefix) override
    {
        note(m_sizedListings, prefix);
        log("listSized", prefix);
        return m_inner->listLevelWithSizes(container, prefix);
    }
    zo::P<zo::IFileSystemLock> lock(const zo::ObjectName& name, bool exclusive) override
    {
        log("lock", name.key);
        return m_inner->lock(name, exclusive);
    }

    // The calls so far, by key (or prefix).
    std::map<std::string, int> stats() const { return take(m_stats); }
    std::map<std::string, int> reads() const { return take(m_reads); }
    std::map<std::string, int> ranges() const { return take(m_ranges); }
    std::map<std::string, int> sizedListings() const { return take(m_sizedListings); }
    // Every request so far, in the order made, as "kind key".
    std::vector<std::string> requests() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

private:
    void note(std::map<std::string, int>& calls, const std::string& key)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++calls[key];
    }
    void log(const char* kind, const std::string& key)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back(std::string(kind) + " " + key);
    }
    std::map<std::string, int> take(const std::map<std::string, int>& calls) const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return calls;
    }

    zo::P<zo::IObjectStore> m_inner;
    mutable std::mutex m_mutex;
    std::map<std::string, int> m_stats;
    std::map<std::string, int> m_reads;
    std::map<std::string, int> m_ranges;
    std::map<std::string, int> m_sizedListings;
    std::vector<std::string> m_requests;
};

} // namespace testsupport
