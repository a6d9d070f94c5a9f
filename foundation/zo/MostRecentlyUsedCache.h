// TMostRecentlyUsedCache: a bounded map from keys to counted values that
// forgets the least recently used entries first.
#pragma once

#include "zo/Base.h"
#include "zo/Containers.h"
#include "zo/Export.h"

#include <utility>

namespace zo {

// Keeps up to `capacity` entries (key -> P<V>) together with their order of
// use, most recently used first. A lookup hit and an insertion put the entry
// at the front. With auto-trim on, inserting a new key trims the cache to its
// capacity by evicting entries from the back (the least recently used).
// Evicted (key, value) pairs are appended to the eviction list when one was
// given, otherwise their values are simply released.
//
// K needs operator<. Not thread-safe: callers that share a cache between
// threads lock around every call. The eviction list is the caller's; it must
// outlive the cache or every call that can evict.
template <class K, class V>
class BRICKDISK_EXPORT TMostRecentlyUsedCache : public CBase {
public:
    using EvictionList = TList<std::pair<K, P<V>>>;

    TMostRecentlyUsedCache(int capacity, bool autoTrim, EvictionList* evictionList = nullptr)
        : m_capacity(capacity), m_autoTrim(autoTrim), m_evictionList(evictionList)
    {}
    TMostRecentlyUsedCache(const TMostRecentlyUsedCache&) = delete;
    TMostRecentlyUsedCache& operator=(const TMostRecentlyUsedCache&) = delete;

    // The value stored under `key`, or null. A hit makes the entry the most
    // recently used one.
    P<V> lookup(const K& key)
    {
        const auto it = m_entries.find(key);
        if (it == m_entries.end())
            return P<V>();
        moveToFront(it->second);
        return it->second.value;
    }

    // True when `key` is cached; leaves the order of use as it is.
    bool contains(const K& key) const { return m_entries.find(key) != m_entries.end(); }

    // Stores `value` under `key`. An existing key gets the new value (the old
    // one is released) and becomes the most recently used entry; nothing is
    // evicted then. A new key goes to the front and, with auto-trim on, the
    // cache is trimmed to its capacity.
    void insert(const K& key, const P<V>& value)
    {
        const auto it = m_entries.find(key);
        if (it != m_entries.end()) {
            it->second.value = value;
            moveToFront(it->second);
            return;
        }
        m_recency.push_front(key);
        try {
            m_entries.emplace(key, Entry{value, m_recency.begin()});
        } catch (...) {
            m_recency.pop_front();
            throw;
        }
        if (m_autoTrim)
            trim();
    }
    void insert(const K& key, V* value) { insert(key, P<V>(value)); }

    // Evicts least recently used entries while there are more than the
    // capacity (all of them when the capacity is below 1).
    void trim()
    {
        while (!m_recency.empty() && getCount() > m_capacity)
            evictBack();
    }

    // Forgets `key` without passing it to the eviction list; true when it was cached.
    bool remove(const K& key)
    {
        const auto it = m_entries.find(key);
        if (it == m_entries.end())
            return false;
        m_recency.erase(it->second.place);
        m_entries.erase(it);
        return true;
    }

    // Forgets every entry without passing them to the eviction list.
    void clear()
    {
        m_entries.clear();
        m_recency.clear();
    }

    int getCount() const { return static_cast<int>(m_entries.size()); }
    int getCapacity() const { return m_capacity; }
    // Sets the capacity; with auto-trim on the cache is trimmed to it at once.
    void setCapacity(int capacity)
    {
        m_capacity = capacity;
        if (m_autoTrim)
            trim();
    }

private:
    struct Entry {
        P<V> value;
        typename TList<K>::iterator place; // position in m_recency
    };

    void moveToFront(Entry& entry)
    {
        if (entry.place != m_recency.begin())
            m_recency.splice(m_recency.begin(), m_recency, entry.place);
    }

    void evictBack()
    {
        const auto it = m_entries.find(m_recency.back());
        if (m_evictionList)
            m_evictionList->emplace_back(it->first, std::move(it->second.value));
        m_entries.erase(it);
        m_recency.pop_back();
    }

    int m_capacity;
    bool m_autoTrim;
    EvictionList* m_evictionList;
    TMap<K, Entry> m_entries;
    TList<K> m_recency; // most recently used first
};

} // namespace zo
