// CRecordReadCache: a file system that answers the looks at a disk's records
// (its header, links, marks and creation time: files named "*.brickdisk",
// "*.bricklnk", "*.bricktime", and their fallback copies) from what it saw
// before, and passes every other call on. A copy asks about the same
// records of its destination several times (checking the destination,
// walking its chain, comparing each record with its source); over an object
// store each look is a request that waits for its answer, and through this
// cache it is one.
//
// It keeps, by path, whether a record exists (fileExists) and the bytes that
// a whole read of it gave (openStream for reading). The first look at a
// record of a disk folder reads every record of that folder at once (whether
// each exists, its bytes, and whether the fallback copy of a missing one
// exists), since a disk's records are looked at together and each look
// mostly waits on the store. What changes a record
// through this file system makes it forget that record; a caller that
// changes records by another way (the inner file system) calls forget()
// first. It suits a caller that holds the exclusive lock of the disks it
// looks at, so that nothing else changes their records meanwhile. Any
// thread may call it. Used inside the library only.
#pragma once

#include "zo/ForwardingFileSystem.h"

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace brick::detail {

class CRecordReadCache : public zo::CForwardingFileSystem {
public:
    explicit CRecordReadCache(zo::IFileSystem* inner);

    // Forgets what it saw of the file `path`.
    void forget(const zo::CURI& path);

    bool fileExists(const zo::CURI& file) override;
    zo::P<zo::IIOStream> openStream(const zo::CURI& file, zo::IIOStream::Access access, const int& options) override;
    zo::P<zo::IFileSystemOp> beginStoreFile(const zo::CURI& file, int size, zo::IInStream* source, bool overwrite,
                                            zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginMoveFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                           zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginCopyFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                           zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener) override;
    void deleteFile(const zo::CURI& file, bool ignoreMissing) override;

private:
    // What it saw of one record: whether it exists and, once read whole,
    // its bytes.
    struct Seen {
        bool exists = false;
        std::optional<std::string> bytes;
    };

    static bool isRecord(const zo::CURI& path);
    void note(const zo::CURI& path, const Seen& seen);
    // Reads every record of the disk folder of `record` at once, the first
    // time a record of that folder is looked at.
    void readFolderAhead(const zo::CURI& record);
    // Reads one record into the cache; its errors are left for the look
    // that needs the record to meet.
    void readAhead(const zo::CURI& record, const zo::CURI& fallback);
    // Reads the record `file` whole from `stream` and keeps its bytes;
    // nothing for a file too long to be a record, whose stream is left
    // where it was.
    std::optional<std::string> readWhole(const zo::P<zo::IIOStream>& stream, const zo::CURI& file);

    std::mutex m_mutex;
    std::map<std::string, Seen> m_seen;
    // Disk folders whose records were read ahead.
    std::set<std::string> m_foldersRead;
};

} // namespace brick::detail
