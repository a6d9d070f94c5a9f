// CMemoryFileStore: the files and folders of a CMemoryFileSystem, under one
// mutex. Every call may come from any thread.
//
// Paths are compared in normalized form. Every root ("/", "scheme://host/",
// and "." for relative paths) always exists as a folder. A file's bytes are
// shared by its entry and the streams opened on it, as an inode is: storing
// or moving over a file gives the entry new bytes, while streams keep what
// they opened. Failures are CFileSystemErrors with the properties "path" and
// "action", classified as a POSIX file system would classify them.
#pragma once

#include "zo/Containers.h"
#include "zo/Error.h"
#include "zo/FileSystem.h"

#include <mutex>

namespace zo {

class CMemoryFileStore : public CBase {
public:
    using FileData = TBuffer<uint8>;

    // Fails as storeFile would before any byte is read: NotFound for a missing
    // folder, AlreadyExists for an existing target without `overwrite`,
    // IsAFolder for a folder.
    void checkStorable(const CURI& file, bool overwrite) const;
    void storeFile(const CURI& file, const P<FileData>& data, bool overwrite);
    // One folder: AlreadyExists when anything is there, NotFound without parent.
    void createFolder(const CURI& folder);
    // The folder and its missing parents; an existing folder succeeds, a file
    // in the way fails with AlreadyExists.
    void createFolderWithParents(const CURI& folder);
    void moveFile(const CURI& from, const CURI& to, bool overwrite);
    // The target gets bytes of its own, equal to the source's.
    void copyFile(const CURI& from, const CURI& to, bool overwrite);
    // A missing file fails with NotFound unless `ignoreMissing`.
    void deleteFile(const CURI& file, bool ignoreMissing);

    P<IFileInfo> getFileInfo(const CURI& path, bool throwIfMissing) const;
    // The bytes of `file` for a stream: AccessRead needs an existing file;
    // writing with OptionReplace creates or empties it, without it the file
    // must exist.
    P<FileData> openFile(const CURI& file, IIOStream::Access access, int options);
    bool fileExists(const CURI& file) const;
    bool folderExists(const CURI& folder) const;
    bool pathExists(const CURI& path) const;
    TList<String> listFolder(const CURI& folder) const;

    // A copy of a file's bytes, null when there is no file.
    P<FileData> copyFileData(const CURI& file) const;
    // Creates or replaces a file, and its missing parent folders.
    void setFileData(const CURI& file, const FileData& data);

    // Stream access to a file's bytes. `read` copies up to `size` bytes from
    // `position` and returns the count; it fails as failReads asks for `file`.
    int read(const CURI& file, const FileData& data, int64 position, void* dst, int size) const;
    // Writes at `position`, filling any gap with zeros; CIOError
    // WriteBeyondSize past 2 GiB.
    void write(FileData& data, int64 position, const void* src, int size);
    int64 getLength(const FileData& data) const;
    void setLength(FileData& data, int64 length);

    // Every later read of a stream whose path starts with `pathPrefix` fails
    // with `problem`, until clearReadFailures.
    void failReads(const CURI& pathPrefix, CFileSystemError::Problem problem);
    void clearReadFailures();

    // Takes a shared or exclusive lock on an existing folder: NotFound when
    // it is missing, Locked when a conflicting lock is held.
    void lockFolder(const CURI& folder, bool exclusive);
    void unlockFolder(const CURI& folder, bool exclusive);

    // The normalized form in which paths are compared; an empty path throws
    // CFileSystemError InvalidName.
    static String toKey(const CURI& path);

private:
    bool isFolder(const String& key) const;
    bool isFile(const String& key) const;
    // Throws unless the folder that holds `key` exists.
    void checkParentFolder(const String& key, const char* action) const;
    void checkStoreTarget(const String& key, bool overwrite, const char* action) const;
    void createFolderWithParentsLocked(const String& key);

    mutable std::mutex m_mutex;
    TMap<String, P<FileData>> m_files;
    TSet<String> m_folders;
    TList<std::pair<String, CFileSystemError::Problem>> m_readFailures;
    // Per locked folder: the number of shared holders, or -1 for an exclusive one.
    TMap<String, int> m_locks;
    // Looks up the source of a move or copy; throws as a POSIX file system would.
    TMap<String, P<FileData>>::iterator findSourceFile(const String& fromKey, const char* action);
};

} // namespace zo
