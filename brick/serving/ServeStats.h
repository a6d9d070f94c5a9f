// The counters of a served disk for monitoring, in the Prometheus text
// exposition format ("# HELP", "# TYPE" and one line per value, such as
// `brickdisk_store_requests_total{disk="s3://b/vm",kind="get"} 12`): the
// requests and bytes that went to the disk's store, by kind (counted by a
// CCountingFileSystem in front of the store), and, with a local cache, its
// hits and misses, dirty files and bytes, upload queue, upload errors and
// retries and evictions (CCachedStore::getCounters).
//
// CServeStatsFile writes them into a file every few seconds and at the end,
// atomically (a temporary file beside it, then renamed), so that a reader
// (node_exporter's textfile collector, a script, a person) always sees one
// whole set.
#pragma once

#include "brick/cache/CachedStore.h"
#include "brick/cache/CountingFileSystem.h"
#include "zo/Export.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

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
    // local file `file` now, then every `period` on a thread of its own.
    // Either of `store` and `cache` may be null; it holds references to
    // both. Throws zo::CFileSystemError (with "path") when the first write
    // fails, so that a file that cannot be written is found at the start.
    CServeStatsFile(const std::string& file, const zo::String& disk, CCountingFileSystem* store, CCachedStore* cache,
                    std::chrono::milliseconds period = kDefaultPeriod);
    // Stops the thread and writes the file a last time (a failure is logged).
    // Never throws.
    ~CServeStatsFile();
    CServeStatsFile(const CServeStatsFile&) = delete;
    CServeStatsFile& operator=(const CServeStatsFile&) = delete;

    // Writes the file now: the counters into a temporary file beside it,
    // renamed over it. Throws zo::CFileSystemError (with "path"). Any thread
    // may call it.
    void writeNow();

private:
    void run();

    std::string m_file;
    zo::String m_disk;
    zo::P<CCountingFileSystem> m_store;
    zo::P<CCachedStore> m_cache;
    std::chrono::milliseconds m_period;
    // Writes of the file one at a time.
    std::mutex m_writeMutex;
    std::mutex m_mutex;
    std::condition_variable m_stop;
    bool m_stopping = false;
    std::thread m_thread;
};

} // namespace brick
