// CBrickDiskBlockDevice: a disk as a block device that many threads read and
// write at byte offsets at once, for servers that present a disk to clients.
#pragma once

#include "brick/chain/Brick.h"
#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDataPreparer.h"
#include "brick/streams/ParallelReadAheadManager.h"

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Error.h"
#include "zo/Export.h"
#include "zo/MemPool.h"

#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <utility>
#include <vector>

namespace brick {

// Positional, thread-safe access to one open disk through a cache of decoded
// bricks.
//
// Every call may come from any thread, at the same time as any other call.
// A brick that several threads need is loaded and decoded once, by the first
// of them, while the others wait for it; different bricks load in parallel.
// Writes change the cached brick; a changed brick is prepared (compressed,
// encrypted) and handed to a background store when the cache evicts it or
// when flush() is called. Until its store has ended, its bytes stay in memory
// and every read sees them.
//
// Reads that go through the disk in order are read ahead: once reads have
// twice gone on where the one before them ended, the bricks that follow are
// loaded and decoded on the threads of the device's read-ahead engine
// (CParallelReadAheadManager), a few at a time, so that the reader finds them
// in the cache. A brick that is read ahead is in the cache like any other:
// reads and writes of it wait until its load has ended.
//
// The device holds a counted reference to its disk and is the disk's only
// user while it lives: nobody else may read, write or flush the disk.
class BRICKDISK_EXPORT CBrickDiskBlockDevice : public zo::CBase {
public:
    // What a byte range holds, as mapExtents reports it.
    enum class ExtentKind {
        Data, // bytes stored somewhere in the chain, or written since
        Zero, // written since, and all zero
        Hole, // stored nowhere in the chain: reads as zeros
    };
    struct Extent {
        int64 offset;
        int64 length;
        ExtentKind kind;
    };

    // A device over `disk`, whose bricks it reads through the disk's brick
    // reader (CBrickDisk::getBrickReader). The cache keeps about `cacheBytes` of decoded bricks (never
    // fewer than 4 bricks, never more than the disk has), and its memory is
    // taken here, once, and kept until the device goes. Writable when the disk
    // was opened for reading and writing. Starts the read-ahead threads;
    // throws std::bad_alloc when the cache's memory cannot be had, and what starting
    // a thread throws.
    CBrickDiskBlockDevice(CBrickDisk* disk, int64 cacheBytes);
    // Ends the read-ahead threads, flushes what was written and waits for
    // every store; a failure is logged, never thrown (callers that must know
    // call flush() and getUnstoredBricks() first).
    ~CBrickDiskBlockDevice() override;

    int64 getSize() const { return m_diskSize; }
    int64 getBrickSize() const { return m_brickSize; }
    bool isWritable() const { return m_writable; }
    // The disk that the device currently serves.
    P<CBrickDisk> getDisk();

    // Copies `size` bytes at `offset` into `dst`. Throws zo::CIOError
    // EndOfData when the range passes the end of the disk (before copying),
    // and the brick's load error when a brick cannot be loaded or decoded
    // (a brick whose read-ahead failed is loaded again by the reader).
    void read(void* dst, int64 offset, int64 size);
    // Writes `size` bytes at `offset`. Throws zo::CIOError ReadOnly on a
    // device that is not writable, WriteBeyondSize when the range passes the
    // end (both before writing anything), and a load error when a brick that
    // is partly written cannot be loaded. Whole bricks are written without
    // loading their old content.
    void write(const void* src, int64 offset, int64 size);
    // Makes `size` bytes at `offset` read as zeros, with the errors of
    // write(). Whole bricks in the range become all-zero bricks, which are
    // stored as no file (or as the small all-zero brick where a parent's
    // brick would show through); the edges are written as zeros.
    void zero(int64 offset, int64 size);
    // Returns once everything written before the call is stored by the file
    // system (durably, when it stores durably). Throws a zo::CError "Storing
    // changed bricks failed." (properties "unstoredBricks", the count, and
    // "brickIndex", the first of them) with a failure as its cause while any
    // written brick is not stored. A brick whose store failed is never
    // dropped: it stays in memory, reads return its newest bytes, and every
    // later flush (and eviction) stores it again until a store succeeds.
    void flush();
    // The bricks whose latest store failed and that no store has stored
    // since, in ascending order: what a flush now would still report.
    std::vector<int64> getUnstoredBricks();
    // What the bytes from `offset` on hold, as consecutive extents that cover
    // the range (clipped to the disk); whole bricks at a time. Throws
    // zo::CIOError EndOfData when `offset` is outside the disk.
    std::vector<Extent> mapExtents(int64 offset, int64 size);

