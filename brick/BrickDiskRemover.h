// CBrickDiskRemover: takes one disk out of a chain without changing what any
// other disk of the chain reads. The disk's parent (the newer disk) and its
// child (the older snapshot) are tied to each other instead, after the child
// has been given every brick of the disk that it lacked.
//
// The steps, each safe to be cut short:
//   1. every brick file of the disk that the child lacks is copied into the
//      child (the child reads the same bytes from its own file as it did
//      through the disk);
//   2. the parent's child link is made to name the child (or removed when the
//      disk has no child): from here on the parent's writer preserves old
//      bricks in the child, and the disk counts as removed;
//   3. the child's parent link is made to name the parent;
//   4. the disk's files are deleted, its header last.
// A stop before step 2 leaves the chain as it was (the child merely holds
// copies of bricks it read through the disk anyway); a stop after it leaves
// every other disk reading as before, and removing the disk again finishes
// steps 3 and 4. Step 4 deletes the header and then the parent link last, so
// a folder cut short there still says what it was.
#pragma once

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
        DeletingFiles  // step 4: the disk's files, each deleted
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
    // that holds only the parent link of a removal cut short at its end is
    // emptied. Throws
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
    static Outcome remove(zo::IFileSystem* fs, const zo::CURI& diskFolder,
                          const std::function<void()>& checkpoint = {}, const ProgressListener& onProgress = {});
};

} // namespace brick
