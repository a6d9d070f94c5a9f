#include "brick/streams/BrickDiskStreamWithParallelReadAhead.h"

#include "zo/Error.h"
#include "zo/Log.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace brick {

using zo::CIOError;

// ---- Read threads -----------------------------------------------------------

void CBrickDiskStreamWithParallelReadAhead::readBrick(CBrick& brick, zo::int32 brickSize,
                                                      CParallelReadAheadManager& manager, zo::CMemPool& pool,
                                                      int64 brickIndex)
{
    P<zo::CMemPoolBuffer> buffer;
    try {
        brick.seek(brickIndex, 0);
        buffer = pool.checkOutItem();
        buffer->setUsed(brickSize);
        // The brick object gives fewer bytes only for a brick whose payload is
        // short; the reader never copies past the disk's end.
        buffer->setUsed(brick.readLaxInsideBrick(buffer->getData(), brickSize));
    } catch (const std::exception& e) {
        // The reader gets the error when it reaches this brick; the threads
        // go on with the next ones.
        const P<CError> error = zo::CStdExceptionError::exceptionToError(&e);
        manager.storeReadAheadResult(brickIndex, nullptr, error.get());
        return;
    }
    manager.storeReadAheadResult(brickIndex, buffer.get(), nullptr);
}

// ---- Stream -----------------------------------------------------------------

CBrickDiskStreamWithParallelReadAhead::CBrickDiskStreamWithParallelReadAhead(CBrickDisk* disk, zo::int32 threadCount)
    : CBrickDiskStreamWithParallelReadAhead(disk, threadCount, threadCount)
{}

CBrickDiskStreamWithParallelReadAhead::CBrickDiskStreamWithParallelReadAhead(CBrickDisk* disk, zo::int32 threadCount,
                                                                             zo::int32 bricksAhead)
    : CInStreamBase("Brick disk stream"), m_disk(disk), m_brickSize(disk->getBrickSize()), m_uri(disk->getDiskFolder()),
      m_length(disk->getSize())
{
    const zo::int32 slots = std::max({bricksAhead, threadCount, 0});
    // One buffer per brick read ahead, one for the brick the reader is in,
    // one spare.
    m_bufferPool = new zo::CMemPool(slots + 2, static_cast<int>(m_brickSize), 1);
    const int64 brickCount = (m_length + m_brickSize - 1) / m_brickSize;
    m_manager = new CParallelReadAheadManager(brickCount, slots);
    try {
        startReadThreads(threadCount);
    } catch (...) {
        close();
        throw;
    }
}

CBrickDiskStreamWithParallelReadAhead::~CBrickDiskStreamWithParallelReadAhead()
{
    try {
        close();
    } catch (const std::exception& e) {
        zo::onExceptionInDestructorIgnored("brick::CBrickDiskStreamWithParallelReadAhead", e, true);
    }
}

// Each read thread reads through a brick object of its own, made here.
void CBrickDiskStreamWithParallelReadAhead::startReadThreads(zo::int32 threadCount)
{
    if (threadCount < 1)
        return;
    std::vector<P<CBrick>> bricks;
    for (zo::int32 i = 0; i < threadCount; ++i)
        bricks.push_back(m_disk->newStandAloneBrickObject());
    // The engine outlives its loaders, so they may hold it by its address.
    CParallelReadAheadManager* manager = m_manager.get();
    m_manager->startLoaders(threadCount,
                            [bricks = std::move(bricks), brickSize = static_cast<zo::int32>(m_brickSize), manager,
                             pool = m_bufferPool](int worker, int64 brickIndex) {
                                readBrick(*bricks[static_cast<size_t>(worker)], brickSize, *manager, *pool, brickIndex);
                            });
}

void CBrickDiskStreamWithParallelReadAhead::checkOpen() const
{
    if (!m_disk)
        throw CIOError(CIOError::StreamClosed, String());
}

int64 CBrickDiskStreamWithParallelReadAhead::getLength()
{
    return m_length;
}

int64 CBrickDiskStreamWithParallelReadAhead::getPosition()
{
    checkOpen();
    return m_position;
}

CURI CBrickDiskStreamWithParallelReadAhead::getURI()
{
    return m_uri;
}

void CBrickDiskStreamWithParallelReadAhead::seek(int64 position)
{
    checkOpen();
    if (position < 0 || position > m_length)
        throw CIOError(CIOError::SeekOutOfRange, String(), zo::CProps().add("uri", m_uri.toString(true)));
    m_position = position;
}

void CBrickDiskStreamWithParallelReadAhead::close()
{
    if (!m_disk)
        return;
    // Threads waiting for an index or a slot wake up and end.
    m_manager->stop();
    m_manager = nullptr;
    m_disk = nullptr;
}

void CBrickDiskStreamWithParallelReadAhead::read(void* dst, int size)
{
    if (readLax(dst, size) != size)
        throw CIOError(CIOError::EndOfData, String(), zo::CProps().add("uri", m_uri.toString(true)));
}

void CBrickDiskStreamWithParallelReadAhead::useBrick(int64 brickIndex)
{
    if (m_currentBrickData && brickIndex == m_currentBrickIndex)
        return;
    // Let go of the old brick first, so that its buffer is free for the threads.
    m_currentBrickData = nullptr;
    m_currentBrickData = m_manager->getBrickData(brickIndex);
    m_currentBrickIndex = brickIndex;
}

int CBrickDiskStreamWithParallelReadAhead::readLax(void* dst, int size)
{
    checkOpen();
    auto* out = static_cast<uint8*>(dst);
    int total = 0;
    int remaining = size;
    while (remaining > 0 && m_position < m_length) {
        const int64 brickIndex = m_position / m_brickSize;
        const int offset = static_cast<int>(m_position % m_brickSize);
        useBrick(brickIndex);
        const int available = m_currentBrickData->getUsed() - offset;
        if (available < 1)
            throw CError("Internal error in CBrickDiskStreamWithParallelReadAhead::readLax: brick data smaller than "
                         "expected.",
                         String(), -1,
                         zo::CProps()
                             .add("uri", m_uri.toString(true))
                             .add("position", m_position)
                             .add("length", m_length)
                             .add("offsetInBrick", offset)
                             .add("brickDataSize", m_currentBrickData->getUsed()),
                         nullptr);
        const int count = static_cast<int>(std::min<int64>(std::min(remaining, available), m_length - m_position));
        std::memcpy(out, m_currentBrickData->getData() + offset, static_cast<size_t>(count));
        out += count;
        m_position += count;
        total += count;
        remaining -= count;
    }
    return total;
}

} // namespace brick
