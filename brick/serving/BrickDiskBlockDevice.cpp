#include "brick/serving/BrickDiskBlockDevice.h"

#include "zo/Log.h"
#include "zo/WorkerPool.h"

#include <algorithm>
#include <cstring>
#include <thread>

namespace brick {

using zo::CIOError;
using zo::CProps;

// One brick in the cache. `data` is null while the brick is being loaded;
// its bytes, and which buffer `data` is, are guarded by `bytes`, everything
// else by the device's mutex.
struct CBrickDiskBlockDevice::CachedBrick {
    int64 index = 0;
    BrickData data;
    // `data` is also the buffer of a pending store, which must not change:
    // the next write copies it first (copy on write), so that a flush hands
    // the cached bricks to their stores without copying them.
    bool sharedWithStore = false;
    // False while `data` holds zeros in place of bytes that were never
    // loaded (the brick is about to be overwritten whole): what it holds then
    // tells nothing about what the disk holds.
    bool bytesKnown = true;
    bool loading = false;
    // A thread prepares `data` and hands it to the store queue: the brick
    // stays in the cache (reads find it there) and is not handed over again
    // until then, so that stores of a brick start in the order of its bytes.
    bool handingOver = false;
    bool dirty = false;
    int users = 0;
    std::list<int64>::iterator recency;
    std::shared_mutex bytes;
};

// Hears the end of one brick's store; a failure puts the brick's bytes back
// into the cache (keepUnstoredBytes). The device waits for every store
// before it goes, so the raw pointer stays valid.
class CBrickDiskBlockDevice::CStoreListener : public zo::CBase, public zo::IDoneListener {
public:
    CStoreListener(CBrickDiskBlockDevice* device, int64 index, BrickData data)
        : m_device(device), m_index(index), m_data(std::move(data))
    {}
    void onDone(const zo::CError* error) override
    {
        if (error)
            m_device->keepUnstoredBytes(m_index, m_data, true);
        m_data.reset();
    }

private:
    CBrickDiskBlockDevice* m_device;
    int64 m_index;
    BrickData m_data;
};

namespace {

bool isAllZero(const zo::TBuffer<uint8>& buffer)
{
    return zo::isAllZero(buffer.getData(), static_cast<size_t>(buffer.getUsed()));
}

constexpr size_t kMinimumCachedBricks = 4;

// How far reads in order are read ahead, in bricks, at most; never more than
// a quarter of the cache, so that read-ahead does not evict what it loaded
// before the reader gets there.
constexpr int64 kReadAheadBricks = 8;

int readAheadThreadCount()
{
    return static_cast<int>(std::clamp(std::thread::hardware_concurrency(), 1u, 4u));
}

} // namespace

CBrickDiskBlockDevice::CBrickDiskBlockDevice(CBrickDisk* disk, int64 cacheBytes)
    : m_diskSize(disk->getSize()), m_brickSize(disk->getBrickSize()),
      m_writable(disk->getAccess() == zo::IIOStream::AccessReadWrite),
      m_capacity(
          std::max<size_t>(kMinimumCachedBricks, static_cast<size_t>(std::max<int64>(0, cacheBytes) / m_brickSize))),
      m_brickCount(disk->getHeader().getBrickCount()), m_disk(disk)
{
    m_brickBuffers = P<zo::CMemPool>(new zo::CMemPool(0, static_cast<int>(m_brickSize), 1));
    m_preparedBuffers = P<zo::CMemPool>(new zo::CMemPool(0, static_cast<int>(m_brickSize), 1));
    reserveCacheMemory();
    // Only runs of reads are read ahead: no slot for reads in order.
    const int64 bricksAhead = std::min<int64>(kReadAheadBricks, static_cast<int64>(m_capacity / 4));
    m_readAhead = new CParallelReadAheadManager(m_brickCount, 0, bricksAhead);
    m_readAhead->startLoaders(readAheadThreadCount(), [this](int, int64 index) { readAheadOne(index); });
}

CBrickDiskBlockDevice::~CBrickDiskBlockDevice()
{
    m_readAhead->stop();
    try {
        std::unique_lock gate(m_gate);
        flushLocked();
    } catch (const std::exception& e) {
        zo::onExceptionInDestructorIgnored("brick::CBrickDiskBlockDevice", e, true);
    }
    // The stores' listeners point at the device.
    if (const P<CBrickStoreQueue> queue = storeQueue())
        queue->waitForAll(-1);
}

P<CBrickDisk> CBrickDiskBlockDevice::getDisk()
{
    std::lock_guard lock(m_mutex);
    return m_disk;
}

// ---- Reading and writing ----------------------------------------------------

void CBrickDiskBlockDevice::read(void* dst, int64 offset, int64 size)
{
    std::shared_lock gate(m_gate);
    checkRange(offset, size, CIOError::EndOfData);
    if (size > 0) {
        std::lock_guard lock(m_mutex);
        m_readAhead->noteRead(offset / m_brickSize, (offset + size - 1) / m_brickSize,
                              [this](int64 index) { return m_cache.count(index) == 0 && !inStoreQueue(index); });
    }
    auto* out = static_cast<uint8*>(dst);
    while (size > 0) {
        const int64 index = offset / m_brickSize;
        const int64 inBrick = offset % m_brickSize;
        const int64 count = std::min(size, m_brickSize - inBrick);
        const std::shared_ptr<CachedBrick> brick = acquire(index, false);
        {
            std::shared_lock bytes(brick->bytes);
            std::memcpy(out, brick->data->getData() + inBrick, static_cast<size_t>(count));
        }
        releaseBrick(brick, false);
        out += count;
        offset += count;
        size -= count;
    }
}

void CBrickDiskBlockDevice::write(const void* src, int64 offset, int64 size)
{
    const auto* begin = static_cast<const uint8*>(src);
    modify(offset, size, [begin, offset](uint8* dst, int64 at, int64 count, bool apply) {
        const uint8* in = begin + (at - offset);
        if (!apply)
            return std::memcmp(dst, in, static_cast<size_t>(count)) != 0;
        std::memcpy(dst, in, static_cast<size_t>(count));
        return true;
    });
}

void CBrickDiskBlockDevice::zero(int64 offset, int64 size)
{
    modify(offset, size, [](uint8* dst, int64, int64 count, bool apply) {
        if (!apply)
            return !zo::isAllZero(dst, static_cast<size_t>(count));
        std::memset(dst, 0, static_cast<size_t>(count));
        return true;
    });
}

// Bytes that already read as they are to be written are not a change: the
// brick stays clean, so rewriting a disk with what it holds stores nothing.
void CBrickDiskBlockDevice::modify(int64 offset, int64 size, const Change& change)
{
    std::shared_lock gate(m_gate);
    if (!m_writable)
        throw CIOError(CIOError::ReadOnly, "Brick disk is served read-only.",
                       CProps().add("position", offset).add("size", size));
    checkRange(offset, size, CIOError::WriteBeyondSize);
    while (size > 0) {
        const int64 index = offset / m_brickSize;
        const int64 inBrick = offset % m_brickSize;
        const int64 count = std::min(size, m_brickSize - inBrick);
        const int64 bytesInBrick = std::min(m_brickSize, m_diskSize - index * m_brickSize);
        const std::shared_ptr<CachedBrick> brick = acquire(index, inBrick == 0 && count == bytesInBrick);
        bool changed = false;
        {
            std::unique_lock bytes(brick->bytes);
            uint8* dst = brick->data->getData() + inBrick;
            if (!brick->bytesKnown || change(dst, offset, count, false)) {
                if (brick->sharedWithStore) {
                    brick->data = copyOf(*brick->data);
                    brick->sharedWithStore = false;
                    dst = brick->data->getData() + inBrick;
                }
                change(dst, offset, count, true);
                brick->bytesKnown = true;
                changed = true;
            }
        }
        releaseBrick(brick, changed);
        offset += count;
        size -= count;
    }
}

void CBrickDiskBlockDevice::checkRange(int64 offset, int64 size, CIOError::Code code) const
{
    if (offset < 0 || size < 0 || offset > m_diskSize || size > m_diskSize - offset)
        throw CIOError(code, "Range lies outside the brick disk.",
                       CProps().add("position", offset).add("size", size).add("diskSize", m_diskSize));
}

// ---- The cache ------------------------------------------------------------------

std::shared_ptr<CBrickDiskBlockDevice::CachedBrick> CBrickDiskBlockDevice::acquire(int64 index, bool overwriteWhole)
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        const auto found = m_cache.find(index);
        if (found == m_cache.end())
            break;
        const std::shared_ptr<CachedBrick> brick = found->second;
        if (brick->loading) {
            // Another thread loads it; a failed load removes it, and this
            // thread then tries for itself.
            m_changed.wait(lock);
            continue;
        }
        ++brick->users;
        m_recency.splice(m_recency.begin(), m_recency, brick->recency);
        return brick;
    }

    const std::shared_ptr<CachedBrick> brick = addToCache(index);
    brick->users = 1;
    if (overwriteWhole) {
        brick->data = newBrickData(true);
        brick->bytesKnown = false;
        return brick;
    }
    // A brick whose store is in flight loads from the store queue's bytes.
    loadIntoCache(brick, lock);
    return brick;
}

