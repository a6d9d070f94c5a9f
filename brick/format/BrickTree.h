// CBrickTree: where each brick's file lies in a disk folder's tree of brick
// folders ("bricks/..."), made and parsed in this one place, and the brick
// files that a disk folder holds, found by walking the tree: each file's
// brick index, path and size, the temporary files of stores that never
// finished, and whatever else lies in the tree and does not belong there.
#pragma once

#include "brick/format/BrickDiskHeader.h"

#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <vector>

namespace brick {

class BRICKDISK_EXPORT CBrickTree {
public:
    struct BrickFile {
        zo::int64 index;
        zo::CURI path;
        zo::int64 size;
        // The store's tag of the file's bytes, where its listing gives one
        // (zo::FolderEntry::contentTag); else empty.
        zo::String contentTag;
    };

    struct Listing {
        // In index order.
        std::vector<BrickFile> bricks;
        // ".tmp-*" files of stores that never finished.
        std::vector<zo::CURI> temporaryFiles;
        // Entries whose names or kinds the tree does not have.
        std::vector<zo::CURI> unexpectedEntries;

        zo::int64 totalBrickBytes() const;
    };

    // Walks the tree of `diskFolder` (shaped by `header`) with
    // IFileSystem::listFolder, level by level, listing up to
    // `foldersListedAtOnce` folders of a level at once, each on a thread of
    // its own when more than one (`fs` must then allow calls from any
    // thread). A disk that never stored a brick (no "bricks") gives an empty
    // listing; a "bricks" that is no folder is unexpected. The temporary
    // files and unexpected entries are in the order of their paths. Passes
    // on the file system's errors (the first, once the listings under way
    // have ended).
    static Listing list(zo::IFileSystem* fs, const zo::CURI& diskFolder, const CBrickDiskHeader& header,
                        int foldersListedAtOnce = 1);

    // The file of brick `brickIndex` of any disk with `header`'s tree shape,
    // relative to its folder: "bricks/<level T-1>/.../<level 1>/<level
    // 0>.brick". Thread-safe.
    static zo::CURI getRelativeBrickURI(const CBrickDiskHeader& header, zo::int64 brickIndex);
    // The name of the entry of the brick tree at `level` (0: the brick file,
    // "<digits>.brick"; above: a folder, "<letter><digits>") for `digit`:
    // lower-case hexadecimal, padded to the number of hexadecimal digits of
    // the entries per level.
    static zo::String getEntryName(const CBrickDiskHeader& header, int level, int digit);
    // The digit that `name` stands for at `level` of the tree (0: the brick
    // files), or -1 when it is no name of getEntryName.
    static int parseEntryName(const CBrickDiskHeader& header, int level, const std::string& name);
};

} // namespace brick
