// CURI: the path of a file or folder, "/"-separated. A path is absolute when
// it starts with "/" or with a scheme root such as "mem://bucket/"; otherwise
// it is relative. The empty path is neither.
#pragma once

#include "zo/Export.h"
#include "zo/String.h"

namespace zo {

class BRICKDISK_EXPORT CURI {
public:
    CURI() = default;
    CURI(const String& path) : m_path(path) {}
    CURI(const char* path) : m_path(path) {}
    // `base` joined with the relative path `relative` (nothing when empty).
    CURI(const CURI& base, const String& relative);

    bool isEmpty() const { return m_path.isEmpty(); }
    bool isAbsolute() const;

    // A new path with one more component.
    CURI operator<<(const String& childName) const;
    CURI operator<<(const char* childName) const { return *this << String(childName); }
    // This path joined with `relative`; an absolute `relative` replaces it.
    CURI operator<<(const CURI& relative) const;

    // The path without its last component; empty for a single relative
    // component or for a root.
    CURI getParent() const;
    // The last component ("" for a root or the empty path).
    String getName() const;
    // Drops "." components, empty components and trailing separators, and
    // resolves ".." against the component before it (".." at a root stays at
    // the root; leading ".." of a relative path are kept).
    CURI toNormalized() const;
    // The path of this one relative to `base` ("." when they are the same).
    // Throws CError when the two share no root (one absolute and one relative,
    // or two different roots).
    CURI toRelative(const CURI& base) const;
    // The path as text; the flag is kept for callers that pass it.
    String toString(bool = true) const { return m_path; }
    // The path in the local file system's encoding (UTF-8).
    std::string toLocalPath() const { return m_path.toUTF8(); }

    friend bool operator==(const CURI& a, const CURI& b) { return a.m_path == b.m_path; }
    friend auto operator<=>(const CURI& a, const CURI& b) { return a.m_path <=> b.m_path; }

private:
    String m_path;
};

} // namespace zo
