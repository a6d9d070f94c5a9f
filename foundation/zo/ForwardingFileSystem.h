// CForwardingFileSystem: a file system that hands every call to another one.
// A wrapper that changes a few calls (counting, failing, holding back or
// altering them) derives from it and overrides only those; the rest pass
// through unchanged, with the inner file system's results and errors.
// Batched stores go through this file system's beginStoreFile (so that a
// wrapper which changes stores sees them all) and are durable when they
// end; syncBatch is passed on, for the folders and deletions it covers.
//
// It keeps a counted reference to the inner file system; the calls may come
// from any thread the inner file system allows.
#pragma once

#include "zo/Export.h"
#include "zo/FileSystem.h"

namespace zo {

class BRICKDISK_EXPORT CForwardingFileSystem : public CBase, public IFileSystem {
public:
    explicit CForwardingFileSystem(IFileSystem* inner);
    ~CForwardingFileSystem() override = default;

    P<IFileSystemOp> beginStoreFile(const CURI& file, int size, IInStream* source, bool overwrite,
                                    IDoneListener* listener) override;
    P<IFileSystemOp> beginCreateFolder(const CURI& folder, int mode, IDoneListener* listener) override;
    P<IFileSystemOp> beginMoveFile(const CURI& from, const CURI& to, bool overwrite, IDoneListener* listener) override;
    P<IFileSystemOp> beginCopyFile(const CURI& from, const CURI& to, bool overwrite, IDoneListener* listener) override;
    P<IFileSystemOp> beginDeleteFile(const CURI& file, IDoneListener* listener) override;
    P<IFileInfo> getFileInfo(const CURI& path, bool throwIfMissing) override;
    P<IIOStream> openStream(const CURI& file, IIOStream::Access access, const int& options) override;
    void createFolder(const CURI& folder, int mode) override;
    bool fileExists(const CURI& file) override;
    bool folderExists(const CURI& folder) override;
    bool pathExists(const CURI& path) override;
    void deleteFile(const CURI& file, bool ignoreMissing) override;
    TList<String> listFolder(const CURI& folder) override;
    P<IFileSystemLock> lockFolder(const CURI& folder, bool exclusive) override;
    int removeTemporaryFiles(const CURI& folder) override;
    void syncBatch() override;

protected:
    IFileSystem* getInner() const { return m_inner.get(); }

private:
    P<IFileSystem> m_inner;
};

} // namespace zo
