// CParallelReadAheadManager: where one reader and a set of read threads meet.
// The threads ask it which brick to read next and hand it the brick's data or
// the error that reading raised; the reader asks for the brick it needs and
// waits until a thread has delivered it. It bounds how many bricks are read
// ahead and not yet consumed, restarts the read-ahead when the reader jumps
// elsewhere, and wakes everyone when told to stop. It knows bricks only by
// their indexes; their data arrive as buffers.
#pragma once

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Containers.h"
#include "zo/Error.h"
#include "zo/Export.h"
#include "zo/Mutex.h"
#include "zo/Semaphore.h"
#include "zo/Signal.h"

namespace brick {

// Threads: any number of read threads may call nextBrickIndexForReadAhead and
// storeReadAheadResult at once; one reader thread at a time calls
// getBrickData; signalStop may be called from any thread. Every call takes
// the manager's one mutex and releases it while it waits.
//
// Lifecycle: running from construction until signalStop, stopped for ever
// after. The destructor does not stop anything: the owner calls signalStop
// and ends the read threads before it drops the last reference.
class BRICKDISK_EXPORT CParallelReadAheadManager : public zo::CBase {
public:
    // Hands out the indexes 0 ... brickCount - 1. At most `slotCount` indexes
    // are claimed by read threads and not yet consumed by the reader at any
    // time; with a slot count of 0 (or below) no index is ever handed out.
    CParallelReadAheadManager(zo::int64 brickCount, zo::int32 slotCount);
    CParallelReadAheadManager(const CParallelReadAheadManager&) = delete;
    CParallelReadAheadManager& operator=(const CParallelReadAheadManager&) = delete;
    ~CParallelReadAheadManager() override = default;

    // For read threads: the index of the brick to read next, or -1 when the
    // thread must end. Claims indexes in increasing order from where the
    // reader last asked. Blocks, without time limit, while every slot is
    // taken or every brick has been handed out, until the reader consumes a
    // brick, jumps elsewhere, or stop is signalled. The caller must answer
    // every index it receives with storeReadAheadResult.
    zo::int64 nextBrickIndexForReadAhead();

    // For read threads: delivers the outcome of reading `brickIndex`, either
    // its `data` or the `error` that reading raised (the other null). Both are
    // counted heap objects: the manager takes a reference to whichever is
    // given, and the caller keeps its own. The result is dropped silently when
    // the index is no longer waited for (the reader jumped elsewhere or stop
    // was signalled) or already has a result. A call with both null leaves the
    // brick waiting for a result. Does not throw.
    void storeReadAheadResult(zo::int64 brickIndex, zo::TBuffer<zo::uint8>* data, const zo::CError* error);

    // For the reader: the data of `brickIndex`, waiting without time limit
    // until a read thread has delivered it. The caller gets its own reference
    // to the buffer. Asking for any index other than the one after the index
    // last consumed (0 at first) restarts the read-ahead at `brickIndex` and
    // drops every result read ahead so far. The brick is consumed: its slot
    // goes back to the read threads, and asking for it again restarts the
    // read-ahead there. The index must be below the brick count; a larger one
    // is never delivered and the wait lasts until stop.
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

    // For the owner, when it closes: stops the read-ahead for ever. Drops
    // every result, wakes the waiting read threads (they receive -1 from now
    // on) and the waiting reader (it gets the "called after stop" error).
    void signalStop();

protected:
    // The outcome of reading one claimed brick; "ready" once either member is
    // set.
    struct Result {
        zo::P<zo::TBuffer<zo::uint8>> data;
        zo::PC<zo::CError> error;

        bool isReady() const { return data || error; }
    };

    // Makes `brickIndex` the index the reader is expected to ask for next:
    // when it differs from the expected index the read-ahead restarts there
    // and every result is dropped. Then wakes the read threads that wait for
    // work. Throws the zo::CInvalidArgError and the "Internal error" zo::CError
    // listed at getBrickData, the index test first.
    void seekToBrick(zo::int64 brickIndex);

    // Drops every result, giving back the slot that each one stands for,
    // whether it is ready or its thread is still reading. The mutex must be
    // held.
    void clearResultMap();

private:
    zo::CMutex m_mutex;
    const zo::int64 m_brickCount;
    // Set when a result is stored and at stop; the reader waits on it.
    zo::P<zo::CSignal> m_resultStored;
    // Set when the read-ahead restarts and at stop; threads that ran out of
    // indexes wait on it.
    zo::P<zo::CSignal> m_indexWanted;
    // One count for every brick that may still be claimed and not consumed.
    zo::P<zo::CSemaphore> m_slots;
    // One entry for every claimed and not yet consumed index, from the moment
    // a thread claims it.
    zo::TMap<zo::int64, Result> m_results;
    // The next index to hand out; -1 once stop has been signalled.
    zo::int64 m_nextIndex = 0;
    // The index the reader is expected to ask for next.
    zo::int64 m_expectedIndex = 0;
};

} // namespace brick
