#include "objectstore/KnownFolders.h"

namespace zo {

namespace {

std::pair<std::string, std::string> keyOf(const ObjectName& name)
{
    return {name.container, name.key};
}

std::pair<std::string, std::string> parentKeyOf(const ObjectName& name)
{
    const size_t slash = name.key.rfind('/');
    return {name.container, slash == std::string::npos ? std::string() : name.key.substr(0, slash)};
}

} // namespace

CKnownFolders::CKnownFolders(size_t capacity) : m_capacity(capacity)
{
}

bool CKnownFolders::isFolder(const ObjectName& name) const
{
    if (name.key.empty())
        return true;
    std::lock_guard lock(m_mutex);
    return m_folders.count(keyOf(name)) > 0;
}

bool CKnownFolders::isKnownNonFolder(const ObjectName& name) const
{
    if (name.key.empty())
        return false;
    std::lock_guard lock(m_mutex);
    return m_files.count(keyOf(name)) > 0 || isInFolderMadeHere(name);
}

bool CKnownFolders::isKnownMissingFolder(const ObjectName& name) const
{
    if (name.key.empty())
        return false;
    std::lock_guard lock(m_mutex);
    return isInFolderMadeHere(name);
}

bool CKnownFolders::isInFolderMadeHere(const ObjectName& name) const
{
    if (m_folders.count(keyOf(name)))
        return false;
    const auto parent = parentKeyOf(name);
    if (m_foldersMadeHere.count(parent))
        return true;
    // A folder missing in a folder made here holds nothing either.
    return !parent.second.empty() && isInFolderMadeHere(ObjectName{parent.first, parent.second});
}

void CKnownFolders::addFolder(const ObjectName& name, bool madeHere)
{
    if (name.key.empty())
        return;
    std::lock_guard lock(m_mutex);
    makeRoom();
    m_files.erase(keyOf(name));
    m_folders.insert(keyOf(name));
    if (madeHere)
        m_foldersMadeHere.insert(keyOf(name));
}

void CKnownFolders::addFile(const ObjectName& name)
{
    if (name.key.empty())
        return;
    std::lock_guard lock(m_mutex);
    if (m_folders.count(keyOf(name)))
        return;
    makeRoom();
    m_files.insert(keyOf(name));
}

void CKnownFolders::forgetMadeHere(const ObjectName& name)
{
    std::lock_guard lock(m_mutex);
    m_foldersMadeHere.erase(keyOf(name));
}

void CKnownFolders::makeRoom()
{
    if (m_folders.size() + m_files.size() < m_capacity)
        return;
    m_folders.clear();
    m_foldersMadeHere.clear();
    m_files.clear();
}

} // namespace zo
