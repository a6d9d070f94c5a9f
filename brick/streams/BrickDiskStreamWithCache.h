// CBrickDiskStreamWithCache: a read-write stream over a CBrickDisk that keeps
// recently used whole bricks in memory.
#pragma once

#include "brick/chain/BrickDisk.h"
#include "brick/streams/BrickDiskStream.h"
#include "zo/Export.h"

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/MemPool.h"
#include "zo/MostRecentlyUsedCache.h"
#include "zo/Stream.h"
#include "zo/StreamBase.h"
#include "zo/URI.h"

namespace brick {

// Many small reads and writes at scattered positions cost one brick load each
// rather than one per call: the stream keeps whole bricks in a
// most-recently-used cache of about 32 MiB (33554432 / brick size bricks,
// never fewer than 10), and serves reads inside a cached brick from memory.
//
// The stream keeps its own position and length and reaches the disk only
// through an inner CBrickDiskStream, which it seeks before every access.
// Writes go through to the disk at once and update the cached copy; a write
// into a brick that is not cached reads that whole brick back into the cache
// afterwards.
//
// close() closes the inner stream, which releases the disk, but leaves this
// stream, its cache and its position: reads that the cache can serve still
// succeed afterwards, while anything that needs the disk throws the inner
// stream's zo::CIOError StreamClosed (10). Errors of the disk pass through.
//
// From zo::CStreamBase: readAvailable is readLax, and lockRange is never
// supported: it throws zo::CFileSystemError NotSupported (6) around "Brick
// disk stream does not support lockRange.".
//
// Threads: one thread at a time. Copies share the inner stream, the cache and
// the buffer pool without locking, so they must not be used on different
// threads at once either.
class BRICKDISK_EXPORT CBrickDiskStreamWithCache : public zo::CStreamBase {
public:
    // Builds the inner stream over `disk` (which must not be null), with
    // position 0 and the disk's size as length, and allocates the cache's
    // buffers up front. Throws std::bad_alloc when the buffers cannot be
    // had.
    explicit CBrickDiskStreamWithCache(CBrickDisk* disk);
    // A copy has its own position and length and shares the inner stream,
    // the cache and the pool with the original.
    CBrickDiskStreamWithCache(const CBrickDiskStreamWithCache& other) = default;
    CBrickDiskStreamWithCache& operator=(const CBrickDiskStreamWithCache& other) = default;
    // Releases the pool, the cache and the inner stream (and with it the disk,
    // when this was the last user). Never throws.
    ~CBrickDiskStreamWithCache() override;

    int64 getLength() override;
    int64 getPosition() override;
    // The disk's folder.
    CURI getURI() override;
    // Sets the position, from 0 to the length inclusive; CIOError
    // SeekOutOfRange (7), no properties, otherwise. The disk is not touched.
    void seek(int64 position) override;
    // Closes the inner stream (see the class comment).
    void close() override;

    // Copies exactly `size` bytes (nothing for size < 1), loading missing
    // bricks into the cache. Reaching the length with bytes still wanted
    // throws CIOError EndOfData (4) with the property "uri"; the bytes before
    // stay copied and the position stays advanced.
    void read(void* dst, int size) override;
    // Reads min(size, length - position) bytes and returns that count.
    int readLax(void* dst, int size) override;
    // Always true at once.
    bool waitReadable(int timeoutMillis) override;

    // Writes through to the disk brick by brick (a cached brick is updated
    // before its disk write); a position beyond the length afterwards becomes
    // the length. The barrier is ignored. A failing disk write leaves the
    // position at the start of the piece that failed.
    void write(const void* src, int size, zo::IWriteBarrier* barrier = nullptr) override;
    // Flushes, then returns a barrier that is already passed.
    P<zo::IWriteBarrier> createWriteBarrier(zo::IWriteBarrier* previous) override;
    // Stores every changed brick of the disk before it returns; the cache is
    // not touched.
    void flush() override;
    // Never supported: throws CIOError SetLengthNotSupported (13).
    void setLength(int64 length) override;

    // Sets the length of this stream and the virtual length of the inner
    // stream; a position beyond `length` first moves to `length`. Cached
    // bricks beyond the new length stay cached.
    void setVirtualLength(int64 length);

private:
    using BrickCache = zo::TMostRecentlyUsedCache<int64, TBuffer<uint8>>;

    // Throws StreamClosed unless the stream holds its inner stream.
    void checkOpen() const;
    // Reads brick `brickIndex` whole from the disk into a pool buffer and
    // caches it; the buffer stays out of the cache when the read fails.
    P<TBuffer<uint8>> loadBrickIntoCache(int64 brickIndex);

    CURI m_uri;
    int m_brickSize;
    P<CBrickDiskStream> m_innerStream;
    int64 m_position = 0;
    int64 m_length;
    P<BrickCache> m_cache;
    P<zo::CMemPool> m_bufferPool;
};

} // namespace brick
