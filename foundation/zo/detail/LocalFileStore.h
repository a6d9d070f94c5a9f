// The atomic store of CLocalFileSystem: a temporary file next to the target,
// filled, made durable and then renamed or linked into place.
#pragma once

#include "zo/Stream.h"
#include "zo/URI.h"
#include "zo/detail/LocalPath.h"

#include <string>

namespace zo {

// How much of a store is durable when storeLocalFile returns.
enum class LocalStoreSync {
    None, // nothing is synced
    Content, // the file's bytes (fdatasync before the rename), not its folder entry
    Full, // the file's bytes and its folder entry (fsync of the folder after the rename)
};

// Stores exactly `size` bytes of `source` as `file`. With `overwrite` an
// existing file is replaced (rename), without it an existing target fails
// with AlreadyExists (link). `sync` says what is durable before the call
// returns; the bytes are always synced before the rename when anything is,
// so that a crash leaves the old file or the whole new one. Throws
// CFileSystemError (NotFound when a folder on the path is missing), CIOError
// EndOfData when the source delivers fewer bytes, or whatever the source
// throws; no temporary file remains then.
void storeLocalFile(const CURI& file, int size, IInStream& source, bool overwrite, LocalStoreSync sync);

// Writes exactly `size` bytes of `source` into a new temporary file next to
// `file`, without a sync, starts writing them out to the disk without
// waiting, and returns the temporary file's name in that folder; `file`
// itself is not touched. Throws as storeLocalFile; no temporary file
// remains then.
std::string stageLocalFile(const CURI& file, int size, IInStream& source);

// The folder of the staged file placed last, kept open by
// placeStagedLocalFile for the next one when it lies in the same folder.
struct StagedFolder {
    std::string path;
    CFileDescriptor folder;
};

// Makes the bytes of the temporary file `stagedName` that stageLocalFile
// wrote for `file` durable (fdatasync), then renames it over `file`, which
// must be a regular file or missing; the folder entry is not synced. The
// folder is taken from `open` when the last file placed lay in it too, and
// left there open. Throws CFileSystemError; the temporary file is removed
// then.
void placeStagedLocalFile(const CURI& file, const std::string& stagedName, StagedFolder& open);

// Copies `from` to `to`, leaving `from` in place: a hard link where both lie
// on one file system (this file system replaces files by renaming, never
// changes their bytes in place, so the link keeps the source's content for
// good), otherwise a full copy through a temporary file as a store makes it.
// With `overwrite` the target is replaced atomically, without it an existing
// target fails with AlreadyExists. With `sync` the copy and its folder entry
// are durable before the call returns. Throws CFileSystemError (NotFound for
// a missing source or target folder).
void copyLocalFile(const CURI& from, const CURI& to, bool overwrite, bool sync);

// The name of a temporary file for `targetName`: ".tmp-<16 random hex digits>-<name>.part",
// with the name cut so that the whole stays a valid file name.
std::string makeTemporaryFileName(const std::string& targetName);

// True for names that makeTemporaryFileName makes.
bool isTemporaryFileName(const std::string& name);

// fsync of a folder, so that entries made or removed in it are durable.
// Throws CFileSystemError.
void syncLocalFolder(const std::string& folder);

// The local path of the folder that holds `path` ("." for a single relative name).
std::string localParentFolder(const CURI& path);

} // namespace zo
