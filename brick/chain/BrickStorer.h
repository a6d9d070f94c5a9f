// CBrickStorer: stores one prepared brick into a disk folder in the
// background, driven by the file system's completions.
#pragma once

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/BufferStream.h"
#include "zo/Containers.h"
#include "zo/Error.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/Mutex.h"
#include "zo/Signal.h"
#include "zo/URI.h"

#include <atomic>

namespace brick {

using zo::CError;
using zo::CURI;
using zo::IDoneListener;
using zo::IFileSystem;
using zo::int64;
using zo::P;
using zo::PC;
using zo::TBuffer;
using zo::uint8;

// One brick's store, as a small state machine: each step starts one
// asynchronous file-system operation, and its completion (onDone, on a thread
// of the file system) chooses the next step.
//
//   copyToChild (0)             when the disk has a child: copy the old brick
//                               file into the child, so the child keeps it.
//                               Success, or the child already has the brick:
//                               store with overwrite. First other failure:
//                               create the child's brick folders, then copy
//                               again. The old file is missing: store a zero
//                               brick into the child, then store without
//                               overwrite.
//   createChildParentFolder (1) creating the child's brick folders.
//   storeZeroBrickInChild (2)   the child gets an all-zero brick, because this
//                               disk had no file (skipped when the new content
//                               is itself all zero).
//   storeBrick (3)              store the prepared brick with
//                               IFileSystem::beginStoreFileBatched (or delete
//                               the file for an all-zero brick). A missing folder:
//                               create this disk's brick folders once, then
//                               store again. A final failure removes the zero
//                               brick stored into the child.
//   createParentFolder (4)      creating this disk's brick folders.
//   end (5)                     done; the error, if any, is kept.
//
// The old file stays in this disk until the new one replaces it in one atomic
// store, so a stop at any step leaves every disk of the chain reading each
// brick with its old or its new content: the child gains its copy before this
// disk changes, and this disk never lacks the brick in between.
//
// Syncs: the child's side is durable before this disk's file is replaced.
// The copy and the zero brick into the child are durable when they end, and
// when the storer made folders for them it syncs the file system's batch
// (IFileSystem::syncBatch) before the store, so that those folders survive
// too. The store into this disk has its bytes durable when it ends, but its
// name, like the folders it made and a deletion, only once the batch is
// synced: a crash before that leaves the old or the new file. Whoever
// reports the stores as durable (CBrickDisk::flushChanges, the block
// device's flush) syncs the batch first, one sync per folder for all the
// bricks stored into it instead of one per brick.
//
// Folders are created from the deepest up: while the parent of a folder is
// missing the creation climbs one level, and once one level exists it comes
// back down creating each folder.
//
// Only one operation is in flight at a time, so the state, the flags and the
// folder list are touched by one thread at a time. The progress counters are
// written under a mutex and read without it by getProgress.
class BRICKDISK_EXPORT CBrickStorer : public zo::CBase, public IDoneListener {
public:
    enum State {
        copyToChild = 0,
        createChildParentFolder = 1,
        storeZeroBrickInChild = 2,
        storeBrick = 3,
        createParentFolder = 4,
        end = 5,
    };

    // The source stream of every store: a buffer stream over one prepared
    // buffer that reports how far the file system has read it.
    class CUploadBufferStream : public zo::CBufferStream {
    public:
        CUploadBufferStream(CBrickStorer* storer, const TBuffer<uint8>* data);
        void read(void* dst, int size) override;
        int readLax(void* dst, int size) override;
        int readAvailable(void* dst, int size) override;

    private:
        P<CBrickStorer> m_storer;
    };

    // Creates a storer and starts its first operation on the calling thread:
    // with an empty `childRelativeURI` the store itself, otherwise the copy of
    // the old brick into the child. `preparedData` null stores an all-zero
    // brick (by deleting the file); `preparedZeroBrick` is the prepared form
    // of an all-zero brick, stored into the child when this disk has no file
    // for the brick. Both buffers are counted heap objects: the storer holds
    // references to them (and to the file system and the listener) and never
    // changes them; `listener` (may be null) hears
    // the end exactly once, with the error or null, on a thread of the file
    // system. Throws what the file system throws when the first operation
    // cannot be started; the storer is then gone and the listener never called.
    static P<CBrickStorer> start(IFileSystem* fs, const CURI& diskFolder, const CURI& relativeURI,
                                 const CURI& childFolder, const CURI& childRelativeURI,
                                 const TBuffer<uint8>* preparedData, const TBuffer<uint8>* preparedZeroBrick,
                                 IDoneListener* listener);

