// CLocalFileSystem: IFileSystem over the folders of the local (POSIX) file
// system. Relative paths are relative to the process's working folder.
//
// It follows no symbolic link, so that links planted in a folder never lead
// an operation out of it: a path with a link as one of its folders, or as
// the file to open, fails with "The path is, or goes through, a symbolic
// link, which is not followed." (property "path"); callers resolve the links
// of paths they trust (resolveUserPath) before handing them over. The queries
// describe a link itself (it exists, as neither file nor folder), and
// deleteFile removes a link, never what it points to. Files are read and
// written only when they are regular files: a FIFO, a device or a socket
// fails with "The path is not a regular file." (property "path") without
// waiting for a FIFO's other end, and a store or copy never replaces one.
#pragma once

#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/Mutex.h"
#include "zo/StagedStore.h"
#include "zo/SyncAll.h"

#include <atomic>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace zo {

class CCompletionPool;

class BRICKDISK_EXPORT CLocalFileSystem : public CBase, public IFileSystem, public IStagedStores, public ISyncAll {
public:
    // The asynchronous operations run on `threadCount` worker threads of the
    // file system's own (at least one), which also call the listeners.
    // Throws CError when the threads cannot be started.
    explicit CLocalFileSystem(int threadCount = 4);
    // Waits until every queued operation has run and its listener has been
    // called; may run on one of the worker threads (a listener that drops the
    // last reference). Never throws.
    ~CLocalFileSystem() override;
    CLocalFileSystem(const CLocalFileSystem&) = delete;
    CLocalFileSystem& operator=(const CLocalFileSystem&) = delete;

    // With sync on (the default) stores, moves and stream flushes reach the
    // disk (fsync of the file and its folder) before they report success;
    // batched stores, folder creations and deletions reach it by syncBatch.
    // Turning it off is for tests and benchmarks. Any thread may call it; it
    // applies to operations and streams started afterwards.
    void setSyncEnabled(bool enabled);
    bool isSyncEnabled() const;

    // Waits until no operation is queued or running and every listener has
    // been called.
    void waitUntilIdle();

    // The local `path` that a user gave, as this file system takes it:
    // absolute (a relative path from the working folder), normalised,
    // without a trailing "/", and with every symbolic link on it resolved as
    // far as the path exists (the rest kept as given). The user's own links,
    // which this file system would not follow, are so resolved once, here;
    // links planted later inside the folder are still never followed.
    // Throws makeErrnoError's error when the working folder cannot be found.
    // Any thread may call it.
    static CURI resolveUserPath(const std::string& path);

    // fsync of the local folder `path`, so that the entries made, renamed or
    // removed in it survive a crash. A file system that cannot sync folders
    // (EINVAL) counts as done. Throws makeErrnoError's error when the folder
    // cannot be opened or synced. Any thread may call it.
    static void syncFolder(const std::string& path);

    // Turns direct I/O (O_DIRECT) on or off for the open file `fd`, whose
    // path `path` names it in errors. Returns false, changing nothing, when
    // the file's system refuses direct I/O; the file then goes on through the
    // page cache. Throws makeErrnoError's error when the file's flags cannot
    // be read or direct I/O cannot be turned off. Any thread may call it.
    static bool setDirectIO(int fd, bool on, const std::string& path);

