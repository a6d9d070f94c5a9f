// IFileSystem: every file access of the system goes through this interface.
// Implementations accept calls from several threads at once. The begin...
// operations are asynchronous: they return a handle (callers may drop it at
// once) and report completion exactly once through the listener, on a thread
// of the file system's own, with null on success or the error. They may also
// fail synchronously by throwing. The other operations are synchronous and
// throw a CError (as a rule a CFileSystemError) on failure.
//
// Problems (CFileSystemError) that callers rely on:
//   NotFound (1)       the file, or a folder on its path, does not exist;
//   AlreadyExists (2)  the target already exists;
//   NotSupported (6)   the operation is not supported;
//   Locked (10)        a lock held by someone else is in the way.
#pragma once

#include "zo/Base.h"
#include "zo/Containers.h"
#include "zo/Error.h"
#include "zo/Export.h"
#include "zo/Stream.h"
#include "zo/URI.h"

namespace zo {

// Receives the completion of an asynchronous operation.
class BRICKDISK_EXPORT IDoneListener : public virtual IBase {
public:
    // `error` is null on success; it is only valid during the call.
    virtual void onDone(const CError* error) = 0;
};

// Handle of an asynchronous operation: its end and its outcome. Any thread
// may call it, also after the file system has gone; none of its calls waits
// inside the listener of the same operation (that would never end).
class BRICKDISK_EXPORT IFileSystemOp : public virtual IBase {
public:
    // True once the operation has ended: its listener has been called and has
    // returned. Waits up to `timeoutMillis` (-1: no limit). Throws nothing.
    virtual bool waitDone(int timeoutMillis) = 0;
    // The error the operation ended with, the one its listener heard (a copy
    // of its own type that the caller owns); null on success and while the
    // operation runs. Throws nothing.
    virtual P<CError> getError() const = 0;

    // Waits for the end without limit and throws the operation's error, if
    // any, with its own type (a CFileSystemError stays one).
    void wait()
    {
        waitDone(-1);
        if (const P<CError> error = getError())
            error->throwClone();
    }
    // Waits as wait() does, but an error whose CFileSystemError problem is
    // `tolerated` counts as success and is not thrown.
    void wait(CFileSystemError::Problem tolerated)
    {
        waitDone(-1);
        const P<CError> error = getError();
        if (error && CFileSystemError::getProblem(error->getProps()) != tolerated)
            error->throwClone();
    }
};

class BRICKDISK_EXPORT IFileInfo : public virtual IBase {
public:
    virtual bool exists() const = 0;
    virtual bool isFolder() const = 0;
    // Length in bytes (0 for a folder).
    virtual int64 getSize() const = 0;
};

// A lock taken with IFileSystem::lockFolder. Dropping the last reference
// releases it (never throwing); a process that dies releases its locks too,
// at once on a local file system, after a lease on a remote one.
class BRICKDISK_EXPORT IFileSystemLock : public virtual IBase {
public:
    virtual bool isExclusive() const = 0;
};

class BRICKDISK_EXPORT IFileSystem : public virtual IBase {
public:
    // Stores `size` bytes read from `source` as `file`. The store is atomic
    // (a reader sees the old file or the whole new one) and durable when the
    // listener hears of success. With `overwrite` false an existing file fails
    // with AlreadyExists; a missing folder on the path fails with NotFound.
    // The file system holds a reference to `source` until the operation ends.
    virtual P<IFileSystemOp> beginStoreFile(const CURI& file, int size, IInStream* source, bool overwrite,
                                            IDoneListener* listener) = 0;
    // Stores as beginStoreFile does, atomic as well, but with a sync left for
    // later: when the listener hears of success the new file's bytes are
    // durable, while its name (the replacement of the old file) may become
    // durable only when syncBatch returns. A crash in between leaves the old
    // file or the whole new one. Many stores into one folder thus share one
    // sync of that folder. This default stores with beginStoreFile, whose
    // stores are durable when they end.
    virtual P<IFileSystemOp> beginStoreFileBatched(const CURI& file, int size, IInStream* source, bool overwrite,
                                                   IDoneListener* listener)
    {
        return beginStoreFile(file, size, source, overwrite, listener);
    }
    // Makes durable what the stores of beginStoreFileBatched, the folders of
    // beginCreateFolder and the deletions of beginDeleteFile that reported
    // success before the call changed in their folders. Throws CError (as a
    // rule a CFileSystemError) when a folder cannot be synced; what was not
    // synced is tried again by the next call. Any thread may call it. This
    // default does nothing: it suits file systems whose operations are
    // durable when they end.
    virtual void syncBatch() {}
    // Creates one folder. An existing folder fails with AlreadyExists, a
    // missing parent with NotFound.
    virtual P<IFileSystemOp> beginCreateFolder(const CURI& folder, int mode, IDoneListener* listener) = 0;
    // Moves a file. With `overwrite` false an existing target fails with
    // AlreadyExists; a missing source, or a missing folder on the target's
    // path, fails with NotFound.
    virtual P<IFileSystemOp> beginMoveFile(const CURI& from, const CURI& to, bool overwrite,
                                           IDoneListener* listener) = 0;
    // Copies a file and leaves the source in place. The copy is complete and
    // durable when the listener hears of success; a reader of `to` sees no
    // file or the whole copy. With `overwrite` false an existing target fails
    // with AlreadyExists; a missing source, or a missing folder on the
    // target's path, fails with NotFound.
    virtual P<IFileSystemOp> beginCopyFile(const CURI& from, const CURI& to, bool overwrite,
                                           IDoneListener* listener) = 0;
    // Deletes a file; a missing file succeeds.
    virtual P<IFileSystemOp> beginDeleteFile(const CURI& file, IDoneListener* listener) = 0;

