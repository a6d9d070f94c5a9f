// CObjectStoreFileSystem: IFileSystem over an object store (IObjectStore).
//
// Paths are "scheme://CONTAINER/key/of/the/file": the container is a pool or a
// bucket, the rest of the path is the object's key. Folders are implied by
// the keys: creating one writes an empty marker object "key/" (and one for
// each missing parent). A folder exists when its marker does; the questions
// about folders themselves (folderExists, listFolder, lockFolder, the folder
// of a file to store) also find a folder without marker that has objects
// under it, by listing the container. The other queries (pathExists,
// getFileInfo) look at markers only, so that asking for a missing file never
// lists the container. The root of a container always exists. A store is
// one atomic whole-object write (an exclusive one without overwrite); a copy
// happens inside the store; a move is a copy, then the removal of the
// source, so a process that dies between the two leaves both. Listing
// filters the container's keys by prefix. A folder lock is the store's lock
// on the object "key/.lock".
//
// So that a store into a known folder costs the write alone, the file system
// remembers (up to a bound) the folders it found or created and the keys
// where it found or wrote files, and it knows that a folder it created
// itself (an exclusive marker write) held no folders but those it created
// there since. Folders are never removed through this file system; when
// another process removes a remembered folder's marker, a store into the
// folder still succeeds and its object makes the folder exist again. The
// checks that keep files and folders apart were never atomic with the write
// that follows them; with the memory they no longer see a folder that
// another process creates, under the name of a remembered file or inside a
// folder created here, after this process looked. Processes that share a
// disk are kept apart by its lock, so such a folder does not arise.
//
// The asynchronous operations check their paths on worker threads of the
// file system's own, then hand the write to the store; the listeners are
// called on the worker threads. Any thread may call any operation.
#pragma once

#include "objectstore/ObjectStore.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/FileSystemQueries.h"

#include <atomic>
#include <memory>

namespace zo {

class CCompletionPool;
class CKnownFolders;

class BRICKDISK_EXPORT CObjectStoreFileSystem : public CBase, public IFileSystem, public IFileSystemQueries {
public:
    // Over `store`, for paths that start with `scheme` + "://". The checks run
    // on `threadCount` workers (at least one). Throws CError when the threads
    // cannot be started.
    CObjectStoreFileSystem(IObjectStore* store, const String& scheme, int threadCount);
    // Waits until every operation has completed and its listener has been
    // called; may run on a worker thread. Never throws.
    ~CObjectStoreFileSystem() override;
    CObjectStoreFileSystem(const CObjectStoreFileSystem&) = delete;
    CObjectStoreFileSystem& operator=(const CObjectStoreFileSystem&) = delete;

    // Waits until no operation is under way.
    void waitUntilIdle();
    // The container and key of `path` (CInvalidArgError for another scheme,
    // a path without container, or one whose ".." climb above the container:
    // every key stays inside the container the path names).
    ObjectName toObjectName(const CURI& path) const;

    P<IFileSystemOp> beginStoreFile(const CURI& file, int size, IInStream* source, bool overwrite,
                                    IDoneListener* listener) override;
    // `mode` is ignored.
    P<IFileSystemOp> beginCreateFolder(const CURI& folder, int mode, IDoneListener* listener) override;
    P<IFileSystemOp> beginMoveFile(const CURI& from, const CURI& to, bool overwrite, IDoneListener* listener) override;
    P<IFileSystemOp> beginCopyFile(const CURI& from, const CURI& to, bool overwrite, IDoneListener* listener) override;
    P<IFileSystemOp> beginDeleteFile(const CURI& file, IDoneListener* listener) override;

    P<IFileInfo> getFileInfo(const CURI& path, bool throwIfMissing) override;
    // A CObjectStream: a reader gets the object's bytes as they were at the
    // open; a writer's writes go to the object at once. Opening a file to
    // read that a listing of its folder, taken here since this file system
    // last forgot it, did not show (and that this file system has not
    // written since) fails with NotFound without asking the store: a file
    // another program stored since is not seen. fileExists, getFileInfo and
    // pathExists always ask the store for a file they do not know. With
    // AccessRead and IIOStream::OptionRanges, a CObjectRangeStream instead:
    // the open asks the store for the object's size, each read fetches only
    // the bytes it asks for.
    P<IIOStream> openStream(const CURI& file, IIOStream::Access access, const int& options) override;
    // `mode` is ignored.
    void createFolder(const CURI& folder, int mode) override;
    bool fileExists(const CURI& file) override;
    bool folderExists(const CURI& folder) override;
    bool pathExists(const CURI& path) override;
    void deleteFile(const CURI& file, bool ignoreMissing) override;
    TList<String> listFolder(const CURI& folder) override;
    // From one listing of the level with the objects' sizes, where the
    // store gives one (IObjectStore::listLevelWithSizes), which this file
    // system remembers, as the listing that openStream trusts, with the
    // objects' tags as content tags; else entry by entry
    // (listFolderEntryByEntry).
    std::vector<FolderEntry> listFolderWithInfo(const CURI& folder) override;
    // One ranged read of the object, without asking for its size first.
    void readRange(const CURI& file, int64 offset, void* bytes, int size) override;
    P<IFileSystemLock> lockFolder(const CURI& folder, bool exclusive) override;
    // Stores and copies are atomic in the store and leave nothing behind: 0.
    int removeTemporaryFiles(const CURI& folder) override;

private:
    struct Pending;
    using Work = std::function<void(const std::function<void(const CError*)>& finish)>;

    // Runs `work` on a worker; `work` ends the operation by calling finish
    // once (at once or later, from a store's callback) or by throwing.
    P<IFileSystemOp> startOperation(IDoneListener* listener, Work work);
    // True when `name` is a known folder or has a marker; with `lookUnder`
    // also when an object lies under it.
    bool isFolder(const ObjectName& name, bool lookUnder);
    // True when the folder of `name` is known to be missing, so that `name`
    // cannot exist.
    bool isInMissingFolder(const ObjectName& name) const;
    // Throws NotFound unless the folder that holds `name` exists.
    void checkParentFolder(const ObjectName& name, const CURI& path);
    // Throws when a folder is where a file is to be written.
    void checkNotAFolder(const ObjectName& name, const CURI& path, bool overwrite);
    // Creates the marker of the folder `name` with an exclusive write and
    // remembers the folder; false when the marker was there already. Throws
    // AlreadyExists when a file is in the way.
    bool putFolderMarker(const ObjectName& name, const CURI& folder);
    // `finish`, after remembering that `name` holds a file when the write
    // succeeded.
    IObjectStore::Done finishWritingFile(const ObjectName& name, IObjectStore::Done finish);
    void removeSync(const ObjectName& name);
    // After a read found no object at `name`: true when `name` is a folder.
    // Lists the folder of `name` in one request where the store can, and
    // remembers it, so that its other missing files cost nothing to open;
    // else looks for the folder marker of `name`.
    bool isFolderWhereAFileIsMissing(const ObjectName& name);
    // openStream's CObjectRangeStream over the object `name` of `file`.
    P<IIOStream> openRanges(const CURI& file, const ObjectName& name);

    P<IObjectStore> m_store;
    String m_scheme;
    P<CCompletionPool> m_pool;
    std::shared_ptr<Pending> m_pending;
    std::unique_ptr<CKnownFolders> m_known;
    std::atomic<bool> m_listingRefused{false}; // the store refused to list a folder
};

} // namespace zo