    // Waits for the calls in progress and holds new ones back, flushes, runs
    // `replaceDisk` and serves the disk that it returns from then on (the
    // cache stays: the new disk must hold what the old one held, such as the
    // same disk reopened after a child was made). A null result keeps the old
    // disk. Errors of the flush and of `replaceDisk` are thrown, and the old
    // disk is kept.
    void pauseAndReplaceDisk(const std::function<P<CBrickDisk>(P<CBrickDisk> current)>& replaceDisk);

private:
    struct CachedBrick;
    class CStoreListener;
    using BrickData = P<zo::TBuffer<uint8>>;

    // Changes `count` bytes at `dst`, which stand for the disk's bytes from
    // `offset`; without `apply` only tells whether applying would change them.
    using Change = std::function<bool(uint8* dst, int64 offset, int64 count, bool apply)>;
    void modify(int64 offset, int64 size, const Change& change);
    void checkRange(int64 offset, int64 size, zo::CIOError::Code code) const;

    // The cached brick `index`, loaded when needed, held until releaseBrick().
    // With `overwriteWhole` a missing brick is not loaded but starts as
    // zeros (it is about to be overwritten whole).
    std::shared_ptr<CachedBrick> acquire(int64 index, bool overwriteWhole);
    // Called with the mutex held: a new entry for `index`, most recently used.
    std::shared_ptr<CachedBrick> addToCache(int64 index);
    // Loads an entry that addToCache made loading, with the mutex released
    // meanwhile. A failed load removes the entry and throws.
    void loadIntoCache(const std::shared_ptr<CachedBrick>& brick, std::unique_lock<std::mutex>& lock);
    void releaseBrick(const std::shared_ptr<CachedBrick>& brick, bool changed);
    void evictWhileOverCapacity(std::unique_lock<std::mutex>& lock);
    BrickData loadBrick(int64 index);
    // Fills the pool of decoded bricks with the cache's worth of buffers.
    void reserveCacheMemory();
    // A brick's worth of bytes from the pool, all zero when `zeroed`.
    BrickData newBrickData(bool zeroed) const;
    BrickData copyOf(const zo::TBuffer<uint8>& data) const;
    // What the cache or the store queue says of a brick being changed, or
    // nothing when the brick's files tell; sets `disk` to the disk served.
    std::optional<ExtentKind> kindOfChangingBrick(int64 index, P<CBrickDisk>& disk);

    // Read-ahead: loads brick `index` into the cache on a loader thread of
    // the engine, unless it is there already; a failure is dropped.
    void readAheadOne(int64 index);

    // Preparers of the current disk, each lent to one thread at a time.
    P<CBrickDataPreparer> borrowPreparer();
    void returnPreparer(P<CBrickDataPreparer> preparer);
    // The current disk's store queue; null when the device is read-only.
    P<CBrickStoreQueue> storeQueue();
    // Called with the mutex held: whether the store queue has bytes of `index`.
    bool inStoreQueue(int64 index);

    // Called with the mutex held: marks a changed brick as handed over to
    // the store queue and returns the bytes to hand over.
    BrickData beginHandOver(CachedBrick& brick);
    // Called without the mutex: prepares `data` and hands it to the store
    // queue as brick `index`, unless the disk already holds those bytes.
    void handOver(int64 index, const BrickData& data);
    void handOverInParallel(const std::vector<std::pair<int64, BrickData>>& bricks);
    // Called with the mutex held, after handOver.
    void endHandOver(CachedBrick& brick);
    // A store of brick `index` failed or could not start: `data` goes back
    // into the cache as a changed brick, with `unlessLaterStore` only when
    // no later store of the brick is on its way. Takes the mutex.
    void keepUnstoredBytes(int64 index, const BrickData& data, bool unlessLaterStore);
    // Called with the gate held.
    void flushLocked();

    int64 m_diskSize;
    int64 m_brickSize;
    bool m_writable;
    size_t m_capacity;
    int64 m_brickCount;
    // Buffers of decoded and of prepared bricks: they go back to their pool
    // when their last user lets go, so a steady stream of bricks through the
    // cache allocates (and faults in) no new memory.
    P<zo::CMemPool> m_brickBuffers;
    P<zo::CMemPool> m_preparedBuffers;

    // Held shared by every call, and alone while the disk is replaced.
    std::shared_mutex m_gate;

    // Guards everything below.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    P<CBrickDisk> m_disk;
    std::vector<P<CBrickDataPreparer>> m_idlePreparers;
    std::map<int64, std::shared_ptr<CachedBrick>> m_cache;
    // Least recently used last.
    std::list<int64> m_recency;

    // Not guarded: made at construction, stopped first at destruction, as
    // its loaders use everything above.
    P<CParallelReadAheadManager> m_readAhead;
};

} // namespace brick