std::shared_ptr<CBrickDiskBlockDevice::CachedBrick> CBrickDiskBlockDevice::addToCache(int64 index)
{
    auto brick = std::make_shared<CachedBrick>();
    brick->index = index;
    m_recency.push_front(index);
    brick->recency = m_recency.begin();
    m_cache[index] = brick;
    return brick;
}

void CBrickDiskBlockDevice::loadIntoCache(const std::shared_ptr<CachedBrick>& brick, std::unique_lock<std::mutex>& lock)
{
    brick->loading = true;
    lock.unlock();
    BrickData data;
    try {
        data = loadBrick(brick->index);
    } catch (...) {
        lock.lock();
        m_recency.erase(brick->recency);
        m_cache.erase(brick->index);
        m_changed.notify_all();
        throw;
    }
    lock.lock();
    brick->data = std::move(data);
    brick->loading = false;
    m_changed.notify_all();
}

void CBrickDiskBlockDevice::releaseBrick(const std::shared_ptr<CachedBrick>& brick, bool changed)
{
    std::unique_lock lock(m_mutex);
    if (changed)
        brick->dirty = true;
    --brick->users;
    evictWhileOverCapacity(lock);
}

// Evicts as many bricks as the cache holds too many now. A brick whose store
// fails comes back into the cache (see keepUnstoredBytes), possibly while this
// runs; it waits for the next call, so that a file system that fails every
// store cannot keep this loop going.
void CBrickDiskBlockDevice::evictWhileOverCapacity(std::unique_lock<std::mutex>& lock)
{
    for (size_t excess = m_cache.size() > m_capacity ? m_cache.size() - m_capacity : 0;
         excess > 0 && m_cache.size() > m_capacity; --excess) {
        // The least recently used brick that no thread holds.
        auto victim = m_recency.end();
        for (auto it = m_recency.end(); it != m_recency.begin();) {
            --it;
            const CachedBrick& candidate = *m_cache.at(*it);
            if (candidate.users == 0 && !candidate.loading && !candidate.handingOver) {
                victim = it;
                break;
            }
        }
        if (victim == m_recency.end())
            return;
        const std::shared_ptr<CachedBrick> brick = m_cache.at(*victim);
        if (brick->dirty) {
            // The brick leaves the cache once it is handed over, unless it
            // was used or changed meanwhile.
            const BrickData data = beginHandOver(*brick);
            lock.unlock();
            handOver(brick->index, data);
            lock.lock();
            endHandOver(*brick);
            if (brick->users != 0 || brick->dirty)
                continue;
        }
        m_recency.erase(brick->recency);
        m_cache.erase(brick->index);
    }
}

