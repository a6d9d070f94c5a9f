// A file system that crashes on purpose: it passes the first N operations
// that change files or folders to the file system below it, and from the
// next one on it fails every operation, as a process stopped at that point
// would never perform them. What the file system below then holds is what a
// crash at that moment leaves behind (a local file system below it, with
// sync on, has made every finished operation durable).
//
// Sweeping N from 0 to the number of changing operations of a run, and
// reopening the disks on the file system below after each crash, checks what
// every stop of that run does to the disks.
#pragma once

#include "zo/FileSystem.h"

#include <atomic>

namespace zo {
class CCompletionPool;
}

namespace testsupport {

class CrashingFileSystem : public zo::CBase, public zo::IFileSystem {
public:
    // Passes `allowedChanges` changing operations to `inner`, then crashes;
    // a negative count never crashes (to count the operations of a run).
    CrashingFileSystem(zo::IFileSystem* inner, int allowedChanges);
    // Waits until every refused operation has been reported; never throws.
    ~CrashingFileSystem() override;

    // Changing operations seen so far, the refused ones included.
    int getChangeCount() const { return m_changes.load(); }
    bool hasCrashed() const { return m_crashed.load(); }

    zo::P<zo::IFileSystemOp> beginStoreFile(const zo::CURI& file, int size, zo::IInStream* source, bool overwrite,
                                            zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginStoreFileBatched(const zo::CURI& file, int size, zo::IInStream* source,
                                                   bool overwrite, zo::IDoneListener* listener) override;
    // Not a change of its own: passed on while the file system lives.
    void syncBatch() override;
    zo::P<zo::IFileSystemOp> beginCreateFolder(const zo::CURI& folder, int mode, zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginMoveFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                           zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginCopyFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                           zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener) override;
    zo::P<zo::IFileInfo> getFileInfo(const zo::CURI& path, bool throwIfMissing) override;
    // Opening for writing counts as a change; opening with OptionReplace as
    // two: emptying the file, then writing it (a crash between the two
    // leaves the empty file).
    zo::P<zo::IIOStream> openStream(const zo::CURI& file, zo::IIOStream::Access access, const int& options) override;
    void createFolder(const zo::CURI& folder, int mode) override;
    bool fileExists(const zo::CURI& file) override;
    bool folderExists(const zo::CURI& folder) override;
    bool pathExists(const zo::CURI& path) override;
    void deleteFile(const zo::CURI& file, bool ignoreMissing) override;
    zo::TList<zo::String> listFolder(const zo::CURI& folder) override;
    zo::P<zo::IFileSystemLock> lockFolder(const zo::CURI& folder, bool exclusive) override;
    int removeTemporaryFiles(const zo::CURI& folder) override;

private:
    // Counts a changing operation; false when it must not happen.
    bool admitChange();
    // Throws the crash when the file system has crashed.
    void checkAlive(const zo::CURI& path) const;
    static zo::CFileSystemError crashError(const zo::CURI& path);
    zo::P<zo::IFileSystemOp> refuse(const zo::CURI& path, zo::IDoneListener* listener);

    zo::P<zo::IFileSystem> m_inner;
    const int m_allowedChanges;
    std::atomic<int> m_changes{0};
    std::atomic<bool> m_crashed{false};
    // Reports the refused asynchronous operations on a thread of its own, as
    // a file system completes its operations.
    zo::P<zo::CCompletionPool> m_refusals;
};

} // namespace testsupport
