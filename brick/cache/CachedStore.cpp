#include "brick/cache/CachedStore.h"

#include "brick/cache/detail/CacheLayout.h"

#include "brick/format/BrickDiskHeader.h"
#include "zo/BufferStream.h"
#include "zo/FileSystemOp.h"
#include "zo/Log.h"
#include "zo/SyncAll.h"

#include <algorithm>
#include <set>

namespace brick {

using zo::CError;
using zo::CFileSystemError;
using zo::CProps;
using zo::CURI;
using zo::int64;
using zo::P;
using zo::String;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFolderMode = 0700;
// Keepers writing fetched files: local writes without a sync, so a few keep
// up with many readers.
constexpr int kKeepers = 2;
constexpr int kMaxRetryDelayMillis = 30000;
// Eviction frees down to this share of the size, so that it runs in batches.
constexpr int64 kEvictToPercent = 90;

P<zo::TBuffer<zo::uint8>> readAll(zo::IFileSystem* fs, const CURI& file)
{
    const P<zo::IIOStream> stream = fs->openStream(file, zo::IIOStream::AccessRead, 0);
    const int64 length = stream->getLength();
    P<zo::TBuffer<zo::uint8>> bytes(new zo::TBuffer<zo::uint8>(static_cast<int>(length)));
    if (length > 0)
        stream->read(bytes->getData(), static_cast<int>(length));
    return bytes;
}

void storeAll(zo::IFileSystem* fs, const CURI& file, const zo::TBuffer<zo::uint8>& bytes, bool overwrite = true)
{
    const P<zo::IInStream> source(new zo::CBufferStream(&bytes));
    fs->beginStoreFile(file, bytes.getUsed(), source.get(), overwrite, nullptr)->wait();
}

void storeText(zo::IFileSystem* fs, const CURI& file, const std::string& text)
{
    storeAll(fs, file,
             zo::TBuffer<zo::uint8>(reinterpret_cast<const zo::uint8*>(text.data()), static_cast<int>(text.size())));
}

CFileSystemError notFound(const CURI& file)
{
    return CFileSystemError(CFileSystemError::NotFound,
                            CError("The file does not exist.", String(), -1, CProps().add("path", file.toString())));
}

// Refuses the cache folder of `settings` unless its owner record `owner` is
// that of `disk` with the header digest `header`, and the disk was not
// written without the folder since.
void refuseUnlessOwner(const CacheSettings& settings, const String& disk, const std::string& header,
                       const detail::OwnerRecord& owner, bool hasDirty)
{
    // The disk was written only through this folder since its last opening
    // when the mark it held before this opening's lock is one this folder
    // knows: its own ID, which every lock of its servers writes, or the mark
    // the last opening recorded (the lock of a folder's first opening wrote
    // a random one, as the folder had no ID yet). Any other writer leaves a
    // mark of its own. A kill between a lock writing the folder's ID and the
    // opening recording it leaves the ID in the disk, which is accepted: no
    // crash makes a false refusal. A folder made before the ID existed has
    // no record to compare with and is accepted once.
    const std::string markBefore = settings.diskMarkBefore.toUTF8();
    const bool writtenThroughThisFolder =
        owner.id.empty() || markBefore == owner.id || markBefore == owner.expectedMark;
    if (owner.disk == disk.toUTF8() && owner.headerDigest == header && writtenThroughThisFolder)
        return;
    const String folder = settings.folder.toString();
    CProps props = CProps().add("cacheFolder", folder).add("diskFolder", disk).add("cachedDisk", String(owner.disk));
    std::string quoted("'");
    quoted.append(folder.toUTF8()).append("'");
    const std::string drop = "brickdisk cache drop " + quoted + (hasDirty ? " --discard-dirty" : "");
    if (owner.disk != disk.toUTF8()) {
        if (hasDirty)
            throw CError(String("The cache folder belongs to another disk, " + owner.disk +
                                ", and holds changes of it that its store lacks. Upload them with 'brickdisk cache "
                                "flush " +
                                quoted + "' (or by serving that disk with this cache folder), or give them up with '" +
                                drop + "'; or choose another cache folder."),
                         String(), -1, props);
        throw CError(String("The cache folder belongs to another disk, " + owner.disk +
                            ". Choose another cache folder, or empty this one with '" + drop + "'."),
                     String(), -1, props);
    }
    const std::string reason = owner.headerDigest != header ? "its header is not the one the cache recorded"
                                                            : "it was written without this cache folder";
    throw CError(String("The disk changed elsewhere since this cache folder was used: " + reason +
                        ". Empty the cache folder with '" + drop + "' before serving it" +
                        (hasDirty ? ", which gives up the changes the cache holds for the store." : ".")),
                 String(), -1, props);
}

} // namespace

