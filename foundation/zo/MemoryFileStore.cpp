#include "zo/detail/MemoryFileStore.h"

#include "zo/FileSystemOp.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace zo {

namespace {

using Problem = CFileSystemError::Problem;

const char* describeProblem(Problem problem)
{
    switch (problem) {
    case CFileSystemError::NotFound:
        return "No such file or folder";
    case CFileSystemError::AlreadyExists:
        return "It already exists";
    case CFileSystemError::NotAFolder:
        return "A part of the path is not a folder";
    case CFileSystemError::IsAFolder:
        return "It is a folder";
    case CFileSystemError::InvalidName:
        return "The path is empty";
    case CFileSystemError::Locked:
        return "It is locked by someone else";
    default:
        return "It cannot be done";
    }
}

CFileSystemError memoryError(Problem problem, const char* action, const String& path)
{
    const CError cause(String(action) + " failed: " + describeProblem(problem) + ".", String(), -1,
                       CProps().add("path", path).add("action", action));
    return CFileSystemError(problem, cause);
}

bool isRootKey(const String& key)
{
    const CURI path(key);
    return key == "." || (path.isAbsolute() && path.getName().isEmpty());
}

// The key of the folder that holds `key`, which is not a root.
String parentKey(const String& key)
{
    const CURI parent = CURI(key).getParent();
    return parent.isEmpty() ? String(".") : CMemoryFileStore::toKey(parent);
}

} // namespace

String CMemoryFileStore::toKey(const CURI& path)
{
    if (path.isEmpty())
        throw memoryError(CFileSystemError::InvalidName, "resolve", String());
    const CURI normalized = path.toNormalized();
    String key = normalized.toString(true);
    if (normalized.isAbsolute() && normalized.getName().isEmpty() && !key.EndsWith("/"))
        key += L'/';
    return key;
}

bool CMemoryFileStore::isFolder(const String& key) const
{
    return isRootKey(key) || m_folders.count(key) > 0;
}

bool CMemoryFileStore::isFile(const String& key) const
{
    return m_files.count(key) > 0;
}

void CMemoryFileStore::checkParentFolder(const String& key, const char* action) const
{
    if (isRootKey(key) || isFolder(parentKey(key)))
        return;
    // The nearest part of the path that exists tells the problem: a file there
    // is in the way, otherwise a folder is missing.
    for (String part = parentKey(key); !isFolder(part); part = parentKey(part)) {
        if (isFile(part))
            throw memoryError(CFileSystemError::NotAFolder, action, key);
    }
    throw memoryError(CFileSystemError::NotFound, action, key);
}

void CMemoryFileStore::checkStoreTarget(const String& key, bool overwrite, const char* action) const
{
    if (isFolder(key))
        throw memoryError(overwrite ? CFileSystemError::IsAFolder : CFileSystemError::AlreadyExists, action, key);
    checkParentFolder(key, action);
    if (!overwrite && isFile(key))
        throw memoryError(CFileSystemError::AlreadyExists, action, key);
}

void CMemoryFileStore::checkStorable(const CURI& file, bool overwrite) const
{
    const String key = toKey(file);
    std::lock_guard lock(m_mutex);
    checkStoreTarget(key, overwrite, "storeFile");
}

void CMemoryFileStore::storeFile(const CURI& file, const P<FileData>& data, bool overwrite)
{
    const String key = toKey(file);
    std::lock_guard lock(m_mutex);
    checkStoreTarget(key, overwrite, "storeFile");
    m_files[key] = data;
}

void CMemoryFileStore::createFolder(const CURI& folder)
{
    const String key = toKey(folder);
    std::lock_guard lock(m_mutex);
    if (isFolder(key) || isFile(key))
        throw memoryError(CFileSystemError::AlreadyExists, "createFolder", key);
    checkParentFolder(key, "createFolder");
    m_folders.insert(key);
}

void CMemoryFileStore::createFolderWithParents(const CURI& folder)
{
    const String key = toKey(folder);
    std::lock_guard lock(m_mutex);
    createFolderWithParentsLocked(key);
}

void CMemoryFileStore::createFolderWithParentsLocked(const String& key)
{
    if (isFolder(key))
        return;
    if (isFile(key))
        throw memoryError(CFileSystemError::AlreadyExists, "createFolder", key);
    createFolderWithParentsLocked(parentKey(key));
    m_folders.insert(key);
}

