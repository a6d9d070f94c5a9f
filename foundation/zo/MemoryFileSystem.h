// CMemoryFileSystem: IFileSystem in memory, for tests. It keeps the contract
// of the local file system (the same problems for the same situations) and
// adds what tests need: completions on threads of its own after an optional
// random delay, injected failures of any operation, counters and a log of the
// operations started, and direct access to the files' bytes.
//
// Paths are compared in normalized form; every root ("/", "scheme://host/",
// and the start of relative paths) always exists as a folder.
#pragma once

#include "zo/Export.h"
#include "zo/FileSystem.h"

#include <array>
#include <functional>
#include <mutex>
#include <random>

namespace zo {

class CCompletionPool;
class CMemoryFileStore;

class BRICKDISK_EXPORT CMemoryFileSystem : public CBase, public IFileSystem {
public:
    // The kinds of operation that are counted, logged and can be made to fail.
    enum class Operation {
        StoreFile, // beginStoreFile
        CreateFolder, // beginCreateFolder
        MoveFile, // beginMoveFile
        DeleteFile, // beginDeleteFile
        GetFileInfo, // getFileInfo
        OpenStream, // openStream
        CreateFolderSync, // createFolder
        FileExists, // fileExists
        FolderExists, // folderExists
        PathExists, // pathExists
        DeleteFileSync, // deleteFile
        ListFolder, // listFolder
        CopyFile, // beginCopyFile
        LockFolder, // lockFolder
    };
    static constexpr int operationKindCount = 14;
    // The name used in the operation log: "storeFile", "createFolder",
    // "moveFile", "deleteFile", "getFileInfo", "openStream",
    // "createFolderSync", "fileExists", "folderExists", "pathExists",
    // "deleteFileSync", "listFolder", "copyFile", "lockFolder".
    static const char* getOperationName(Operation kind);

    // Completions run on `threadCount` threads of the file system's own (at
    // least one), never on the thread that started the operation. Throws
    // CError when the threads cannot be started.
    explicit CMemoryFileSystem(int threadCount = 2);
    // Waits until every pending operation has completed; may run on one of
    // the completion threads. Never throws.
    ~CMemoryFileSystem() override;
    CMemoryFileSystem(const CMemoryFileSystem&) = delete;
    CMemoryFileSystem& operator=(const CMemoryFileSystem&) = delete;

    // Each asynchronous operation started afterwards runs, and completes,
    // after a delay chosen at random from minMillis to maxMillis, so that
    // operations started one after the other may complete in another order.
    // 0, 0 (the default) completes as soon as a thread is free.
    void setCompletionDelay(int minMillis, int maxMillis);

    // Makes the `nth` (from 1) operation of `kind` fail with `problem`: once,
    // or, when `persistent`, also every later one. With a `pathPrefix` only
    // operations whose path (for a move, either path) starts with it, in
    // normalized form and compared as text, are counted. A failing
    // asynchronous operation reports the error to its listener and does
    // nothing else; a failing synchronous one throws it. The error is a
    // CFileSystemError with the properties "path" and "action". Several rules
    // may be active; an operation counts for each rule that matches it, and
    // the first rule that fires decides its problem.
    void failOperation(Operation kind, int nth, CFileSystemError::Problem problem, bool persistent,
                       const CURI& pathPrefix = CURI());
    // Makes every later read of an opened stream whose path starts with
    // `pathPrefix` fail with `problem` (opening still works).
    void failStreamReads(const CURI& pathPrefix, CFileSystemError::Problem problem);
    // Ends every failure rule, including those of failStreamReads.
    void clearFailures();

    // Operations of `kind` started since construction or resetCounters,
    // failed ones included.
    int getOperationCount(Operation kind) const;
    // One entry per operation in the order they were started: the
    // operation's name, a space and its path as given, e.g.
    // "storeFile /d/bricks/a00/00.brick"; a move reads "moveFile /a -> /b",
    // a copy "copyFile /a -> /b".
    TList<String> getOperationLog() const;
    // Sets the counters to zero and empties the log (failure rules keep counting).
    void resetCounters();

    // A copy of a file's bytes, null when there is no file. Not counted.
    P<TBuffer<uint8>> getFileData(const CURI& file) const;
    // Creates or replaces a file, and its missing parent folders. Not counted.
    void setFileData(const CURI& file, const TBuffer<uint8>& data);
    // Waits until every asynchronous operation started so far has completed.
    void waitUntilIdle();

    P<IFileSystemOp> beginStoreFile(const CURI& file, int size, IInStream* source, bool overwrite,
                                    IDoneListener* listener) override;
    // `mode` is ignored.
    P<IFileSystemOp> beginCreateFolder(const CURI& folder, int mode, IDoneListener* listener) override;
    P<IFileSystemOp> beginMoveFile(const CURI& from, const CURI& to, bool overwrite, IDoneListener* listener) override;
    // The copy gets bytes of its own.
    P<IFileSystemOp> beginCopyFile(const CURI& from, const CURI& to, bool overwrite, IDoneListener* listener) override;
    P<IFileSystemOp> beginDeleteFile(const CURI& file, IDoneListener* listener) override;

    P<IFileInfo> getFileInfo(const CURI& path, bool throwIfMissing) override;
    // A CMemoryFileStream; its lockRange fails with NotSupported.
    P<IIOStream> openStream(const CURI& file, IIOStream::Access access, const int& options) override;
    // `mode` is ignored.
    void createFolder(const CURI& folder, int mode) override;
    bool fileExists(const CURI& file) override;
    bool folderExists(const CURI& folder) override;
    bool pathExists(const CURI& path) override;
    void deleteFile(const CURI& file, bool ignoreMissing) override;
    TList<String> listFolder(const CURI& folder) override;
    // Locks within this file system object: a second lock that conflicts
    // fails with Locked, whichever thread asks. The holder is not known.
    P<IFileSystemLock> lockFolder(const CURI& folder, bool exclusive) override;
    // Stores are atomic here and leave nothing behind: returns 0.
    int removeTemporaryFiles(const CURI& folder) override;

private:
    struct FailureRule {
        Operation kind;
        int nth;
        CFileSystemError::Problem problem;
        bool persistent;
        String pathPrefix;
        int matched = 0;
    };

    // Counts and logs an operation; returns the failure a rule gives it, or null.
    P<CError> startOperation(Operation kind, const CURI& path, const CURI& otherPath = CURI());
    // The same for a synchronous operation, which throws the failure.
    void startSyncOperation(Operation kind, const CURI& path);
    P<IFileSystemOp> postOperation(const P<CError>& failure, IDoneListener* listener, std::function<void()> work);

    mutable std::mutex m_mutex;
    std::array<int, operationKindCount> m_counts{};
    TList<String> m_log;
    TList<FailureRule> m_rules;
    int m_minDelayMillis = 0;
    int m_maxDelayMillis = 0;
    std::mt19937 m_random;
    P<CMemoryFileStore> m_store;
    P<CCompletionPool> m_pool;
};

} // namespace zo
