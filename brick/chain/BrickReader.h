// CBrickReader: where a brick of an open disk's chain is stored, and its
// decoded bytes. Every reader of bricks (the disk's brick objects, the block
// device, the tools) finds and decodes bricks through the one reader of its
// disk, so that "which disk of the chain holds brick N" is answered in one
// place.
#pragma once

#include "brick/format/BrickDataPreparer.h"
#include "brick/format/BrickDiskHeader.h"

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Containers.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/MemPool.h"
#include "zo/URI.h"

#include <mutex>
#include <vector>

namespace brick {

// Reads the bricks of one disk and its ancestors. A brick is read from the
// nearest disk of the chain that holds its file: the disk itself, then its
// parent, and so on; where none does, the brick is a hole and reads as zeros.
//
// Threads: every call may come from any thread at any time. The reader keeps
// no position and no state between calls; it lends each call a preparer of
// its own (CBrickDataPreparer is for one thread at a time) from a small pool.
class BRICKDISK_EXPORT CBrickReader : public zo::CBase {
public:
    // Where a brick's file is.
    struct Location {
        // The disk of the chain that holds it: 0 the disk itself, 1 its
        // parent, and so on; -1 when no disk does (a hole).
        int depth = -1;
        // That disk's folder and the brick's file in it; empty for a hole.
        zo::CURI folder;
        zo::CURI file;
        bool isHole() const { return depth < 0; }
    };

    // What a read found.
    enum class Content {
        Data, // a stored brick that holds other bytes than zeros
        Zero, // a stored brick that holds only zeros
        Hole, // no disk of the chain holds the brick: it reads as zeros
    };
    struct Found {
        Content content = Content::Hole;
        // As Location::depth.
        int depth = -1;
    };

    // A reader of the chain whose folders `chainFolders` lists, the disk's
    // own first, then its ancestors, nearest first (at least one folder),
    // read through `fs`. `header` is the disk's, `cipherKey` its key (empty
    // for an unencrypted disk); both are copied. Throws what
    // CBrickDataPreparer's constructor throws for the header.
    CBrickReader(zo::IFileSystem* fs, const std::vector<zo::CURI>& chainFolders, const CBrickDiskHeader& header,
                 const zo::TCryptBuffer<zo::uint8>& cipherKey);
    // The chain's folders as the constructor takes them: `diskFolder`, then
    // `parentFolders` (nearest first). Never throws but for want of memory.
    static std::vector<zo::CURI> chainOf(const zo::CURI& diskFolder, const zo::TList<zo::CURI>& parentFolders);
    CBrickReader(const CBrickReader&) = delete;
    CBrickReader& operator=(const CBrickReader&) = delete;

    zo::IFileSystem* getFileSystem() const { return m_fs.get(); }
    // The disk's own folder (depth 0).
    const zo::CURI& getDiskFolder() const { return m_folders.front(); }
    // The disk's folder, then its ancestors' folders, nearest first.
    const std::vector<zo::CURI>& getChainFolders() const { return m_folders; }
    const CBrickDiskHeader& getHeader() const { return m_header; }
    // A new preparer for the chain's bricks, for a caller that prepares
    // bricks itself (one per thread).
    zo::P<CBrickDataPreparer> createDataPreparer() const;

    // Which disk of the chain holds the file of brick `brickIndex`: the
    // nearest one where the file exists. Passes on the file system's errors.
    Location locate(zo::int64 brickIndex) const;
    // The same for the chain of `chainFolders` (as the constructor takes
    // them) of a disk whose header is `header`, read through `fs`: for
    // callers that locate bricks without the disk's key. Any thread.
    static Location locateIn(zo::IFileSystem* fs, const std::vector<zo::CURI>& chainFolders,
                             const CBrickDiskHeader& header, zo::int64 brickIndex);
    // For each of `brickIndexes`, true when some disk of the chain holds its
    // file (locate would not find a hole). Where several of the bricks share
    // a folder of the brick tree, that folder is listed once per disk instead
    // of asking for each file: one request in place of one per brick in an
    // object store. A folder that does not exist holds nothing; one that
    // cannot be listed (a store out of reach that a cache in front of it
    // answers for single files) is asked file by file. Passes on the errors
    // of those questions.
    std::vector<bool> holdFiles(const std::vector<zo::int64>& brickIndexes) const;