bool CCachedStore::isBrickFile(const CURI& path)
{
    const std::string text = path.toNormalized().toString().toUTF8();
    const std::string suffix = ".brick";
    return text.size() > suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0 &&
        (text.find("/bricks/") != std::string::npos || text.rfind("bricks/", 0) == 0);
}

CCachedStore::CCachedStore(zo::IFileSystem* store, const CURI& diskFolder, zo::IFileSystem* cacheFs,
                           const CacheSettings& settings)
    : CForwardingFileSystem(store), m_cacheFs(cacheFs), m_settings(settings),
      m_diskPrefix(diskFolder.toNormalized().toString() + "/")
{
    m_settings.uploadJobs = std::max(1, m_settings.uploadJobs);
    m_settings.maxDirtyFiles = std::max(1, m_settings.maxDirtyFiles);
    m_cacheFs->createFolder(m_settings.folder << detail::kCacheFilesFolder, kFolderMode);
    m_cacheFs->createFolder(m_settings.folder << detail::kCacheJournalFolder, kFolderMode);
    try {
        m_folderLock = m_cacheFs->lockFolder(m_settings.folder, true);
    } catch (const CFileSystemError& e) {
        if (e.getProblem() != CFileSystemError::Locked)
            throw;
        throw CError("The cache folder is in use by another server.", String(), -1,
                     CProps().add("cacheFolder", m_settings.folder.toString()), &e);
    }
    // Left by stores into the cache folder that a killed process cut short.
    m_cacheFs->removeTemporaryFiles(m_settings.folder);
    const CURI inUse = m_settings.folder << detail::kCacheInUseFile;
    const bool closedCleanly = !m_cacheFs->fileExists(inUse);
    loadJournal();
    checkOwner(diskFolder, !m_dirty.empty());
    int dropped = 0;
    loadCachedFiles(m_settings.folder << detail::kCacheFilesFolder, closedCleanly, dropped);
    if (dropped > 0)
        zo::logLine(zo::LogLevel::Warning,
                    "The cache folder " + m_settings.folder.toString() + " was not closed cleanly: dropped " +
                        String(std::to_string(dropped)) +
                        " cached brick files that the store holds; they are fetched again when read.");
    // Durable before any clean file is written without a sync.
    storeText(m_cacheFs.get(), inUse, "A cache uses this folder, or did not close it cleanly.\n");
    m_pool = zo::CCompletionPool::create(m_settings.uploadJobs);
    m_keepers = std::make_unique<zo::CWorkerPool>(kKeepers);
    m_uploaders = std::make_unique<zo::CWorkerPool>(m_settings.uploadJobs);
    // Each job loops until the cache stops, so every worker runs one.
    for (int i = 0; i < m_uploaders->getWorkerCount(); ++i)
        m_uploaders->post([this](int) { uploaderMain(); });
    try {
        // Nothing may read the disk before the store holds what the journal
        // says was acknowledged.
        drain();
    } catch (...) {
        stopUploaders();
        m_pool->shutdown();
        throw;
    }
}

CCachedStore::~CCachedStore()
{
    m_pool->shutdown();
    stopUploaders();
    // The fetched files still waiting are written, for the next opening.
    m_keepers->waitDone(-1);
    m_keepers.reset();
    closeCleanly();
}

void CCachedStore::closeCleanly() noexcept
{
    try {
        if (m_strayFile) {
            zo::logLine(zo::LogLevel::Warning,
                        "The cache folder " + m_settings.folder.toString() +
                            " holds a file that may have wrong bytes; the next opening drops its clean files.");
            return;
        }
        // A file system that cannot sync the folder leaves it to the next
        // opening's check.
        if (!zo::syncAllBelow(m_cacheFs.get(), m_settings.folder))
            return;
        deleteDurably(m_settings.folder << detail::kCacheInUseFile);
    } catch (const std::exception& e) {
        zo::logError(e, "Closing the cache folder cleanly failed; the next opening drops its clean files.", String());
    }
}

void CCachedStore::stopUploaders() noexcept
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    // Joins the workers once their current upload has ended.
    m_uploaders.reset();
}