    // Information on a path. With `throwIfMissing` a missing path throws
    // NotFound; otherwise the information says it does not exist.
    virtual P<IFileInfo> getFileInfo(const CURI& path, bool throwIfMissing) = 0;
    // Opens a file. AccessRead opens an existing file (NotFound when missing);
    // AccessWrite / AccessReadWrite with OptionReplace create the file or
    // empty an existing one. The stream's length is the file's.
    virtual P<IIOStream> openStream(const CURI& file, IIOStream::Access access, const int& options) = 0;
    // Creates a folder and every missing parent; an existing folder succeeds.
    virtual void createFolder(const CURI& folder, int mode) = 0;
    // True when `file` exists and is a file.
    virtual bool fileExists(const CURI& file) = 0;
    // True when `folder` exists and is a folder.
    virtual bool folderExists(const CURI& folder) = 0;
    // True when anything exists at `path`.
    virtual bool pathExists(const CURI& path) = 0;
    // Deletes a file; with `ignoreMissing` a missing file succeeds, otherwise
    // it throws NotFound.
    virtual void deleteFile(const CURI& file, bool ignoreMissing) = 0;

    // The names of the entries of a folder, sorted (NotFound when missing).
    virtual TList<String> listFolder(const CURI& folder) = 0;

    // Takes a shared or an exclusive lock on the existing folder `folder`,
    // without waiting: a conflicting lock held by anyone else, this process
    // included, fails at once with Locked and, where the file system can tell,
    // the property "holder" describing who holds it. Locks are advisory: they
    // keep out only those who lock too. A file system that cannot lock fails
    // with NotSupported. The lock is held until the returned object goes.
    virtual P<IFileSystemLock> lockFolder(const CURI& folder, bool exclusive) = 0;
    // Removes, from `folder` and every folder below it, the temporary files
    // that stores and copies of this file system leave behind when their
    // process dies before they end; returns how many it removed. Call it only
    // while no store or copy into that tree can run (under an exclusive lock).
    // A file system whose stores leave nothing behind returns 0 at once.
    virtual int removeTemporaryFiles(const CURI& folder) = 0;
};

} // namespace zo
