// CCountingFileSystem: a file system that counts the requests it hands to
// another one (a disk's store), by kind, and the bytes they move, so that a
// server can report how much it asks of its store. Put between the disk (or
// its CCachedStore) and the store's file system; it changes nothing of the
// calls, their results or their errors.
//
// Threads: every call may come from any thread the inner file system allows;
// the counters are read at any time from any thread.
#pragma once

#include "zo/Export.h"
#include "zo/ForwardingFileSystem.h"

#include <array>
#include <atomic>

namespace brick {

class BRICKDISK_EXPORT CCountingFileSystem : public zo::CForwardingFileSystem {
public:
    // The kinds of requests, each counted apart.
    enum class Request {
        Get, // a file opened for reading (its bytes: the file's length)
        Put, // a file stored (its bytes: the size stored)
        Copy, // a file copied
        Move, // a file moved
        Delete, // a file deleted
        List, // a folder listed
        Info, // a path looked at (information, exists)
        Folder, // a folder created
    };
    static constexpr int kRequestKinds = 8;

    // The kind's name in lower case ("get", "put", ...). Never throws.
    static const char* getRequestName(Request kind);

    // Counts the requests handed to `inner`, which it holds a reference to.
    explicit CCountingFileSystem(zo::IFileSystem* inner);

    // Requests of `kind` handed over so far, whether they succeeded or not.
    // Never throws.
    zo::int64 getRequests(Request kind) const;
    // Bytes that the requests of `kind` moved (Get and Put; 0 for the others).
    // Never throws.
    zo::int64 getBytes(Request kind) const;

    zo::P<zo::IFileSystemOp> beginStoreFile(const zo::CURI& file, int size, zo::IInStream* source, bool overwrite,
                                            zo::IDoneListener* listener) override;
    // Counted as Put and handed to the inner file system's batched store, so
    // that its stores keep sharing their folder syncs.
    zo::P<zo::IFileSystemOp> beginStoreFileBatched(const zo::CURI& file, int size, zo::IInStream* source,
                                                   bool overwrite, zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginCreateFolder(const zo::CURI& folder, int mode, zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginMoveFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                           zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginCopyFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                           zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener) override;
    zo::P<zo::IFileInfo> getFileInfo(const zo::CURI& path, bool throwIfMissing) override;
    zo::P<zo::IIOStream> openStream(const zo::CURI& file, zo::IIOStream::Access access, const int& options) override;
    void createFolder(const zo::CURI& folder, int mode) override;
    bool fileExists(const zo::CURI& file) override;
    bool folderExists(const zo::CURI& folder) override;
    bool pathExists(const zo::CURI& path) override;
    void deleteFile(const zo::CURI& file, bool ignoreMissing) override;
    zo::TList<zo::String> listFolder(const zo::CURI& folder) override;

private:
    void count(Request kind, zo::int64 bytes = 0);

    std::array<std::atomic<zo::int64>, kRequestKinds> m_requests{};
    std::array<std::atomic<zo::int64>, kRequestKinds> m_bytes{};
};

} // namespace brick