void CCachedStore::checkOwner(const CURI& diskFolder, bool hasDirty)
{
    const String disk = diskFolder.toNormalized().toString();
    const std::string header =
        detail::sha256Hex(detail::readCacheText(getInner(), CBrickDiskHeader::getHeaderURI(diskFolder, 0)));
    const CURI ownerFile = m_settings.folder << detail::kCacheOwnerFile;
    const bool isNew = !m_cacheFs->fileExists(ownerFile);
    const std::string recorded = isNew ? std::string() : detail::readCacheText(m_cacheFs.get(), ownerFile);
    detail::OwnerRecord owner;
    if (!isNew) {
        detail::parseOwnerRecord(recorded, owner);
        refuseUnlessOwner(m_settings, disk, header, owner, hasDirty);
    }
    owner.disk = disk.toUTF8();
    owner.headerDigest = header;
    // A folder made before the ID existed gets one now.
    if (owner.id.empty())
        owner.id = detail::newCacheFolderId();
    m_folderId = String(owner.id);
    owner.expectedMark = m_settings.diskMark.toUTF8();
    const std::string updated = detail::formatOwnerRecord(owner);
    // Durable before anything is served, so that the next opening expects
    // the mark this opening's lock left.
    if (updated != recorded)
        storeText(m_cacheFs.get(), ownerFile, updated);
}

CURI CCachedStore::cachePath(const String& key) const
{
    return detail::cachedFileOf(m_settings.folder, key.toUTF8());
}

CURI CCachedStore::recordPath(const String& key) const
{
    return m_settings.folder << detail::kCacheJournalFolder
                             << String(detail::sha256Hex(key.toUTF8()).substr(0, 32) + detail::kCacheRecordSuffix);
}

void CCachedStore::writeRecord(const String& key, Change change)
{
    storeText(m_cacheFs.get(), recordPath(key), detail::formatJournalRecord(key.toUTF8(), change == Change::Delete));
}

void CCachedStore::loadJournal()
{
    const CURI journal = m_settings.folder << detail::kCacheJournalFolder;
    for (const String& name : m_cacheFs->listFolder(journal)) {
        const CURI record = journal << name;
        std::string key;
        bool deletion = false;
        if (!detail::parseJournalRecord(detail::readCacheText(m_cacheFs.get(), record), key, deletion)) {
            // A record cut short or damaged was never acknowledged: the
            // records of acknowledged changes are replaced atomically.
            zo::logLine(zo::LogLevel::Warning,
                        "Ignoring a damaged record of the cache journal: " + record.toString() + ".");
            m_cacheFs->deleteFile(record, true);
            continue;
        }
        const String path(key);
        Entry& entry = m_entries[path];
        entry.change = deletion ? Change::Delete : Change::Store;
        if (entry.change == Change::Store && !m_cacheFs->fileExists(cachePath(path))) {
            // The bytes never reached the cache folder: never acknowledged.
            eraseEntryLocked(path);
            m_cacheFs->deleteFile(record, true);
            continue;
        }
        entry.dirty = true;
        entry.version = 1;
        m_dirty.insert(path);
    }
}

void CCachedStore::loadCachedFiles(const CURI& folder, bool trustClean, int& dropped)
{
    for (const String& name : m_cacheFs->listFolder(folder)) {
        const CURI path = folder << name;
        const P<zo::IFileInfo> info = m_cacheFs->getFileInfo(path, false);
        if (info->isFolder()) {
            loadCachedFiles(path, trustClean, dropped);
            continue;
        }
        std::string relative = path.toRelative(m_settings.folder << detail::kCacheFilesFolder).toString().toUTF8();
        if (relative.rfind("local/", 0) == 0)
            relative.erase(0, 5);
        else if (relative.rfind("relative/", 0) == 0)
            relative.erase(0, 9);
        else if (relative.find('/') != std::string::npos)
            relative.replace(relative.find('/'), 1, "://");
        const String key(relative);
        Entry& entry = m_entries[key];
        if (entry.dirty && entry.change == Change::Delete) {
            m_cacheFs->deleteFile(path, true);
            continue;
        }
        if (!trustClean && !entry.dirty) {
            // Written without a sync before a crash: its bytes may be wrong.
            m_cacheFs->deleteFile(path, true);
            eraseEntryLocked(key);
            ++dropped;
            continue;
        }
        entry.present = true;
        entry.size = info->getSize();
        entry.lastUse = nextUse();
        m_cachedBytes += entry.size;
        placeLocked(key, entry);
    }
}

void CCachedStore::drain()
{
    std::unique_lock lock(m_mutex);
    const zo::uint64 failuresBefore = m_uploadFailures;
    m_changed.wait(lock, [&] { return m_dirty.empty() || m_uploadFailures != failuresBefore; });
    if (!m_dirty.empty())
        throw CError("Uploading a changed brick file from the cache into the store failed.", String(), -1,
                     CProps()
                         .add("cacheFolder", m_settings.folder.toString())
                         .add("dirtyFiles", static_cast<int64>(m_dirty.size())),
                     m_lastUploadError.get());
}

int CCachedStore::getDirtyCount() const
{
    std::lock_guard lock(m_mutex);
    return static_cast<int>(m_dirty.size());
}

int64 CCachedStore::getCachedBytes() const
{
    std::lock_guard lock(m_mutex);
    return m_cachedBytes;
}

