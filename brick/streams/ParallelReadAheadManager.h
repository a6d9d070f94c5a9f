// CParallelReadAheadManager: the read-ahead engine of the export stream and
// of the block device. Loader threads ask it which brick to load next; it
// answers from two sources, the queue first:
//
// - Runs of reads. A reader that reads wherever it likes (the block device)
//   tells the engine which bricks each read covered (noteRead). A read that
//   starts near where a recent run of reads ended continues that run; once a
//   run has been continued twice, the bricks after it are queued for the
//   loaders, which load them into the reader's own cache. The queue is
//   bounded (the oldest give way, as the reader has most likely passed them)
//   and holds each brick once, and the reader's filter leaves out bricks it
//   already holds: a brick is loaded once however many readers want it.
// - Reads in order. A reader that goes from front to back (the export
//   stream) asks for one brick after the other (getBrickData); the loaders
//   claim the bricks after it in increasing order and hand their data, or
//   the error that loading raised, back to the engine, where the reader
//   takes them. At most "slot count" bricks are claimed and not yet
//   consumed; a reader that jumps elsewhere restarts the claims there.
//
// The engine runs its loader threads itself (startLoaders) on a
// zo::CWorkerPool, or lets its owner run its own threads that call
// nextBrickIndexForReadAhead. It knows bricks only by their indexes; what a
// load does is the loader's business.
#pragma once

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Containers.h"
#include "zo/Error.h"
#include "zo/Export.h"
#include "zo/WorkerPool.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

namespace brick {

// Threads: any number of loader threads may call nextBrickIndexForReadAhead
// and storeReadAheadResult at once; one reader thread at a time calls
// getBrickData; noteRead, isStopped and signalStop may be called from any
// thread; startLoaders and stop are for the owner, one thread at a time, and
// never for a loader. Every call takes the engine's one mutex and releases it
// while it waits.
//
// Lifecycle: running from construction until signalStop (or stop), stopped
// for ever after. The destructor stops the engine and waits for the loaders
// that startLoaders started; threads of the owner's own must have ended
// before the owner drops the last reference.
class BRICKDISK_EXPORT CParallelReadAheadManager : public zo::CBase {
public:
    // Loads brick `brickIndex` on loader `worker` (0 to the loader count - 1,
    // each running on a thread of its own). A loader keeps a load's error for
    // its reader; an exception that escapes it is logged and dropped, and the
    // loader goes on with the next brick.
    using Loader = std::function<void(int worker, zo::int64 brickIndex)>;
    // Whether a brick must still be loaded; false for a brick the reader
    // already holds or is loading.
    using NeedsLoad = std::function<bool(zo::int64 brickIndex)>;

    // Hands out the indexes 0 ... brickCount - 1. At most `slotCount` indexes
    // are claimed for reads in order and not yet consumed by the reader at
    // any time; with a slot count of 0 (or below) no index is claimed that
    // way. Runs of reads queue up to `runBricksAhead` bricks after their end;
    // with 0 (the default) noteRead queues nothing.
    CParallelReadAheadManager(zo::int64 brickCount, zo::int32 slotCount, zo::int64 runBricksAhead = 0);
    CParallelReadAheadManager(const CParallelReadAheadManager&) = delete;
    CParallelReadAheadManager& operator=(const CParallelReadAheadManager&) = delete;
    // Stops the engine and waits for the loaders it started. Never throws.
    ~CParallelReadAheadManager() override;

    // Starts `loaderCount` loader threads (at least one) that call `loader`
    // with every index nextBrickIndexForReadAhead hands out, until stop. Call
    // it once. Throws zo::CError when a thread cannot be started (the ones
    // already started are stopped).
    void startLoaders(int loaderCount, Loader loader);

    // For loader threads: the index of the brick to load next, or -1 when the
    // thread must end. A queued index comes first; otherwise claims indexes in
    // increasing order from where the reader in order last asked. Blocks,
    // without time limit, while nothing is queued and every slot is taken or
    // every brick has been claimed, until a read queues bricks, the reader
    // consumes a brick or jumps elsewhere, or stop is signalled. The caller
    // must answer every claimed index with storeReadAheadResult (the result
    // of a queued index is dropped there, as no reader in order waits for it).
    zo::int64 nextBrickIndexForReadAhead();

    // For loader threads: delivers the outcome of reading `brickIndex`,
    // either its `data` or the `error` that reading raised (the other null).
    // Both are counted heap objects: the engine takes a reference to
    // whichever is given, and the caller keeps its own. The result is dropped
    // silently when the index is not waited for (the reader jumped elsewhere,
    // stop was signalled, or the index was queued by a run) or already has a
    // result. A call with both null leaves the brick waiting for a result.
    // Does not throw.
    void storeReadAheadResult(zo::int64 brickIndex, zo::TBuffer<zo::uint8>* data, const zo::CError* error);