CBrickDiskBlockDevice::BrickData CBrickDiskBlockDevice::loadBrick(int64 index)
{
    P<CBrickReader> reader;
    P<CBrickStoreQueue> queue;
    {
        std::lock_guard lock(m_mutex);
        reader = m_disk->getBrickReader();
        queue = m_disk->getStoreQueue();
    }
    BrickData data = newBrickData(false);
    try {
        // The newest bytes of a brick whose store has not ended (or failed)
        // are in the store queue; the files hold older ones.
        const std::optional<CBrickStoreQueue::Store> store =
            queue ? queue->getStoreOf(index) : std::optional<CBrickStoreQueue::Store>();
        if (store && store->prepared)
            reader->decode(index, *store->prepared, *data);
        else if (store)
            data->setUsed(0);
        else
            reader->read(index, *data);
    } catch (const std::exception& e) {
        zo::logError(e,
                     "Error loading brick (diskFolder:" + reader->getDiskFolder().toString(true) +
                         ", brickIndex:" + zo::toDecimalString(index) + ").",
                     zo::String::getEmptyString());
        throw;
    }
    // A brick file that holds fewer bytes than a brick reads as zeros beyond them.
    const int got = data->getUsed();
    data->setUsed(static_cast<int>(m_brickSize));
    if (got < m_brickSize)
        std::memset(data->getData() + got, 0, static_cast<size_t>(m_brickSize - got));
    return data;
}

