// The state of one copy of a small record of a disk folder (the header
// "disk.brickdisk", the links "parent.bricklnk" and "child.bricklnk"). Each is
// kept twice, in the folder and under "fallback/", as its bytes followed by
// their 16-byte MD5 digest; the disk opens as long as one copy is intact, so a
// damaged copy goes unnoticed until both are.
#pragma once

#include "zo/Buffer.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <string>

namespace cli {

struct AuxFileCopyState {
    enum Kind { Intact, Missing, BadSize, Corrupted, Unreadable };
    Kind kind = Missing;
    zo::CURI path;
    // The record's bytes when the copy is intact.
    zo::TBuffer<zo::uint8> payload;
    // What went wrong when the copy is unreadable.
    std::string detail;

    bool isIntact() const { return kind == Intact; }
    // "intact", "missing", "bad size", "damaged (digest mismatch)", "unreadable: ...".
    std::string describe() const;
};

// Reads copy `copy` (0 the primary, 1 the fallback) of record `fileName` of
// `folder` and checks its size and digest.
AuxFileCopyState checkAuxFileCopy(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& fileName, int copy);

} // namespace cli
