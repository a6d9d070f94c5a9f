#include "brick/streams/BrickDiskStreamWithCache.h"

#include "zo/Error.h"
#include "zo/Log.h"

#include <algorithm>
#include <cstring>

namespace brick {

using zo::CIOError;

namespace {

// The cache holds about this many bytes of bricks ...
constexpr int kCacheBytes = 33554432;
// ... but never fewer bricks than this.
constexpr int kMinCachedBricks = 10;

int cacheCapacity(int brickSize)
{
    const int capacity = kCacheBytes / brickSize;
    return capacity < kMinCachedBricks ? kMinCachedBricks : capacity;
}

} // namespace

CBrickDiskStreamWithCache::CBrickDiskStreamWithCache(CBrickDisk* disk)
    : CStreamBase("Brick disk stream"), m_uri(disk->getDiskFolder()),
      m_brickSize(static_cast<int>(disk->getBrickSize())), m_innerStream(new CBrickDiskStream(disk)),
      m_length(m_innerStream->getLength())
{
    const int capacity = cacheCapacity(m_brickSize);
    m_cache = new BrickCache(capacity, true);
    m_bufferPool = new zo::CMemPool(capacity, m_brickSize, 1);
}

CBrickDiskStreamWithCache::~CBrickDiskStreamWithCache()
{
    try {
        // The inner stream may hold the disk's last reference, whose release
        // waits for the disk's background saves.
        m_bufferPool = nullptr;
        m_cache = nullptr;
        m_innerStream = nullptr;
    } catch (const std::exception& e) {
        zo::onExceptionInDestructorIgnored("brick::CBrickDiskStreamWithCache", e, true);
    }
}

void CBrickDiskStreamWithCache::checkOpen() const
{
    if (!m_innerStream)
        throw CIOError(CIOError::StreamClosed, String());
}

int64 CBrickDiskStreamWithCache::getLength()
{
    checkOpen();
    return m_length;
}

int64 CBrickDiskStreamWithCache::getPosition()
{
    checkOpen();
    return m_position;
}

CURI CBrickDiskStreamWithCache::getURI()
{
    return m_uri;
}

void CBrickDiskStreamWithCache::seek(int64 position)
{
    checkOpen();
    if (position < 0 || position > m_length)
        throw CIOError(CIOError::SeekOutOfRange, String());
    m_position = position;
}

void CBrickDiskStreamWithCache::close()
{
    if (m_innerStream)
        m_innerStream->close();
}

P<TBuffer<uint8>> CBrickDiskStreamWithCache::loadBrickIntoCache(int64 brickIndex)
{
    P<zo::CMemPoolBuffer> buffer = m_bufferPool->checkOutItem();
    buffer->setUsed(m_brickSize);
    m_innerStream->seek(brickIndex * m_brickSize);
    buffer->setUsed(m_innerStream->readLax(buffer->getData(), m_brickSize));
    P<TBuffer<uint8>> cached(buffer);
    m_cache->insert(brickIndex, cached);
    return cached;
}

void CBrickDiskStreamWithCache::read(void* dst, int size)
{
    checkOpen();
    auto* out = static_cast<uint8*>(dst);
    int64 remaining = size;
    while (remaining > 0) {
        if (m_position >= m_length)
            throw CIOError(CIOError::EndOfData, String(), zo::CProps().add("uri", m_uri.toString(true)));
        const int64 brickIndex = m_position / m_brickSize;
        const int64 offset = m_position % m_brickSize;
        P<TBuffer<uint8>> brick = m_cache->lookup(brickIndex);
        if (!brick)
            brick = loadBrickIntoCache(brickIndex);
        const int64 count = std::min({m_brickSize - offset, remaining, m_length - m_position});
        std::memcpy(out, brick->getData() + offset, static_cast<size_t>(count));
        out += count;
        m_position += count;
        remaining -= count;
    }
}

int CBrickDiskStreamWithCache::readLax(void* dst, int size)
{
    checkOpen();
    const int count = static_cast<int>(std::min<int64>(m_length - m_position, size));
    read(dst, count);
    return count;
}

bool CBrickDiskStreamWithCache::waitReadable(int)
{
    checkOpen();
    return true;
}

void CBrickDiskStreamWithCache::write(const void* src, int size, zo::IWriteBarrier*)
{
    checkOpen();
    const auto* in = static_cast<const uint8*>(src);
    int64 remaining = size;
    while (remaining > 0) {
        const int64 brickIndex = m_position / m_brickSize;
        const int offset = static_cast<int>(m_position % m_brickSize);
        const int count = static_cast<int>(std::min<int64>(m_brickSize - offset, remaining));
        const P<TBuffer<uint8>> cached = m_cache->lookup(brickIndex);
        if (cached) {
            if (cached->getUsed() < offset + count)
                cached->setUsed(offset + count);
            std::memcpy(cached->getData() + offset, in, static_cast<size_t>(count));
        }
        m_innerStream->seek(m_position);
        m_innerStream->write(in, count);
        in += count;
        m_position += count;
        remaining -= count;
        if (m_position > m_length)
            m_length = m_position;
        if (!cached)
            loadBrickIntoCache(brickIndex);
    }
}

P<zo::IWriteBarrier> CBrickDiskStreamWithCache::createWriteBarrier(zo::IWriteBarrier*)
{
    flush();
    return P<zo::IWriteBarrier>(new zo::CDummyWriteBarrier());
}

void CBrickDiskStreamWithCache::flush()
{
    checkOpen();
    m_innerStream->flush();
}

void CBrickDiskStreamWithCache::setLength(int64)
{
    checkOpen();
    throw CIOError(CIOError::SetLengthNotSupported, String());
}

void CBrickDiskStreamWithCache::setVirtualLength(int64 length)
{
    checkOpen();
    if (m_position > length)
        seek(length);
    m_length = length;
    m_innerStream->setVirtualLength(length);
}

} // namespace brick