    // Waits until the storer has ended: -1 without limit, 0 only tests. Any thread.
    bool waitFinished(int timeoutMillis);
    // The error that ended the storer; null on success or while it runs.
    PC<CError> getError() const;
    // The prepared brick being stored; null for an all-zero brick.
    PC<TBuffer<uint8>> getBrickData() const { return m_preparedData; }
    // From 0.0 to 0.99 while running, 1.0 once ended. Any thread.
    double getProgress();
    State getState() const { return static_cast<State>(m_state.load()); }

    // Completion of the operation in flight; called by the file system. The
    // next step runs here; when it fails to start its operation (or a
    // synchronous check of the file system fails), the storer ends with that
    // error. Throws an internal CError when called in a state that has no
    // operation in flight.
    void onDone(const CError* error) override;

protected:
    // Storers live on the heap only and are created through start: the
    // completions of the first operation hold references to the storer, so
    // the creator must own it before that operation begins, or the last of
    // those references could destroy it while it is still being handed over.
    CBrickStorer(IFileSystem* fs, const CURI& diskFolder, const CURI& relativeURI, const CURI& childFolder,
                 const CURI& childRelativeURI, const TBuffer<uint8>* preparedData,
                 const TBuffer<uint8>* preparedZeroBrick, IDoneListener* listener);
    // The last reference destroys the storer.
    ~CBrickStorer() override;

    // Starts the first operation (see start).
    void begin();

    void doCopyToChild();
    void doCreateChildParentFolder();
    void doStoreZeroBrickInChild();
    // Syncs the file system's batch when this storer created child folders.
    void syncChildFoldersCreated();
    void doStoreBrick();
    void doCreateParentFolder();
    void doEnd();
    void endWithError(const CError& error);
    void endWithSuccess();
    void initCreateFolderURIs(const CURI& base, const CURI& relativeFolder);
    void beginCreateFolderOp();
    void onCreateFolderStepDone(const CError* error);
    void onDone_copyToChild(const CError* error);
    void onDone_createChildParentFolder();
    void onDone_storeZeroBrickInChild(const CError* error);
    void onDone_storeBrick(const CError* error);
    void onDone_createParentFolder();
    void addExpectedWork(int ops, int bytes);
    void onWorkFinished(int ops, int bytes);
    void onUploadProgress(int64 bytes);

private:
    // Every folder of the current run exists: goes on as the state asks.
    void onCreateFolderTreeComplete();
    void countFinishedStep();
    int zeroBrickSize() const { return m_preparedZeroBrick ? m_preparedZeroBrick->getUsed() : 0; }

    P<IFileSystem> m_fs;
    CURI m_diskFolder;
    CURI m_relativeURI;
    CURI m_childFolder;
    CURI m_childRelativeURI;
    PC<TBuffer<uint8>> m_preparedData;
    PC<TBuffer<uint8>> m_preparedZeroBrick;
    P<IDoneListener> m_listener;
    zo::CMutex m_mutex;
    P<zo::CSignal> m_finishedSignal;
    zo::TList<CURI> m_createFolderURIs;
    zo::TList<CURI>::iterator m_createFolderCursor;
    std::atomic<int> m_expectedOps{0};
    std::atomic<int> m_finishedOps{0};
    std::atomic<int64> m_expectedBytes{0};
    std::atomic<int64> m_finishedBytes{0};
    std::atomic<int64> m_uploadedBytes{0};
    std::atomic<int> m_state{storeBrick};
    P<CError> m_error;
    bool m_parentFolderCreated = false;
    bool m_childParentFolderCreated = false;
    bool m_someFolderCreated = false;
    bool m_zeroBrickStoredInChild = false;
    bool m_overwrite = false;
};

} // namespace brick
