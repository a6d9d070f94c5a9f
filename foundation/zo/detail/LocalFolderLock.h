// The folder locks of CLocalFileSystem: open-file-description locks on a lock
// file in the folder, which the kernel releases when the holder's process
// dies, so a killed process never leaves a stale lock behind.
#pragma once

#include "zo/FileSystem.h"

namespace zo {

// The name of the lock file inside a locked folder.
const char* getLocalFolderLockFileName();

// Takes a shared or exclusive lock on "<folder>/.lock", creating the file when
// it is missing, without waiting. An exclusive holder writes "process <pid>
// (<program>)" into the file, which a refused locker reports as the property
// "holder". Throws CFileSystemError: Locked on a conflict (also with a lock
// that this process holds through another lock object), NotFound or
// NotAFolder for a bad folder, NotSupported where the folder cannot hold a
// lock file (a read-only file system without one) or the file system has no
// such locks. Neither the folder nor the lock file is followed as a symbolic
// link; a lock file that is a link, a folder or a FIFO fails with an error
// whose "path" is the lock file.
P<IFileSystemLock> lockLocalFolder(const CURI& folder, bool exclusive);

} // namespace zo