// The buffers are written once here, so that the system finds their memory
// now and not while the first bricks enter the cache, where every new page
// would wait for it; they wait in the pool.
void CBrickDiskBlockDevice::reserveCacheMemory()
{
    const int64 count = std::min<int64>(static_cast<int64>(m_capacity), m_brickCount);
    std::vector<BrickData> buffers;
    buffers.reserve(static_cast<size_t>(count));
    for (int64 i = 0; i < count; ++i)
        buffers.push_back(newBrickData(true));
}

CBrickDiskBlockDevice::BrickData CBrickDiskBlockDevice::newBrickData(bool zeroed) const
{
    BrickData data(m_brickBuffers->checkOutItem());
    data->setUsed(static_cast<int>(m_brickSize));
    if (zeroed)
        std::memset(data->getData(), 0, static_cast<size_t>(m_brickSize));
    return data;
}

CBrickDiskBlockDevice::BrickData CBrickDiskBlockDevice::copyOf(const zo::TBuffer<uint8>& data) const
{
    BrickData copy = newBrickData(false);
    std::memcpy(copy->getData(), data.getData(), static_cast<size_t>(m_brickSize));
    return copy;
}

// ---- Read-ahead -------------------------------------------------------------------

void CBrickDiskBlockDevice::readAheadOne(int64 index)
{
    // The gate keeps the disk from being replaced while its brick objects
    // load; it is taken before the brick is marked loading, so that nobody
    // who waits for the brick holds up whoever waits for the gate.
    std::shared_lock gate(m_gate);
    std::unique_lock lock(m_mutex);
    if (m_cache.count(index) != 0 || inStoreQueue(index))
        return;
    try {
        loadIntoCache(addToCache(index), lock);
    } catch (...) {
        // Logged by loadBrick; a reader that needs the brick loads it again
        // and meets the error itself.
        return;
    }
    evictWhileOverCapacity(lock);
}

// ---- Storing ------------------------------------------------------------------------

P<CBrickStoreQueue> CBrickDiskBlockDevice::storeQueue()
{
    std::lock_guard lock(m_mutex);
    return m_disk->getStoreQueue();
}

