// Two questions about files that some file systems answer with fewer
// requests than IFileSystem's calls need: the entries of a folder with their
// kinds and sizes, and a range of a file's bytes. Ask them through
// listFolderWithInfo and readFileRange, of any file system. One that
// implements IFileSystemQueries (a file system over an object store, whose
// listing tells sizes and which fetches a range in one request) answers
// them itself; any other, a wrapper such as CForwardingFileSystem among
// them, is asked with its listFolder, getFileInfo and openStream, so that a
// wrapper sees the calls it changes.
#pragma once

#include "zo/Export.h"
#include "zo/FileSystem.h"

#include <vector>

namespace zo {

// An entry of a folder, as listFolderWithInfo gives it.
struct FolderEntry {
    String name;
    bool isFolder = false;
    // Length in bytes of a file (0 for a folder).
    int64 size = 0;
    // The store's tag of the file's bytes as its listing gives it (over S3
    // the ETag, without its quotes: the MD5 of an object stored by one PUT);
    // a file stored again with other bytes gets another tag. Empty where the
    // file system gives none (a local folder, a Ceph pool, a folder).
    String contentTag;
};

// Implemented by a file system that answers the questions below itself; its
// answers are those the functions below describe.
class BRICKDISK_EXPORT IFileSystemQueries : public virtual IBase {
public:
    virtual std::vector<FolderEntry> listFolderWithInfo(const CURI& folder) = 0;
    virtual void readRange(const CURI& file, int64 offset, void* bytes, int size) = 0;
};

// The entries of `folder` on `fs` with their kinds, sizes and, where the file
// system's listing gives them, content tags, sorted by name:
// NotFound when the folder is missing, NotAFolder when it is a file. An
// entry removed while the folder is listed is left out.
BRICKDISK_EXPORT std::vector<FolderEntry> listFolderWithInfo(IFileSystem* fs, const CURI& folder);
// The same, always with listFolder and a getFileInfo for each name (so with
// no content tags): what listFolderWithInfo asks of a file system without
// IFileSystemQueries.
BRICKDISK_EXPORT std::vector<FolderEntry> listFolderEntryByEntry(IFileSystem* fs, const CURI& folder);

// Reads `size` bytes of the file `file` on `fs` from `offset` on into
// `bytes`: NotFound when the file is missing, CIOError EndOfData when it
// ends before the range does. Without IFileSystemQueries, through
// openStream with IIOStream::OptionRanges.
BRICKDISK_EXPORT void readFileRange(IFileSystem* fs, const CURI& file, int64 offset, void* bytes, int size);

} // namespace zo
