#include "brick/backup/detail/RecordReadCache.h"

#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskAuxFileBase.h"
#include "brick/format/BrickDiskCreationTime.h"
#include "brick/format/BrickDiskHeader.h"

#include "zo/BufferStream.h"

#include <future>
#include <vector>

namespace brick::detail {

using zo::CURI;
using zo::P;

namespace {

std::string keyOf(const CURI& path)
{
    return path.toNormalized().toString(true).toUTF8();
}

bool endsWith(const std::string& text, const std::string& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// A stream that reads `bytes`, held by the stream itself.
P<zo::IIOStream> streamOver(const std::string& bytes)
{
    const P<zo::CBufferStream> stream(new zo::CBufferStream(nullptr, 1.0));
    stream->write(bytes.data(), static_cast<int>(bytes.size()));
    stream->seek(0);
    return stream;
}

// The name of the folder that holds the second copy of each record.
const zo::String kFallbackFolder = CBrickDiskAuxFileBase::getAuxFileURI(CURI("."), "-", 1).getParent().getName();

// The records of a disk folder.
std::vector<zo::String> recordNames()
{
    return {CBrickDiskHeader::getHeaderURI(CURI("."), 0).getName(),
            CBrickDisk::getRemovingMarkFileName(),
            CBrickDisk::getCreatingMarkFileName(),
            CBrickDisk::getParentLinkFileName(),
            CBrickDisk::getChildLinkFileName(),
            CBrickDiskCreationTime::getFileName()};
}

} // namespace

CRecordReadCache::CRecordReadCache(zo::IFileSystem* inner) : CForwardingFileSystem(inner)
{}

bool CRecordReadCache::isRecord(const CURI& path)
{
    const std::string name = path.getName().toUTF8();
    return endsWith(name, ".brickdisk") || endsWith(name, ".bricklnk") || endsWith(name, ".bricktime");
}

void CRecordReadCache::forget(const CURI& path)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_seen.erase(keyOf(path));
}

void CRecordReadCache::note(const CURI& path, const Seen& seen)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_seen[keyOf(path)] = seen;
}

void CRecordReadCache::readFolderAhead(const CURI& record)
{
    CURI folder = record.getParent();
    if (folder.getName() == kFallbackFolder)
        folder = folder.getParent();
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_foldersRead.insert(keyOf(folder)).second)
            return;
    }
    std::vector<std::future<void>> reads;
    for (const zo::String& name : recordNames())
        reads.push_back(std::async(std::launch::async, [this, folder, name] {
            readAhead(CBrickDiskAuxFileBase::getAuxFileURI(folder, name, 0),
                      CBrickDiskAuxFileBase::getAuxFileURI(folder, name, 1));
        }));
    for (std::future<void>& read : reads)
        read.wait();
}

void CRecordReadCache::readAhead(const CURI& record, const CURI& fallback)
{
    try {
        if (!CForwardingFileSystem::fileExists(record)) {
            note(record, Seen{false, std::nullopt});
            note(fallback, Seen{CForwardingFileSystem::fileExists(fallback), std::nullopt});
            return;
        }
        readWhole(CForwardingFileSystem::openStream(record, zo::IIOStream::AccessRead, zo::IIOStream::OptionNone),
                  record);
    } catch (const std::exception&) {
        // Met again, and passed on, by the look that needs the record.
    }
}

bool CRecordReadCache::fileExists(const CURI& file)
{
    if (!isRecord(file))
        return CForwardingFileSystem::fileExists(file);
    readFolderAhead(file);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_seen.find(keyOf(file));
        if (found != m_seen.end())
            return found->second.exists;
    }
    const bool exists = CForwardingFileSystem::fileExists(file);
    note(file, Seen{exists, std::nullopt});
    return exists;
}

P<zo::IIOStream> CRecordReadCache::openStream(const CURI& file, zo::IIOStream::Access access, const int& options)
{
    if (!isRecord(file))
        return CForwardingFileSystem::openStream(file, access, options);
    if (access != zo::IIOStream::AccessRead) {
        forget(file);
        return CForwardingFileSystem::openStream(file, access, options);
    }
    readFolderAhead(file);
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const auto found = m_seen.find(keyOf(file));
        if (found != m_seen.end() && found->second.bytes)
            return streamOver(*found->second.bytes);
    }
    const P<zo::IIOStream> stream = CForwardingFileSystem::openStream(file, access, options);
    const std::optional<std::string> bytes = readWhole(stream, file);
    return bytes ? streamOver(*bytes) : stream;
}

std::optional<std::string> CRecordReadCache::readWhole(const P<zo::IIOStream>& stream, const CURI& file)
{
    const zo::int64 length = stream->getLength();
    // A record is small; a longer file is not kept.
    if (length < 0 || length > CBrickDiskAuxFileBase::kMaxAuxFileSize) {
        note(file, Seen{true, std::nullopt});
        return std::nullopt;
    }
    std::string bytes(static_cast<std::size_t>(length), '\0');
    stream->read(bytes.data(), static_cast<int>(length));
    note(file, Seen{true, bytes});
    return bytes;
}

P<zo::IFileSystemOp> CRecordReadCache::beginStoreFile(const CURI& file, int size, zo::IInStream* source, bool overwrite,
                                                      zo::IDoneListener* listener)
{
    forget(file);
    return CForwardingFileSystem::beginStoreFile(file, size, source, overwrite, listener);
}

P<zo::IFileSystemOp> CRecordReadCache::beginMoveFile(const CURI& from, const CURI& to, bool overwrite,
                                                     zo::IDoneListener* listener)
{
    forget(from);
    forget(to);
    return CForwardingFileSystem::beginMoveFile(from, to, overwrite, listener);
}

P<zo::IFileSystemOp> CRecordReadCache::beginCopyFile(const CURI& from, const CURI& to, bool overwrite,
                                                     zo::IDoneListener* listener)
{
    forget(to);
    return CForwardingFileSystem::beginCopyFile(from, to, overwrite, listener);
}

P<zo::IFileSystemOp> CRecordReadCache::beginDeleteFile(const CURI& file, zo::IDoneListener* listener)
{
    forget(file);
    return CForwardingFileSystem::beginDeleteFile(file, listener);
}

void CRecordReadCache::deleteFile(const CURI& file, bool ignoreMissing)
{
    forget(file);
    CForwardingFileSystem::deleteFile(file, ignoreMissing);
}

} // namespace brick::detail