bool CBrickDiskBlockDevice::inStoreQueue(int64 index)
{
    CBrickStoreQueue* queue = m_disk->getStoreQueue();
    return queue && queue->getStoreOf(index).has_value();
}

CBrickDiskBlockDevice::BrickData CBrickDiskBlockDevice::beginHandOver(CachedBrick& brick)
{
    BrickData data;
    {
        // Waits for a write in progress; later writes copy the buffer.
        std::unique_lock bytes(brick.bytes);
        data = brick.data;
        brick.sharedWithStore = true;
    }
    brick.dirty = false;
    brick.handingOver = true;
    return data;
}

void CBrickDiskBlockDevice::endHandOver(CachedBrick& brick)
{
    brick.handingOver = false;
    m_changed.notify_all();
}

// Prepares the brick on the calling thread and hands it to the store queue,
// which stores nothing when the disk already holds its bytes. A failure is
// kept with the brick: see keepUnstoredBytes.
void CBrickDiskBlockDevice::handOver(int64 index, const BrickData& data)
{
    const P<CBrickStoreQueue> queue = storeQueue();
    P<zo::TBuffer<uint8>> prepared;
    try {
        if (!isAllZero(*data)) {
            const P<CBrickDataPreparer> preparer = borrowPreparer();
            prepared = m_preparedBuffers->checkOutItem();
            preparer->prepareData(*data, *prepared, index);
            returnPreparer(preparer);
        }
    } catch (const std::exception& e) {
        queue->recordFailure(index, *zo::CStdExceptionError::exceptionToError(&e));
        keepUnstoredBytes(index, data, false);
        return;
    }
    const P<CStoreListener> listener(new CStoreListener(this, index, data));
    P<CBrickReader> reader;
    {
        std::lock_guard lock(m_mutex);
        reader = m_disk->getBrickReader();
    }
    const auto alreadyStored = [&] { return reader->holds(index, *data, prepared.get()); };
    try {
        queue->store(index, prepared.get(), listener.get(), alreadyStored);
    } catch (const std::exception&) {
        // Logged and recorded by the queue.
        keepUnstoredBytes(index, data, false);
    }
}

// A store that failed leaves its brick dirty: nothing acknowledged is dropped.
// Unless a later store of the brick is on its way, the bytes go back into the
// cache as a changed brick, where reads find them and the next eviction or
// flush stores them again; the brick counts as unstored (in the store queue)
// until a store of it succeeds.
void CBrickDiskBlockDevice::keepUnstoredBytes(int64 index, const BrickData& data, bool unlessLaterStore)
{
    std::lock_guard lock(m_mutex);
    if (unlessLaterStore) {
        // The queue keeps a failed store's bytes until the brick is stored
        // again: a later store, in flight or ended, holds newer bytes.
        const std::optional<CBrickStoreQueue::Store> store = m_disk->getStoreQueue()->getStoreOf(index);
        if (!store || !store->failed)
            return;
    }
    const auto cached = m_cache.find(index);
    if (cached != m_cache.end()) {
        // The cache holds these bytes, or newer ones written since.
        cached->second->dirty = true;
        return;
    }
    const std::shared_ptr<CachedBrick> brick = addToCache(index);
    brick->data = data;
    brick->sharedWithStore = true;
    brick->dirty = true;
    m_changed.notify_all();
}

P<CBrickDataPreparer> CBrickDiskBlockDevice::borrowPreparer()
{
    std::unique_lock lock(m_mutex);
    if (!m_idlePreparers.empty()) {
        P<CBrickDataPreparer> preparer = m_idlePreparers.back();
        m_idlePreparers.pop_back();
        return preparer;
    }
    const P<CBrickDisk> disk = m_disk;
    lock.unlock();
    return disk->createDataPreparer();
}

void CBrickDiskBlockDevice::returnPreparer(P<CBrickDataPreparer> preparer)
{
    std::lock_guard lock(m_mutex);
    m_idlePreparers.push_back(std::move(preparer));
}

