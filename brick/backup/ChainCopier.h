// CChainCopier: copies a disk and the snapshots of its chain from one store
// to another (a folder, a Ceph pool, an S3 bucket: any two file systems) as
// they are stored, brick files and records byte for byte, without the key.
// The copy is a disk of the same key, which the same password opens.
//
// Layout: the top disk goes to the destination folder; each snapshot goes
// where its path relative to the top's folder says, relative to the
// destination, so that the relative links stay true. A destination that
// names the top otherwise than the source does gets links rewritten to name
// it (the target of a link is outside its tag, so authenticated links stay
// authentic); every other record and brick file is copied byte for byte.
//
// A copy into a destination that holds the disk already sends only the brick
// files that it lacks or holds with other bytes (by size and the outer digest
// at the end of each brick file), adds the snapshots made since, newest
// last, and keeps every disk that was already there reading what it read
// before, at every moment (how it learns the destination's digests: see
// Options::recordFolder):
//   1. the snapshots the destination holds get the brick files that their
//      source kept for them since (those equal what they read through their
//      newer disks, so nothing changes for them);
//   2. each new snapshot is made in its folder, the oldest first, under a
//      creating mark (CBrickDisk::getCreatingMarkFileName), which every
//      opening refuses: its brick files, its creation time, its header, its
//      links;
//   3. the new snapshots are tied in: the top's child link, then the parent
//      link of the snapshot below them, both copied from the source;
//   4. the top's brick files are replaced (each atomically), then those that
//      the top no longer holds are deleted, then its records are replaced;
//   5. the creating marks are removed, the newest disk's first, so that a
//      disk opens only once every newer disk it reads through is whole.
// A first copy makes every disk as in step 2, the top last, then step 5.
// The brick files sent into a disk are staged (zo::beginStoreFileStaged:
// written without a sync each) and put in place, bytes and names durable,
// by one sync of the destination's batch (IFileSystem::syncBatch) before
// any record or deletion that follows them: a stop, or a power cut, at any
// point leaves every disk as described. A copy cut short at any point is
// finished by running it again. Snapshots that the source
// has dropped since an earlier copy stay in the destination, except its
// newest one, which would show the top's changes: that copy is refused.
//
// All calls are static and keep no state; they run on the caller's thread,
// with `Options::jobs` threads of their own for the brick files.
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/URI.h"

#include <functional>
#include <string>
#include <vector>

namespace brick {

class BRICKDISK_EXPORT CChainCopier {
public:
    enum class SnapshotChoice {
        All, // every snapshot of the chain
        None, // the top disk alone
        Listed, // the snapshots named in Options::snapshotNames
    };

    // Where a copy stands, for a progress display.
    struct Progress {
        // The destination folder of the disk being copied.
        zo::CURI disk;
        zo::int64 filesDone = 0;
        zo::int64 filesTotal = 0;
        zo::int64 bytesSent = 0;
    };

    struct Options {
        SnapshotChoice snapshots = SnapshotChoice::All;
        // With Listed: snapshot folders, by their name or their path relative
        // to the top's folder. They must be the newest snapshots of the
        // chain: an older snapshot reads through every newer one. For the
        // same reason the snapshots newer than the newest one the
        // destination holds are copied whatever the choice.
        std::vector<std::string> snapshotNames;
        // Brick files sent at once (at least 1). Comparing a brick file with
        // the destination's reads only the last bytes of each, mostly waiting
        // for the store: four times as many are compared at once.
        int jobs = 4;
        // A local folder where copies keep what they learned of each
        // destination's brick files (CCopyRecord, one file per destination),
        // or empty for none. Over a store whose listing tells a tag of each
        // file's bytes (S3's ETag), a brick file that the destination holds
        // with a tag that the record maps to the source file's size and outer
        // digest is skipped without a request to the destination; any other
        // is compared by reading its digest, as without a record. The record
        // is written after the copy (also after one that failed), unless in a
        // dry run; a record that is missing, old, damaged or cannot be
        // written only makes copies ask the destination more.
        zo::CURI recordFolder;
        // Work out what would be sent and change nothing.
        bool dryRun = false;
        // Read back every brick file sent and every record of the copied
        // disks, and fail when one differs or does not load.
        bool verify = false;
        // Called on the caller's thread between files; what it throws stops
        // the copy (after the files in flight) and passes through.
        std::function<void()> checkpoint;
        // Called on the caller's thread as files are done.
        std::function<void(const Progress&)> onProgress;
    };

    struct Summary {
        zo::int64 filesSent = 0;
        zo::int64 bytesSent = 0;
        zo::int64 filesSkipped = 0;
        zo::int64 bytesSkipped = 0;
        // Brick files of the destination that its source no longer holds.
        zo::int64 filesDeleted = 0;
        // Records (headers, links, creation times) written.
        zo::int64 recordsWritten = 0;
        // Disks made in the destination (new snapshots, and the top on a
        // first copy).
        std::vector<zo::CURI> disksMade;
        // Brick files of the source whose outer digest does not match their
        // bytes, by their path in the source; they are sent as they are.
        std::vector<zo::CURI> damagedFiles;
        // Snapshots of the source older than the destination's newest that
        // the destination lacks: they cannot be put below it and are left out.
        std::vector<zo::CURI> snapshotsLeftOut;
    };

    // Copies the chain whose top disk is in `source` (on `sourceFs`) to
    // `destination` (on `destinationFs`; the two may be the same file
    // system). Needs no key. The caller locks the disks.
    //
    // Each brick file sent is checked against its outer digest where that
    // needs no key (the checksum formats "md5" and "sha256"; the keyed
    // "hmac-sha256" is left to a check with the key). A file that fails is
    // sent all the same, so that the copy stays as detectably damaged as its
    // source, and listed in Summary::damagedFiles; it does not stop the copy.
    //
    // Unless in a dry run, the temporary files that a killed store or copy
    // left in the destination's disk folders (and below them) are removed
    // before those folders are checked, so that a run finishes what a
    // killed one began; the caller's exclusive lock on the destination keeps
    // other writers out meanwhile.
    //
    // Throws zo::CError (with "diskFolder" and, where it applies,
    // "destinationFolder") for: a source that is not the top of its chain
    // ("The source must be the top disk of its chain."), a source chain with
    // a snapshot whose making or removal was cut short, an unknown or
    // not-newest snapshot name, a snapshot whose place in the destination
    // lies above the root of the destination's store, on that root, or
    // inside the source's disks, a destination that holds files but no disk, and a destination
    // that is another disk ("The destination holds another disk: ...", which
    // says whether its key or its disk ID differs), a snapshot folder in the
    // destination that holds another disk or other files, and a destination
    // whose newest snapshot the source no longer has. With `verify`, throws
    // CError "The copy does not read back as sent: ..." listing every file
    // that differs. Passes on the file systems' errors and what
    // `checkpoint` throws; whatever stops the copy leaves every disk that was
    // in the destination before reading as it did, and a new call finishes it.
    static Summary copy(zo::IFileSystem* sourceFs, const zo::CURI& source, zo::IFileSystem* destinationFs,
                        const zo::CURI& destination, const Options& options);
};

} // namespace brick
