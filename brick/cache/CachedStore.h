// CCachedStore: a local cache of a disk's brick files in front of the file
// system of its store (Ceph, S3), as a file system of its own, so that the
// disk, its reader and its storers work over it unchanged.
//
// It keeps brick files as they are stored (encrypted and authenticated; it
// never sees plain bytes) in a cache folder of `cacheFs`:
//   owner            the disk's name, a SHA-256 of its header, the folder's own
//                    random ID and the write mark the cache expects the disk
//                    to hold (see "Writers without the cache" below), written
//                    when the folder is first used; another disk, the same
//                    disk with another header, or one written without this
//                    folder since, is refused;
//   files/...        the cached brick files, one per brick file of the store,
//                    under a path made of the store's path ("s3://b/d/x"
//                    becomes "files/s3/b/d/x");
//   journal/*.rec    the journal: one small record per brick file whose
//                    newest change the store does not hold yet, naming the
//                    file and the change (stored or deleted), with a SHA-256
//                    check value. A record is replaced atomically; one whose
//                    check value does not match is ignored;
//   in-use           there while a cache uses the folder: written durably at
//                    opening, removed at a clean close once every file of
//                    the folder was made durable.
//
// Each cached brick file is in one of three states:
//   clean      the cache file equals the store's (or is absent); it may be
//              evicted, least recently used first, when the folder outgrows
//              its size. A fetched file is written without a sync: it is a
//              copy of what the store holds;
//   dirty      a store or deletion was acknowledged to the writer once its
//              record and the cache file were durable in the cache folder;
//              the store does not hold it yet; it is never evicted;
//   uploading  an uploader copies the cache file into the store (or deletes
//              the store's file). On success the file becomes clean unless a
//              newer change came meanwhile (then it stays dirty and is
//              uploaded again); on failure it stays dirty and is retried.
// Uploads of one file never overlap and always carry its newest bytes, so the
// store sees a file's changes in the order they were made.
//
// After a crash: a change writes its record before the cache file, so a crash
// in between leaves a record whose file is missing (the change was never
// acknowledged; the next opening drops the record) or still the old one (the
// next opening uploads it again, harmlessly). An acknowledged change has both,
// and the next opening uploads it before it returns. The folder is locked
// while a cache uses it.
//
// Clean files are written unsynced, so a crash or a power loss may leave one
// cut short or with wrong bytes. An opening that finds "in-use" (the last
// cache did not close cleanly) therefore deletes every cached file the
// journal does not record as a dirty store before anything is read; the
// dirty files were synced and keep their guarantees. A clean close makes
// the whole folder durable first (zo::syncAllBelow), then removes "in-use";
// a cache folder on a file system that cannot do so never closes cleanly,
// and its clean files are fetched again after each opening.
//
// Writers without the cache: every writing lock of a disk in a store
// replaces the disk's write mark (CBrickDiskLock). The servers of a cache
// folder, and "brickdisk cache flush", pass the folder's ID
// (readCacheFolderId) as the mark their lock writes; any other writer writes
// a mark of its own. An opening accepts the disk when the mark it held before
// the opening's lock is the folder's ID or the mark the folder recorded at its
// last opening, and records the mark the disk holds now; any other mark means
// the disk gained bricks the clean files of the folder may not show, and the
// folder is refused. A folder made before the ID existed is accepted once and
// given one.
//
// Files that are not brick files (headers, links, locks, creation marks) and
// folders go straight to the store. A brick file is a "*.brick" file below a
// "bricks" folder. Changes of the brick files of other disks (the old brick
// that a storer copies into a snapshot first) go straight to the store too,
// and drop their cached copy: the store then keeps the order the storers rely
// on, a snapshot's copy there before the disk's brick changes. Reads of any
// disk's brick files are cached.
//
// Eviction takes the least recently used file that it may drop (present,
// clean, neither read nor changed at the moment) from the end of a recency
// list that holds exactly those files, so that it never walks the others.
//
// Fetches of brick files that are not cached run on the readers' threads,
// several at once for different files; one fetch serves every reader of its
// file that comes meanwhile. The reader gets the fetched bytes at once: the
// file is written into the cache folder afterwards by a keeper, and counts
// as cached only once it is written; meanwhile its bytes answer reads from
// memory. At most maxWaitingFetchBytes of fetched files wait for a keeper;
// a file fetched beyond them is returned and not kept. A change of a file
// waiting to be kept takes it back; a change of a file being written waits
// until the keeper is done, then replaces it.
//
// Threads: every call may come from any thread; the uploaders are jobs of a
// zo::CWorkerPool of the cache's own, one per upload job, each looping until
// the cache stops; the keepers, a zo::CWorkerPool of the cache's own too,
// write the fetched files. The asynchronous brick stores and deletions run on
// a completion pool of the cache's own.
#pragma once

