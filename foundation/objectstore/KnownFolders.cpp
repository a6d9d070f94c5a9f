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
{}

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
    if (m_files.count(keyOf(name)) || isInFolderMadeHere(name))
        return true;
    return m_listedFolders.count(parentKeyOf(name)) && !m_folders.count(keyOf(name));
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
    if (madeHere) {
        m_foldersMadeHere.insert(keyOf(name));
        m_listedFolders.insert(keyOf(name)); // new, so empty
    }
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

void CKnownFolders::forgetFile(const ObjectName& name)
{
    std::lock_guard lock(m_mutex);
    m_files.erase(keyOf(name));
}

void CKnownFolders::addListing(const ObjectName& folder, const std::set<std::string>& files,
                               const std::set<std::string>& folders, bool exists)
{
    std::lock_guard lock(m_mutex);
    if (m_folders.size() + m_files.size() + files.size() + folders.size() >= m_capacity)
        forgetEverything();
    const std::string prefix = folder.key.empty() ? std::string() : folder.key + "/";
    if (!folder.key.empty() && (exists || !files.empty() || !folders.empty())) {
        m_files.erase(keyOf(folder));
        m_folders.insert(keyOf(folder));
    }
    for (const std::string& file : files)
        m_files.insert({folder.container, prefix + file});
    for (const std::string& inner : folders) {
        m_files.erase({folder.container, prefix + inner});
        m_folders.insert({folder.container, prefix + inner});
    }
    m_listedFolders.insert(keyOf(folder));
}

bool CKnownFolders::isListed(const ObjectName& folder) const
{
    std::lock_guard lock(m_mutex);
    return m_listedFolders.count(keyOf(folder)) > 0;
}

bool CKnownFolders::isListedAsMissing(const ObjectName& name) const
{
    if (name.key.empty())
        return false;
    std::lock_guard lock(m_mutex);
    return m_listedFolders.count(parentKeyOf(name)) && !m_files.count(keyOf(name)) && !m_folders.count(keyOf(name));
}

void CKnownFolders::forgetListingOf(const ObjectName& name)
{
    std::lock_guard lock(m_mutex);
    m_listedFolders.erase(parentKeyOf(name));
}

void CKnownFolders::forgetMadeHere(const ObjectName& name)
{
    std::lock_guard lock(m_mutex);
    m_foldersMadeHere.erase(keyOf(name));
    m_listedFolders.erase(keyOf(name));
}

void CKnownFolders::makeRoom()
{
    if (m_folders.size() + m_files.size() >= m_capacity)
        forgetEverything();
}

void CKnownFolders::forgetEverything()
{
    m_folders.clear();
    m_foldersMadeHere.clear();
    m_files.clear();
    m_listedFolders.clear();
}

} // namespace zo