    // For the reader in order: the data of `brickIndex`, waiting without time
    // limit until a loader has delivered it. The caller gets its own
    // reference to the buffer. Asking for any index other than the one after
    // the index last consumed (0 at first) restarts the read-ahead at
    // `brickIndex` and drops every result read ahead so far. The brick is
    // consumed: its slot goes back to the loaders, and asking for it again
    // restarts the read-ahead there. The index must be below the brick count;
    // a larger one is never delivered and the wait lasts until stop.
    // Throws:
    // - the error stored for the brick, as its own type (through throwClone);
    //   the brick counts as consumed and the read-ahead goes on;
    // - zo::CInvalidArgError "brickIndex is invalid" from
    //   "CParallelReadAheadManager::seekToBrick", property "brickIndex", when
    //   `brickIndex` is negative (also after stop);
    // - zo::CError "Internal error: CParallelReadAheadManager::seekToBrick
    //   called after stop has been signalled", property "brickIndex", when
    //   the call would restart the read-ahead after stop;
    // - zo::CError "CParallelReadAheadManager::getBrickData called after stop
    //   has been signalled." when stop is signalled before, or while, it waits.
    zo::P<zo::TBuffer<zo::uint8>> getBrickData(zo::int64 brickIndex);

    // For a reader that reads anywhere: notes a read of the bricks `first` to
    // `last` and, when it continues a run of reads in order, queues the bricks
    // after the run for which `needsLoad` is true and that are not queued
    // yet. `needsLoad` is called with the engine's mutex held and must not
    // call the engine. Does nothing after stop.
    void noteRead(zo::int64 first, zo::int64 last, const NeedsLoad& needsLoad);

    // True once stop has been signalled.
    bool isStopped();

    // Stops the read-ahead for ever. Drops every result and every queued
    // index, wakes the waiting loaders (they receive -1 from now on) and the
    // waiting reader (it gets the "called after stop" error). Does not wait
    // for anything.
    void signalStop();
    // signalStop, then waits until the loaders that startLoaders started have
    // ended (a load under way ends first). Must not be called by a loader.
    void stop();

protected:
    // Makes `brickIndex` the index the reader in order is expected to ask for
    // next: when it differs from the expected index the read-ahead restarts
    // there and every result is dropped. Then wakes the loaders that wait for
    // work. Throws the zo::CInvalidArgError and the "Internal error"
    // zo::CError listed at getBrickData, the index test first.
    void seekToBrick(zo::int64 brickIndex);

private:
    // The outcome of reading one claimed brick; "ready" once either member is
    // set.
    struct Result {
        zo::P<zo::TBuffer<zo::uint8>> data;
        zo::PC<zo::CError> error;

        bool isReady() const { return data || error; }
    };
    // A run of reads: the brick after its furthest read, and how many reads
    // continued it.
    struct ReadRun {
        zo::int64 end;
        int continuations;
    };

    // seekToBrick with the mutex held.
    void seekToBrickLocked(zo::int64 brickIndex);
    // With the mutex held: drops every result, giving back the slot that each
    // one stands for, whether it is ready or its loader is still reading.
    void clearResultMap();
    // With the mutex held: queues the bricks after `run`.
    void queueAfterRun(const ReadRun& run, const NeedsLoad& needsLoad);
    void loaderLoop(int worker);

    std::mutex m_mutex;
    // Notified whenever a result is stored, a slot is given back, bricks are
    // queued, the read-ahead restarts, and at stop.
    std::condition_variable m_changed;
    const zo::int64 m_brickCount;
    const zo::int64 m_runBricksAhead;
    const size_t m_maxQueued;
    bool m_stopped = false;
    // Slots that may still be claimed for reads in order.
    zo::int64 m_freeSlots;
    // One entry for every claimed and not yet consumed index, from the moment
    // a loader claims it.
    zo::TMap<zo::int64, Result> m_results;
    // The next index to claim for reads in order.
    zo::int64 m_nextIndex = 0;
    // The index the reader in order is expected to ask for next.
    zo::int64 m_expectedIndex = 0;
    // Recent runs of reads, most recently continued first.
    std::list<ReadRun> m_readRuns;
    // Bricks queued by runs, in order.
    std::deque<zo::int64> m_queue;

    Loader m_loader;
    std::unique_ptr<zo::CWorkerPool> m_loaders;
};

} // namespace brick
