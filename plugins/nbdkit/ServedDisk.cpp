#include "ServedDisk.h"

#include "brick/cache/CacheFolder.h"
#include "brick/chain/BrickDiskChain.h"
#include "zo/LocalFileSystem.h"
#include "zo/Log.h"

namespace nbdplugin {

using brick::CBrickDisk;
using brick::CBrickDiskBlockDevice;
using brick::CBrickDiskLock;

namespace {

// Stores that may run at once for the disk's own brick object; the block
// device adds its own per thread.
constexpr int kMaxBackgroundOps = 16;
constexpr int kFileSystemThreads = 8;
constexpr int kCacheFileSystemThreads = 4;

// Indexes named in full; the rest are counted.
constexpr size_t kNamedBricks = 16;

} // namespace

std::string describeUnstoredBricks(CBrickDiskBlockDevice& device, const std::exception& failure)
{
    const std::vector<zo::int64> unstored = device.getUnstoredBricks();
    std::string indexes;
    for (size_t i = 0; i < unstored.size() && i < kNamedBricks; ++i)
        indexes += (i == 0 ? "" : ", ") + std::to_string(unstored[i]);
    if (unstored.size() > kNamedBricks)
        indexes += ", ...";
    const auto* error = dynamic_cast<const zo::CError*>(&failure);
    const std::string cause = error ? error->toString().toUTF8() : std::string(failure.what());
    return "The server stops with " + std::to_string(unstored.size()) +
        (unstored.size() == 1 ? " changed brick" : " changed bricks") + " not stored (" +
        (unstored.size() == 1 ? "brick " : "bricks ") + indexes + "): " + cause + " Their latest writes are lost.";
}

void checkServeOptions(const ServeOptions& options)
{
    if (!options.cacheDir.empty() && brick::getStoreKind(options.diskFolder) == brick::StoreKind::LocalFolder)
        throw zo::CError("A cache folder is for disks in a Ceph pool or an S3 bucket; a disk in a local folder is "
                         "served from its folder without one.",
                         zo::String(), -1,
                         zo::CProps()
                             .add("diskFolder", zo::String::fromUTF8(options.diskFolder))
                             .add("cacheFolder", zo::String::fromUTF8(options.cacheDir)));
}

CServedDisk::CServedDisk(const ServeOptions& options)
    : m_options(options), m_folder(zo::String::fromUTF8(options.diskFolder)),
      // A flush answers for durability, so every stored brick reaches the disk.
      m_fs(brick::openStore(m_folder, options.stores, true, kFileSystemThreads))
{
    checkServeOptions(options);
    if (!options.statsFile.empty()) {
        m_storeCounter = zo::P<brick::CCountingFileSystem>(new brick::CCountingFileSystem(m_fs.get()));
        m_fs = m_storeCounter;
    }
    brick::CacheSettings settings;
    zo::P<zo::IFileSystem> cacheFs;
    // Read before the lock, which writes it as the disk's write mark.
    if (!options.cacheDir.empty()) {
        // The user's own links on the way to the folder are resolved once,
        // here: the local file system follows none.
        settings.folder = zo::CLocalFileSystem::resolveUserPath(options.cacheDir);
        cacheFs = zo::P<zo::IFileSystem>(new zo::CLocalFileSystem(kCacheFileSystemThreads));
        m_writeMark = brick::readCacheFolderId(cacheFs.get(), settings.folder);
    }
    m_lock = CBrickDiskLock::acquire(
        m_fs.get(), m_folder, options.readOnly ? CBrickDiskLock::ForReading : CBrickDiskLock::ForWriting, m_writeMark);
    if (!options.cacheDir.empty()) {
        // Opened under the lock: what a killed server left in the cache is
        // uploaded before anything reads the disk.
        settings.maxBytes = options.cacheDirBytes;
        settings.uploadJobs = options.uploadJobs;
        settings.maxDirtyFiles = options.maxDirtyFiles;
        settings.diskMarkBefore = m_lock->getPreviousWriteMark();
        settings.diskMark = m_lock->getWriteMark();
        m_cache = zo::P<brick::CCachedStore>(new brick::CCachedStore(m_fs.get(), m_folder, cacheFs.get(), settings));
        // A new folder has its ID now: the locks taken while serving write it.
        m_writeMark = m_cache->getFolderId();
        m_fs = m_cache;
    }
    // A parent that is missing or was not made for this disk would show
    // through as wrong bytes: the disk is refused, as the tools refuse it.
    brick::CBrickDiskChain(m_fs.get(), m_folder).validate();
    const zo::P<CBrickDisk> disk = openDisk();
    m_device = zo::P<CBrickDiskBlockDevice>(new CBrickDiskBlockDevice(disk.get(), options.cacheBytes));
    if (!options.statsFile.empty())
        m_stats = std::make_unique<brick::CServeStatsFile>(options.statsFile, zo::String::fromUTF8(options.diskFolder),
                                                           m_storeCounter.get(), m_cache.get());
}

CServedDisk::~CServedDisk()
{
    try {
        m_device->flush();
    } catch (const std::exception& e) {
        zo::logError(e, "Flushing the served disk at the end failed.", zo::String());
    }
    if (!m_cache)
        return;
    try {
        m_cache->drain();
    } catch (const std::exception& e) {
        zo::logError(e, "Uploading the cache at the end failed.",
                     "The changed bricks stay in the cache folder " + zo::String::fromUTF8(m_options.cacheDir) +
                         " and are uploaded when the disk is served with it again.");
    }
}

void CServedDisk::flush()
{
    m_device->flush();
    if (m_cache && m_options.flushToStore)
        m_cache->drain();
}

zo::P<CBrickDisk> CServedDisk::openDisk() const
{
    const zo::P<CBrickDisk> disk(new CBrickDisk(
        m_fs.get(), m_folder, zo::String(m_options.password),
        m_options.readOnly ? zo::IIOStream::AccessRead : zo::IIOStream::AccessReadWrite, kMaxBackgroundOps));
    // Serving a snapshot writable was asked for explicitly.
    disk->setAllowWritingWithParentDisk(true);
    return disk;
}

void CServedDisk::takeSnapshot(const zo::CURI& snapshotFolder)
{
    if (m_options.readOnly)
        throw zo::CError("A disk served read-only cannot be snapshotted while it is served.", zo::String(), -1,
                         zo::CProps().add("diskFolder", m_folder.toString(true)));
    m_device->pauseAndReplaceDisk([&](const zo::P<CBrickDisk>& current) {
        // The snapshot reads the disk's bricks from the store: they must be
        // there before it exists.
        if (m_cache)
            m_cache->drain();
        CBrickDisk::createChild(m_fs.get(), snapshotFolder, m_folder, CBrickDisk::linkedChild, current->getCipherKey());
        // Reopened, the disk knows its new child and copies old bricks there.
        const zo::P<CBrickDisk> reopened = openDisk();
        // The lock now covers the new child, which writers must keep off.
        // Locks of one process exclude each other too: the old one goes first.
        m_lock = zo::P<CBrickDiskLock>();
        m_lock = CBrickDiskLock::acquire(m_fs.get(), m_folder, CBrickDiskLock::ForWriting, m_writeMark);
        return reopened;
    });
}

} // namespace nbdplugin
