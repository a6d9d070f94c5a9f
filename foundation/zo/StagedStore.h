// Stores whose bytes and names become durable together, with a batch: many
// files written without a sync each, then made durable and put in place at
// once by IFileSystem::syncBatch. A file system that can do so implements
// IStagedStores; ask through beginStoreFileStaged, which uses a batched
// store (IFileSystem::beginStoreFileBatched) on any other file system, a
// wrapper such as CForwardingFileSystem among them.
#pragma once

#include "zo/Export.h"
#include "zo/FileSystem.h"

namespace zo {

// Implemented by a file system whose staged stores behave as
// beginStoreFileStaged describes.
class BRICKDISK_EXPORT IStagedStores : public virtual IBase {
public:
    virtual P<IFileSystemOp> beginStoreFileStaged(const CURI& file, int size, IInStream* source,
                                                  IDoneListener* listener) = 0;
};

// Stores `size` bytes read from `source` as `file`, replacing it, at the
// latest once a syncBatch of `fs` that starts after the listener heard of
// success returns. Until then `file` may still hold its old bytes; a stop at
// any moment, a power cut included, leaves it with the old file or the whole
// new one, and a process that dies may leave a temporary file, which
// IFileSystem::removeTemporaryFiles removes. A missing folder on the path
// fails with NotFound. The file system holds a reference to `source` until
// the operation ends.
BRICKDISK_EXPORT P<IFileSystemOp> beginStoreFileStaged(IFileSystem* fs, const CURI& file, int size, IInStream* source,
                                                       IDoneListener* listener);

} // namespace zo