std::vector<int64> CBrickDiskBlockDevice::getUnstoredBricks()
{
    std::vector<int64> indexes;
    if (const P<CBrickStoreQueue> queue = storeQueue()) {
        for (const CBrickStoreQueue::Failure& failure : queue->getUnstoredBricks())
            indexes.push_back(failure.brickIndex);
    }
    return indexes;
}

void CBrickDiskBlockDevice::flush()
{
    std::shared_lock gate(m_gate);
    flushLocked();
}

void CBrickDiskBlockDevice::flushLocked()
{
    // Bricks that changed, and bricks that another thread hands over right
    // now: their stores must be in the queue before it is waited for. A
    // brick handed over elsewhere, or loading (a failed store may have put
    // its bytes back as changed meanwhile), is waited for, holding no
    // hand-over of this thread, and stored here when it changed meanwhile.
    // First the stores already under way: one that fails puts its brick
    // back as changed, and this flush stores it again.
    const P<CBrickStoreQueue> queue = storeQueue();
    if (queue)
        queue->waitForAll(-1);
    std::vector<int64> pending;
    {
        std::lock_guard lock(m_mutex);
        for (const auto& [index, brick] : m_cache) {
            if (brick->dirty || brick->handingOver)
                pending.push_back(index);
        }
    }
    while (!pending.empty()) {
        std::vector<int64> elsewhere;
        std::vector<std::pair<int64, BrickData>> handOvers;
        std::vector<std::shared_ptr<CachedBrick>> handedOver;
        {
            std::lock_guard lock(m_mutex);
            for (const int64 index : pending) {
                const auto cached = m_cache.find(index);
                if (cached == m_cache.end())
                    continue;
                if (cached->second->handingOver || cached->second->loading) {
                    elsewhere.push_back(index);
                } else if (cached->second->dirty) {
                    handOvers.emplace_back(index, beginHandOver(*cached->second));
                    handedOver.push_back(cached->second);
                }
            }
        }
        handOverInParallel(handOvers);
        std::unique_lock lock(m_mutex);
        for (const std::shared_ptr<CachedBrick>& brick : handedOver)
            endHandOver(*brick);
        for (const int64 index : elsewhere) {
            m_changed.wait(lock, [&] {
                const auto cached = m_cache.find(index);
                return cached == m_cache.end() || (!cached->second->handingOver && !cached->second->loading);
            });
        }
        pending = std::move(elsewhere);
    }
    if (queue)
        queue->waitForAll(-1);
    // The stored files' names become durable with the batch (CBrickStorer).
    P<CBrickDisk> disk;
    {
        std::lock_guard lock(m_mutex);
        disk = m_disk;
    }
    disk->getFileSystem()->syncBatch();

    const std::vector<CBrickStoreQueue::Failure> unstored =
        queue ? queue->getUnstoredBricks() : std::vector<CBrickStoreQueue::Failure>();
    if (unstored.empty())
        return;
    throw zo::CError("Storing changed bricks failed.", zo::String(), -1,
                     CProps()
                         .add("diskFolder", disk->getDiskFolder().toString(true))
                         .add("unstoredBricks", static_cast<int64>(unstored.size()))
                         .add("brickIndex", unstored.front().brickIndex),
                     unstored.front().error.get());
}

// Preparing a brick (compressing, encrypting) is the costly part of a store,
// so a flush of many bricks prepares them on one worker per processor.
void CBrickDiskBlockDevice::handOverInParallel(const std::vector<std::pair<int64, BrickData>>& bricks)
{
    if (bricks.size() < 2) {
        for (const auto& [index, data] : bricks)
            handOver(index, data);
        return;
    }
    const size_t workerCount = std::min<size_t>(bricks.size(), std::max(1u, std::thread::hardware_concurrency()));
    zo::CWorkerPool workers(static_cast<int>(workerCount));
    for (const auto& brick : bricks)
        workers.post([this, &brick](int) { handOver(brick.first, brick.second); });
    workers.wait();
}

