// Every change below a folder made durable in one call: the files written
// there however they were written (a store, a stream never flushed), and the
// entries made, renamed or removed. A file system that can do so implements
// ISyncAll; ask through syncAllBelow, which tells when a file system cannot
// (a wrapper such as CForwardingFileSystem among them).
#pragma once

#include "zo/Export.h"
#include "zo/FileSystem.h"

namespace zo {

// Implemented by a file system whose syncAllBelow behaves as the function
// below describes.
class BRICKDISK_EXPORT ISyncAll : public virtual IBase {
public:
    virtual void syncAllBelow(const CURI& folder) = 0;
};

// Makes durable every change that ended before the call in `folder` and the
// folders below it, on `fs`. False, doing nothing, when `fs` implements no
// ISyncAll; throws the file system's error (as a rule a CFileSystemError)
// when the sync fails. Any thread may call it.
BRICKDISK_EXPORT bool syncAllBelow(IFileSystem* fs, const CURI& folder);

} // namespace zo
