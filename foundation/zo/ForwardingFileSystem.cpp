#include "zo/ForwardingFileSystem.h"

namespace zo {

CForwardingFileSystem::CForwardingFileSystem(IFileSystem* inner) : m_inner(inner)
{}

P<IFileSystemOp> CForwardingFileSystem::beginStoreFile(const CURI& file, int size, IInStream* source, bool overwrite,
                                                       IDoneListener* listener)
{
    return m_inner->beginStoreFile(file, size, source, overwrite, listener);
}

P<IFileSystemOp> CForwardingFileSystem::beginCreateFolder(const CURI& folder, int mode, IDoneListener* listener)
{
    return m_inner->beginCreateFolder(folder, mode, listener);
}

P<IFileSystemOp> CForwardingFileSystem::beginMoveFile(const CURI& from, const CURI& to, bool overwrite,
                                                      IDoneListener* listener)
{
    return m_inner->beginMoveFile(from, to, overwrite, listener);
}

P<IFileSystemOp> CForwardingFileSystem::beginCopyFile(const CURI& from, const CURI& to, bool overwrite,
                                                      IDoneListener* listener)
{
    return m_inner->beginCopyFile(from, to, overwrite, listener);
}

P<IFileSystemOp> CForwardingFileSystem::beginDeleteFile(const CURI& file, IDoneListener* listener)
{
    return m_inner->beginDeleteFile(file, listener);
}

P<IFileInfo> CForwardingFileSystem::getFileInfo(const CURI& path, bool throwIfMissing)
{
    return m_inner->getFileInfo(path, throwIfMissing);
}

P<IIOStream> CForwardingFileSystem::openStream(const CURI& file, IIOStream::Access access, const int& options)
{
    return m_inner->openStream(file, access, options);
}

void CForwardingFileSystem::createFolder(const CURI& folder, int mode)
{
    m_inner->createFolder(folder, mode);
}

bool CForwardingFileSystem::fileExists(const CURI& file)
{
    return m_inner->fileExists(file);
}

bool CForwardingFileSystem::folderExists(const CURI& folder)
{
    return m_inner->folderExists(folder);
}

bool CForwardingFileSystem::pathExists(const CURI& path)
{
    return m_inner->pathExists(path);
}

void CForwardingFileSystem::deleteFile(const CURI& file, bool ignoreMissing)
{
    m_inner->deleteFile(file, ignoreMissing);
}

TList<String> CForwardingFileSystem::listFolder(const CURI& folder)
{
    return m_inner->listFolder(folder);
}

P<IFileSystemLock> CForwardingFileSystem::lockFolder(const CURI& folder, bool exclusive)
{
    return m_inner->lockFolder(folder, exclusive);
}

int CForwardingFileSystem::removeTemporaryFiles(const CURI& folder)
{
    return m_inner->removeTemporaryFiles(folder);
}

void CForwardingFileSystem::syncBatch()
{
    m_inner->syncBatch();
}

} // namespace zo