    // Loads the file of brick `brickIndex` from the nearest disk of the
    // chain that holds it, checks and decodes it into `dst` (a buffer of one
    // brick, whose used size becomes the decoded size; for a hole, a brick
    // of zeros) and says what it found. A parent may be written meanwhile by
    // another program (a snapshot read while its origin changes): its writer
    // copies the old file into the child before it replaces it, so a file
    // read from an ancestor counts only when the nearer disks still lack the
    // brick afterwards; otherwise the nearer file is read. Throws the file
    // system's errors other than a missing file (CFileSystemError NotFound,
    // or NotAFolder where a file stands in for a folder of the path) and the
    // errors of decode(); after a failure `dst` holds nothing meaningful.
    Found read(zo::int64 brickIndex, zo::TBuffer<zo::uint8>& dst) const;

    // Checks and decodes `fileBytes`, the bytes of a file of brick
    // `brickIndex`, into `dst`, replacing what it held. Throws the zo::CError
    // of CBrickDataPreparer::unprepareData (domain kErrorDomain, with its
    // codes and properties) for a file that is damaged, of another brick or
    // made with another key, and passes on cipher and compressor errors.
    void decode(zo::int64 brickIndex, const zo::TBuffer<zo::uint8>& fileBytes, zo::TBuffer<zo::uint8>& dst) const;

    // True when storing `plain` as brick `brickIndex` of this disk would
    // change nothing: the disk's own folder holds the brick's file with
    // exactly these bytes, or, for an all-zero brick (`prepared` null) of a
    // disk without parents, no file of it. `prepared` is `plain` as
    // CBrickDataPreparer::prepareData made it for this brick. Reads the
    // file's head and compares the digests of the plain bytes; only when
    // they match (or the files carry no such digest) is the whole file read,
    // checked and compared byte for byte. Never throws: a file that cannot
    // be read or decoded counts as different, and the store goes ahead.
    bool holds(zo::int64 brickIndex, const zo::TBuffer<zo::uint8>& plain, const zo::TBuffer<zo::uint8>* prepared) const;
    // The bytes of the file of brick `brickIndex` in the disk at `depth` of
    // the chain (0 the disk itself); null when that disk holds no file of
    // it. Throws the file system's errors other than a missing file, and
    // zo::CInvalidArgError for a depth outside the chain.
    zo::P<zo::CMemPoolBuffer> readFile(int depth, zo::int64 brickIndex) const;

private:
    // holdFiles for the bricks `members` (positions in `relatives`, their
    // paths in a disk folder) of the tree folder `folder`, by listing it in
    // each disk; false, leaving `held` alone, when a listing fails.
    bool holdFilesListed(const zo::CURI& folder, const std::vector<size_t>& members,
                         const std::vector<zo::CURI>& relatives, std::vector<bool>& held) const;
    // The preparer lent to one call, given back when the call ends.
    class CPreparerLoan;

    zo::P<zo::IFileSystem> m_fs;
    std::vector<zo::CURI> m_folders;
    CBrickDiskHeader m_header;
    zo::TCryptBuffer<zo::uint8> m_cipherKey;
    // The largest brick file read: a brick and what encoding may add.
    int m_maxFileSize;
    zo::P<zo::CMemPool> m_fileBuffers;
    // Guards m_idlePreparers.
    mutable std::mutex m_mutex;
    mutable std::vector<zo::P<CBrickDataPreparer>> m_idlePreparers;
};

} // namespace brick