CacheCounters CCachedStore::getCounters() const
{
    std::lock_guard lock(m_mutex);
    CacheCounters counters;
    counters.hits = m_hits;
    counters.misses = m_misses;
    counters.cachedBytes = m_cachedBytes;
    counters.dirtyFiles = static_cast<int64>(m_dirty.size());
    for (const String& key : m_dirty) {
        const auto found = m_entries.find(key);
        if (found == m_entries.end())
            continue;
        if (found->second.change == Change::Store)
            counters.dirtyBytes += found->second.size;
        ++(found->second.uploading ? counters.uploading : counters.uploadQueue);
    }
    counters.uploadErrors = static_cast<int64>(m_uploadFailures);
    counters.uploadRetries = m_uploadRetries;
    counters.evictions = m_evictions;
    return counters;
}

bool CCachedStore::isCached(const CURI& file) const
{
    std::lock_guard lock(m_mutex);
    const auto found = m_entries.find(file.toNormalized().toString());
    return found != m_entries.end() && found->second.present;
}

void CCachedStore::waitForKeepers()
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_keeps.empty(); });
}

zo::uint64 CCachedStore::getUploadFailureCount() const
{
    std::lock_guard lock(m_mutex);
    return m_uploadFailures;
}

P<zo::IFileSystemOp> CCachedStore::post(zo::IDoneListener* listener, std::function<void()> work)
{
    return zo::postFileSystemOp(*m_pool, listener, std::move(work));
}

CCachedStore::Bytes CCachedStore::readBrick(const String& key)
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        auto found = m_entries.find(key);
        if (found != m_entries.end() && found->second.writing) {
            m_changed.wait(lock);
            continue;
        }
        if (found != m_entries.end() && found->second.dirty && found->second.change == Change::Delete)
            throw notFound(CURI(key));
        if (found != m_entries.end() && found->second.present) {
            Entry& entry = found->second;
            entry.lastUse = nextUse();
            ++entry.readers;
            placeLocked(key, entry);
            ++m_hits;
            lock.unlock();
            Bytes bytes;
            P<CError> error;
            try {
                bytes = readAll(m_cacheFs.get(), cachePath(key));
            } catch (...) {
                error = zo::currentExceptionToError();
            }
            lock.lock();
            Entry& read = m_entries[key];
            --read.readers;
            placeLocked(key, read);
            m_changed.notify_all();
            if (error)
                error->throwClone();
            return bytes;
        }
        const auto kept = m_keeps.find(key);
        if (kept != m_keeps.end()) {
            // Fetched, and not yet in the cache folder.
            ++m_hits;
            return kept->second->bytes;
        }
        const auto fetching = m_fetches.find(key);
        if (fetching != m_fetches.end()) {
            const std::shared_ptr<Fetch> pending = fetching->second;
            ++m_misses;
            m_changed.wait(lock, [&] { return pending->done; });
            if (pending->error)
                pending->error->throwClone();
            return pending->bytes;
        }
        break;
    }
    const auto pending = std::make_shared<Fetch>();
    m_fetches[key] = pending;
    ++m_misses;
    lock.unlock();
    // The store's round trip runs without the lock, so that fetches of other
    // files go on meanwhile.
    Bytes bytes;
    P<CError> error;
    try {
        bytes = readAll(getInner(), CURI(key));
    } catch (...) {
        error = zo::currentExceptionToError();
    }
    lock.lock();
    pending->done = true;
    pending->bytes = bytes;
    pending->error = error;
    m_fetches.erase(key);
    // Changes of the file waited for the fetch, so the entry is still free.
    if (!error)
        queueKeepLocked(key, bytes);
    m_changed.notify_all();
    if (error)
        error->throwClone();
    return bytes;
}

void CCachedStore::queueKeepLocked(const String& key, const Bytes& bytes)
{
    // Too many wait: the readers have the bytes, a later read fetches again.
    if (m_keepBytes + bytes->getUsed() > m_settings.maxWaitingFetchBytes)
        return;
    const auto waiting = std::make_shared<Keep>();
    waiting->bytes = bytes;
    m_keeps[key] = waiting;
    m_keepBytes += bytes->getUsed();
    m_keepers->post([this, key, waiting](int) {
        try {
            keep(key, waiting);
        } catch (const std::exception& e) {
            // Only a failure of the bookkeeping itself (memory, say) gets
            // here; the pool must go on for the other files.
            zo::logError(e, "A keeper of the cache failed.", String());
        }
    });
}

