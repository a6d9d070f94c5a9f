#include "zo/Props.h"

#include <algorithm>

namespace zo {

CProps& CProps::add(const String& name, const String& value)
{
    auto it = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& e) { return e.first == name; });
    if (it != m_entries.end())
        it->second = value;
    else
        m_entries.emplace_back(name, value);
    return *this;
}

CProps& CProps::addAll(const CProps& other)
{
    for (const auto& [name, value] : other)
        add(name, value);
    return *this;
}

String CProps::lookup(const String& name) const
{
    for (const auto& [n, value] : m_entries)
        if (n == name)
            return value;
    return String();
}

bool CProps::contains(const String& name) const
{
    return std::any_of(m_entries.begin(), m_entries.end(), [&](const Entry& e) { return e.first == name; });
}

} // namespace zo