TMap<String, P<CMemoryFileStore::FileData>>::iterator CMemoryFileStore::findSourceFile(const String& fromKey,
                                                                                       const char* action)
{
    const auto source = m_files.find(fromKey);
    if (source == m_files.end()) {
        if (isFolder(fromKey))
            throw memoryError(CFileSystemError::IsAFolder, action, fromKey);
        checkParentFolder(fromKey, action);
        throw memoryError(CFileSystemError::NotFound, action, fromKey);
    }
    return source;
}

void CMemoryFileStore::moveFile(const CURI& from, const CURI& to, bool overwrite)
{
    const String fromKey = toKey(from);
    const String targetKey = toKey(to);
    std::lock_guard lock(m_mutex);
    const auto source = findSourceFile(fromKey, "moveFile");
    checkStoreTarget(targetKey, overwrite, "moveFile");
    if (fromKey == targetKey)
        return;
    P<FileData> data = source->second;
    m_files.erase(source);
    m_files[targetKey] = data;
}

void CMemoryFileStore::copyFile(const CURI& from, const CURI& to, bool overwrite)
{
    const String fromKey = toKey(from);
    const String targetKey = toKey(to);
    std::lock_guard lock(m_mutex);
    const auto source = findSourceFile(fromKey, "copyFile");
    checkStoreTarget(targetKey, overwrite, "copyFile");
    if (fromKey == targetKey)
        return;
    m_files[targetKey] = P<FileData>(new FileData(*source->second));
}

void CMemoryFileStore::lockFolder(const CURI& folder, bool exclusive)
{
    const String key = toKey(folder);
    std::lock_guard lock(m_mutex);
    if (!isFolder(key))
        throw memoryError(isFile(key) ? CFileSystemError::NotAFolder : CFileSystemError::NotFound, "lockFolder", key);
    int& holders = m_locks[key];
    if (holders < 0 || (exclusive && holders > 0))
        throw memoryError(CFileSystemError::Locked, "lockFolder", key);
    holders = exclusive ? -1 : holders + 1;
}

void CMemoryFileStore::unlockFolder(const CURI& folder, bool exclusive)
{
    const String key = toKey(folder);
    std::lock_guard lock(m_mutex);
    const auto found = m_locks.find(key);
    if (found == m_locks.end())
        return;
    if (exclusive || found->second <= 1)
        m_locks.erase(found);
    else
        --found->second;
}

void CMemoryFileStore::deleteFile(const CURI& file, bool ignoreMissing)
{
    const String key = toKey(file);
    std::lock_guard lock(m_mutex);
    if (isFolder(key))
        throw memoryError(CFileSystemError::IsAFolder, "deleteFile", key);
    if (m_files.erase(key) == 0 && !ignoreMissing)
        throw memoryError(CFileSystemError::NotFound, "deleteFile", key);
}

P<IFileInfo> CMemoryFileStore::getFileInfo(const CURI& path, bool throwIfMissing) const
{
    const String key = toKey(path);
    std::lock_guard lock(m_mutex);
    if (const auto file = m_files.find(key); file != m_files.end())
        return P<IFileInfo>(new CFileInfo(true, false, file->second->getUsed()));
    if (isFolder(key))
        return P<IFileInfo>(new CFileInfo(true, true, 0));
    if (throwIfMissing)
        throw memoryError(CFileSystemError::NotFound, "getFileInfo", key);
    return P<IFileInfo>(new CFileInfo(false, false, 0));
}

P<CMemoryFileStore::FileData> CMemoryFileStore::openFile(const CURI& file, IIOStream::Access access, int options)
{
    const String key = toKey(file);
    std::lock_guard lock(m_mutex);
    if (isFolder(key))
        throw memoryError(CFileSystemError::IsAFolder, "openStream", key);
    const auto found = m_files.find(key);
    const bool replace = access != IIOStream::AccessRead && (options & IIOStream::OptionReplace) != 0;
    if (found != m_files.end()) {
        if (replace)
            found->second->setUsed(0);
        return found->second;
    }
    if (!replace) {
        checkParentFolder(key, "openStream");
        throw memoryError(CFileSystemError::NotFound, "openStream", key);
    }
    checkParentFolder(key, "openStream");
    P<FileData> data(new FileData());
    m_files[key] = data;
    return data;
}

