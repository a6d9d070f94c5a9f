// CProps: named string properties attached to an error, kept in the order in
// which they were added.
#pragma once

#include "zo/Export.h"
#include "zo/String.h"

#include <utility>
#include <vector>

namespace zo {

class BRICKDISK_EXPORT CProps {
public:
    using Entry = std::pair<String, String>;

    // Adds (or replaces) a property; returns this set for chaining.
    CProps& add(const String& name, const String& value);
    CProps& add(const String& name, int64 value) { return add(name, toDecimalString(value)); }
    CProps& add(const String& name, int value) { return add(name, toDecimalString(value)); }
    // Adds every property of `other`, replacing ones of the same name.
    CProps& addAll(const CProps& other);
    // The value, or an empty string when the property is absent.
    String lookup(const String& name) const;
    bool contains(const String& name) const;
    bool isEmpty() const { return m_entries.empty(); }
    size_t getCount() const { return m_entries.size(); }

    auto begin() const { return m_entries.begin(); }
    auto end() const { return m_entries.end(); }

    friend bool operator==(const CProps&, const CProps&) = default;

private:
    std::vector<Entry> m_entries;
};

} // namespace zo