void CCachedStore::keep(const String& key, const std::shared_ptr<Keep>& waiting)
{
    {
        std::lock_guard lock(m_mutex);
        const auto found = m_keeps.find(key);
        // A change took the file back: its own bytes go into the folder.
        if (found == m_keeps.end() || found->second != waiting)
            return;
        // Changes of the file wait from now on until the file is written.
        waiting->writing = true;
    }
    const CURI cached = cachePath(key);
    P<CError> error;
    bool stray = false;
    try {
        writeUnsynced(cached, waiting->bytes);
    } catch (...) {
        error = zo::currentExceptionToError();
        try {
            m_cacheFs->deleteFile(cached, true);
        } catch (...) {
            stray = true;
        }
    }
    if (error) {
        // The bytes are good; the cache just does not keep them this time.
        zo::logError(*error, "Keeping a fetched brick file in the cache failed.", String());
    }
    std::lock_guard lock(m_mutex);
    m_keeps.erase(key);
    m_keepBytes -= waiting->bytes->getUsed();
    m_strayFile = m_strayFile || stray;
    if (!error) {
        Entry& entry = m_entries[key];
        entry.present = true;
        entry.size = waiting->bytes->getUsed();
        entry.lastUse = nextUse();
        m_cachedBytes += entry.size;
        placeLocked(key, entry);
        evictLocked();
    }
    m_changed.notify_all();
}

void CCachedStore::writeUnsynced(const CURI& file, const Bytes& bytes)
{
    m_cacheFs->createFolder(file.getParent(), kFolderMode);
    const P<zo::IIOStream> stream =
        m_cacheFs->openStream(file, zo::IIOStream::AccessWrite, zo::IIOStream::OptionReplace);
    if (bytes->getUsed() > 0)
        stream->write(bytes->getData(), bytes->getUsed());
    stream->close();
}

bool CCachedStore::isBeingKeptLocked(const String& key) const
{
    const auto found = m_keeps.find(key);
    return found != m_keeps.end() && found->second->writing;
}

void CCachedStore::takeBackKeepLocked(const String& key)
{
    const auto found = m_keeps.find(key);
    if (found == m_keeps.end())
        return;
    m_keepBytes -= found->second->bytes->getUsed();
    m_keeps.erase(found);
    m_changed.notify_all();
}

void CCachedStore::change(const String& key, const Bytes& bytes, bool overwrite)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] {
        const auto found = m_entries.find(key);
        const bool alreadyDirty = found != m_entries.end() && found->second.dirty;
        // Readers of the file finish first: a deletion would pull it away.
        // A keeper writing the file finishes too, so that the change's bytes
        // replace the fetched ones and never the other way round.
        return (found == m_entries.end() || (!found->second.writing && found->second.readers == 0)) &&
            m_fetches.count(key) == 0 && !isBeingKeptLocked(key) &&
            (alreadyDirty || m_dirty.size() < static_cast<size_t>(m_settings.maxDirtyFiles));
    });
    takeBackKeepLocked(key);
    Entry& entry = m_entries[key];
    entry.writing = true;
    ++entry.version;
    placeLocked(key, entry);
    lock.unlock();
    P<CError> error;
    try {
        if (!overwrite && bytes && brickExists(key, nullptr))
            throw CFileSystemError(CFileSystemError::AlreadyExists,
                                   CError("The file exists already.", String(), -1, CProps().add("path", key)));
        // The record first: a crash before the bytes are in place leaves a
        // record whose bytes are missing (dropped at opening) or old.
        writeRecord(key, bytes ? Change::Store : Change::Delete);
        const CURI cached = cachePath(key);
        if (bytes) {
            m_cacheFs->createFolder(cached.getParent(), kFolderMode);
            storeAll(m_cacheFs.get(), cached, *bytes);
        } else {
            deleteDurably(cached);
        }
    } catch (...) {
        error = zo::currentExceptionToError();
    }
    lock.lock();
    Entry& done = m_entries[key];
    done.writing = false;
    if (error) {
        // The change is not acknowledged; the entry keeps its state. A record
        // written for a clean file would only cause a harmless upload.
        placeLocked(key, done);
        m_changed.notify_all();
        error->throwClone();
    }
    m_dirty.insert(key);
    done.dirty = true;
    done.failures = 0;
    done.retryAt = Clock::time_point();
    done.change = bytes ? Change::Store : Change::Delete;
    if (done.present)
        m_cachedBytes -= done.size;
    done.present = static_cast<bool>(bytes);
    done.size = bytes ? bytes->getUsed() : 0;
    m_cachedBytes += done.size;
    done.lastUse = nextUse();
    placeLocked(key, done);
    m_changed.notify_all();
    evictLocked();
}

void CCachedStore::deleteDurably(const CURI& file)
{
    // A cached file that came back after a power loss would be taken for the
    // store's.
    m_cacheFs->beginDeleteFile(file, nullptr)->wait();
    m_cacheFs->syncBatch();
}

