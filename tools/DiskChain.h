// The links between disks, read without opening the disks (no password is
// needed): "parent.bricklnk" names a disk's parent, "child.bricklnk" its
// child, each relative to the folder that holds the link, or absolute.
#pragma once

#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <vector>

namespace cli {

// The folder that link `linkFileName` of `diskFolder` points to, resolved and
// normalised; empty when the disk has no such link. Passes on the errors of a
// link file that exists but cannot be loaded.
zo::CURI linkedDiskFolder(zo::IFileSystem* fs, const zo::CURI& diskFolder, const zo::String& linkFileName);

// Every ancestor of the disk in `diskFolder`, nearest first. Throws zo::CError
// "Parent link loop detected in brick disk." when the links run in a circle.
std::vector<zo::CURI> parentDiskFolders(zo::IFileSystem* fs, const zo::CURI& diskFolder);

} // namespace cli
