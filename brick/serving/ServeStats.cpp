#include "brick/serving/ServeStats.h"

#include "zo/Error.h"
#include "zo/Log.h"

#include <cerrno>
#include <cstdio>
#include <fstream>
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

// Writes one metric: its help, its type and its values.
class CMetricWriter {
public:
    CMetricWriter(std::ostringstream& out, const std::string& disk) : m_out(out), m_disk(labelValue(disk)) {}

    void begin(const std::string& name, const char* type, const std::string& help)
    {
        m_name = name;
        m_out << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
    }
    void value(zo::int64 number) { m_out << m_name << "{disk=\"" << m_disk << "\"} " << number << '\n'; }
    void value(const char* kind, zo::int64 number)
    {
        m_out << m_name << "{disk=\"" << m_disk << "\",kind=\"" << kind << "\"} " << number << '\n';
    }

private:
    std::ostringstream& m_out;
    std::string m_disk;
    std::string m_name;
};

constexpr Request kAllRequests[] = {Request::Get,    Request::Put,  Request::Copy, Request::Move,
                                    Request::Delete, Request::List, Request::Info, Request::Folder};

} // namespace

std::string formatServeStats(const zo::String& disk, const CCountingFileSystem* store, const CCachedStore* cache)
{
    std::ostringstream out;
    CMetricWriter metric(out, disk.toUTF8());
    if (store) {
        metric.begin("brickdisk_store_requests_total", "counter", "Requests made to the disk's store, by kind.");
        for (const Request kind : kAllRequests)
            metric.value(CCountingFileSystem::getRequestName(kind), store->getRequests(kind));
        metric.begin("brickdisk_store_bytes_total", "counter",
                     "Bytes read from (get) and written to (put) the disk's store.");
        for (const Request kind : {Request::Get, Request::Put})
            metric.value(CCountingFileSystem::getRequestName(kind), store->getBytes(kind));
    }
    if (cache) {
        const CacheCounters counters = cache->getCounters();
        metric.begin("brickdisk_cache_hits_total", "counter", "Brick reads answered from the cache folder.");
        metric.value(counters.hits);
        metric.begin("brickdisk_cache_misses_total", "counter", "Brick reads that went to the store.");
        metric.value(counters.misses);
        metric.begin("brickdisk_cache_bytes", "gauge", "Bytes of the files in the cache folder.");
        metric.value(counters.cachedBytes);
        metric.begin("brickdisk_cache_dirty_files", "gauge",
                     "Brick files whose newest change the store does not hold yet.");
        metric.value(counters.dirtyFiles);
        metric.begin("brickdisk_cache_dirty_bytes", "gauge", "Bytes of the dirty brick files.");
        metric.value(counters.dirtyBytes);
        metric.begin("brickdisk_cache_upload_queue", "gauge", "Dirty brick files waiting for an uploader.");
        metric.value(counters.uploadQueue);
        metric.begin("brickdisk_cache_uploads_in_progress", "gauge", "Brick files being uploaded now.");
        metric.value(counters.uploading);
        metric.begin("brickdisk_cache_upload_errors_total", "counter", "Uploads into the store that failed.");
        metric.value(counters.uploadErrors);
        metric.begin("brickdisk_cache_upload_retries_total", "counter",
                     "Uploads of a brick file whose upload had failed before.");
        metric.value(counters.uploadRetries);
        metric.begin("brickdisk_cache_evictions_total", "counter",
                     "Clean brick files evicted to keep the cache folder within its size.");
        metric.value(counters.evictions);
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
