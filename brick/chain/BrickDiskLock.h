// CBrickDiskLock: keeps processes that use one disk from getting in each
// other's way. Opening a disk does not lock it by itself (a program may open
// one disk twice); the tools and servers take a CBrickDiskLock for as long as
// they use a disk.
//
// A writing lock also leaves a write mark in the folder of a disk in a store
// named by its address ("s3://...", "rados://..."): the record
// "write.brickmark", replaced at each writing opening, so that a local cache
// of the disk's brick files (CCachedStore) can tell whether the disk was
// written without it since it last served it.
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
    //
    // The write mark: the lock reads the one the disk holds (empty when none)
    // and, for ForWriting once the lock is held, replaces it with
    // `writeMark`, or with a new random mark when `writeMark` is empty. Only
    // a disk named by a store's address that holds a header gets a mark (a
    // local folder never does: no cache runs in front of one); the record is
    // replaced atomically and durably (IFileSystem::beginStoreFile) before
    // the call returns, and its failure is thrown. `writeMark` is printable
    // ASCII without white space, at most kMaxWriteMarkLength characters
    // (zo::CInvalidArgError otherwise).
    static zo::P<CBrickDiskLock> acquire(zo::IFileSystem* fs, const zo::CURI& diskFolder, Mode mode,
                                         const zo::String& writeMark = zo::String());

    // As acquire, but a writing lock leaves the disk's write mark as it is
    // (getWriteMark is then the previous mark): for a program that takes the
    // lock only to find out whether the disk is free, and writes nothing
    // under it, so that it does not hide an earlier writer from a cache.
    static zo::P<CBrickDiskLock> acquireKeepingWriteMark(zo::IFileSystem* fs, const zo::CURI& diskFolder, Mode mode);

    // The longest write mark.
    static constexpr int kMaxWriteMarkLength = 64;
    // "write.brickmark", in the disk's folder.
    static zo::String getWriteMarkFileName() { return "write.brickmark"; }
    // The write mark the disk in `diskFolder` holds now; empty when it holds
    // none. A record that is not a mark (too long, or not printable text)
    // reads as "unreadable", which no writer writes. Throws the file
    // system's errors other than NotFound.
    static zo::String readWriteMark(zo::IFileSystem* fs, const zo::CURI& diskFolder);

    // Releases the locks; never throws.
    ~CBrickDiskLock() override = default;

    Mode getMode() const { return m_mode; }
    // False when the file system cannot lock, so nothing keeps others out.
    bool isHeld() const { return m_diskLock != nullptr; }
    // Temporary files removed when the lock was taken for writing.
    int getRemovedTemporaryFileCount() const { return m_removedTemporaryFiles; }
    // The write mark the disk held when the lock was taken (before a writing
    // lock replaced it); empty when it held none.
    const zo::String& getPreviousWriteMark() const { return m_previousWriteMark; }
    // The write mark the disk holds under this lock: the one written by a
    // writing lock, else the previous one.
    const zo::String& getWriteMark() const { return m_writeMark; }

private:
    explicit CBrickDiskLock(Mode mode) : m_mode(mode) {}
    // `writeMark` null: the mark is left as it is.
    static zo::P<CBrickDiskLock> lock(zo::IFileSystem* fs, const zo::CURI& diskFolder, Mode mode,
                                      const zo::String* writeMark);

    Mode m_mode;
    zo::P<zo::IFileSystemLock> m_diskLock;
    zo::P<zo::IFileSystemLock> m_childLock;
    int m_removedTemporaryFiles = 0;
    zo::String m_previousWriteMark;
    zo::String m_writeMark;
};

} // namespace brick
