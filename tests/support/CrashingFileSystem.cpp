#include "support/CrashingFileSystem.h"

#include "zo/CompletionPool.h"
#include "zo/FileSystemOp.h"

namespace testsupport {

CrashingFileSystem::CrashingFileSystem(zo::IFileSystem* inner, int allowedChanges)
    : m_inner(inner), m_allowedChanges(allowedChanges), m_refusals(zo::CCompletionPool::create(1))
{}

CrashingFileSystem::~CrashingFileSystem()
{
    m_refusals->shutdown();
}

bool CrashingFileSystem::admitChange()
{
    const int number = ++m_changes;
    if (m_allowedChanges >= 0 && number > m_allowedChanges)
        m_crashed = true;
    return !m_crashed;
}

zo::CFileSystemError CrashingFileSystem::crashError(const zo::CURI& path)
{
    const zo::CError cause("The file system crashed.", zo::String(), -1, zo::CProps().add("path", path.toString(true)));
    return zo::CFileSystemError(zo::CFileSystemError::Unclassified, cause);
}

void CrashingFileSystem::checkAlive(const zo::CURI& path) const
{
    if (m_crashed)
        throw crashError(path);
}

zo::P<zo::IFileSystemOp> CrashingFileSystem::refuse(const zo::CURI& path, zo::IDoneListener* listener)
{
    return zo::postFileSystemOp(
        *m_refusals, listener, [] {}, 0, zo::P<zo::CError>(new zo::CFileSystemError(crashError(path))));
}

zo::P<zo::IFileSystemOp> CrashingFileSystem::beginStoreFile(const zo::CURI& file, int size, zo::IInStream* source,
                                                            bool overwrite, zo::IDoneListener* listener)
{
    if (!admitChange())
        return refuse(file, listener);
    return m_inner->beginStoreFile(file, size, source, overwrite, listener);
}

zo::P<zo::IFileSystemOp> CrashingFileSystem::beginStoreFileBatched(const zo::CURI& file, int size,
                                                                   zo::IInStream* source, bool overwrite,
                                                                   zo::IDoneListener* listener)
{
    if (!admitChange())
        return refuse(file, listener);
    return m_inner->beginStoreFileBatched(file, size, source, overwrite, listener);
}

void CrashingFileSystem::syncBatch()
{
    checkAlive(zo::CURI());
    m_inner->syncBatch();
}

zo::P<zo::IFileSystemOp> CrashingFileSystem::beginCreateFolder(const zo::CURI& folder, int mode,
                                                               zo::IDoneListener* listener)
{
    if (!admitChange())
        return refuse(folder, listener);
    return m_inner->beginCreateFolder(folder, mode, listener);
}

zo::P<zo::IFileSystemOp> CrashingFileSystem::beginMoveFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                                           zo::IDoneListener* listener)
{
    if (!admitChange())
        return refuse(from, listener);
    return m_inner->beginMoveFile(from, to, overwrite, listener);
}

zo::P<zo::IFileSystemOp> CrashingFileSystem::beginCopyFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                                           zo::IDoneListener* listener)
{
    if (!admitChange())
        return refuse(from, listener);
    return m_inner->beginCopyFile(from, to, overwrite, listener);
}

zo::P<zo::IFileSystemOp> CrashingFileSystem::beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener)
{
    if (!admitChange())
        return refuse(file, listener);
    return m_inner->beginDeleteFile(file, listener);
}

zo::P<zo::IFileInfo> CrashingFileSystem::getFileInfo(const zo::CURI& path, bool throwIfMissing)
{
    checkAlive(path);
    return m_inner->getFileInfo(path, throwIfMissing);
}

zo::P<zo::IIOStream> CrashingFileSystem::openStream(const zo::CURI& file, zo::IIOStream::Access access,
                                                    const int& options)
{
    if (access != zo::IIOStream::AccessRead && !admitChange())
        throw crashError(file);
    checkAlive(file);
    zo::P<zo::IIOStream> stream = m_inner->openStream(file, access, options);
    // Opening with OptionReplace has emptied the file; what is written next
    // is a change of its own, and a crash before it leaves the empty file.
    if (access != zo::IIOStream::AccessRead && (options & zo::IIOStream::OptionReplace) != 0 && !admitChange())
        throw crashError(file);
    return stream;
}

void CrashingFileSystem::createFolder(const zo::CURI& folder, int mode)
{
    if (!admitChange())
        throw crashError(folder);
    m_inner->createFolder(folder, mode);
}

bool CrashingFileSystem::fileExists(const zo::CURI& file)
{
    checkAlive(file);
    return m_inner->fileExists(file);
}

bool CrashingFileSystem::folderExists(const zo::CURI& folder)
{
    checkAlive(folder);
    return m_inner->folderExists(folder);
}

bool CrashingFileSystem::pathExists(const zo::CURI& path)
{
    checkAlive(path);
    return m_inner->pathExists(path);
}

void CrashingFileSystem::deleteFile(const zo::CURI& file, bool ignoreMissing)
{
    if (!admitChange())
        throw crashError(file);
    m_inner->deleteFile(file, ignoreMissing);
}

zo::TList<zo::String> CrashingFileSystem::listFolder(const zo::CURI& folder)
{
    checkAlive(folder);
    return m_inner->listFolder(folder);
}

zo::P<zo::IFileSystemLock> CrashingFileSystem::lockFolder(const zo::CURI& folder, bool exclusive)
{
    checkAlive(folder);
    return m_inner->lockFolder(folder, exclusive);
}

int CrashingFileSystem::removeTemporaryFiles(const zo::CURI& folder)
{
    if (!admitChange())
        throw crashError(folder);
    return m_inner->removeTemporaryFiles(folder);
}

} // namespace testsupport
