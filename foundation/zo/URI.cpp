#include "zo/URI.h"

#include "zo/Error.h"

#include <vector>

namespace zo {

namespace {

// Length of the root of `path`: "/" gives 1, "scheme://authority/" its whole
// length (or up to the end when no "/" follows the authority), 0 for a relative path.
size_t rootLength(const std::u16string& path)
{
    if (!path.empty() && path[0] == u'/')
        return 1;
    const size_t colon = path.find(u"://");
    if (colon == std::u16string::npos || colon == 0)
        return 0;
    for (size_t i = 0; i < colon; ++i) {
        const char16_t c = path[i];
        const bool ok = (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z') ||
            (i > 0 && ((c >= u'0' && c <= u'9') || c == u'+' || c == u'-' || c == u'.'));
        if (!ok)
            return 0;
    }
    const size_t slash = path.find(u'/', colon + 3);
    return slash == std::u16string::npos ? path.size() : slash + 1;
}

std::vector<std::u16string> splitComponents(const std::u16string& rest)
{
    std::vector<std::u16string> parts;
    size_t start = 0;
    while (start <= rest.size()) {
        size_t end = rest.find(u'/', start);
        if (end == std::u16string::npos)
            end = rest.size();
        if (end > start)
            parts.push_back(rest.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

std::u16string joinComponents(const std::u16string& root, const std::vector<std::u16string>& parts)
{
    std::u16string out = root;
    if (!out.empty() && out.back() != u'/' && !parts.empty())
        out += u'/';
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0)
            out += u'/';
        out += parts[i];
    }
    return out;
}

// Root and normalized components of a path.
std::pair<std::u16string, std::vector<std::u16string>> normalizedParts(const std::u16string& path)
{
    const size_t root = rootLength(path);
    std::vector<std::u16string> out;
    for (auto& part : splitComponents(path.substr(root))) {
        if (part == u".")
            continue;
        if (part == u"..") {
            if (!out.empty() && out.back() != u"..")
                out.pop_back();
            else if (root == 0)
                out.push_back(part);
            continue;
        }
        out.push_back(std::move(part));
    }
    return {path.substr(0, root), out};
}

} // namespace

CURI::CURI(const CURI& base, const String& relative)
    : m_path(relative.isEmpty() ? base.m_path : (base << CURI(relative)).m_path)
{}

bool CURI::isAbsolute() const
{
    return rootLength(m_path.getUTF16()) > 0;
}

CURI CURI::operator<<(const String& childName) const
{
    if (m_path.isEmpty())
        return CURI(childName);
    if (childName.isEmpty())
        return *this;
    String joined = m_path;
    if (joined.getUTF16().back() != u'/')
        joined += L'/';
    joined += childName;
    return CURI(joined);
}

CURI CURI::operator<<(const CURI& relative) const
{
    if (relative.isAbsolute() || m_path.isEmpty())
        return relative;
    return *this << relative.m_path;
}

CURI CURI::getParent() const
{
    const std::u16string& path = m_path.getUTF16();
    const size_t root = rootLength(path);
    size_t end = path.size();
    while (end > root && path[end - 1] == u'/')
        --end;
    if (end <= root)
        return CURI();
    const size_t slash = path.rfind(u'/', end - 1);
    if (slash == std::u16string::npos || slash + 1 < root)
        return CURI();
    if (slash + 1 <= root)
        return CURI(String(path.substr(0, root)));
    size_t cut = slash;
    while (cut > root && path[cut - 1] == u'/')
        --cut;
    return CURI(String(path.substr(0, cut)));
}

String CURI::getName() const
{
    const std::u16string& path = m_path.getUTF16();
    const size_t root = rootLength(path);
    auto parts = splitComponents(path.substr(root));
    return parts.empty() ? String() : String(parts.back());
}

CURI CURI::toNormalized() const
{
    if (m_path.isEmpty())
        return CURI();
    auto [root, parts] = normalizedParts(m_path.getUTF16());
    if (root.empty() && parts.empty())
        return CURI(".");
    return CURI(String(joinComponents(root, parts)));
}

CURI CURI::toRelative(const CURI& base) const
{
    auto [root, parts] = normalizedParts(m_path.getUTF16());
    auto [baseRoot, baseParts] = normalizedParts(base.m_path.getUTF16());
    if (root != baseRoot)
        throw CError("Paths share no common root.", String(), -1,
                     CProps().add("path", m_path).add("base", base.m_path));
    size_t common = 0;
    while (common < parts.size() && common < baseParts.size() && parts[common] == baseParts[common])
        ++common;
    if (root.empty() && common < baseParts.size() && baseParts[common] == u"..")
        throw CError("Path cannot be made relative to a base that climbs above its start.", String(), -1,
                     CProps().add("path", m_path).add("base", base.m_path));
    std::vector<std::u16string> out;
    for (size_t i = common; i < baseParts.size(); ++i)
        out.emplace_back(u"..");
    for (size_t i = common; i < parts.size(); ++i)
        out.push_back(parts[i]);
    if (out.empty())
        return CURI(".");
    return CURI(String(joinComponents(std::u16string(), out)));
}

} // namespace zo