#include "zo/CompletionPool.h"
#include "zo/Export.h"
#include "zo/ForwardingFileSystem.h"
#include "zo/WorkerPool.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace brick {

struct CacheSettings {
    // The cache folder, in the cache's file system.
    zo::CURI folder;
    // The size the cached files are kept within (dirty files are never
    // evicted, so they may exceed it until uploaded).
    zo::int64 maxBytes = 1ll << 30;
    // Uploader threads.
    int uploadJobs = 4;
    // Dirty files at most; a writer of a further file waits for an upload.
    int maxDirtyFiles = 1024;
    // The wait before a failed upload is tried again; it doubles with each
    // failure of the same file, up to 30 seconds.
    int retryDelayMillis = 1000;
    // Bytes of fetched files waiting to be written into the cache folder, at
    // most; a file fetched beyond them is returned to its readers but not
    // kept.
    zo::int64 maxWaitingFetchBytes = 64ll << 20;
    // The disk's write marks as the caller's lock of the disk saw them
    // (CBrickDiskLock): the one the disk held before the lock replaced it
    // (getPreviousWriteMark) and the one it holds now (getWriteMark). Both
    // the same for a lock taken for reading; both empty for a disk without
    // marks.
    zo::String diskMarkBefore;
    zo::String diskMark;
};

// What a cache has done since it was opened, and what it holds now.
struct CacheCounters {
    // Brick reads answered by the cache (from its folder, or from a fetched
    // file not yet written there), and those that went to the store (or
    // waited for a fetch of the same file under way).
    zo::int64 hits = 0;
    zo::int64 misses = 0;
    // Bytes of the files in the cache folder.
    zo::int64 cachedBytes = 0;
    // Files whose newest change the store does not hold yet, and their bytes
    // (a deletion counts no bytes).
    zo::int64 dirtyFiles = 0;
    zo::int64 dirtyBytes = 0;
    // Dirty files waiting for an uploader, and those being uploaded.
    zo::int64 uploadQueue = 0;
    zo::int64 uploading = 0;
    // Uploads that failed, and uploads of a file that had failed before.
    zo::int64 uploadErrors = 0;
    zo::int64 uploadRetries = 0;
    // Clean files evicted to keep the folder within its size.
    zo::int64 evictions = 0;
};

class BRICKDISK_EXPORT CCachedStore : public zo::CForwardingFileSystem {
public:
    // Opens the cache folder of `settings` in `cacheFs` (creating it and
    // locking it for as long as the cache lives; a folder locked by another
    // cache is refused) for the disk in `diskFolder` of `store`, whose header
    // must be there. A folder used before for another disk, or for this disk
    // with another header (changed elsewhere), is refused with a zo::CError
    // that names what to do (properties "cacheFolder", "diskFolder",
    // "cachedDisk"); so is a folder whose disk was written without it since
    // its last opening, as settings.diskMarkBefore tells (see "Writers
    // without the cache" above). The folder then records settings.diskMark
    // as the mark it expects, durably, before the call returns. A folder whose last cache did not close cleanly loses
    // its clean files (logged). The changes recorded dirty in the journal
    // (left by a process that ended without uploading them) are uploaded
    // before the call returns; a failing upload throws its error. Throws the
    // cache file system's errors too. The caller should hold the disk's lock.
    // Holds references to both file systems.
    CCachedStore(zo::IFileSystem* store, const zo::CURI& diskFolder, zo::IFileSystem* cacheFs,
                 const CacheSettings& settings);
    // Stops the uploaders once their current upload ends; dirty files stay
    // in the journal and are uploaded by the next opening. Writes the fetched
    // files still waiting, then closes the folder cleanly (see above); a
    // failure to do so is logged and leaves the folder to the next opening's
    // check. Never throws.
    ~CCachedStore() override;
    CCachedStore(const CCachedStore&) = delete;
    CCachedStore& operator=(const CCachedStore&) = delete;

