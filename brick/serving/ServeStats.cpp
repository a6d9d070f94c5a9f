#include "brick/serving/ServeStats.h"

#include "zo/Error.h"
#include "zo/Log.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <span>
#include <sstream>

namespace brick {

namespace {

using Request = CCountingFileSystem::Request;

// A label value with backslashes, double quotes and line breaks escaped, as
// the text format asks.
std::string labelValue(const std::string& text)
{
    std::string escaped;
    for (const char c : text) {
        if (c == '\\')
            escaped += "\\\\";
        else if (c == '"')
            escaped += "\\\"";
        else if (c == '\n')
            escaped += "\\n";
        else
            escaped += c;
    }
    return escaped;
}

constexpr Request kAllRequests[] = {Request::Get,    Request::Put,  Request::Copy, Request::Move,
                                    Request::Delete, Request::List, Request::Info, Request::Folder};
constexpr Request kMovingRequests[] = {Request::Get, Request::Put};

// One metric of the text: its name, type and help, and where its values
// come from. A metric of the store has one value per kind of request in
// `kinds`, each labelled with its kind; a metric of the cache has one value,
// a field of CacheCounters.
struct Metric {
    const char* name;
    const char* type;
    const char* help;
    zo::int64 (CCountingFileSystem::*storeValue)(Request kind) const;
    std::span<const Request> kinds;
    zo::int64 CacheCounters::*cacheValue;
};

constexpr Metric storeMetric(const char* name, const char* help,
                             zo::int64 (CCountingFileSystem::*value)(Request kind) const,
                             std::span<const Request> kinds)
{
    return Metric{name, "counter", help, value, kinds, nullptr};
}

constexpr Metric cacheMetric(const char* name, const char* type, const char* help, zo::int64 CacheCounters::*value)
{
    return Metric{name, type, help, nullptr, {}, value};
}

// The metrics in the order of the text: the store's, then the cache's.
constexpr Metric kMetrics[] = {
    storeMetric("brickdisk_store_requests_total", "Requests made to the disk's store, by kind.",
                &CCountingFileSystem::getRequests, kAllRequests),
    storeMetric("brickdisk_store_bytes_total", "Bytes read from (get) and written to (put) the disk's store.",
                &CCountingFileSystem::getBytes, kMovingRequests),
    cacheMetric("brickdisk_cache_hits_total", "counter", "Brick reads answered from the cache folder.",
                &CacheCounters::hits),
    cacheMetric("brickdisk_cache_misses_total", "counter", "Brick reads that went to the store.",
                &CacheCounters::misses),
    cacheMetric("brickdisk_cache_bytes", "gauge", "Bytes of the files in the cache folder.",
                &CacheCounters::cachedBytes),
    cacheMetric("brickdisk_cache_dirty_files", "gauge", "Brick files whose newest change the store does not hold yet.",
                &CacheCounters::dirtyFiles),
    cacheMetric("brickdisk_cache_dirty_bytes", "gauge", "Bytes of the dirty brick files.", &CacheCounters::dirtyBytes),
    cacheMetric("brickdisk_cache_upload_queue", "gauge", "Dirty brick files waiting for an uploader.",
                &CacheCounters::uploadQueue),
    cacheMetric("brickdisk_cache_uploads_in_progress", "gauge", "Brick files being uploaded now.",
                &CacheCounters::uploading),
    cacheMetric("brickdisk_cache_upload_errors_total", "counter", "Uploads into the store that failed.",
                &CacheCounters::uploadErrors),
    cacheMetric("brickdisk_cache_upload_retries_total", "counter",
                "Uploads of a brick file whose upload had failed before.", &CacheCounters::uploadRetries),
    cacheMetric("brickdisk_cache_evictions_total", "counter",
                "Clean brick files evicted to keep the cache folder within its size.", &CacheCounters::evictions),
};

} // namespace

std::string formatServeStats(const zo::String& disk, const CCountingFileSystem* store, const CCachedStore* cache)
{
    const std::string diskLabel = "disk=\"" + labelValue(disk.toUTF8()) + '"';
    const CacheCounters counters = cache ? cache->getCounters() : CacheCounters();
    std::ostringstream out;
    for (const Metric& metric : kMetrics) {
        if (metric.storeValue ? !store : !cache)
            continue;
        out << "# HELP " << metric.name << ' ' << metric.help << "\n# TYPE " << metric.name << ' ' << metric.type
            << '\n';
        if (!metric.storeValue) {
            out << metric.name << '{' << diskLabel << "} " << counters.*metric.cacheValue << '\n';
            continue;
        }
        for (const Request kind : metric.kinds) {
            out << metric.name << '{' << diskLabel << ",kind=\"" << CCountingFileSystem::getRequestName(kind) << "\"} "
                << (store->*metric.storeValue)(kind) << '\n';
        }
    }
    return out.str();
}

CServeStatsFile::CServeStatsFile(const std::string& file, const zo::String& disk, CCountingFileSystem* store,
                                 CCachedStore* cache, std::chrono::milliseconds period)
    : m_file(file), m_disk(disk), m_store(store), m_cache(cache), m_period(period)
{
    writeNow();
    m_thread = std::thread([this] { run(); });
}

CServeStatsFile::~CServeStatsFile()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_stop.notify_all();
    m_thread.join();
    try {
        writeNow();
    } catch (const std::exception& e) {
        zo::logError(e, "Writing the statistics file at the end failed.", zo::String());
    }
}

void CServeStatsFile::writeNow()
{
    const std::string text = formatServeStats(m_disk, m_store.get(), m_cache.get());
    const std::string temporary = m_file + ".tmp";
    std::lock_guard lock(m_writeMutex);
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        if (!out)
            throw zo::makeErrnoError(errno, "write the statistics file", zo::String(temporary));
        out << text;
        out.close();
        if (!out)
            throw zo::makeErrnoError(errno, "write the statistics file", zo::String(temporary));
    }
    if (std::rename(temporary.c_str(), m_file.c_str()) != 0) {
        const int error = errno;
        std::remove(temporary.c_str());
        throw zo::makeErrnoError(error, "rename the statistics file", zo::String(m_file));
    }
}

void CServeStatsFile::run()
{
    bool failing = false;
    std::unique_lock lock(m_mutex);
    while (!m_stop.wait_for(lock, m_period, [this] { return m_stopping; })) {
        lock.unlock();
        try {
            writeNow();
            failing = false;
        } catch (const std::exception& e) {
            // Logged once per run of failures, not every few seconds.
            if (!failing)
                zo::logError(e, "Writing the statistics file failed; it is tried again.", zo::String());
            failing = true;
        }
        lock.lock();
    }
}

} // namespace brick