    // Writes a temporary file ".tmp-<random>-<name>.part" next to `file`,
    // fills it with exactly `size` bytes from `source` (fewer is a CIOError
    // EndOfData), makes it durable and renames it over `file` (overwrite) or
    // links it as `file` without replacing anything. On failure no temporary
    // file remains. A null source or a negative size throws CInvalidArgError.
    P<IFileSystemOp> beginStoreFile(const CURI& file, int size, IInStream* source, bool overwrite,
                                    IDoneListener* listener) override;
    // As beginStoreFile, but with sync on only the file's bytes are synced
    // (fdatasync) before the rename; its folder is noted and synced by
    // syncBatch, once for all the stores into it.
    P<IFileSystemOp> beginStoreFileBatched(const CURI& file, int size, IInStream* source, bool overwrite,
                                           IDoneListener* listener) override;
    // With sync on, writes the temporary file of the store without a sync
    // and keeps it for syncBatch, which syncs its bytes and renames it over
    // `file`; with sync off, stores as beginStoreFile does.
    P<IFileSystemOp> beginStoreFileStaged(const CURI& file, int size, IInStream* source,
                                          IDoneListener* listener) override;
    // With sync on: first the files of staged stores that reported success
    // before the call, each synced (fdatasync) and renamed into place; then
    // fsync of each folder noted since the last call: the folders of batched
    // and staged stores and of deletions, and the parents of created
    // folders. A folder that no longer exists counts as done. On failure the
    // staged files and folders not yet dealt with stay noted; a staged file
    // that fails is dropped.
    void syncBatch() override;
    // mkdir with `mode`; the parent is noted for syncBatch.
    P<IFileSystemOp> beginCreateFolder(const CURI& folder, int mode, IDoneListener* listener) override;
    // rename (overwrite), or a rename that refuses an existing target (no
    // overwrite: renameat2, or link and unlink where that is not supported).
    P<IFileSystemOp> beginMoveFile(const CURI& from, const CURI& to, bool overwrite, IDoneListener* listener) override;
    // A hard link where source and target lie on one file system (see
    // copyLocalFile), otherwise a durable full copy.
    P<IFileSystemOp> beginCopyFile(const CURI& from, const CURI& to, bool overwrite, IDoneListener* listener) override;
    // unlink; the folder is noted for syncBatch.
    P<IFileSystemOp> beginDeleteFile(const CURI& file, IDoneListener* listener) override;

    P<IFileInfo> getFileInfo(const CURI& path, bool throwIfMissing) override;
    // A CLocalFileStream. A folder fails with IsAFolder, anything else that is
    // no regular file with "The path is not a regular file."; an access
    // value outside IIOStream::Access throws CInvalidArgError.
    P<IIOStream> openStream(const CURI& file, IIOStream::Access access, const int& options) override;
    // A file in the way fails with AlreadyExists.
    void createFolder(const CURI& folder, int mode) override;
    bool fileExists(const CURI& file) override;
    bool folderExists(const CURI& folder) override;
    // A symbolic link counts as existing, dangling or not.
    bool pathExists(const CURI& path) override;
    void deleteFile(const CURI& file, bool ignoreMissing) override;
    TList<String> listFolder(const CURI& folder) override;
    // An open-file-description lock on the file ".lock" in the folder (see
    // lockLocalFolder): released by the kernel when the process dies. A
    // ".lock" that is a link, a folder or a FIFO fails naming the lock file.
    P<IFileSystemLock> lockFolder(const CURI& folder, bool exclusive) override;
    // Removes the ".tmp-<16 hex digits>-<name>.part" files of interrupted
    // stores and copies from the tree; symbolic links are not followed.
    int removeTemporaryFiles(const CURI& folder) override;
    // syncfs of the local file system that holds `folder`: every file written
    // on it, below `folder` and elsewhere, reaches the disk, with sync on or
    // off. Throws makeErrnoError's error when the folder cannot be opened or
    // the sync fails.
    void syncAllBelow(const CURI& folder) override;

private:
    // Notes the folder that holds `path` for syncBatch, when sync is on.
    void noteChangedFolder(const CURI& path, bool sync);

    std::atomic<bool> m_syncEnabled{true};
    CMutex m_batchMutex;
    // Folders whose entries changed since the last syncBatch (under m_batchMutex).
    std::set<std::string> m_batchFolders;
    // Staged stores waiting for syncBatch: each target and the name of its
    // temporary file in the target's folder (under m_batchMutex).
    std::vector<std::pair<CURI, std::string>> m_staged;
    P<CCompletionPool> m_pool;
};

} // namespace zo
