// The disk that the nbdkit plugin serves: opened, locked and wrapped in a
// block device for as long as the server runs.
#pragma once

#include "brick/cache/CachedStore.h"
#include "brick/cache/CountingFileSystem.h"
#include "brick/chain/BrickDiskLock.h"
#include "brick/chain/DiskStore.h"
#include "brick/serving/BrickDiskBlockDevice.h"
#include "brick/serving/ServeStats.h"

#include <memory>
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
    // Empty: no local cache. Else the local folder that caches the brick
    // files of a disk in a store (refused for a disk in a local folder).
    std::string cacheDir;
    // The size the cache folder is kept within.
    zo::int64 cacheDirBytes = brick::CacheSettings().maxBytes;
    // Uploaders of the cache.
    int uploadJobs = brick::CacheSettings().uploadJobs;
    // Files of the cache changed and not yet uploaded, at most.
    int maxDirtyFiles = brick::CacheSettings().maxDirtyFiles;
    // A flush also waits until the store holds every write before it.
    bool flushToStore = false;
    // Empty: no statistics. Else the absolute path of the file that the
    // server's counters are written into every few seconds and at the end.
    std::string statsFile;
};

// Refuses options that do not fit together: a cache folder for a disk in a
// local folder. Throws zo::CError with the reason.
void checkServeOptions(const ServeOptions& options);

// What a server that stops with unstored bricks says: how many, which (the
// first few indexes) and why (`failure`, the flush's error), e.g. "The server
// stops with 2 changed bricks not stored (bricks 4, 9): ... Their latest
// writes are lost."
std::string describeUnstoredBricks(brick::CBrickDiskBlockDevice& device, const std::exception& failure);

class CServedDisk {
public:
    // Reaches the disk's store (brick::openStore, durable stores), locks the
    // disk (for writing, or shared for reading), with a cache folder opens
    // the cache over the store (which first uploads what a killed server
    // left in it, and refuses the cache folder of another disk or of a disk
    // written without it since), checks that every parent
    // disk of its chain is there and made for it, opens it (reading and
    // writing unless read-only) and makes the block device. Throws the errors
    // of reaching the store, locking, the chain check and opening, such as
    // CBrickDiskError DiskInUse or IncorrectPassword. With a statistics file
    // it counts the requests to the store and writes the file once (throwing
    // when that fails), then every few seconds.
    explicit CServedDisk(const ServeOptions& options);
    // Flushes and releases the disk and its lock, after the cache's uploads
    // (those that fail stay in the cache folder for the next server), and
    // writes the statistics file a last time; never throws.
    ~CServedDisk();
    CServedDisk(const CServedDisk&) = delete;
    CServedDisk& operator=(const CServedDisk&) = delete;

    brick::CBrickDiskBlockDevice& device() { return *m_device; }

    // Makes every write before it durable: in the cache folder when there is
    // one, and with flushToStore, or without a cache, in the store. Throws
    // the device's flush errors and the cache's upload errors.
    void flush();

    // Makes `snapshotFolder` a snapshot of the disk as it is now: holds new
    // requests back, waits for those in progress, flushes, makes the child
    // and goes on serving the disk, whose old bricks now go to the child.
    // With a cache, the store first receives every change the cache holds.
    // Throws the errors of flushing, locking and making the child; the disk
    // is then served as before.
    void takeSnapshot(const zo::CURI& snapshotFolder);

    const ServeOptions& options() const { return m_options; }

private:
    zo::P<brick::CBrickDisk> openDisk() const;

    ServeOptions m_options;
    zo::CURI m_folder;
    zo::P<zo::IFileSystem> m_fs;
    // Null without a statistics file; else in front of the store.
    zo::P<brick::CCountingFileSystem> m_storeCounter;
    // Null without a cache folder; else m_fs.
    zo::P<brick::CCachedStore> m_cache;
    // The write mark that the disk's writing locks write: the cache folder's
    // ID; empty (a random mark) without a cache folder, or with a new one.
    zo::String m_writeMark;
    zo::P<brick::CBrickDiskLock> m_lock;
    zo::P<brick::CBrickDiskBlockDevice> m_device;
    // Declared last, so it goes first, once the destructor has flushed and
    // uploaded: its last write holds the counters of the end.
    std::unique_ptr<brick::CServeStatsFile> m_stats;
};

} // namespace nbdplugin
