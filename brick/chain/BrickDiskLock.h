// CBrickDiskLock: keeps processes that use one disk from getting in each
// other's way. Opening a disk does not lock it by itself (a program may open
// one disk twice); the tools and servers take a CBrickDiskLock for as long as
// they use a disk.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

namespace brick {

class BRICKDISK_EXPORT CBrickDiskLock : public zo::CBase {
public:
    enum Mode {
        // Shared with other readers. Reading a snapshot while its parent is
        // written needs no more: the writer preserves every old brick in the
        // snapshot before it replaces it.
        ForReading,
        // Exclusive on the disk, and shared on its child when it has one:
        // writing a disk also stores old bricks into its child, so the child
        // must not be written at the same time, while it may still be read.
        // Also taken to make a child of the disk, which rewrites its link.
        ForWriting,
    };

    // Locks the disk in `diskFolder` for `mode` without waiting. ForWriting
    // then removes the temporary files that interrupted stores left in the
    // disk's folder and its child's (none can be running any more).
    // Throws CBrickDiskError DiskInUse when another lock is in the way (the
    // property "diskFolder" names the disk that is locked, "holder" who holds
    // it where the file system can tell; the file system's error is the
    // cause), and what the file system or the child link throws otherwise. A
    // file system that cannot lock (NotSupported) gives a lock that holds
    // nothing: isHeld is false, and a warning is logged.
    static zo::P<CBrickDiskLock> acquire(zo::IFileSystem* fs, const zo::CURI& diskFolder, Mode mode);

    // Releases the locks; never throws.
    ~CBrickDiskLock() override = default;

    Mode getMode() const { return m_mode; }
    // False when the file system cannot lock, so nothing keeps others out.
    bool isHeld() const { return m_diskLock != nullptr; }
    // Temporary files removed when the lock was taken for writing.
    int getRemovedTemporaryFileCount() const { return m_removedTemporaryFiles; }

private:
    explicit CBrickDiskLock(Mode mode) : m_mode(mode) {}

    Mode m_mode;
    zo::P<zo::IFileSystemLock> m_diskLock;
    zo::P<zo::IFileSystemLock> m_childLock;
    int m_removedTemporaryFiles = 0;
};

} // namespace brick
