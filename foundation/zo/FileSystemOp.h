// Pieces for implementing IFileSystem, shared by the file systems of this
// library: the handle of an asynchronous operation, which also delivers its
// completion, and a plain file-information object.
#pragma once

#include "zo/CompletionPool.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/Signal.h"

#include <functional>
#include <mutex>

namespace zo {

class BRICKDISK_EXPORT CFileSystemOp : public CBase, public IFileSystemOp {
public:
    // Holds a counted reference to `listener` (may be null) until completion.
    explicit CFileSystemOp(IDoneListener* listener);

    bool waitDone(int timeoutMillis) override;
    P<CError> getError() const override;

    // Keeps a copy of `error` (null on success) as the operation's error,
    // calls the listener with it, drops the listener and then marks the
    // operation done. Called exactly once, on a worker thread; an exception
    // thrown by the listener is logged, never passed on.
    void complete(const CError* error) noexcept;

private:
    P<IDoneListener> m_listener;
    mutable std::mutex m_errorMutex;
    P<CError> m_error;
    CSignal m_done;
};

class BRICKDISK_EXPORT CFileInfo : public CBase, public IFileInfo {
public:
    CFileInfo(bool exists, bool isFolder, int64 size) : m_exists(exists), m_isFolder(isFolder), m_size(size) {}

    bool exists() const override { return m_exists; }
    bool isFolder() const override { return m_isFolder; }
    int64 getSize() const override { return m_size; }

private:
    bool m_exists;
    bool m_isFolder;
    int64 m_size;
};

// Queues an asynchronous operation on `pool`: after `delayMillis` a worker
// runs `work` (unless `failure` is given, which is then the outcome), drops
// `work` with everything it holds, and reports the outcome (the exception
// `work` threw, or success) to `listener`. Throws CError after the pool's
// shutdown.
BRICKDISK_EXPORT P<IFileSystemOp> postFileSystemOp(CCompletionPool& pool, IDoneListener* listener,
                                                   std::function<void()> work, int delayMillis = 0,
                                                   P<CError> failure = P<CError>());

// Throws CInvalidArgError (from `where`) unless `size` is not negative,
// `source` is set and `file` names a file.
BRICKDISK_EXPORT void checkStoreFileArguments(const char* where, const CURI& file, int size, const IInStream* source);

// The exception being handled as a CError (a CError keeps its own type); only
// for use inside a catch block.
BRICKDISK_EXPORT P<CError> currentExceptionToError();

} // namespace zo
