// The disks that hold one disk key: a disk, its parents and the children its
// child links lead to. passwd and key change their headers together.
#pragma once

#include "brick/chain/BrickDiskLock.h"
#include "brick/format/BrickDiskHeader.h"
#include "zo/Containers.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <string>
#include <vector>

namespace cli {

// The disk in `folder` first, then its parents, nearest first, then its
// linked children, nearest first.
zo::TList<zo::CURI> sharedKeyFolders(zo::IFileSystem* fs, const zo::CURI& folder);

// Shared locks on every folder of `folders`: readers may go on (they find
// each header whole in one of its copies), while writers, which need a disk
// alone, stay out; so does a new snapshot, which would copy a header being
// rewritten. Throws the lock errors of lockDisk.
std::vector<zo::P<brick::CBrickDiskLock>> lockSharedKeyFolders(zo::IFileSystem* fs, const zo::TList<zo::CURI>& folders);

// Refuses, before any password is asked, a disk whose keys cannot change:
// zo::CError "The disk is not encrypted: it has no <what>." (`what` is
// "password" or "keys") with "diskFolder", and for a key derived from the
// password itself "The <what> of this disk cannot change: ..." with the way
// to a disk whose <what> can change.
void checkKeysCanChange(const brick::CBrickDiskHeader& header, const zo::CURI& folder, const std::string& what);

} // namespace cli
