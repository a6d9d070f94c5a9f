// The brick tree of a disk folder: "bricks/" holds one folder level per tree
// level above the files, named by a letter ('a' + level - 1) and hexadecimal
// digits, and the files "<hex digits>.brick". With the tree shape of every
// disk (97 entries per level, 5 levels) a brick's index is the number whose
// base-97 digits are the names from the top level down to the file.
#pragma once

#include "brick/BrickDiskHeader.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <vector>

namespace cli {

// One brick file found in a disk folder.
struct BrickFile {
    zo::int64 index;
    zo::CURI path;   // absolute
    zo::int64 size;  // in bytes
};

// Everything found under a disk folder's "bricks".
struct BrickTreeListing {
    std::vector<BrickFile> bricks;              // in index order
    std::vector<zo::CURI> temporaryFiles;       // ".tmp-*" files of stores that never finished
    std::vector<zo::CURI> unexpectedEntries;    // anything else that does not belong in the tree

    zo::int64 totalBrickBytes() const;
};

// Walks the brick tree of `diskFolder` with IFileSystem::listFolder. A folder
// without "bricks" (a disk that never stored a brick) gives an empty listing.
// Passes on the file system's errors.
BrickTreeListing listBrickTree(zo::IFileSystem* fs, const zo::CURI& diskFolder, const brick::CBrickDiskHeader& header);

} // namespace cli
