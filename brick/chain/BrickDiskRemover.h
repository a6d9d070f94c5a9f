// CBrickDiskRemover: takes one disk out of a chain without changing what any
// other disk of the chain reads. The disk's parent (the newer disk) and its
// child (the older snapshot) are tied to each other instead, after the child
// has been given every brick of the disk that it lacked.
//
// The steps, each safe to be cut short:
//   1. every brick file of the disk that the child lacks is copied into the
//      child (the child reads the same bytes from its own file as it did
//      through the disk);
//   2. the disk is marked as being removed ("removing.bricklnk", naming the
//      parent): from here on it refuses to open (CBrickDiskError
//      UnfinishedRemoval), since it loses its view;
//   3. the parent's child link is made to name the child (or removed when the
//      disk has no child): from here on the parent's writer preserves old
//      bricks in the child;
//   4. the child's parent link is made to name the parent;
//   5. the disk's files are deleted: its header, its parent link and its
//      mark last, so a folder cut short there still says what it was.
// A stop before step 2 leaves the chain as it was (the child merely holds
// copies of bricks it read through the disk anyway); a stop after it leaves
// every other disk reading as before, and removing the disk again finishes
// the remaining steps. A child whose making was cut short (marked
// "creating.bricklnk", see CBrickDisk::createChild) is removed the same way,
// from wherever its making stopped.
#pragma once

#include "zo/Buffer.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <functional>

namespace brick {

class BRICKDISK_EXPORT CBrickDiskRemover {
public:
    // The two long steps of a removal, as `onProgress` hears of them.
    enum class Phase {
        CopyingBricks, // step 1: the disk's brick files, each copied into the child or found there
        DeletingFiles // step 4: the disk's files, each deleted
    };
    // Hears that `done` of the phase's `total` files are handled.
    using ProgressListener = std::function<void(Phase phase, zo::int64 done, zo::int64 total)>;

    struct Outcome {
        // The bricks copied into the child.
        zo::int64 bricksCopied = 0;
        // The files of the disk deleted.
        zo::int64 filesDeleted = 0;
    };

    // Removes the disk in `diskFolder`, which must have a parent; a folder
    // that holds only the parent link or the mark of a removal cut short at
    // its end is emptied, and a marked folder (a making or a removal cut
    // short) is taken out of its chain without opening it. Throws
    // CError "Only a disk with a parent disk can be removed from its chain."
    // for a disk without one, the chain's errors for a broken chain, and the
    // file system's errors (the chain then reads as before, or as after the
    // removal; see above). Empty folders of the disk may remain, for the
    // caller to remove where its file system keeps folders. The caller keeps
    // other writers of the disk, its parent and its child away meanwhile.
    //
    // `checkpoint`, when given, is called before each brick copied in step 1;
    // whatever it throws ends the removal there and passes through, with the
    // chain reading as before (a way to let a user stop a long removal). Once
    // step 2 is done the removal runs to its end without asking.
    //
    // `onProgress`, when given, is called on the caller's thread after each
    // brick file of step 1 and each file deleted in step 4 (a way to show a
    // long removal going on); it should not throw.
    //
    // The disks of the authenticated format tie their links under the disk
    // key (see CBrickDiskIdentity): this call passes an empty key, enough
    // for unencrypted disks and disks without an identity; for others it
    // throws the zo::CInvalidArgError of CBrickDiskIdentity::requireKey
    // before anything changes.
    static Outcome remove(zo::IFileSystem* fs, const zo::CURI& diskFolder, const std::function<void()>& checkpoint = {},
                          const ProgressListener& onProgress = {});
    // The same with the chain's key `diskKey` (empty for an unencrypted disk).
    static Outcome remove(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::TCryptBuffer<zo::uint8>& diskKey,
                          const std::function<void()>& checkpoint = {}, const ProgressListener& onProgress = {});
};

} // namespace brick
