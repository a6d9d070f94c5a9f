// CBrickDiskCreationTime: the record "created.bricktime" of a disk folder,
// which says when the disk was made: written by CBrickDisk::create,
// createAuthenticated and createChild (a snapshot or child is made when its
// folder is), and copied with the folder, so a chain copied elsewhere keeps
// its own times. Stored with the auxiliary file framing (digest and fallback
// copy). Disks made before the record existed have none; callers then fall
// back to what the file system can tell.
//
// All operations are static and take the file system from the caller.
#pragma once

#include "brick/format/BrickDiskAuxFileBase.h"

#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/String.h"
#include "zo/URI.h"

#include <optional>

namespace brick {

class BRICKDISK_EXPORT CBrickDiskCreationTime : public CBrickDiskAuxFileBase {
public:
    static zo::String getFileName() { return "created.bricktime"; }

    // Writes the record into `diskFolder` (which must exist) and its fallback
    // copy: `secondsSinceEpoch` is the time in whole seconds since
    // 1970-01-01 00:00:00 UTC. File-system errors pass through unchanged.
    static void store(zo::IFileSystem* fs, const zo::CURI& diskFolder, zo::int64 secondsSinceEpoch);

    // Writes the record with the current time.
    static void storeNow(zo::IFileSystem* fs, const zo::CURI& diskFolder);

    // The recorded time in seconds since 1970-01-01 00:00:00 UTC; nothing
    // when neither copy of the record exists. Throws the framing's error when
    // copies exist but none is intact, CError "brickdisk creation time file
    // does not start with correct file ID." for another kind of file, and the
    // data stream's CIOError for a record that ends early.
    static std::optional<zo::int64> load(zo::IFileSystem* fs, const zo::CURI& diskFolder);
};

} // namespace brick
