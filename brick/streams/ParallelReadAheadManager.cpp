// How the read-ahead is coordinated, all under one mutex and one condition:
//
// - Queue. noteRead puts the bricks after a run of reads at the back of the
//   queue, each once, dropping the oldest beyond the bound; loaders take them
//   from the front before anything else.
// - Slots. A loader claims an index for reads in order only while a slot is
//   free, and takes the slot with it; the reader gives it back when it
//   consumes the brick. So at most "slot count" results are held.
// - Claims in increasing order. A loader claims the next index and puts an
//   empty result under it; the entry exists until the reader consumes it or
//   a restart drops it.
// - The reader expects the indexes in the same order. When it asks for any
//   other index (a jump, or the index it just consumed), the read-ahead
//   restarts there: every entry is dropped and its slot given back, and the
//   next index to claim becomes the one asked for. A loader still reading a
//   dropped brick finds no entry when it stores its result, which is then
//   dropped.
// - Stop. Every entry and every queued index is dropped, and everyone who
//   waits is woken: loaders receive -1, the reader gets an error.
#include "brick/streams/ParallelReadAheadManager.h"

#include "zo/Log.h"
#include "zo/Props.h"

#include <algorithm>

namespace brick {

namespace {

// Runs of reads told apart at once (clients reading several files, or a
// client's requests mixed with another's).
constexpr size_t kTrackedReadRuns = 8;
// A read continues a run when it starts this many bricks or fewer away from
// the run's end: clients keep several requests in flight, which arrive a
// little out of order.
constexpr zo::int64 kReorderSlackBricks = 4;
// Reads that must continue a run before it is read ahead, so that random
// reads that happen to land near each other do not start it.
constexpr int kContinuationsBeforeReadAhead = 2;
// Bricks queued at least, whatever the run's reach.
constexpr zo::int64 kMinimumQueuedBricks = 16;

} // namespace

CParallelReadAheadManager::CParallelReadAheadManager(zo::int64 brickCount, zo::int32 slotCount,
                                                     zo::int64 runBricksAhead)
    : m_brickCount(brickCount), m_runBricksAhead(std::max<zo::int64>(0, runBricksAhead)),
      m_maxQueued(static_cast<size_t>(std::max(kMinimumQueuedBricks, 2 * m_runBricksAhead))),
      m_freeSlots(std::max<zo::int32>(0, slotCount))
{}

CParallelReadAheadManager::~CParallelReadAheadManager()
{
    stop();
}

void CParallelReadAheadManager::startLoaders(int loaderCount, Loader loader)
{
    m_loader = std::move(loader);
    m_loaders = std::make_unique<zo::CWorkerPool>(loaderCount);
    for (int i = 0; i < m_loaders->getWorkerCount(); ++i)
        m_loaders->post([this](int worker) { loaderLoop(worker); });
}

// Each loader job runs until stop, so every worker runs exactly one of them.
void CParallelReadAheadManager::loaderLoop(int worker)
{
    for (;;) {
        const zo::int64 brickIndex = nextBrickIndexForReadAhead();
        if (brickIndex == -1)
            return;
        try {
            m_loader(worker, brickIndex);
        } catch (const std::exception& e) {
            // A loader keeps its errors for the reader; one that escapes must
            // not end the read-ahead.
            zo::logError(e, "Error reading a brick ahead (brickIndex:" + zo::toDecimalString(brickIndex) + ").",
                         zo::String::getEmptyString());
        }
    }
}

zo::int64 CParallelReadAheadManager::nextBrickIndexForReadAhead()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        if (m_stopped)
            return -1;
        if (!m_queue.empty()) {
            const zo::int64 queued = m_queue.front();
            m_queue.pop_front();
            return queued;
        }
        if (m_freeSlots > 0 && m_nextIndex < m_brickCount) {
            const zo::int64 claimed = m_nextIndex;
            ++m_nextIndex;
            --m_freeSlots;
            m_results.insert_or_assign(claimed, Result());
            return claimed;
        }
        m_changed.wait(lock);
    }
}

void CParallelReadAheadManager::storeReadAheadResult(zo::int64 brickIndex, zo::TBuffer<zo::uint8>* data,
                                                     const zo::CError* error)
{
    std::lock_guard lock(m_mutex);
    const auto entry = m_results.find(brickIndex);
    if (entry == m_results.end() || entry->second.isReady())
        return;
    entry->second.data = data;
    entry->second.error = error;
    m_changed.notify_all();
}

