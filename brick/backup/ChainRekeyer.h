// CChainRekeyer: copies a disk and every snapshot of its chain to another
// place (any file system) under a new disk key: every brick file is decoded
// with the source's key and encoded anew with the new one, and the copies get
// new identities and links tied under the new key. What the source's keys
// (and whoever kept an old header or the old disk key) could read, the copy
// does not show them: its only key is the new password, named
// CBrickDiskHeader::kDefaultKeyName.
//
// The disks are made as CChainCopier makes them on a first copy: each under
// a creating mark (which every opening refuses), the oldest snapshot first
// and the top last, and the marks go, the top's first, when every disk is
// whole. A copy is always a whole first copy: the destination must be new or
// empty, and a copy cut short is refused when run again (its disks do not
// open); delete the destination and copy again.
//
// All calls are static and keep no state; they run on the caller's thread.
#pragma once

#include "zo/Export.h"

#include "seal/KeyDerivation.h"
#include "zo/FileSystem.h"
#include "zo/String.h"
#include "zo/URI.h"

#include <functional>
#include <vector>

namespace brick {

class BRICKDISK_EXPORT CChainRekeyer {
public:
    struct Options {
        // The password of the source chain (any of its keys).
        zo::String password;
        // The only password of the copy, and the cost of its key derivation.
        zo::String newPassword;
        seal::Argon2idCost cost;
        // Derives the source's key even when its header asks for a costlier
        // derivation than is allowed without permission.
        bool allowExpensiveKeyDerivation = false;
        // Called on the caller's thread between brick files; what it throws
        // stops the copy and passes through.
        std::function<void()> checkpoint;
    };

    struct Summary {
        // The disks made in the destination, the oldest snapshot first.
        std::vector<zo::CURI> disksMade;
        zo::int64 bricksReencoded = 0;
    };

    // Copies the chain whose top disk is in `source` (on `sourceFs`) to
    // `destination` (on `destinationFs`), every snapshot where its path
    // relative to the top says, relative to `destination`. Every disk of the
    // source is opened with the password (one key derivation each) before
    // anything is written. The caller locks the disks.
    //
    // Throws zo::CInvalidArgError for an empty new password; zo::CError
    // (with "diskFolder" and "destinationFolder") for a source that is not
    // the top disk of its chain, a chain with a snapshot whose making or
    // removal was cut short, a source whose key is not wrapped ("Only a disk
    // of the authenticated format, encrypted, can be copied with a new
    // key."), and a destination folder of any disk that exists and is not
    // empty ("A copy with a new key goes into a new or empty folder: ...");
    // CBrickDiskError IncorrectPassword for a disk that the password does
    // not open; the errors of decoding a brick file; and the file systems'
    // errors and what `checkpoint` throws.
    static Summary copy(zo::IFileSystem* sourceFs, const zo::CURI& source, zo::IFileSystem* destinationFs,
                        const zo::CURI& destination, const Options& options);
};

} // namespace brick
