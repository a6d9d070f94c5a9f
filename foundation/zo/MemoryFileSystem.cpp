#include "zo/MemoryFileSystem.h"

#include "zo/CompletionPool.h"
#include "zo/FileSystemOp.h"
#include "zo/Log.h"
#include "zo/detail/MemoryFileStore.h"
#include "zo/detail/MemoryFileStream.h"

namespace zo {

namespace {

String normalizedText(const CURI& path)
{
    return path.isEmpty() ? String() : path.toNormalized().toString(true);
}

CFileSystemError injectedError(CMemoryFileSystem::Operation kind, CFileSystemError::Problem problem, const CURI& path)
{
    const char* name = CMemoryFileSystem::getOperationName(kind);
    const CError cause(String("Injected failure of ") + name + ".", String(), -1,
                       CProps().add("path", path.toString(true)).add("action", name));
    return CFileSystemError(problem, cause);
}

void checkAccess(const CURI& file, IIOStream::Access access)
{
    if (access != IIOStream::AccessRead && access != IIOStream::AccessWrite && access != IIOStream::AccessReadWrite)
        throw CInvalidArgError("zo::CMemoryFileSystem::openStream", "Unknown access value.",
                               CProps().add("uri", file.toString(true)).add("access", static_cast<int>(access)));
}

// A lock of the store's lock table, released when the object goes.
class CMemoryFolderLock : public CBase, public IFileSystemLock {
public:
    CMemoryFolderLock(CMemoryFileStore* store, const CURI& folder, bool exclusive)
        : m_store(store), m_folder(folder), m_exclusive(exclusive)
    {}
    ~CMemoryFolderLock() override
    {
        try {
            m_store->unlockFolder(m_folder, m_exclusive);
        } catch (const std::exception& e) {
            onExceptionInDestructorIgnored("zo::CMemoryFolderLock", e, true);
        }
    }
    bool isExclusive() const override { return m_exclusive; }

private:
    P<CMemoryFileStore> m_store;
    CURI m_folder;
    bool m_exclusive;
};

} // namespace

const char* CMemoryFileSystem::getOperationName(Operation kind)
{
    switch (kind) {
    case Operation::StoreFile:
        return "storeFile";
    case Operation::CreateFolder:
        return "createFolder";
    case Operation::MoveFile:
        return "moveFile";
    case Operation::DeleteFile:
        return "deleteFile";
    case Operation::GetFileInfo:
        return "getFileInfo";
    case Operation::OpenStream:
        return "openStream";
    case Operation::CreateFolderSync:
        return "createFolderSync";
    case Operation::FileExists:
        return "fileExists";
    case Operation::FolderExists:
        return "folderExists";
    case Operation::PathExists:
        return "pathExists";
    case Operation::DeleteFileSync:
        return "deleteFileSync";
    case Operation::ListFolder:
        return "listFolder";
    case Operation::CopyFile:
        return "copyFile";
    case Operation::LockFolder:
        return "lockFolder";
    }
    return "unknown";
}

CMemoryFileSystem::CMemoryFileSystem(int threadCount)
    : m_random(std::random_device()()), m_store(new CMemoryFileStore()), m_pool(CCompletionPool::create(threadCount))
{}

CMemoryFileSystem::~CMemoryFileSystem()
{
    m_pool->shutdown();
}

void CMemoryFileSystem::setCompletionDelay(int minMillis, int maxMillis)
{
    std::lock_guard lock(m_mutex);
    m_minDelayMillis = minMillis < 0 ? 0 : minMillis;
    m_maxDelayMillis = maxMillis < m_minDelayMillis ? m_minDelayMillis : maxMillis;
}

void CMemoryFileSystem::failOperation(Operation kind, int nth, CFileSystemError::Problem problem, bool persistent,
                                      const CURI& pathPrefix)
{
    std::lock_guard lock(m_mutex);
    m_rules.push_back(FailureRule{kind, nth, problem, persistent, normalizedText(pathPrefix)});
}

void CMemoryFileSystem::failStreamReads(const CURI& pathPrefix, CFileSystemError::Problem problem)
{
    m_store->failReads(pathPrefix, problem);
}

void CMemoryFileSystem::clearFailures()
{
    {
        std::lock_guard lock(m_mutex);
        m_rules.clear();
    }
    m_store->clearReadFailures();
}

int CMemoryFileSystem::getOperationCount(Operation kind) const
{
    std::lock_guard lock(m_mutex);
    return m_counts[static_cast<size_t>(kind)];
}

TList<String> CMemoryFileSystem::getOperationLog() const
{
    std::lock_guard lock(m_mutex);
    return m_log;
}

void CMemoryFileSystem::resetCounters()
{
    std::lock_guard lock(m_mutex);
    m_counts.fill(0);
    m_log.clear();
}

P<TBuffer<uint8>> CMemoryFileSystem::getFileData(const CURI& file) const
{
    return m_store->copyFileData(file);
}

void CMemoryFileSystem::setFileData(const CURI& file, const TBuffer<uint8>& data)
{
    m_store->setFileData(file, data);
}

void CMemoryFileSystem::waitUntilIdle()
{
    m_pool->waitUntilIdle();
}

P<CError> CMemoryFileSystem::startOperation(Operation kind, const CURI& path, const CURI& otherPath)
{
    const String pathText = normalizedText(path);
    const String otherText = normalizedText(otherPath);
    std::lock_guard lock(m_mutex);
    ++m_counts[static_cast<size_t>(kind)];
    String entry = String(getOperationName(kind)) + " " + path.toString(true);
    if (kind == Operation::MoveFile || kind == Operation::CopyFile)
        entry += " -> " + otherPath.toString(true);
    m_log.push_back(entry);
    P<CError> failure;
    for (FailureRule& rule : m_rules) {
        const bool matches = rule.kind == kind &&
            (rule.pathPrefix.isEmpty() || pathText.StartsWith(rule.pathPrefix) ||
             (!otherText.isEmpty() && otherText.StartsWith(rule.pathPrefix)));
        if (!matches)
            continue;
        ++rule.matched;
        if (!failure && (rule.matched == rule.nth || (rule.persistent && rule.matched > rule.nth)))
            failure = P<CError>(new CFileSystemError(injectedError(kind, rule.problem, path)));
    }
    return failure;
}

void CMemoryFileSystem::startSyncOperation(Operation kind, const CURI& path)
{
    if (const P<CError> failure = startOperation(kind, path))
        failure->throwClone();
}

P<IFileSystemOp> CMemoryFileSystem::postOperation(const P<CError>& failure, IDoneListener* listener,
                                                  std::function<void()> work)
{
    int delayMillis = 0;
    {
        std::lock_guard lock(m_mutex);
        if (m_maxDelayMillis > 0)
            delayMillis = std::uniform_int_distribution<int>(m_minDelayMillis, m_maxDelayMillis)(m_random);
    }
    return postFileSystemOp(*m_pool, listener, std::move(work), delayMillis, failure);
}

P<IFileSystemOp> CMemoryFileSystem::beginStoreFile(const CURI& file, int size, IInStream* source, bool overwrite,
                                                   IDoneListener* listener)
{
    checkStoreFileArguments("zo::CMemoryFileSystem::beginStoreFile", file, size, source);
    const P<CError> failure = startOperation(Operation::StoreFile, file);
    return postOperation(failure, listener, [store = m_store, file, size, source = P<IInStream>(source), overwrite] {
        store->checkStorable(file, overwrite);
        P<TBuffer<uint8>> data(new TBuffer<uint8>(size));
        const int got = size > 0 ? source->readLax(data->getData(), size) : 0;
        if (got < size)
            throw CIOError(CIOError::EndOfData, "The source delivered fewer bytes than the store expected.",
                           CProps().add("path", file.toString(true)).add("size", size).add("got", got));
        store->storeFile(file, data, overwrite);
    });
}

P<IFileSystemOp> CMemoryFileSystem::beginCreateFolder(const CURI& folder, int, IDoneListener* listener)
{
    const P<CError> failure = startOperation(Operation::CreateFolder, folder);
    return postOperation(failure, listener, [store = m_store, folder] { store->createFolder(folder); });
}

P<IFileSystemOp> CMemoryFileSystem::beginMoveFile(const CURI& from, const CURI& to, bool overwrite,
                                                  IDoneListener* listener)
{
    const P<CError> failure = startOperation(Operation::MoveFile, from, to);
    return postOperation(failure, listener,
                         [store = m_store, from, to, overwrite] { store->moveFile(from, to, overwrite); });
}

P<IFileSystemOp> CMemoryFileSystem::beginCopyFile(const CURI& from, const CURI& to, bool overwrite,
                                                  IDoneListener* listener)
{
    const P<CError> failure = startOperation(Operation::CopyFile, from, to);
    return postOperation(failure, listener,
                         [store = m_store, from, to, overwrite] { store->copyFile(from, to, overwrite); });
}

P<IFileSystemOp> CMemoryFileSystem::beginDeleteFile(const CURI& file, IDoneListener* listener)
{
    const P<CError> failure = startOperation(Operation::DeleteFile, file);
    return postOperation(failure, listener, [store = m_store, file] { store->deleteFile(file, true); });
}

P<IFileInfo> CMemoryFileSystem::getFileInfo(const CURI& path, bool throwIfMissing)
{
    startSyncOperation(Operation::GetFileInfo, path);
    return m_store->getFileInfo(path, throwIfMissing);
}

P<IIOStream> CMemoryFileSystem::openStream(const CURI& file, IIOStream::Access access, const int& options)
{
    startSyncOperation(Operation::OpenStream, file);
    checkAccess(file, access);
    const P<CMemoryFileStore::FileData> data = m_store->openFile(file, access, options);
    return P<IIOStream>(new CMemoryFileStream(m_store.get(), file, data.get(), access));
}

void CMemoryFileSystem::createFolder(const CURI& folder, int)
{
    startSyncOperation(Operation::CreateFolderSync, folder);
    m_store->createFolderWithParents(folder);
}

bool CMemoryFileSystem::fileExists(const CURI& file)
{
    startSyncOperation(Operation::FileExists, file);
    return m_store->fileExists(file);
}

bool CMemoryFileSystem::folderExists(const CURI& folder)
{
    startSyncOperation(Operation::FolderExists, folder);
    return m_store->folderExists(folder);
}

bool CMemoryFileSystem::pathExists(const CURI& path)
{
    startSyncOperation(Operation::PathExists, path);
    return m_store->pathExists(path);
}

void CMemoryFileSystem::deleteFile(const CURI& file, bool ignoreMissing)
{
    startSyncOperation(Operation::DeleteFileSync, file);
    m_store->deleteFile(file, ignoreMissing);
}

TList<String> CMemoryFileSystem::listFolder(const CURI& folder)
{
    startSyncOperation(Operation::ListFolder, folder);
    return m_store->listFolder(folder);
}

P<IFileSystemLock> CMemoryFileSystem::lockFolder(const CURI& folder, bool exclusive)
{
    startSyncOperation(Operation::LockFolder, folder);
    m_store->lockFolder(folder, exclusive);
    return P<IFileSystemLock>(new CMemoryFolderLock(m_store.get(), folder, exclusive));
}

int CMemoryFileSystem::removeTemporaryFiles(const CURI&)
{
    return 0;
}

} // namespace zo
