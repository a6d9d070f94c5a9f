// The disk that the nbdkit plugin serves: opened, locked and wrapped in a
// block device for as long as the server runs.
#pragma once

#include "brick/chain/BrickDiskLock.h"
#include "brick/chain/DiskStore.h"
#include "brick/serving/BrickDiskBlockDevice.h"

#include <string>

namespace nbdplugin {

struct ServeOptions {
    // An absolute local folder, "rados://POOL/path" or "s3://BUCKET/path".
    std::string diskFolder;
    // The Ceph cluster or S3 service of a disk in a store.
    brick::StoreSettings stores;
    bool readOnly = false;
    zo::int64 cacheBytes = 256ll << 20;
    // Empty: the disk is not encrypted.
    std::string password;
};

// What a server that stops with unstored bricks says: how many, which (the
// first few indexes) and why (`failure`, the flush's error), e.g. "The server
// stops with 2 changed bricks not stored (bricks 4, 9): ... Their latest
// writes are lost."
std::string describeUnstoredBricks(brick::CBrickDiskBlockDevice& device, const std::exception& failure);

class CServedDisk {
public:
    // Reaches the disk's store (brick::openStore, durable stores), locks the
    // disk (for writing, or shared for reading), checks that every parent
    // disk of its chain is there and made for it, opens it (reading and
    // writing unless read-only) and makes the block device. Throws the errors
    // of reaching the store, locking, the chain check and opening, such as
    // CBrickDiskError DiskInUse or IncorrectPassword.
    explicit CServedDisk(const ServeOptions& options);
    // Flushes and releases the disk and its lock; never throws.
    ~CServedDisk();
    CServedDisk(const CServedDisk&) = delete;
    CServedDisk& operator=(const CServedDisk&) = delete;

    brick::CBrickDiskBlockDevice& device() { return *m_device; }

    // Makes `snapshotFolder` a snapshot of the disk as it is now: holds new
    // requests back, waits for those in progress, flushes, makes the child
    // and goes on serving the disk, whose old bricks now go to the child.
    // Throws the errors of flushing, locking and making the child; the disk
    // is then served as before.
    void takeSnapshot(const zo::CURI& snapshotFolder);

    const ServeOptions& options() const { return m_options; }

private:
    zo::P<brick::CBrickDisk> openDisk() const;

    ServeOptions m_options;
    zo::CURI m_folder;
    zo::P<zo::IFileSystem> m_fs;
    zo::P<brick::CBrickDiskLock> m_lock;
    zo::P<brick::CBrickDiskBlockDevice> m_device;
};

} // namespace nbdplugin