bool CMemoryFileStore::fileExists(const CURI& file) const
{
    const String key = toKey(file);
    std::lock_guard lock(m_mutex);
    return isFile(key);
}

bool CMemoryFileStore::folderExists(const CURI& folder) const
{
    const String key = toKey(folder);
    std::lock_guard lock(m_mutex);
    return isFolder(key);
}

bool CMemoryFileStore::pathExists(const CURI& path) const
{
    const String key = toKey(path);
    std::lock_guard lock(m_mutex);
    return isFile(key) || isFolder(key);
}

TList<String> CMemoryFileStore::listFolder(const CURI& folder) const
{
    const String key = toKey(folder);
    std::lock_guard lock(m_mutex);
    if (isFile(key))
        throw memoryError(CFileSystemError::NotAFolder, "listFolder", key);
    if (!isFolder(key))
        throw memoryError(CFileSystemError::NotFound, "listFolder", key);
    TSet<String> names;
    const auto addIfChild = [&](const String& entry) {
        if (!isRootKey(entry) && parentKey(entry) == key)
            names.insert(CURI(entry).getName());
    };
    for (const auto& entry : m_files)
        addIfChild(entry.first);
    for (const String& entry : m_folders)
        addIfChild(entry);
    return TList<String>(names.begin(), names.end());
}

P<CMemoryFileStore::FileData> CMemoryFileStore::copyFileData(const CURI& file) const
{
    const String key = toKey(file);
    std::lock_guard lock(m_mutex);
    const auto found = m_files.find(key);
    return found == m_files.end() ? P<FileData>() : P<FileData>(new FileData(*found->second));
}

void CMemoryFileStore::setFileData(const CURI& file, const FileData& data)
{
    const String key = toKey(file);
    std::lock_guard lock(m_mutex);
    if (isFolder(key))
        throw memoryError(CFileSystemError::IsAFolder, "setFileData", key);
    createFolderWithParentsLocked(parentKey(key));
    m_files[key] = P<FileData>(new FileData(data));
}

int CMemoryFileStore::read(const CURI& file, const FileData& data, int64 position, void* dst, int size) const
{
    const String key = toKey(file);
    std::lock_guard lock(m_mutex);
    for (const auto& [prefix, problem] : m_readFailures) {
        if (key.StartsWith(prefix))
            throw memoryError(problem, "read", key);
    }
    const int64 available = data.getUsed() - position;
    const int count = static_cast<int>(std::clamp<int64>(available, 0, size));
    if (count > 0)
        std::memcpy(dst, data.getData() + position, static_cast<size_t>(count));
    return count;
}

void CMemoryFileStore::write(FileData& data, int64 position, const void* src, int size)
{
    if (size <= 0)
        return;
    const int64 end = position + size;
    if (end > std::numeric_limits<int>::max())
        throw CIOError(CIOError::WriteBeyondSize, "A file in memory cannot grow beyond 2 GiB.");
    std::lock_guard lock(m_mutex);
    const int used = data.getUsed();
    if (end > used) {
        data.setUsed(static_cast<int>(end));
        if (position > used)
            std::memset(data.getData() + used, 0, static_cast<size_t>(position - used));
    }
    std::memcpy(data.getData() + position, src, static_cast<size_t>(size));
}

int64 CMemoryFileStore::getLength(const FileData& data) const
{
    std::lock_guard lock(m_mutex);
    return data.getUsed();
}

void CMemoryFileStore::setLength(FileData& data, int64 length)
{
    if (length < 0 || length > std::numeric_limits<int>::max())
        throw CIOError(CIOError::SeekOutOfRange, String(), CProps().add("length", length));
    std::lock_guard lock(m_mutex);
    const int used = data.getUsed();
    data.setUsed(static_cast<int>(length));
    if (length > used)
        std::memset(data.getData() + used, 0, static_cast<size_t>(length - used));
}

void CMemoryFileStore::failReads(const CURI& pathPrefix, CFileSystemError::Problem problem)
{
    const String key = toKey(pathPrefix);
    std::lock_guard lock(m_mutex);
    m_readFailures.emplace_back(key, problem);
}

void CMemoryFileStore::clearReadFailures()
{
    std::lock_guard lock(m_mutex);
    m_readFailures.clear();
}

} // namespace zo
