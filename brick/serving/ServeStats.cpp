#include "brick/serving/ServeStats.h"

#include "brick/detail/WaitingListener.h"

#include "zo/Error.h"
#include "zo/LocalFileSystem.h"
#include "zo/Log.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <limits>
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

// `file` in its folder with the links on the way to the folder resolved:
// the local file system follows no link, and those the user put on the way
// (such as /var/run to /run) are the user's own. The file itself is not
// resolved, and its folder must exist.
zo::CURI resolveFolderOf(const std::string& file)
{
    const std::filesystem::path path(file);
    const zo::CURI folder =
        zo::CLocalFileSystem::resolveUserPath(path.has_parent_path() ? path.parent_path().string() : std::string("."));
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(folder.toLocalPath(), error);
    if (error || !std::filesystem::exists(status))
        throw zo::makeErrnoError(error ? error.value() : ENOENT, "resolve the folder of", zo::String::fromUTF8(file));
    return folder << zo::String::fromUTF8(path.filename().string());
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
    cacheMetric("brickdisk_cache_hits_total", "counter",
                "Brick reads answered by the cache, from its folder or from memory.", &CacheCounters::hits),
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
    : m_file(resolveFolderOf(file)), m_disk(disk), m_store(store), m_cache(cache),
      m_periodMillis(static_cast<int>(
          std::clamp<std::chrono::milliseconds::rep>(period.count(), 0, std::numeric_limits<int>::max()))),
      m_fs(new zo::CLocalFileSystem(1))
{
    writeNow();
    m_writer = std::make_unique<zo::CWorkerPool>(1);
    m_writer->post([this](int) { writePeriodically(); });
}

CServeStatsFile::~CServeStatsFile()
{
    m_stopping.set();
    // Joins the worker once its write in progress has ended.
    m_writer.reset();
    try {
        writeNow();
    } catch (const std::exception& e) {
        zo::logError(e, "Writing the statistics file at the end failed.", zo::String());
    }
}

void CServeStatsFile::writeNow()
{
    std::lock_guard lock(m_writeMutex);
    const std::string text = formatServeStats(m_disk, m_store.get(), m_cache.get());
    detail::replaceFileAndWait(
        m_fs.get(), m_file,
        zo::TBuffer<zo::uint8>(reinterpret_cast<const zo::uint8*>(text.data()), static_cast<int>(text.size())));
}

void CServeStatsFile::writePeriodically()
{
    bool failing = false;
    while (!m_stopping.wait(m_periodMillis)) {
        try {
            writeNow();
            failing = false;
        } catch (const std::exception& e) {
            // Logged once per run of failures, not every few seconds.
            if (!failing)
                zo::logError(e, "Writing the statistics file failed; it is tried again.", zo::String());
            failing = true;
        }
    }
}

} // namespace brick
