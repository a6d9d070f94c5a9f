// Opening disks for the commands. Folders named on the command line become
// absolute paths, so that link files and messages never depend on the
// working folder; a folder that holds no disk is reported as such before the
// library is asked to open it.
#pragma once

#include "Password.h"

#include "brick/chain/BrickDisk.h"
#include "brick/chain/BrickDiskLock.h"
#include "brick/chain/DiskStore.h"
#include "brick/format/BrickDiskHeader.h"
#include "zo/LocalFileSystem.h"
#include "zo/URI.h"

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace cli {

// `path` made absolute against the working folder, normalised and with the
// symbolic links of its existing folders resolved; a disk on
// Ceph, "rados://POOL/path/to/disk", or on S3, "s3://BUCKET/path/to/disk",
// only normalised. An empty path throws UsageError, and so does a path that
// starts with another scheme ("Unknown storage scheme ...": a word and ":/",
// as in "s3:/bucket", "S3://bucket" or "file:///srv"; such a local folder is
// named "./s3:/bucket").
zo::CURI diskFolderURI(const std::string& path);

// The settings of the Ceph cluster and the S3 service of the disks in those
// stores, as the program's options give them (--ceph-conf, --ceph-id,
// --ceph-lock-lease, --ceph-timeout, --s3-endpoint, --s3-virtual-host,
// --s3-no-conditional-put, --s3-lock-lease, --s3-attempts): set once, before
// a command runs.
void setStoreSettings(const brick::StoreSettings& settings);
const brick::StoreSettings& getStoreSettings();

// True for a disk folder in the local file system (neither rados:// nor s3://).
bool isLocalFolder(const zo::CURI& folder);

// The file system that holds `folder`, with `threadCount` worker threads, as
// brick::openStore makes it with the program's store settings: the Ceph
// cluster's for "rados://" folders, the S3 service's for "s3://" folders
// (connecting, or finding no S3 credentials, throws zo::CError), else the
// local one, where with `syncEnabled` every stored brick and header reaches
// the disk before it counts as stored.
zo::P<zo::IFileSystem> newFileSystem(const zo::CURI& folder, bool syncEnabled, int threadCount);

// The header of the disk in `folder`. Throws zo::CError "The disk path is a
// file, not a folder.", "Disk folder does not exist." or "Folder holds no brick disk: disk.brickdisk and its fallback copy
// are both missing." (each with "diskFolder") before the library would fail
// less clearly, refuses a snapshot whose making or deletion was cut short
// (throwUnfinished), and passes on the errors of loading the header.
brick::CBrickDiskHeader loadDiskHeader(zo::IFileSystem* fs, const zo::CURI& folder);

// Throws zo::CError (with "diskFolder" and, where the folder names it,
// "parentFolder") that says which command finishes the snapshot in `folder`
// when its making or its deletion was cut short; returns for a whole disk.
void throwUnfinished(zo::IFileSystem* fs, const zo::CURI& folder);

// True when `folder` is missing or has no entries.
bool isMissingOrEmptyFolder(zo::IFileSystem* fs, const zo::CURI& folder);

// Opens the disk in `folder` with `access` (1 read, 3 read and write), after
// checking that every parent disk of its chain is there and made for it (a
// missing or different one throws zo::CError naming it and what differs). An
// unencrypted disk opens without a password; for an encrypted one the
// password comes from `passwords` (a wrong one throws the library's
// CBrickDiskError IncorrectPassword), which also says whether an expensive
// key derivation is allowed (else the library refuses it).
zo::P<brick::CBrickDisk> openDisk(zo::IFileSystem* fs, const zo::CURI& folder, const CPasswordSource& passwords,
                                  zo::IIOStream::Access access, int maxBackgroundOps);

// The key that ties the links of the disk in `folder` (see
// brick::CBrickDiskIdentity), for commands that change links without
// opening the disk: empty for a disk without an identity or an unencrypted
// one; otherwise the key that the password from `passwords` unwraps (a
// wrong one throws the library's CBrickDiskError IncorrectPassword).
zo::TCryptBuffer<zo::uint8> keyForLinks(zo::IFileSystem* fs, const zo::CURI& folder, const CPasswordSource& passwords);

// Adds --force-share to a command that only reads a disk.
void addForceShareOption(CLI::App& command, bool& forceShare);

// Locks the disk in `folder` for `mode` for as long as the returned lock
// lives: readers share a disk, a writer has it alone (and keeps writers off
// its child). A disk that is in use throws zo::CError "The disk is in use by
// another process." with "diskFolder" and "holder" (who holds it, where the
// file system can tell). A file system that cannot lock gives a warning on
// stderr. For commands without --force-share.
zo::P<brick::CBrickDiskLock> lockDisk(zo::IFileSystem* fs, const zo::CURI& folder, brick::CBrickDiskLock::Mode mode);

// The same for a writer that writes `writeMark` as the disk's write mark (a
// served disk's cache folder's ID; see brick::CBrickDiskLock::acquire).
zo::P<brick::CBrickDiskLock> lockDiskForWriting(zo::IFileSystem* fs, const zo::CURI& folder,
                                                const zo::String& writeMark);

// The same for a writer that changes none of the disk's bricks (making a
// child rewrites only the disk's link to it): the disk's write mark stays as
// it is, so that the cache folder of a server of the disk still takes it
// (brick::CBrickDiskLock::acquireKeepingWriteMark).
zo::P<brick::CBrickDiskLock> lockDiskKeepingWriteMark(zo::IFileSystem* fs, const zo::CURI& folder,
                                                      brick::CBrickDiskLock::Mode mode);

// Takes the disk's lock for `mode` for a moment, to refuse a disk in use as
// lockDisk does, and releases it; a writing lock leaves the disk's write
// mark as it is (brick::CBrickDiskLock::acquireKeepingWriteMark).
void checkDiskFree(zo::IFileSystem* fs, const zo::CURI& folder, brick::CBrickDiskLock::Mode mode);

// The same for a command that has --force-share (addForceShareOption): a
// reader with `forceShare` takes no lock and gets null, and the error of a
// reader of a disk in use adds a hint at --force-share.
zo::P<brick::CBrickDiskLock> lockDisk(zo::IFileSystem* fs, const zo::CURI& folder, brick::CBrickDiskLock::Mode mode,
                                      bool forceShare);

// Every ancestor folder of the disk in `folder`, nearest first, as its chain
// names them (the walk stops at one that is missing or does not match).
// Throws the chain's errors (a link loop among them).
std::vector<zo::CURI> parentDiskFolders(zo::IFileSystem* fs, const zo::CURI& folder);

// The file of brick `index` in the first folder of the disk's chain (the disk,
// then its parents, nearest first) that holds it, as the disk's brick reader
// locates it; the path in the disk's own folder when none does.
zo::CURI locateBrickFile(const brick::CBrickDisk& disk, zo::int64 index);

// Throws CError "Cannot read brick N." with "brickIndex" and "brickFile" (the
// file it was read from) and `cause` as its cause.
[[noreturn]] void throwBrickReadError(const brick::CBrickDisk& disk, zo::int64 index, const zo::CError& cause);

} // namespace cli
