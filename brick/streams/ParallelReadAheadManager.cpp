// How the read-ahead is coordinated:
//
// - Slots. A semaphore holds one count for every brick that may be claimed and
//   not yet consumed. A read thread takes a count before it claims an index
//   (outside the mutex, since it may wait there); the reader gives it back
//   when it consumes the brick. So at most "slot count" results are held.
// - Claims in increasing order. Under the mutex a thread claims the next
//   index and puts an empty result under it; the entry exists until the
//   reader consumes it or a restart drops it. When every index has been
//   handed out the thread waits on the index-wanted signal, keeping its slot.
// - The reader expects the indexes in the same order. When it asks for any
//   other index (a jump, or the index it just consumed), the read-ahead
//   restarts there: every entry is dropped and its slot given back, the next
//   index to hand out becomes the one asked for, and the waiting threads are
//   woken. A thread still reading a dropped brick finds no entry when it
//   stores its result, which is then dropped.
// - Stop. The next index becomes -1 for ever, every entry is dropped, and
//   both signals are set: threads receive -1 (giving their slot back, so the
//   threads queued on the semaphore wake in turn), the reader gets an error.
//
// Signals are reset under the mutex before a wait and set under it by whoever
// changed the state, so no wake-up is lost.
#include "brick/streams/ParallelReadAheadManager.h"

#include "zo/Props.h"

namespace brick {

namespace {

// The value of the next index once stop has been signalled.
constexpr zo::int64 kStopped = -1;

} // namespace

CParallelReadAheadManager::CParallelReadAheadManager(zo::int64 brickCount, zo::int32 slotCount)
    : m_brickCount(brickCount), m_resultStored(new zo::CSignal()), m_indexWanted(new zo::CSignal()),
      m_slots(new zo::CSemaphore(slotCount < 0 ? 0u : static_cast<unsigned>(slotCount)))
{}

zo::int64 CParallelReadAheadManager::nextBrickIndexForReadAhead()
{
    m_slots->acquire(-1);
    zo::CMutexLock lock(m_mutex);
    while (m_nextIndex != kStopped) {
        if (m_nextIndex < m_brickCount) {
            const zo::int64 claimed = m_nextIndex;
            ++m_nextIndex;
            m_results.insert_or_assign(claimed, Result());
            return claimed;
        }
        m_indexWanted->reset();
        zo::CMutexUnlock unlock(m_mutex);
        m_indexWanted->wait(-1);
    }
    m_slots->post(1);
    return -1;
}

void CParallelReadAheadManager::storeReadAheadResult(zo::int64 brickIndex, zo::TBuffer<zo::uint8>* data,
                                                     const zo::CError* error)
{
    zo::CMutexLock lock(m_mutex);
    const auto entry = m_results.find(brickIndex);
    if (entry == m_results.end() || entry->second.isReady())
        return;
    entry->second.data = data;
    entry->second.error = error;
    m_resultStored->set();
}

zo::P<zo::TBuffer<zo::uint8>> CParallelReadAheadManager::getBrickData(zo::int64 brickIndex)
{
    zo::CMutexLock lock(m_mutex);
    if (brickIndex != m_expectedIndex)
        seekToBrick(brickIndex);

    auto entry = m_results.find(brickIndex);
    while (entry == m_results.end() || !entry->second.isReady()) {
        if (m_nextIndex == kStopped)
            throw zo::CError("CParallelReadAheadManager::getBrickData called after stop has been signalled.",
                             zo::String(), -1, zo::CProps(), nullptr);
        m_resultStored->reset();
        {
            zo::CMutexUnlock unlock(m_mutex);
            m_resultStored->wait(-1);
        }
        entry = m_results.find(brickIndex);
    }

    const Result result = entry->second;
    m_results.erase(entry);
    m_slots->post(1);
    ++m_expectedIndex;
    if (result.error)
        result.error->throwClone();
    return result.data;
}

void CParallelReadAheadManager::seekToBrick(zo::int64 brickIndex)
{
    zo::CMutexLock lock(m_mutex);
    if (brickIndex < 0)
        throw zo::CInvalidArgError("CParallelReadAheadManager::seekToBrick", "brickIndex is invalid",
                                   zo::CProps().add("brickIndex", brickIndex));
    if (m_nextIndex == kStopped)
        throw zo::CError("Internal error: CParallelReadAheadManager::seekToBrick called after stop has been signalled",
                         zo::String(), -1, zo::CProps().add("brickIndex", brickIndex), nullptr);
    if (brickIndex != m_expectedIndex) {
        m_expectedIndex = brickIndex;
        m_nextIndex = brickIndex;
        clearResultMap();
    }
    m_indexWanted->set();
}

void CParallelReadAheadManager::clearResultMap()
{
    const auto outstanding = static_cast<unsigned>(m_results.size());
    if (outstanding > 0)
        m_slots->post(outstanding);
    m_results.clear();
}

void CParallelReadAheadManager::signalStop()
{
    zo::CMutexLock lock(m_mutex);
    m_nextIndex = kStopped;
    clearResultMap();
    m_indexWanted->set();
    m_resultStored->set();
}

} // namespace brick
