// What a cache folder of CCachedStore holds, read without opening the cache:
// no upload starts, no lock is taken and nothing is changed. For the
// operator's commands (brickdisk cache info, flush, drop), which must look at
// a folder that a server may be using.
//
// The folder's layout is CCachedStore's (see CachedStore.h): the "owner"
// record names the disk, "files/..." holds the cached brick files and
// "journal/*.rec" one record per file whose newest change the store lacks.
#pragma once

#include "zo/Export.h"
#include "zo/FileSystem.h"

#include <vector>

namespace brick {

struct CacheFolderContents {
    // A change of a brick file that the disk's store does not hold yet.
    struct DirtyFile {
        // The file in the store, as the disk names it ("s3://b/vm/bricks/...").
        zo::String file;
        // True for a deletion; false for new bytes.
        bool deletion = false;
        // The bytes of the cached file (0 for a deletion).
        zo::int64 bytes = 0;
    };

    // The disk the folder belongs to, as its owner record names it.
    zo::String disk;
    // The files in the cache folder and their bytes (dirty or not).
    zo::int64 cachedFiles = 0;
    zo::int64 cachedBytes = 0;
    // The acknowledged changes the store lacks, sorted by file. Records that
    // were never acknowledged (cut short, or whose bytes never reached the
    // folder) are left out, as an opening of the cache drops them.
    std::vector<DirtyFile> dirty;
};

// Reads the cache folder `folder` of `cacheFs`. Throws zo::CError with
// "cacheFolder" when the folder does not exist ("The cache folder does not
// exist.") or holds no owner record of a cache ("The folder is not a cache
// folder: it has no owner record of a cache."), and the file system's errors.
// Any thread may call it.
BRICKDISK_EXPORT CacheFolderContents readCacheFolder(zo::IFileSystem* cacheFs, const zo::CURI& folder);

// The cache folder's own ID, which its servers pass to their writing lock of
// the disk as its write mark (CBrickDiskLock::acquire; see CCachedStore).
// Empty when the folder does not exist, holds no owner record, or one made
// before the ID existed. Throws the file system's errors. Any thread may
// call it.
BRICKDISK_EXPORT zo::String readCacheFolderId(zo::IFileSystem* cacheFs, const zo::CURI& folder);

} // namespace brick