// ---- Extents ------------------------------------------------------------------------

std::vector<CBrickDiskBlockDevice::Extent> CBrickDiskBlockDevice::mapExtents(int64 offset, int64 size)
{
    std::shared_lock gate(m_gate);
    if (offset < 0 || offset >= m_diskSize)
        throw CIOError(CIOError::EndOfData, "Range lies outside the brick disk.",
                       CProps().add("position", offset).add("size", size).add("diskSize", m_diskSize));
    const int64 end = offset + std::min(std::max<int64>(0, size), m_diskSize - offset);
    const int64 first = offset / m_brickSize;
    const int64 last = (end - 1) / m_brickSize;

    // The cache and the store queue know the bricks being changed; the
    // files tell the others, asked for all at once.
    std::vector<std::optional<ExtentKind>> kinds;
    std::vector<int64> unknown;
    P<CBrickDisk> disk;
    for (int64 index = first; index <= last; ++index) {
        kinds.push_back(kindOfChangingBrick(index, disk));
        if (!kinds.back())
            unknown.push_back(index);
    }
    if (!unknown.empty()) {
        const std::vector<bool> held = disk->getBrickReader()->holdFiles(unknown);
        for (size_t i = 0; i < unknown.size(); ++i)
            kinds[static_cast<size_t>(unknown[i] - first)] = held[i] ? ExtentKind::Data : ExtentKind::Hole;
    }

    std::vector<Extent> extents;
    for (int64 position = offset; position < end;) {
        const int64 index = position / m_brickSize;
        const int64 brickEnd = std::min(end, (index + 1) * m_brickSize);
        const ExtentKind kind = *kinds[static_cast<size_t>(index - first)];
        if (!extents.empty() && extents.back().kind == kind)
            extents.back().length += brickEnd - position;
        else
            extents.push_back(Extent{position, brickEnd - position, kind});
        position = brickEnd;
    }
    return extents;
}

std::optional<CBrickDiskBlockDevice::ExtentKind> CBrickDiskBlockDevice::kindOfChangingBrick(int64 index,
                                                                                            P<CBrickDisk>& disk)
{
    std::lock_guard lock(m_mutex);
    disk = m_disk;
    const auto cached = m_cache.find(index);
    if (cached != m_cache.end()) {
        const CachedBrick& brick = *cached->second;
        if (brick.loading)
            return ExtentKind::Data;
        // A clean brick reads as it is stored, so the files tell; one being
        // handed over may not be in the store queue yet.
        if (brick.dirty || brick.handingOver) {
            std::shared_lock bytes(cached->second->bytes);
            return isAllZero(*brick.data) ? ExtentKind::Zero : ExtentKind::Data;
        }
    }
    if (CBrickStoreQueue* queue = m_disk->getStoreQueue()) {
        const std::optional<CBrickStoreQueue::Store> store = queue->getStoreOf(index);
        if (store)
            return store->allZero ? ExtentKind::Zero : ExtentKind::Data;
    }
    return std::nullopt;
}

// ---- Replacing the disk ---------------------------------------------------------------

void CBrickDiskBlockDevice::pauseAndReplaceDisk(const std::function<P<CBrickDisk>(P<CBrickDisk>)>& replaceDisk)
{
    std::unique_lock gate(m_gate);
    flushLocked();
    P<CBrickDisk> current;
    {
        std::lock_guard lock(m_mutex);
        current = m_disk;
    }
    const P<CBrickDisk> replacement = replaceDisk(current);
    if (!replacement)
        return;
    std::lock_guard lock(m_mutex);
    // The store workers know the old disk's child and parents; new ones are
    // made from the replacement on demand.
    m_idlePreparers.clear();
    m_disk = replacement;
}

} // namespace brick
