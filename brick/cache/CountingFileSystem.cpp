#include "brick/cache/CountingFileSystem.h"

namespace brick {

using zo::CURI;
using zo::P;

const char* CCountingFileSystem::getRequestName(Request kind)
{
    switch (kind) {
    case Request::Get:
        return "get";
    case Request::Put:
        return "put";
    case Request::Copy:
        return "copy";
    case Request::Move:
        return "move";
    case Request::Delete:
        return "delete";
    case Request::List:
        return "list";
    case Request::Info:
        return "info";
    case Request::Folder:
        return "folder";
    }
    return "other";
}

CCountingFileSystem::CCountingFileSystem(zo::IFileSystem* inner) : CForwardingFileSystem(inner)
{}

zo::int64 CCountingFileSystem::getRequests(Request kind) const
{
    return m_requests[static_cast<size_t>(kind)].load();
}

zo::int64 CCountingFileSystem::getBytes(Request kind) const
{
    return m_bytes[static_cast<size_t>(kind)].load();
}

void CCountingFileSystem::count(Request kind, zo::int64 bytes)
{
    ++m_requests[static_cast<size_t>(kind)];
    m_bytes[static_cast<size_t>(kind)] += bytes;
}

P<zo::IFileSystemOp> CCountingFileSystem::beginStoreFile(const CURI& file, int size, zo::IInStream* source,
                                                         bool overwrite, zo::IDoneListener* listener)
{
    count(Request::Put, size);
    return CForwardingFileSystem::beginStoreFile(file, size, source, overwrite, listener);
}

P<zo::IFileSystemOp> CCountingFileSystem::beginStoreFileBatched(const CURI& file, int size, zo::IInStream* source,
                                                                bool overwrite, zo::IDoneListener* listener)
{
    count(Request::Put, size);
    return getInner()->beginStoreFileBatched(file, size, source, overwrite, listener);
}

P<zo::IFileSystemOp> CCountingFileSystem::beginCreateFolder(const CURI& folder, int mode, zo::IDoneListener* listener)
{
    count(Request::Folder);
    return CForwardingFileSystem::beginCreateFolder(folder, mode, listener);
}

P<zo::IFileSystemOp> CCountingFileSystem::beginMoveFile(const CURI& from, const CURI& to, bool overwrite,
                                                        zo::IDoneListener* listener)
{
    count(Request::Move);
    return CForwardingFileSystem::beginMoveFile(from, to, overwrite, listener);
}

P<zo::IFileSystemOp> CCountingFileSystem::beginCopyFile(const CURI& from, const CURI& to, bool overwrite,
                                                        zo::IDoneListener* listener)
{
    count(Request::Copy);
    return CForwardingFileSystem::beginCopyFile(from, to, overwrite, listener);
}

P<zo::IFileSystemOp> CCountingFileSystem::beginDeleteFile(const CURI& file, zo::IDoneListener* listener)
{
    count(Request::Delete);
    return CForwardingFileSystem::beginDeleteFile(file, listener);
}

P<zo::IFileInfo> CCountingFileSystem::getFileInfo(const CURI& path, bool throwIfMissing)
{
    count(Request::Info);
    return CForwardingFileSystem::getFileInfo(path, throwIfMissing);
}

P<zo::IIOStream> CCountingFileSystem::openStream(const CURI& file, zo::IIOStream::Access access, const int& options)
{
    if (access != zo::IIOStream::AccessRead) {
        count(Request::Put);
        return CForwardingFileSystem::openStream(file, access, options);
    }
    ++m_requests[static_cast<size_t>(Request::Get)];
    P<zo::IIOStream> stream = CForwardingFileSystem::openStream(file, access, options);
    m_bytes[static_cast<size_t>(Request::Get)] += stream->getLength();
    return stream;
}

void CCountingFileSystem::createFolder(const CURI& folder, int mode)
{
    count(Request::Folder);
    CForwardingFileSystem::createFolder(folder, mode);
}

bool CCountingFileSystem::fileExists(const CURI& file)
{
    count(Request::Info);
    return CForwardingFileSystem::fileExists(file);
}

bool CCountingFileSystem::folderExists(const CURI& folder)
{
    count(Request::Info);
    return CForwardingFileSystem::folderExists(folder);
}

bool CCountingFileSystem::pathExists(const CURI& path)
{
    count(Request::Info);
    return CForwardingFileSystem::pathExists(path);
}

void CCountingFileSystem::deleteFile(const CURI& file, bool ignoreMissing)
{
    count(Request::Delete);
    CForwardingFileSystem::deleteFile(file, ignoreMissing);
}

zo::TList<zo::String> CCountingFileSystem::listFolder(const CURI& folder)
{
    count(Request::List);
    return CForwardingFileSystem::listFolder(folder);
}

} // namespace brick