    // Waits until the store holds every change acknowledged before the call.
    // Throws the first upload error met while waiting (the file stays dirty
    // and is tried again). Any thread may call it.
    void drain();
    // Files whose newest change the store does not hold yet. Never throws.
    int getDirtyCount() const;
    // Bytes of the files in the cache folder. Never throws.
    zo::int64 getCachedBytes() const;
    // The counters as they are now. Any thread may call it. Never throws.
    CacheCounters getCounters() const;
    // The cache folder's own ID (readCacheFolderId), which the disk's writing
    // locks taken while the cache serves it should write as the disk's write
    // mark. Never throws.
    const zo::String& getFolderId() const { return m_folderId; }
    // True when `file` (a brick file) has its bytes in the cache folder.
    bool isCached(const zo::CURI& file) const;
    // Waits until no fetched file waits to be written into the cache folder
    // (each written, or given up). Any thread may call it. Never throws.
    void waitForKeepers();
    // Uploads that failed since the cache opened, each retry counted. Never
    // throws.
    zo::uint64 getUploadFailureCount() const;

    // Brick files: the bytes and the record go to the cache folder durably;
    // the listener hears of success then, before the store holds them.
    // Waits (on the cache's pool) while maxDirtyFiles files are dirty.
    zo::P<zo::IFileSystemOp> beginStoreFile(const zo::CURI& file, int size, zo::IInStream* source, bool overwrite,
                                            zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginMoveFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                           zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginCopyFile(const zo::CURI& from, const zo::CURI& to, bool overwrite,
                                           zo::IDoneListener* listener) override;
    zo::P<zo::IFileSystemOp> beginDeleteFile(const zo::CURI& file, zo::IDoneListener* listener) override;
    zo::P<zo::IFileInfo> getFileInfo(const zo::CURI& path, bool throwIfMissing) override;
    // Brick files open for reading only (NotSupported otherwise); the bytes
    // come from the cache folder, else from the store (fetched once however
    // many readers ask at the same time) and are kept in the cache after the
    // call returns.
    zo::P<zo::IIOStream> openStream(const zo::CURI& file, zo::IIOStream::Access access, const int& options) override;
    bool fileExists(const zo::CURI& file) override;
    bool pathExists(const zo::CURI& path) override;
    void deleteFile(const zo::CURI& file, bool ignoreMissing) override;
    // The store's entries with the dirty changes of brick files applied.
    zo::TList<zo::String> listFolder(const zo::CURI& folder) override;

    // True for a "*.brick" file below a "bricks" folder. Never throws.
    static bool isBrickFile(const zo::CURI& path);

private:
    enum class Change { Store, Delete };
    struct Entry {
        bool present = false; // the bytes are in the cache folder
        bool dirty = false;
        Change change = Change::Store;
        zo::int64 version = 0; // counts the changes begun
        bool writing = false;
        bool uploading = false;
        int readers = 0;
        zo::int64 size = 0;
        zo::uint64 lastUse = 0;
        int failures = 0;
        std::chrono::steady_clock::time_point retryAt{};
        // The entry's place in m_recency while eviction may take it.
        bool listed = false;
        std::list<zo::String>::iterator recency{};
    };
    using Bytes = zo::P<zo::TBuffer<zo::uint8>>;
    // A fetch from the store under way; the readers that came meanwhile wait
    // until it is done, then share its bytes or each throw a copy of its
    // error.
    struct Fetch {
        bool done = false;
        Bytes bytes;
        zo::P<zo::CError> error;
    };
    // A fetched file waiting for a keeper, or being written by one.
    struct Keep {
        Bytes bytes;
        bool writing = false;
    };

    // Refuses the folder unless its owner record is that of the disk, with
    // the same header, and the disk was not written without the folder since;
    // then records the disk's mark now as the one expected.
    void checkOwner(const zo::CURI& diskFolder, bool hasDirty);
    void loadJournal();
    // Takes in the cached files below `folder`; without `trustClean`, deletes
    // those that are not dirty instead, and counts them in `dropped`.
    void loadCachedFiles(const zo::CURI& folder, bool trustClean, int& dropped);
    // Makes the folder durable and removes "in-use". Never throws.
    void closeCleanly() noexcept;
    zo::CURI cachePath(const zo::String& key) const;
    zo::CURI recordPath(const zo::String& key) const;
    void writeRecord(const zo::String& key, Change change);

    // Brick bytes: the cache's, else fetched from the store. NotFound when
    // neither holds the file.
    Bytes readBrick(const zo::String& key);
    // Hands fetched bytes to a keeper, unless too many bytes wait already.
    void queueKeepLocked(const zo::String& key, const Bytes& bytes);
    // A keeper's job: writes the file unless a change took it back.
    void keep(const zo::String& key, const std::shared_ptr<Keep>& waiting);
    void writeUnsynced(const zo::CURI& file, const Bytes& bytes);
    bool isBeingKeptLocked(const zo::String& key) const;
    // Takes back a file waiting for a keeper; call it once none writes it.
    void takeBackKeepLocked(const zo::String& key);
    // A change of a brick file (null bytes: deletion): cached and journaled
    // for the disk's own files, else made in the store.
    void apply(const zo::String& key, const Bytes& bytes, bool overwrite);
    // Records and applies a change of a brick file in the cache.
    void change(const zo::String& key, const Bytes& bytes, bool overwrite);
    void copyNow(const zo::CURI& from, const zo::CURI& to, bool overwrite);
    void deleteDurably(const zo::CURI& file);
    bool brickExists(const zo::String& key, zo::int64* size);
    zo::P<zo::IFileSystemOp> post(zo::IDoneListener* listener, std::function<void()> work);

    // The dirty changes of the brick files directly in `folder`, by name.
    std::map<zo::String, Change> dirtyChangesIn(const zo::CURI& folder) const;
    void uploaderMain();
    void uploadUntilStopped();
    void upload(const zo::String& key, Change change);
    void evictLocked();
    // Lists the entry in m_recency, or takes it out, as its state says; to be
    // called whenever present, dirty, writing or readers changed (an
    // uploading entry is dirty, so never listed).
    void placeLocked(const zo::String& key, Entry& entry);
    // Erases an entry, and its place in m_recency.
    void eraseEntryLocked(const zo::String& key);
    void stopUploaders() noexcept;
    zo::uint64 nextUse() { return ++m_useClock; }

    zo::P<zo::IFileSystem> m_cacheFs;
    CacheSettings m_settings;
    // The disk's folder and "/": its brick files are the ones written here.
    zo::String m_diskPrefix;
    zo::String m_folderId;
    zo::P<zo::IFileSystemLock> m_folderLock;
    zo::P<zo::CCompletionPool> m_pool;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<zo::String, Entry> m_entries;
    std::map<zo::String, std::shared_ptr<Fetch>> m_fetches;
    std::map<zo::String, std::shared_ptr<Keep>> m_keeps;
    zo::int64 m_keepBytes = 0;
    // A file that may hold wrong bytes was left in the folder: the close
    // then leaves it to the next opening's check.
    bool m_strayFile = false;
    zo::int64 m_cachedBytes = 0;
    // The keys of the dirty entries.
    std::set<zo::String> m_dirty;
    // The keys of the entries eviction may take, most recently used first
    // (ordered by lastUse).
    std::list<zo::String> m_recency;
    zo::uint64 m_useClock = 0;
    zo::uint64 m_uploadFailures = 0;
    zo::int64 m_hits = 0;
    zo::int64 m_misses = 0;
    zo::int64 m_uploadRetries = 0;
    zo::int64 m_evictions = 0;
    zo::P<zo::CError> m_lastUploadError;
    bool m_stopping = false;
    std::unique_ptr<zo::CWorkerPool> m_uploaders;
    std::unique_ptr<zo::CWorkerPool> m_keepers;
};

} // namespace brick
