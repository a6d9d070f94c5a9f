#include "brick/chain/BrickStoreQueue.h"

#include "brick/format/BrickTree.h"

#include "zo/Log.h"

#include <algorithm>
#include <cstring>

namespace brick {

using zo::String;

// One store handed over: its bytes, and the listener of the storer, which
// tells the queue of the store's end. It holds the queue until then.
class CBrickStoreQueue::CEntry : public zo::CBase, public IDoneListener {
public:
    CEntry(CBrickStoreQueue* queue, int64 brickIndex, const TBuffer<uint8>* prepared, IDoneListener* listener)
        : m_queue(queue), brickIndex(brickIndex), prepared(prepared), listener(listener)
    {}

    void onDone(const CError* error) override
    {
        const P<CBrickStoreQueue> queue = std::move(m_queue);
        queue->onStorerDone(*this, error);
    }

    Store asStore() const { return Store{prepared, !prepared, false}; }

private:
    P<CBrickStoreQueue> m_queue;

public:
    const int64 brickIndex;
    const PC<TBuffer<uint8>> prepared;
    P<IDoneListener> listener;
    // Set under the queue's lock once the store holds a slot.
    bool running = false;
    uint64_t number = 0;
};

CBrickStoreQueue::CBrickStoreQueue(CBrickReader* reader, const CURI& childFolder, int maxStores)
    : m_reader(reader), m_fs(reader->getFileSystem()), m_diskFolder(reader->getDiskFolder()),
      m_childFolder(childFolder), m_hasParents(reader->getChainFolders().size() > 1), m_header(reader->getHeader()),
      m_maxStores(std::max(1, maxStores)), m_preparer(reader->createDataPreparer())
{
    TBuffer<uint8> zeros(m_header.getBrickSize());
    if (zeros.getUsed() > 0)
        std::memset(zeros.getData(), 0, static_cast<size_t>(zeros.getUsed()));
    m_preparedZeroBrick = P<TBuffer<uint8>>(new TBuffer<uint8>());
    m_preparer->prepareData(zeros, *m_preparedZeroBrick, m_zeroBrickIndex);
}

CBrickStoreQueue::~CBrickStoreQueue() = default;

// ---- Storing ------------------------------------------------------------------

P<CBrickStorer> CBrickStoreQueue::store(int64 brickIndex, const TBuffer<uint8>* prepared, IDoneListener* listener,
                                        const std::function<bool()>& alreadyStored)
{
    const P<CEntry> entry(new CEntry(this, brickIndex, prepared, listener));
    {
        std::unique_lock lock(m_mutex);
        std::deque<P<CEntry>>& ofBrick = m_stores[brickIndex];
        ofBrick.push_back(entry);
        ++m_handedOver;
        entry->number = m_nextNumber++;
        m_unfinished.insert(entry->number);
        // Stores of one brick never overlap, so the later one always lands last.
        m_changed.wait(lock, [&] { return ofBrick.front() == entry && m_running < m_maxStores; });
        entry->running = true;
        ++m_running;
    }
    try {
        if (alreadyStored && alreadyStored()) {
            std::lock_guard lock(m_mutex);
            noteEnded(*entry, nullptr);
            noteFinished(*entry);
            return P<CBrickStorer>();
        }
        return startStorer(*entry);
    } catch (const std::exception& e) {
        const P<CError> error = zo::CStdExceptionError::exceptionToError(&e);
        zo::logError(*error, "Error initiating background brick storing operation.", String::getEmptyString());
        std::lock_guard lock(m_mutex);
        entry->listener.reset();
        noteEnded(*entry, error.get());
        noteFinished(*entry);
        throw;
    }
}

P<CBrickStorer> CBrickStoreQueue::startStorer(CEntry& entry)
{
    const P<TBuffer<uint8>> zeroBrick = preparedZeroBrickFor(entry.brickIndex);
    // Deleting the file of an all-zero brick would let a parent's brick show
    // through again: on a disk with parents such a brick is stored as a file.
    const TBuffer<uint8>* prepared = entry.prepared.get();
    if (!prepared && m_hasParents)
        prepared = zeroBrick.get();
    const CURI relativeURI = CBrickTree::getRelativeBrickURI(m_header, entry.brickIndex);
    copyParentBrickIntoChild(entry.brickIndex, relativeURI);
    const CURI childRelativeURI = m_childFolder.isEmpty() ? CURI() : relativeURI;
    return CBrickStorer::start(m_fs.get(), m_diskFolder, relativeURI, m_childFolder, childRelativeURI, prepared,
                               zeroBrick.get(), &entry);
}

P<TBuffer<uint8>> CBrickStoreQueue::preparedZeroBrickFor(int64 brickIndex)
{
    std::lock_guard lock(m_zeroMutex);
    // Only disks with a parent or a child ever store the zero brick.
    if (!m_preparer->bindsBrickIndex() || m_zeroBrickIndex == brickIndex || (m_childFolder.isEmpty() && !m_hasParents))
        return m_preparedZeroBrick;
    // Storers still in flight keep their reference to the former buffer.
    TBuffer<uint8> zeros(m_header.getBrickSize());
    if (zeros.getUsed() > 0)
        std::memset(zeros.getData(), 0, static_cast<size_t>(zeros.getUsed()));
    const P<TBuffer<uint8>> zeroBrick(new TBuffer<uint8>());
    m_preparer->prepareData(zeros, *zeroBrick, brickIndex);
    m_preparedZeroBrick = zeroBrick;
    m_zeroBrickIndex = brickIndex;
    return zeroBrick;
}

// A disk between a parent and a child shows, where it has no file of its own,
// the brick of its nearest parent, and so does its child. Before such a brick
// is written, the child receives a copy of that parent's file: the storer then
// finds the brick already present in the child and leaves it there, so the
// child keeps reading what it read before (instead of the zeros the storer
// would give a child when this disk has no old file to copy).
void CBrickStoreQueue::copyParentBrickIntoChild(int64 brickIndex, const CURI& relativeURI)
{
    if (m_childFolder.isEmpty() || !m_hasParents)
        return;
    if (m_fs->pathExists(m_diskFolder << relativeURI) || m_fs->pathExists(m_childFolder << relativeURI))
        return;
    const std::vector<CURI>& chain = m_reader->getChainFolders();
    for (size_t depth = 1; depth < chain.size(); ++depth) {
        const auto fail = [&](const CError& cause) {
            throw CError("Copying a parent disk's brick into the child disk failed.", String(), -1,
                         zo::CProps()
                             .add("brickIndex", brickIndex)
                             .add("parentFile", (chain[depth] << relativeURI).toString(true))
                             .add("childFolder", m_childFolder.toString(true)),
                         &cause);
        };
        P<zo::CMemPoolBuffer> file;
        try {
            file = m_reader->readFile(static_cast<int>(depth), brickIndex);
        } catch (const CError& e) {
            fail(e);
        }
        if (!file)
            continue;
        const P<TBuffer<uint8>> zeroBrick = preparedZeroBrickFor(brickIndex);
        const P<CBrickStorer> copier = CBrickStorer::start(m_fs.get(), m_childFolder, relativeURI, CURI(), CURI(),
                                                           file.get(), zeroBrick.get(), nullptr);
        copier->waitFinished(-1);
        if (const PC<CError> error = copier->getError())
            fail(*error);
        return;
    }
}

void CBrickStoreQueue::onStorerDone(CEntry& entry, const CError* error)
{
    if (error)
        zo::logError(*error, "Error during background brick storing operation.", String::getEmptyString());
    const P<IDoneListener> listener = std::move(entry.listener);
    std::function<void(int64)> failureHook;
    {
        std::lock_guard lock(m_mutex);
        noteEnded(entry, error);
        if (error)
            failureHook = m_failureHook;
    }
    // The entry stays unfinished while its listener runs, even if it throws.
    struct Finish {
        CBrickStoreQueue& queue;
        const CEntry& entry;
        ~Finish()
        {
            std::lock_guard lock(queue.m_mutex);
            queue.noteFinished(entry);
        }
    } finish{*this, entry};
    if (failureHook)
        failureHook(entry.brickIndex);
    if (listener)
        listener->onDone(error);
}

void CBrickStoreQueue::setFailureHook(std::function<void(int64 brickIndex)> hook)
{
    std::lock_guard lock(m_mutex);
    m_failureHook = std::move(hook);
}

void CBrickStoreQueue::noteFinished(const CEntry& entry)
{
    m_unfinished.erase(entry.number);
    m_changed.notify_all();
}

void CBrickStoreQueue::noteEnded(CEntry& entry, const CError* failure)
{
    const auto ofBrick = m_stores.find(entry.brickIndex);
    std::deque<P<CEntry>>& stores = ofBrick->second;
    stores.erase(std::find(stores.begin(), stores.end(), P<CEntry>(&entry)));
    // Only the newest store of a brick decides whether it counts as stored:
    // a later one, already handed over, replaces the bytes of an earlier one.
    const bool newest = stores.empty();
    if (newest)
        m_stores.erase(ofBrick);
    if (failure)
        m_failures.push_back(Failure{entry.brickIndex, failure->clone()});
    if (newest && failure)
        m_unstored[entry.brickIndex] = Unstored{failure->clone(), Store{entry.prepared, !entry.prepared, true}};
    else if (newest)
        m_unstored.erase(entry.brickIndex);
    --m_handedOver;
    if (entry.running)
        --m_running;
    entry.running = false;
    m_changed.notify_all();
}

void CBrickStoreQueue::recordFailure(int64 brickIndex, const CError& error)
{
    zo::logError(error, "Error initiating background brick storing operation.", String::getEmptyString());
    std::lock_guard lock(m_mutex);
    m_failures.push_back(Failure{brickIndex, error.clone()});
    m_unstored[brickIndex] = Unstored{error.clone(), std::nullopt};
}

// ---- Looking up and waiting ------------------------------------------------------

std::optional<CBrickStoreQueue::Store> CBrickStoreQueue::getStoreOf(int64 brickIndex)
{
    std::lock_guard lock(m_mutex);
    const auto stores = m_stores.find(brickIndex);
    if (stores != m_stores.end())
        return stores->second.back()->asStore();
    const auto unstored = m_unstored.find(brickIndex);
    if (unstored != m_unstored.end())
        return unstored->second.kept;
    return std::nullopt;
}

bool CBrickStoreQueue::waitUntil(std::unique_lock<std::mutex>& lock, int timeoutMillis,
                                 const std::function<bool()>& done)
{
    if (timeoutMillis < 0) {
        m_changed.wait(lock, done);
        return true;
    }
    return m_changed.wait_until(lock, Clock::now() + std::chrono::milliseconds(timeoutMillis), done);
}

bool CBrickStoreQueue::waitForFreeSlot(int timeoutMillis)
{
    std::unique_lock lock(m_mutex);
    return waitUntil(lock, timeoutMillis, [this] { return m_handedOver < m_maxStores; });
}

bool CBrickStoreQueue::waitForStoresOf(int64 brickIndex, int timeoutMillis)
{
    std::unique_lock lock(m_mutex);
    return waitUntil(lock, timeoutMillis, [&] { return m_stores.count(brickIndex) == 0; });
}

bool CBrickStoreQueue::waitForAll(int timeoutMillis)
{
    std::unique_lock lock(m_mutex);
    const uint64_t end = m_nextNumber;
    return waitUntil(lock, timeoutMillis, [&] { return m_unfinished.empty() || *m_unfinished.begin() >= end; });
}

int CBrickStoreQueue::getStoresInFlight()
{
    std::lock_guard lock(m_mutex);
    return m_handedOver;
}

std::vector<CBrickStoreQueue::Failure> CBrickStoreQueue::getFailures()
{
    std::lock_guard lock(m_mutex);
    return m_failures;
}

bool CBrickStoreQueue::hasFailures()
{
    std::lock_guard lock(m_mutex);
    return !m_failures.empty();
}

std::vector<CBrickStoreQueue::Failure> CBrickStoreQueue::getUnstoredBricks()
{
    std::lock_guard lock(m_mutex);
    std::vector<Failure> unstored;
    for (const auto& [index, brick] : m_unstored)
        unstored.push_back(Failure{index, brick.error});
    return unstored;
}

} // namespace brick
