// CBrickDiskStream: one open CBrickDisk seen through the stream interfaces.
#pragma once

#include "brick/chain/BrickDisk.h"
#include "zo/Export.h"

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Stream.h"
#include "zo/StreamBase.h"
#include "zo/URI.h"

namespace brick {

// A plain byte stream over a disk. The stream keeps no data of its own: every
// read, write, seek and flush goes to the disk, and the disk's position is the
// stream's position. What the stream adds is a virtual length, which bounds
// seeks and readLax and which writes can raise, and a closed state.
//
// Once closed (close() drops the disk), every operation other than getURI,
// close and lockRange throws zo::CIOError StreamClosed (10) with an empty
// message and no properties. Errors of the disk itself pass through unchanged.
//
// From zo::CStreamBase: readAvailable is readLax, isEndOfStream is true when
// the position has reached the virtual length, and lockRange is never
// supported: it throws zo::CFileSystemError NotSupported (6) around "Brick
// disk stream does not support lockRange.", open or closed.
//
// Threads: one thread at a time. Copies share the disk object and so one
// position; they must not be used on different threads at once either.
class BRICKDISK_EXPORT CBrickDiskStream : public zo::CStreamBase {
public:
    // Holds a counted reference to `disk` (which must not be null) until
    // close(). The virtual length starts at the disk's size; the disk's
    // position is left where it is.
    explicit CBrickDiskStream(CBrickDisk* disk);
    // Copies share the disk (and its position) and copy the virtual length.
    CBrickDiskStream(const CBrickDiskStream& other) = default;
    CBrickDiskStream& operator=(const CBrickDiskStream& other) = default;
    // Drops the disk like close(); the disk's last release saves and waits for
    // its background saves. Never throws.
    ~CBrickDiskStream() override;

    // The virtual length.
    int64 getLength() override;
    // The disk's position.
    int64 getPosition() override;
    // The disk's folder; answers also when closed.
    CURI getURI() override;
    // Moves the disk to `position`, from 0 to the virtual length inclusive;
    // CIOError SeekOutOfRange (7), no properties, otherwise.
    void seek(int64 position) override;
    // Drops the disk reference without flushing; the stream stays closed.
    // Closing a closed stream does nothing.
    void close() override;

    // CBrickDisk::read: bounded by the disk's size, not by the virtual length.
    void read(void* dst, int size) override;
    // Reads min(size, virtual length - position) bytes and returns that count.
    int readLax(void* dst, int size) override;
    // Always true at once: the disk never makes a reader wait for data.
    bool waitReadable(int timeoutMillis) override;

    // CBrickDisk::write; afterwards a disk position beyond the virtual length
    // becomes the virtual length. The barrier is ignored: the bytes are in the
    // disk when the call returns.
    void write(const void* src, int size, zo::IWriteBarrier* barrier = nullptr) override;
    // Flushes, then returns a barrier that is already passed.
    P<zo::IWriteBarrier> createWriteBarrier(zo::IWriteBarrier* previous) override;
    // CBrickDisk::flushChanges: every changed brick is stored before it
    // returns. A background save of the disk that failed since the last flush
    // is thrown here: zo::CError "Storing changed bricks failed." with
    // "diskFolder", "brickIndex" (the first new failure's), "failedBricks"
    // (how many failed since) and that failure as its cause.
    void flush() override;
    // Never supported on a disk: throws CIOError SetLengthNotSupported (13).
    void setLength(int64 length) override;

    // Sets the virtual length; the disk's size does not change. A position
    // beyond `length` first moves to `length`, which must then lie within the
    // old virtual length (else SeekOutOfRange). The virtual length may exceed
    // the disk size; the disk then decides what reads and writes there do.
    void setVirtualLength(int64 length);

private:
    // Throws StreamClosed unless the stream holds its disk.
    void checkOpen() const;

    P<CBrickDisk> m_disk;
    CURI m_uri;
    int64 m_virtualLength;
    // Failed background saves of the disk that a flush has reported.
    size_t m_reportedSaveErrors = 0;
};

} // namespace brick