void CCachedStore::apply(const String& key, const Bytes& bytes, bool overwrite)
{
    if (key.StartsWith(m_diskPrefix))
        return change(key, bytes, overwrite);
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] {
        const auto found = m_entries.find(key);
        return (found == m_entries.end() || (!found->second.writing && found->second.readers == 0)) &&
            m_fetches.count(key) == 0 && !isBeingKeptLocked(key);
    });
    // The fetched bytes are no longer the store's.
    takeBackKeepLocked(key);
    if (m_entries.count(key) && m_entries[key].dirty) {
        // Left dirty by an earlier opening: its changes keep their order.
        lock.unlock();
        return change(key, bytes, overwrite);
    }
    Entry& written = m_entries[key];
    written.writing = true;
    placeLocked(key, written);
    lock.unlock();
    P<CError> error;
    try {
        if (bytes)
            storeAll(getInner(), CURI(key), *bytes, overwrite);
        else
            getInner()->beginDeleteFile(CURI(key), nullptr)->wait();
    } catch (...) {
        error = zo::currentExceptionToError();
    }
    lock.lock();
    Entry& entry = m_entries[key];
    entry.writing = false;
    if (!error && entry.present) {
        // The cached bytes are no longer the store's.
        try {
            deleteDurably(cachePath(key));
            m_cachedBytes -= entry.size;
            entry.present = false;
        } catch (const std::exception& e) {
            zo::logError(e, "Dropping a replaced brick file from the cache failed.", String());
            error = zo::currentExceptionToError();
        }
    }
    placeLocked(key, entry);
    if (!entry.present && !entry.dirty)
        eraseEntryLocked(key);
    m_changed.notify_all();
    if (error)
        error->throwClone();
}

bool CCachedStore::brickExists(const String& key, int64* size)
{
    {
        std::unique_lock lock(m_mutex);
        const auto found = m_entries.find(key);
        if (found != m_entries.end() && found->second.dirty && found->second.change == Change::Delete)
            return false;
        if (found != m_entries.end() && found->second.present) {
            if (size)
                *size = found->second.size;
            return true;
        }
        const auto kept = m_keeps.find(key);
        if (kept != m_keeps.end()) {
            if (size)
                *size = kept->second->bytes->getUsed();
            return true;
        }
    }
    const P<zo::IFileInfo> info = getInner()->getFileInfo(CURI(key), false);
    if (size)
        *size = info->getSize();
    return info->exists() && !info->isFolder();
}

P<zo::IFileSystemOp> CCachedStore::beginStoreFile(const CURI& file, int size, zo::IInStream* source, bool overwrite,
                                                  zo::IDoneListener* listener)
{
    if (!isBrickFile(file))
        return CForwardingFileSystem::beginStoreFile(file, size, source, overwrite, listener);
    zo::checkStoreFileArguments("CCachedStore::beginStoreFile", file, size, source);
    const P<zo::IInStream> held(source);
    const String key = file.toNormalized().toString();
    return post(listener, [this, held, size, key, overwrite] {
        Bytes bytes(new zo::TBuffer<zo::uint8>(size));
        if (size > 0)
            held->read(bytes->getData(), size);
        apply(key, bytes, overwrite);
    });
}

void CCachedStore::copyNow(const CURI& from, const CURI& to, bool overwrite)
{
    const Bytes bytes = isBrickFile(from) ? readBrick(from.toNormalized().toString()) : readAll(getInner(), from);
    if (isBrickFile(to))
        apply(to.toNormalized().toString(), bytes, overwrite);
    else
        storeAll(getInner(), to, *bytes, overwrite);
}

P<zo::IFileSystemOp> CCachedStore::beginCopyFile(const CURI& from, const CURI& to, bool overwrite,
                                                 zo::IDoneListener* listener)
{
    if (!isBrickFile(from) && !isBrickFile(to))
        return CForwardingFileSystem::beginCopyFile(from, to, overwrite, listener);
    return post(listener, [this, from, to, overwrite] { copyNow(from, to, overwrite); });
}

P<zo::IFileSystemOp> CCachedStore::beginMoveFile(const CURI& from, const CURI& to, bool overwrite,
                                                 zo::IDoneListener* listener)
{
    if (!isBrickFile(from) && !isBrickFile(to))
        return CForwardingFileSystem::beginMoveFile(from, to, overwrite, listener);
    return post(listener, [this, from, to, overwrite] {
        copyNow(from, to, overwrite);
        if (isBrickFile(from))
            apply(from.toNormalized().toString(), Bytes(), true);
        else
            getInner()->deleteFile(from, true);
    });
}

