// CBrickDiskAuxFileBase: the framing of the small records of a disk folder
// (the header and the link files). Each record N of folder F is kept twice,
// as F/N (the primary copy) and F/fallback/N (the fallback copy), and each
// copy is the record's bytes followed by their 16-byte MD5 digest. A damaged
// or half-written copy is thus detected and the other one used instead.
//
// All operations are static and take the file system from the caller. They
// do no locking: callers serialise the loading and storing of one record.
#pragma once

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Error.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/String.h"
#include "zo/URI.h"

namespace brick {

class BRICKDISK_EXPORT CBrickDiskAuxFileBase : public zo::CBase {
public:
    // Largest accepted file, digest included.
    static constexpr zo::int64 kMaxAuxFileSize = 0x100000;

    // The state of one copy of a record, as `checkAuxFileCopy` finds it.
    struct CopyCheck {
        enum Kind { Intact, Missing, BadSize, Corrupted, Unreadable };
        Kind kind = Missing;
        zo::CURI uri;
        // The record's bytes when the copy is intact.
        zo::P<zo::TBuffer<zo::uint8>> payload;
        // The file's size when it is of a size that cannot be.
        zo::int64 size = 0;
        // The file system's error when the copy is missing or unreadable.
        zo::P<zo::CError> error;

        bool isIntact() const { return kind == Intact; }
        // "intact", "missing", "bad size", "damaged (digest mismatch)" or
        // "unreadable: <the error>".
        zo::String describe() const;
    };

    // Reads copy `copy` (0 the primary, 1 the fallback) of record `fileName`
    // of `folder` and checks its size and digest. Never throws a CError: a
    // copy that the file system cannot give is Missing (NotFound) or
    // Unreadable, with the error kept.
    static CopyCheck checkAuxFileCopy(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& fileName,
                                      int copy);

    // Copy 0: folder << fileName (the primary copy); any other copy:
    // folder << "fallback" << fileName.
    static zo::CURI getAuxFileURI(const zo::CURI& folder, const zo::String& fileName, int copy);

    // The payload of the first copy, primary then fallback, that can be read
    // and whose digest matches. A file of 16 bytes or less, or of more than
    // 1 MiB, fails with "Bad brickdisk auxiliary file size: <size>"; a digest
    // mismatch with "Brickdisk auxiliary file is corrupted.". Every CError of
    // a copy gets the property "uri" naming that copy; when both copies fail,
    // the primary copy's error is thrown again with its own class. Exceptions
    // that are not CErrors end the load at once. The caller owns the result.
    static zo::P<zo::TBuffer<zo::uint8>> loadAuxFile(zo::IFileSystem* fs, const zo::CURI& folder,
                                                     const zo::String& fileName);

    // Replaces both copies with the payload and its digest, each atomically
    // (a new file in the same folder, made durable, then renamed over the
    // old one; IFileSystem::beginStoreFile), and creates the "fallback"
    // folder (an existing one is fine) before the fallback copy is stored.
    // The primary copy goes first, unless it is the only intact copy: then
    // the fallback copy is stored first and the intact one last, so that a
    // stop at any moment leaves a readable record. The first failure is
    // thrown unchanged and the other copy is not touched. An empty payload
    // is written but can never be loaded.
    static void storeAuxFile(zo::IFileSystem* fs, const zo::CURI& folder, const zo::String& fileName,
                             const zo::TBuffer<zo::uint8>& payload);

protected:
    CBrickDiskAuxFileBase() = default;
};

} // namespace brick