zo::P<zo::TBuffer<zo::uint8>> CParallelReadAheadManager::getBrickData(zo::int64 brickIndex)
{
    std::unique_lock lock(m_mutex);
    if (brickIndex != m_expectedIndex)
        seekToBrickLocked(brickIndex);

    auto entry = m_results.find(brickIndex);
    while (entry == m_results.end() || !entry->second.isReady()) {
        if (m_stopped)
            throw zo::CError("CParallelReadAheadManager::getBrickData called after stop has been signalled.",
                             zo::String(), -1, zo::CProps(), nullptr);
        m_changed.wait(lock);
        entry = m_results.find(brickIndex);
    }

    const Result result = entry->second;
    m_results.erase(entry);
    ++m_freeSlots;
    ++m_expectedIndex;
    m_changed.notify_all();
    if (result.error)
        result.error->throwClone();
    return result.data;
}

void CParallelReadAheadManager::seekToBrick(zo::int64 brickIndex)
{
    std::lock_guard lock(m_mutex);
    seekToBrickLocked(brickIndex);
}

void CParallelReadAheadManager::seekToBrickLocked(zo::int64 brickIndex)
{
    if (brickIndex < 0)
        throw zo::CInvalidArgError("CParallelReadAheadManager::seekToBrick", "brickIndex is invalid",
                                   zo::CProps().add("brickIndex", brickIndex));
    if (m_stopped)
        throw zo::CError("Internal error: CParallelReadAheadManager::seekToBrick called after stop has been signalled",
                         zo::String(), -1, zo::CProps().add("brickIndex", brickIndex), nullptr);
    if (brickIndex != m_expectedIndex) {
        m_expectedIndex = brickIndex;
        m_nextIndex = brickIndex;
        clearResultMap();
    }
    m_changed.notify_all();
}

void CParallelReadAheadManager::clearResultMap()
{
    m_freeSlots += static_cast<zo::int64>(m_results.size());
    m_results.clear();
}

void CParallelReadAheadManager::noteRead(zo::int64 first, zo::int64 last, const NeedsLoad& needsLoad)
{
    std::lock_guard lock(m_mutex);
    if (m_stopped)
        return;
    const auto near = std::find_if(m_readRuns.begin(), m_readRuns.end(), [first](const ReadRun& run) {
        return first >= run.end - kReorderSlackBricks && first <= run.end + kReorderSlackBricks;
    });
    if (near == m_readRuns.end()) {
        m_readRuns.push_front(ReadRun{last + 1, 0});
        if (m_readRuns.size() > kTrackedReadRuns)
            m_readRuns.pop_back();
        return;
    }
    // A read near a run that does not go past its end (one that arrived
    // late, or the same bricks read again) neither continues nor starts one.
    if (last < near->end)
        return;
    const ReadRun run{last + 1, near->continuations + 1};
    m_readRuns.erase(near);
    m_readRuns.push_front(run);
    if (run.continuations >= kContinuationsBeforeReadAhead)
        queueAfterRun(run, needsLoad);
}

void CParallelReadAheadManager::queueAfterRun(const ReadRun& run, const NeedsLoad& needsLoad)
{
    const zo::int64 stop = std::min(m_brickCount, run.end + m_runBricksAhead);
    bool queued = false;
    for (zo::int64 index = run.end; index < stop; ++index) {
        if (std::find(m_queue.begin(), m_queue.end(), index) != m_queue.end() || !needsLoad(index))
            continue;
        m_queue.push_back(index);
        if (m_queue.size() > m_maxQueued)
            m_queue.pop_front();
        queued = true;
    }
    if (queued)
        m_changed.notify_all();
}

bool CParallelReadAheadManager::isStopped()
{
    std::lock_guard lock(m_mutex);
    return m_stopped;
}

void CParallelReadAheadManager::signalStop()
{
    std::lock_guard lock(m_mutex);
    m_stopped = true;
    clearResultMap();
    m_queue.clear();
    m_changed.notify_all();
}

void CParallelReadAheadManager::stop()
{
    signalStop();
    m_loaders.reset();
}

} // namespace brick