P<zo::IFileSystemOp> CCachedStore::beginDeleteFile(const CURI& file, zo::IDoneListener* listener)
{
    if (!isBrickFile(file))
        return CForwardingFileSystem::beginDeleteFile(file, listener);
    const String key = file.toNormalized().toString();
    return post(listener, [this, key] { apply(key, Bytes(), true); });
}

P<zo::IFileInfo> CCachedStore::getFileInfo(const CURI& path, bool throwIfMissing)
{
    if (!isBrickFile(path))
        return CForwardingFileSystem::getFileInfo(path, throwIfMissing);
    int64 size = 0;
    if (brickExists(path.toNormalized().toString(), &size))
        return P<zo::IFileInfo>(new zo::CFileInfo(true, false, size));
    if (throwIfMissing)
        throw notFound(path);
    return P<zo::IFileInfo>(new zo::CFileInfo(false, false, 0));
}

P<zo::IIOStream> CCachedStore::openStream(const CURI& file, zo::IIOStream::Access access, const int& options)
{
    if (!isBrickFile(file))
        return CForwardingFileSystem::openStream(file, access, options);
    if (access != zo::IIOStream::AccessRead)
        throw CFileSystemError(CFileSystemError::NotSupported,
                               CError("Brick files in a cache are written by stores only.", String(), -1,
                                      CProps().add("path", file.toString())));
    const Bytes bytes = readBrick(file.toNormalized().toString());
    // The stream owns a copy, so the cache may evict the file at once.
    const P<zo::CBufferStream> stream(new zo::CBufferStream(nullptr, 2.0));
    stream->getBuffer()->assign(*bytes);
    return stream;
}

bool CCachedStore::fileExists(const CURI& file)
{
    if (!isBrickFile(file))
        return CForwardingFileSystem::fileExists(file);
    return brickExists(file.toNormalized().toString(), nullptr);
}

bool CCachedStore::pathExists(const CURI& path)
{
    if (!isBrickFile(path))
        return CForwardingFileSystem::pathExists(path);
    return brickExists(path.toNormalized().toString(), nullptr);
}

void CCachedStore::deleteFile(const CURI& file, bool ignoreMissing)
{
    if (!isBrickFile(file))
        return CForwardingFileSystem::deleteFile(file, ignoreMissing);
    const String key = file.toNormalized().toString();
    if (!ignoreMissing && !brickExists(key, nullptr))
        throw notFound(file);
    apply(key, Bytes(), true);
}

std::map<String, CCachedStore::Change> CCachedStore::dirtyChangesIn(const CURI& folder) const
{
    const String prefix = folder.toNormalized().toString() + "/";
    std::map<String, Change> changes;
    std::lock_guard lock(m_mutex);
    for (const String& key : m_dirty) {
        const String rest = key.StartsWith(prefix) ? key.Mid(prefix.getLength()) : String();
        if (!rest.isEmpty() && rest.find(L'/') == String::npos)
            changes[rest] = m_entries.at(key).change;
    }
    return changes;
}

zo::TList<String> CCachedStore::listFolder(const CURI& folder)
{
    // An upload that ends while the store is listed may be missing from the
    // listing and no longer dirty afterwards: the changes dirty before the
    // listing count too, overridden by those dirty after it.
    const std::map<String, Change> before = dirtyChangesIn(folder);
    std::set<String> names;
    P<CError> missing;
    try {
        for (const String& name : CForwardingFileSystem::listFolder(folder))
            names.insert(name);
    } catch (const CFileSystemError& e) {
        if (e.getProblem() != CFileSystemError::NotFound)
            throw;
        missing = e.clone();
    }
    const std::map<String, Change> after = dirtyChangesIn(folder);
    for (const std::map<String, Change>* changes : {&before, &after}) {
        for (const auto& [name, change] : *changes) {
            if (change == Change::Store)
                names.insert(name);
            else
                names.erase(name);
        }
    }
    // A deletion uploaded meanwhile may have been followed by a new store of
    // the file, uploaded too: the store itself tells.
    for (const auto& [name, change] : before) {
        if (change == Change::Delete && after.count(name) == 0 && fileExists(folder << CURI(name)))
            names.insert(name);
    }
    if (missing && before.empty() && after.empty())
        missing->throwClone();
    return zo::TList<String>(names.begin(), names.end());
}

void CCachedStore::uploaderMain()
{
    try {
        uploadUntilStopped();
    } catch (const std::exception& e) {
        // Only a failure of the bookkeeping itself (memory, say) gets here:
        // the uploads' own errors are kept and retried.
        zo::logError(e, "An uploader of the cache stopped; the other uploaders go on.", String());
    }
}

