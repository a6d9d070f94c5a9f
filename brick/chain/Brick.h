// CBrick: one brick of a disk in memory. All reading and writing of a disk
// passes through it: it loads a brick's payload on demand, keeps changes in
// memory and hands changed bricks to background storers.
#pragma once

#include "brick/chain/BrickReader.h"
#include "brick/chain/BrickStoreQueue.h"
#include "brick/chain/BrickStorer.h"
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"
#include "zo/Export.h"

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Containers.h"
#include "zo/Error.h"
#include "zo/FileSystem.h"
#include "zo/MemPool.h"
#include "zo/URI.h"

#include <vector>

namespace brick {

// Used by one thread at a time; it has no lock. Saves go to a store queue
// (CBrickStoreQueue), which may be shared with other brick objects of the
// same disk and with other writers: then the waits and the failures below
// are those of every save of the queue.
class BRICKDISK_EXPORT CBrick : public zo::CBase {
public:
    // One failed background save.
    using Error = CBrickStoreQueue::Failure;

    // A brick object over the disk in `diskFolder`, with a brick reader and
    // a store queue of its own. Bricks are searched in `diskFolder`, then in
    // `parentFolders` in order. A changed brick first copies its old file
    // into `childFolder` when that is not empty. At most `maxBackgroundOps`
    // saves run at once (values below 1 count as 1). Throws what the
    // preparer throws.
    CBrick(IFileSystem* fs, const CURI& diskFolder, const CURI& childFolder, const zo::TList<CURI>& parentFolders,
           const CBrickDiskHeader& header, const zo::TCryptBuffer<uint8>& cipherKey, int maxBackgroundOps);
    // A brick object that loads through `reader` and saves through
    // `storeQueue`, both over the same disk (the disk's own, shared with its
    // other brick objects and writers); it holds a reference to each. A null
    // `storeQueue`: the object only reads, and saving a change throws.
    CBrick(CBrickReader* reader, CBrickStoreQueue* storeQueue);
    // A copy shares the store queue.
    CBrick(const CBrick&) = default;
    CBrick& operator=(const CBrick&) = default;
    // Saves a changed brick and waits for every save of its queue; never throws.
    ~CBrick() override;

    // Makes `brickIndex` current, at `positionInBrick`. Leaving a changed
    // brick starts its save. The payload is loaded on the next access.
    void seek(int64 brickIndex, int positionInBrick);
    // Copies up to `size` bytes from the current position, stopping at the
    // brick's end; returns the count. Throws when the brick cannot be loaded.
    int readLaxInsideBrick(void* dst, int size);
    // Copies up to `size` bytes in at the current position, stopping at the
    // brick's end; returns the count. A whole brick written at position 0 is
    // taken without loading the old one.
    int writeLaxInsideBrick(const void* src, int size);
    // Loads the current brick unless it is loaded, and tells whether a disk
    // of the chain stores it: a file of it in a search folder, a save of it
    // under way, or a whole brick written here. False when it reads as zeros
    // for want of one. Throws when the brick cannot be loaded.
    bool isStored();
    int64 getBrickIndex() const { return m_brickIndex; }
    int getPositionInBrick() const { return static_cast<int>(m_positionInBrick); }

    // Stores already prepared data (null: an all-zero brick, whose file is
    // deleted, or stored when a parent folder could show through) as the
    // current brick, replacing what memory held; `prepared` is a counted buffer that
    // the queue keeps a reference to. `listener` (may be null) hears the end
    // of the save. Waits for an earlier save of the same brick and for a free
    // slot first (CBrickStoreQueue::store). Returns the storer; throws when
    // it cannot be started (the failure is also recorded).
    P<CBrickStorer> writePreparedBrick(const TBuffer<uint8>* prepared, IDoneListener* listener);
    // True when storing `plain` as the current brick would change nothing:
    // this disk's own folder holds the brick's file with exactly these bytes,
    // or, for an all-zero brick (`prepared` null) of a disk without parents,
    // no file of it. `prepared` is `plain` as prepareData made it for this
    // brick. Reads the file's head and compares the digests of the plain
    // bytes; only when they match (or the files carry no such digest) is
    // the whole file read, checked and compared byte for byte. Never throws: a file that cannot be read or
    // decoded counts as different, and the store goes ahead.
    bool storedFileHolds(const TBuffer<uint8>& plain, const TBuffer<uint8>* prepared);

    // The current brick's file, relative to a disk folder
    // (CBrickTree::getRelativeBrickURI).
    CURI getRelativeBrickURI();

    // Starts saving the current brick if it changed. A failure to start is
    // logged and recorded, never thrown.
    void backgroundSaveChanges();
    // Waits until fewer than maxBackgroundOps saves run (-1: no limit); true then.
    bool waitForFreeBackgroundOpSlot(int timeoutMillis);
    // Waits until every save handed to the queue before the call has ended
    // (-1: no limit); true then.
    bool waitUntilBackgroundSavesDone(int timeoutMillis);
    // The failed saves of the queue so far, oldest first. The list is this
    // object's copy, valid until the next call.
    const zo::TList<Error>& getBackgroundErrorList();
    int getBackgroundSavesInProgress();
    bool haveBackgroundErrors();
    // The queue that saves this object's bricks; null when it only reads.
    CBrickStoreQueue* getStoreQueue() const { return m_storeQueue.get(); }

protected:
    void loadBrickPayload();

private:
    // The stand-alone object: `reader` serves both its loads and a store
    // queue of its own, so the chain is read through one reader.
    CBrick(CBrickReader* reader, const CURI& childFolder, int maxBackgroundOps);
    // The store queue; throws when the object only reads.
    CBrickStoreQueue& storeQueue() const;
    // Loads the current brick from a save of it that has not ended (or that
    // failed and was not saved again); false when there is none.
    bool loadFromStoreQueue();
    // Loads the brick from the nearest disk of the chain that holds its
    // file (CBrickReader::read); false when none does.
    bool loadFromSearchFolders();
    void fillPayloadWithZeros();

    P<CBrickReader> m_reader;
    P<IFileSystem> m_fs;
    CURI m_diskFolder;
    CBrickDiskHeader m_header;
    int64 m_maxPreparedSize;
    int64 m_brickIndex = 0;
    bool m_payloadDirty = false;
    bool m_payloadLoaded = false;
    bool m_payloadStored = false; // the loaded payload came from a file or a save
    P<CBrickDataPreparer> m_preparer;
    P<zo::CMemPool> m_bufferPool;
    TBuffer<uint8> m_payload;
    int64 m_positionInBrick = 0;
    P<CBrickStoreQueue> m_storeQueue;
    zo::TList<Error> m_backgroundErrors;
};

} // namespace brick
