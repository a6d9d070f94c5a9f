// CBrickStoreQueue: the background stores of one open writable disk, shared
// by every writer of its bricks (the disk's brick objects, the block device,
// the importer).
#pragma once

#include "brick/chain/BrickReader.h"
#include "brick/chain/BrickStorer.h"
#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Containers.h"
#include "zo/Error.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

namespace brick {

// Schedules the stores of prepared bricks into one disk folder, each through
// a CBrickStorer, and keeps the rules that every writer needs:
// - at most `maxStores` stores run at once;
// - stores of one brick never overlap and end in the order they were handed
//   over, so the later bytes always land last;
// - until a store has ended, its prepared bytes answer reads of the brick
//   (getStoreOf), because the store moves and replaces files that a load
//   could otherwise read half-way; a store that failed keeps answering until
//   the brick is stored again, so that nothing handed over is lost to a read;
// - an all-zero brick (prepared bytes null) is stored as no file, or, on a
//   disk with parents, as the prepared all-zero brick, so that the parent's
//   brick does not show through;
// - on a disk between a parent and a child, where neither the disk nor the
//   child holds the brick, the nearest parent's brick file is copied into the
//   child first, so the child keeps reading what it read (the storer itself
//   copies this disk's old file into the child).
//
// Thread-safe: any thread may call any function at any time. Listeners are
// called on the file system's threads without the queue's lock held; a
// listener must not wait on the queue.
class BRICKDISK_EXPORT CBrickStoreQueue : public zo::CBase {
public:
    // One store that failed: the brick and why.
    struct Failure {
        int64 brickIndex;
        P<CError> error;
    };
    // The newest bytes handed over for a brick whose store has not ended (or
    // failed and was not stored again): `prepared` is null for an all-zero
    // brick, as is `allZero` true then.
    struct Store {
        PC<TBuffer<uint8>> prepared;
        bool allZero;
        bool failed;
    };

    // A queue over the disk that `reader` reads (its folder, header, chain
    // and key), which reads the parents' brick files through it and holds a
    // reference to it; its child is `childFolder` (empty for none). At most
    // `maxStores` stores run at once (values below 1 count as 1). Prepares
    // the all-zero brick once; throws what the preparer throws.
    CBrickStoreQueue(CBrickReader* reader, const CURI& childFolder, int maxStores);
    CBrickStoreQueue(const CBrickStoreQueue&) = delete;
    CBrickStoreQueue& operator=(const CBrickStoreQueue&) = delete;
    // Every store holds the queue until it has ended, so the last reference
    // goes only after the last store. Never throws.
    ~CBrickStoreQueue() override;

    int getMaxStores() const { return m_maxStores; }

    // Stores `prepared` (a counted buffer the queue keeps a reference to
    // until the brick is stored; null for an all-zero brick) as brick
    // `brickIndex`. The bytes answer getStoreOf from this call on. Waits for
    // the end of every earlier store of the brick and for a free slot, then
    // asks `alreadyStored` (may be empty): when it returns true, nothing is
    // stored, the brick counts as stored and null is returned. Otherwise
    // starts the store and returns its storer; `listener` (may be null)
    // hears its end once, after the queue has noted the outcome. A store
    // that cannot be started is logged, recorded as a failure (its bytes
    // kept as those of a failed store) and its error thrown; the listener is
    // then never called. A failing copy of a parent's brick into the child
    // counts as such.
    P<CBrickStorer> store(int64 brickIndex, const TBuffer<uint8>* prepared, IDoneListener* listener,
                          const std::function<bool()>& alreadyStored = {});

    // The bytes of the newest store of `brickIndex` that has not ended, else
    // those of its failed store not stored since; nothing when neither.
    std::optional<Store> getStoreOf(int64 brickIndex);

    // Waits until fewer than getMaxStores() stores are handed over and not
    // ended (-1: no limit, 0: only tests); true then.
    bool waitForFreeSlot(int timeoutMillis);
    // Waits until every store of `brickIndex` handed over so far has ended;
    // true then.
    bool waitForStoresOf(int64 brickIndex, int timeoutMillis);
    // Waits until every store handed over before the call has ended and its
    // listener returned (stores handed over meanwhile are not waited for);
    // true then.
    bool waitForAll(int timeoutMillis);
    // Stores handed over and not ended.
    int getStoresInFlight();

    // Every failed store so far, oldest first (never cleared).
    std::vector<Failure> getFailures();
    bool hasFailures();
    // The bricks whose newest store failed and that no store has stored
    // since, in ascending order, each with its latest failure.
    std::vector<Failure> getUnstoredBricks();
    // Records that the bytes of `brickIndex` could not be handed over at all
    // (their preparation failed): logged, a failure, and the brick unstored
    // until a store of it succeeds.
    void recordFailure(int64 brickIndex, const CError& error);

    // A test seam: `hook` (empty for none) is called with the brick's index
    // on the file system's thread of every store that fails, after the queue
    // has recorded the failure (getStoreOf, getFailures and getUnstoredBricks
    // show it) and before the store's listener is called; the store stays
    // unfinished (waitForAll waits for it) until its listener has returned.
    // It lets a test do its own steps in that moment. The hook must not
    // throw; it may call the queue.
    void setFailureHook(std::function<void(int64 brickIndex)> hook);

private:
    class CEntry;
    using Clock = std::chrono::steady_clock;

    // Starts the storer of `entry`, whose turn it is (called without the lock).
    P<CBrickStorer> startStorer(CEntry& entry);
    // The prepared all-zero brick for `brickIndex` (bound to it when the
    // disk's bricks are bound to their index).
    P<TBuffer<uint8>> preparedZeroBrickFor(int64 brickIndex);
    void copyParentBrickIntoChild(int64 brickIndex, const CURI& relativeURI);
    // Called with the lock held: `entry` has ended, with `failure` or
    // (null) stored, and leaves the queue.
    void noteEnded(CEntry& entry, const CError* failure);
    // Called with the lock held: `entry` and its listener are done.
    void noteFinished(const CEntry& entry);
    void onStorerDone(CEntry& entry, const CError* error);
    // Waits on the lock until `done` holds; -1 without limit.
    bool waitUntil(std::unique_lock<std::mutex>& lock, int timeoutMillis, const std::function<bool()>& done);

    P<CBrickReader> m_reader;
    P<IFileSystem> m_fs;
    CURI m_diskFolder;
    CURI m_childFolder;
    bool m_hasParents;
    CBrickDiskHeader m_header;
    int m_maxStores;

    // Guards the prepared zero brick and the preparer that makes it.
    std::mutex m_zeroMutex;
    P<CBrickDataPreparer> m_preparer;
    P<TBuffer<uint8>> m_preparedZeroBrick;
    int64 m_zeroBrickIndex = 0;

    // Guards everything below.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    // The stores handed over and not ended, per brick, oldest first; the
    // first of each brick is the one that runs (or waits for a slot).
    std::map<int64, std::deque<P<CEntry>>> m_stores;
    int m_handedOver = 0;
    int m_running = 0;
    // The numbers of the stores not finished (ended and their listener
    // returned), in the order they were handed over.
    std::set<uint64_t> m_unfinished;
    uint64_t m_nextNumber = 0;
    std::vector<Failure> m_failures;
    struct Unstored {
        P<CError> error;
        // The bytes of the failed store, when there were any to keep.
        std::optional<Store> kept;
    };
    std::map<int64, Unstored> m_unstored;
    std::function<void(int64)> m_failureHook;
};

} // namespace brick
