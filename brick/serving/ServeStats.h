// The counters of a served disk for monitoring, in the Prometheus text
// exposition format ("# HELP", "# TYPE" and one line per value, such as
// `brickdisk_store_requests_total{disk="s3://b/vm",kind="get"} 12`): the
// requests and bytes that went to the disk's store, by kind (counted by a
// CCountingFileSystem in front of the store), and, with a local cache, its
// hits and misses, dirty files and bytes, upload queue, upload errors and
// retries and evictions (CCachedStore::getCounters).
//
// CServeStatsFile writes them into a file every few seconds and at the end,
// through the local file system's atomic and durable store (a temporary file
// beside it, synced, renamed over it, the folder synced), so that a reader
// (node_exporter's textfile collector, a script, a person) always sees one
// whole set, also after a power cut.
#pragma once

#include "brick/cache/CachedStore.h"
#include "brick/cache/CountingFileSystem.h"
#include "zo/Export.h"
#include "zo/FileSystem.h"
#include "zo/Signal.h"
#include "zo/URI.h"
#include "zo/WorkerPool.h"

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

namespace brick {

// The counters of the disk named `disk` (its folder or its address in a
// store, which every line carries as its "disk" label) in the text format:
// the store's when `store` is not null, the cache's when `cache` is not null.
// Never throws but std::bad_alloc.
BRICKDISK_EXPORT std::string formatServeStats(const zo::String& disk, const CCountingFileSystem* store,
                                              const CCachedStore* cache);

class BRICKDISK_EXPORT CServeStatsFile {
public:
    static constexpr std::chrono::milliseconds kDefaultPeriod{5000};

    // Writes the counters of formatServeStats(disk, store, cache) into the
    // local file `file` now, then every `period` on a worker of its own (a
    // zo::CWorkerPool of one). The links on the way to the file's folder are
    // resolved here, once; a file that is itself a symbolic link is never
    // followed, and its first write fails. Either of `store` and `cache` may
    // be null; it holds references to both. Throws zo::CFileSystemError (with
    // "path") when the folder cannot be resolved or the first write fails,
    // so that a file that cannot be written is found at the start.
    CServeStatsFile(const std::string& file, const zo::String& disk, CCountingFileSystem* store, CCachedStore* cache,
                    std::chrono::milliseconds period = kDefaultPeriod);
    // Stops the worker and writes the file a last time (a failure is
    // logged). Never throws.
    ~CServeStatsFile();
    CServeStatsFile(const CServeStatsFile&) = delete;
    CServeStatsFile& operator=(const CServeStatsFile&) = delete;

    // Writes the file now: the counters replace it atomically and durably
    // (zo::IFileSystem::beginStoreFile). Throws zo::CFileSystemError (with
    // "path"). Any thread may call it; writes run one at a time, each with
    // the counters as they are when its turn comes.
    void writeNow();

private:
    // The worker's loop: a write every period until m_stopping is set.
    void writePeriodically();

    zo::CURI m_file;
    zo::String m_disk;
    zo::P<CCountingFileSystem> m_store;
    zo::P<CCachedStore> m_cache;
    int m_periodMillis;
    zo::P<zo::IFileSystem> m_fs;
    std::mutex m_writeMutex;
    zo::CSignal m_stopping;
    std::unique_ptr<zo::CWorkerPool> m_writer;
};

} // namespace brick