void CCachedStore::uploadUntilStopped()
{
    std::unique_lock lock(m_mutex);
    while (!m_stopping) {
        const Clock::time_point now = Clock::now();
        Clock::time_point nextRetry = Clock::time_point::max();
        String ready;
        bool found = false;
        for (const String& key : m_dirty) {
            const Entry& entry = m_entries[key];
            if (entry.writing || entry.uploading)
                continue;
            if (entry.retryAt > now) {
                nextRetry = std::min(nextRetry, entry.retryAt);
                continue;
            }
            ready = key;
            found = true;
            break;
        }
        if (!found) {
            if (nextRetry == Clock::time_point::max())
                m_changed.wait(lock);
            else
                m_changed.wait_until(lock, nextRetry);
            continue;
        }
        Entry& entry = m_entries[ready];
        entry.uploading = true;
        if (entry.failures > 0)
            ++m_uploadRetries;
        const int64 version = entry.version;
        const Change change = entry.change;
        lock.unlock();
        P<CError> error;
        try {
            upload(ready, change);
        } catch (...) {
            error = zo::currentExceptionToError();
        }
        lock.lock();
        Entry& done = m_entries[ready];
        done.uploading = false;
        if (error && done.version != version) {
            // A newer change (a deletion, say) overtook the upload; the
            // entry is still dirty and is uploaded again with it.
        } else if (error) {
            ++m_uploadFailures;
            m_lastUploadError = error;
            const int delay =
                std::min(kMaxRetryDelayMillis, m_settings.retryDelayMillis << std::min(done.failures, 15));
            // Logged once per file and run of failures, not at every retry.
            if (done.failures == 0)
                zo::logError(*error, "Uploading a brick file from the cache failed; it is tried again.", String());
            ++done.failures;
            done.retryAt = Clock::now() + std::chrono::milliseconds(delay);
        } else if (done.version == version && !done.writing) {
            done.dirty = false;
            done.failures = 0;
            m_dirty.erase(ready);
            try {
                // Left behind, the record would only cause a harmless upload.
                m_cacheFs->deleteFile(recordPath(ready), true);
            } catch (const std::exception& e) {
                zo::logError(e, "Removing a record of the cache journal failed.", String());
            }
            if (done.present)
                placeLocked(ready, done);
            else
                eraseEntryLocked(ready);
            evictLocked();
        }
        m_changed.notify_all();
    }
}

void CCachedStore::upload(const String& key, Change change)
{
    const CURI file(key);
    if (change == Change::Delete) {
        getInner()->beginDeleteFile(file, nullptr)->wait();
        return;
    }
    // The newest bytes: a change after the version was taken only makes the
    // upload newer, and the entry then stays dirty for the next one.
    const Bytes bytes = readAll(m_cacheFs.get(), cachePath(key));
    try {
        storeAll(getInner(), file, *bytes);
    } catch (const CFileSystemError& e) {
        if (e.getProblem() != CFileSystemError::NotFound)
            throw;
        getInner()->createFolder(file.getParent(), kFolderMode);
        storeAll(getInner(), file, *bytes);
    }
}

void CCachedStore::evictLocked()
{
    if (m_cachedBytes <= m_settings.maxBytes)
        return;
    const int64 target = m_settings.maxBytes / 100 * kEvictToPercent;
    size_t failed = 0;
    while (m_cachedBytes > target && failed < m_recency.size()) {
        const String key = m_recency.back();
        Entry& entry = m_entries[key];
        try {
            m_cacheFs->deleteFile(cachePath(key), true);
        } catch (const std::exception& e) {
            zo::logError(e, "Evicting a brick file from the cache failed.", String());
            // Tried again after the others, as if just used.
            entry.lastUse = nextUse();
            m_recency.splice(m_recency.begin(), m_recency, entry.recency);
            ++failed;
            continue;
        }
        m_cachedBytes -= entry.size;
        eraseEntryLocked(key);
        ++m_evictions;
    }
}

void CCachedStore::placeLocked(const String& key, Entry& entry)
{
    const bool evictable = entry.present && !entry.dirty && !entry.writing && !entry.uploading && entry.readers == 0;
    if (evictable == entry.listed)
        return;
    if (!evictable) {
        m_recency.erase(entry.recency);
        entry.listed = false;
        return;
    }
    // Mostly at the front: the entry was just used. One that comes back after
    // an upload or a read goes behind the entries used since.
    auto position = m_recency.begin();
    while (position != m_recency.end() && m_entries[*position].lastUse > entry.lastUse)
        ++position;
    entry.recency = m_recency.insert(position, key);
    entry.listed = true;
}

void CCachedStore::eraseEntryLocked(const String& key)
{
    const auto found = m_entries.find(key);
    if (found == m_entries.end())
        return;
    if (found->second.listed)
        m_recency.erase(found->second.recency);
    m_entries.erase(found);
}

} // namespace brick
