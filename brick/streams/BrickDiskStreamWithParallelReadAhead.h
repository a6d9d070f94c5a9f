// CBrickDiskStreamWithParallelReadAhead: a read-only stream over a CBrickDisk
// whose read threads, run by the read-ahead engine (CParallelReadAheadManager),
// load and decode bricks ahead of the reader.
#pragma once

#include "brick/chain/Brick.h"
#include "brick/chain/BrickDisk.h"
#include "brick/streams/ParallelReadAheadManager.h"
#include "zo/Export.h"

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Containers.h"
#include "zo/MemPool.h"
#include "zo/Stream.h"
#include "zo/StreamBase.h"
#include "zo/URI.h"

namespace brick {

// For reading a disk from front to back fast. A number of read threads, each
// with a brick object of its own (so they share no brick state with each
// other or with the disk's own current brick), load and decode whole bricks
// in parallel; the reader copies from a brick as soon as a thread has
// delivered it. At most "bricks ahead" bricks (the thread count unless the
// caller asks for more) are read ahead and not yet consumed, and bricks ahead
// + 2 brick buffers are all the memory the read-ahead uses. Reading several
// bricks ahead per thread keeps every thread busy where bricks take unequal
// time: a thread that is quickly done with a brick the disk does not store
// goes on to the next instead of waiting until the reader has consumed a
// stored neighbour that another thread still decodes. A reader that moves
// forward, in steps of any size, never
// restarts the read-ahead; a seek elsewhere costs one restart at the next
// read, which drops what was read ahead.
//
// The stream never writes and never changes the disk's own position.
//
// Closed state: after close(), getLength, getURI, waitReadable, lockRange and
// close still answer as before; every other operation throws zo::CIOError
// StreamClosed (10) with an empty message and no properties.
//
// From zo::CInStreamBase: readAvailable is readLax; waitReadable is true at
// once, also when closed; lockRange is never supported: it throws
// zo::CFileSystemError NotSupported (6) around "Brick disk stream does not
// support lockRange.".
//
// Threads: the stream's own operations are for one thread at a time. The
// read threads are the engine's loaders, reading bricks in order; they run
// from construction until close() (or destruction) and touch only their own
// brick objects, the engine and the buffer pool.
class BRICKDISK_EXPORT CBrickDiskStreamWithParallelReadAhead : public zo::CInStreamBase {
public:
    // Holds a counted reference to `disk` (which must not be null; its
    // cipher key and folders are shared with the read threads' brick
    // objects) and starts `threadCount` read threads, which begin reading at
    // brick 0 at once. With a thread count below 1 no thread is started and
    // a read that needs a brick waits for ever: callers pass at least 1.
    // At most `threadCount` bricks are read ahead and not yet consumed.
    // When a brick object cannot be made or a thread cannot be started, the
    // threads already running are stopped and the error is thrown.
    CBrickDiskStreamWithParallelReadAhead(CBrickDisk* disk, zo::int32 threadCount);
    // The same, with at most `bricksAhead` bricks read ahead and not yet
    // consumed; a bound below the thread count is raised to it.
    CBrickDiskStreamWithParallelReadAhead(CBrickDisk* disk, zo::int32 threadCount, zo::int32 bricksAhead);
    // A copy shares the disk, the manager, the threads, the pool and the
    // current brick data, and has its own position. Closing either copy stops
    // the shared threads, so the other copy's reads then fail with the
    // manager's "called after stop" errors.
    CBrickDiskStreamWithParallelReadAhead(const CBrickDiskStreamWithParallelReadAhead& other) = default;
    CBrickDiskStreamWithParallelReadAhead& operator=(const CBrickDiskStreamWithParallelReadAhead& other) = default;
    // Closes the stream (waiting for the read threads to end), then releases
    // what is left. Never throws.
    ~CBrickDiskStreamWithParallelReadAhead() override;

    // The disk's size, fixed at construction; answers also when closed.
    int64 getLength() override;
    int64 getPosition() override;
    // The disk's folder.
    CURI getURI() override;
    // Sets the position, from 0 to the length inclusive; CIOError
    // SeekOutOfRange (7) with the property "uri" otherwise. The read-ahead is
    // restarted by the next read, not here.
    void seek(int64 position) override;
    // Stops the read-ahead and waits until every read thread has ended, then
    // drops the manager and the disk. Closing a closed stream does nothing.
    // Never throws.
    void close() override;

    // Reads exactly `size` bytes: readLax, and CIOError EndOfData (4) with the
    // property "uri" when it gave fewer (the bytes it gave stay copied and
    // the position advanced).
    void read(void* dst, int size) override;
    // Copies up to `size` bytes from the position on, stopping at the length,
    // and returns the count (0 for size < 1 and at the end). Waits for the
    // bricks it needs. Throws the error that loading or decoding a brick
    // raised, when the reader reaches that brick; asking again for that brick
    // reads it once more. Throws the read-ahead manager's "called after stop"
    // errors when the read-ahead was stopped under it, and a CError beginning
    // "Internal error in CBrickDiskStreamWithParallelReadAhead::readLax" when a
    // delivered brick is shorter than the position in it.
    int readLax(void* dst, int size) override;

private:
    // What one read thread does with a brick the engine hands it: reads it
    // whole through the thread's own brick object into a pool buffer and
    // hands the buffer, or the error that reading raised, to the engine.
    static void readBrick(CBrick& brick, zo::int32 brickSize, CParallelReadAheadManager& manager, zo::CMemPool& pool,
                          int64 brickIndex);

    // Throws StreamClosed unless the stream holds its disk.
    void checkOpen() const;
    void startReadThreads(zo::int32 threadCount);
    // Makes the data of `brickIndex` the current brick data, waiting for it.
    void useBrick(int64 brickIndex);

    P<CBrickDisk> m_disk;
    int64 m_brickSize;
    CURI m_uri;
    P<CParallelReadAheadManager> m_manager;
    int64 m_position = 0;
    int64 m_length;
    P<TBuffer<uint8>> m_currentBrickData;
    int64 m_currentBrickIndex = -1;
    P<zo::CMemPool> m_bufferPool;
};

} // namespace brick
