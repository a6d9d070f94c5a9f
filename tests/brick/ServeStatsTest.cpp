// The counters of a served disk as its statistics file shows them: requests
// to the store counted by kind, the cache's hits, misses, dirty files,
// uploads and evictions, in the Prometheus text format, written whole.
#include "brick/serving/ServeStats.h"

#include "brick/cache/CachedStore.h"
#include "brick/cache/CountingFileSystem.h"
#include "support/CacheTestDisk.h"
#include "support/DiskTestHelpers.h"
#include "support/TempFolder.h"
#include "zo/BufferStream.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>

namespace {

using namespace testsupport::cachetest;
using brick::CacheSettings;
using brick::CCachedStore;
using brick::CCountingFileSystem;
using brick::CServeStatsFile;
using testsupport::Bytes;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using Operation = zo::CMemoryFileSystem::Operation;

const std::string kDiskLabel = "disk=\"mem://store/disk\"";
constexpr int kBrickBytes = 1000;
// Long enough that only the test's own writes happen.
constexpr std::chrono::hours kNoPeriodicWrites{1};

// The values of a statistics file by series ("name{labels}"); the help and
// type lines are checked to come before the values of their metric.
std::map<std::string, zo::int64> readStats(const std::string& file)
{
    std::ifstream in(file);
    EXPECT_TRUE(in) << file;
    std::map<std::string, zo::int64> values;
    std::string line, typed;
    while (std::getline(in, line)) {
        if (line.rfind("# TYPE ", 0) == 0) {
            typed = line.substr(7, line.find(' ', 7) - 7);
            continue;
        }
        if (line.rfind("# HELP ", 0) == 0)
            continue;
        const size_t space = line.rfind(' ');
        EXPECT_NE(space, std::string::npos) << line;
        const std::string series = line.substr(0, space);
        EXPECT_EQ(series.substr(0, series.find('{')), typed) << line;
        values[series] = std::stoll(line.substr(space + 1));
    }
    return values;
}

std::string storeSeries(const char* metric, const char* kind)
{
    return std::string(metric) + "{" + kDiskLabel + ",kind=\"" + kind + "\"}";
}

std::string cacheSeries(const char* metric)
{
    return std::string(metric) + "{" + kDiskLabel + "}";
}

class ServeStatsTest : public ::testing::Test {
protected:
    ServeStatsTest()
    {
        testsupport::createDisk(store.get(), kDisk, 1 << 20, "secret");
        settings.folder = CURI("/cache");
        settings.uploadJobs = 1;
        settings.retryDelayMillis = 1;
    }

    P<CCachedStore> openCache()
    {
        return P<CCachedStore>(new CCachedStore(counter.get(), kDisk, cacheFs.get(), settings));
    }

    static void readBrick(zo::IFileSystem& fs, int index)
    {
        const P<zo::IIOStream> stream = fs.openStream(brickFile(index), zo::IIOStream::AccessRead, 0);
        Bytes bytes(static_cast<int>(stream->getLength()));
        stream->read(bytes.getData(), bytes.getUsed());
    }

    static void writeBrick(zo::IFileSystem& fs, int index, const Bytes& bytes)
    {
        const P<zo::IInStream> source(new zo::CBufferStream(&bytes));
        fs.beginStoreFile(brickFile(index), bytes.getUsed(), source.get(), true, nullptr)->wait();
    }

    // Drains, tolerating the failures of uploads under way before the store
    // recovered.
    static void drainEventually(CCachedStore& cache)
    {
        for (int attempt = 0;; ++attempt) {
            try {
                cache.drain();
                return;
            } catch (const zo::CError&) {
                if (attempt > 100)
                    throw;
            }
        }
    }

    testsupport::TempFolder folder;
    const std::string statsFile = folder.path() + "/brickdisk.prom";
    P<CMemoryFileSystem> store{new CMemoryFileSystem()};
    P<CCountingFileSystem> counter{new CCountingFileSystem(store.get())};
    P<CMemoryFileSystem> cacheFs{new CMemoryFileSystem()};
    CacheSettings settings;
};

TEST_F(ServeStatsTest, BrickReadsCountMissesAndStoreGetsThenHits)
{
    constexpr int kReads = 5;
    for (int i = 0; i < kReads; ++i)
        store->setFileData(brickFile(i), filled(kBrickBytes, static_cast<zo::uint8>(i)));
    const P<CCachedStore> cache = openCache();
    CServeStatsFile stats(statsFile, "mem://store/disk", counter.get(), cache.get(), kNoPeriodicWrites);
    const std::map<std::string, zo::int64> before = readStats(statsFile);
    const std::string gets = storeSeries("brickdisk_store_requests_total", "get");
    const std::string getBytes = storeSeries("brickdisk_store_bytes_total", "get");
    const std::string hits = cacheSeries("brickdisk_cache_hits_total");
    const std::string misses = cacheSeries("brickdisk_cache_misses_total");
    ASSERT_EQ(before.count(gets), 1u);
    EXPECT_EQ(before.at(hits), 0);
    EXPECT_EQ(before.at(misses), 0);

    for (int i = 0; i < kReads; ++i)
        readBrick(*cache, i);
    cache->waitForKeepers();
    stats.writeNow();
    const std::map<std::string, zo::int64> first = readStats(statsFile);
    EXPECT_EQ(first.at(misses), kReads);
    EXPECT_EQ(first.at(hits), 0);
    EXPECT_EQ(first.at(gets) - before.at(gets), kReads);
    EXPECT_EQ(first.at(getBytes) - before.at(getBytes), kReads * kBrickBytes);
    EXPECT_EQ(first.at(cacheSeries("brickdisk_cache_bytes")), kReads * kBrickBytes);

    for (int i = 0; i < kReads; ++i)
        readBrick(*cache, i);
    stats.writeNow();
    const std::map<std::string, zo::int64> second = readStats(statsFile);
    EXPECT_EQ(second.at(misses), kReads);
    EXPECT_EQ(second.at(hits), kReads);
    EXPECT_EQ(second.at(gets), first.at(gets));
}

TEST_F(ServeStatsTest, DirtyFilesShowUntilUploadedWithTheFailedUploadsAndRetries)
{
    store->failOperation(Operation::StoreFile, 1, CFileSystemError::NoSpace, true, kBricks);
    const P<CCachedStore> cache = openCache();
    CServeStatsFile stats(statsFile, "mem://store/disk", counter.get(), cache.get(), kNoPeriodicWrites);
    const zo::int64 putsBefore = readStats(statsFile).at(storeSeries("brickdisk_store_requests_total", "put"));

    writeBrick(*cache, 1, filled(kBrickBytes, 1));
    while (cache->getCounters().uploadErrors < 2)
        std::this_thread::yield();
    stats.writeNow();
    const std::map<std::string, zo::int64> failing = readStats(statsFile);
    EXPECT_EQ(failing.at(cacheSeries("brickdisk_cache_dirty_files")), 1);
    EXPECT_EQ(failing.at(cacheSeries("brickdisk_cache_dirty_bytes")), kBrickBytes);
    EXPECT_EQ(failing.at(cacheSeries("brickdisk_cache_upload_queue")) +
                  failing.at(cacheSeries("brickdisk_cache_uploads_in_progress")),
              1);
    EXPECT_GE(failing.at(cacheSeries("brickdisk_cache_upload_errors_total")), 2);
    EXPECT_GE(failing.at(cacheSeries("brickdisk_cache_upload_retries_total")), 1);

    store->clearFailures();
    drainEventually(*cache);
    stats.writeNow();
    const std::map<std::string, zo::int64> done = readStats(statsFile);
    EXPECT_EQ(done.at(cacheSeries("brickdisk_cache_dirty_files")), 0);
    EXPECT_EQ(done.at(cacheSeries("brickdisk_cache_dirty_bytes")), 0);
    EXPECT_EQ(done.at(cacheSeries("brickdisk_cache_upload_queue")), 0);
    const zo::int64 errors = done.at(cacheSeries("brickdisk_cache_upload_errors_total"));
    // Every failed upload was tried again, and the last try stored the file
    // (a try may put twice: again once it has made the file's folder).
    EXPECT_EQ(done.at(cacheSeries("brickdisk_cache_upload_retries_total")), errors);
    EXPECT_GE(done.at(storeSeries("brickdisk_store_requests_total", "put")) - putsBefore, errors + 1);
    EXPECT_EQ(done.at(storeSeries("brickdisk_store_bytes_total", "put")) -
                  failing.at(storeSeries("brickdisk_store_bytes_total", "put")),
              (done.at(storeSeries("brickdisk_store_requests_total", "put")) -
               failing.at(storeSeries("brickdisk_store_requests_total", "put"))) *
                  kBrickBytes);
}

TEST_F(ServeStatsTest, EvictionsKeepTheCacheWithinItsSize)
{
    settings.maxBytes = 3 * kBrickBytes;
    for (int i = 0; i < 6; ++i)
        store->setFileData(brickFile(i), filled(kBrickBytes, static_cast<zo::uint8>(i)));
    const P<CCachedStore> cache = openCache();
    CServeStatsFile stats(statsFile, "mem://store/disk", counter.get(), cache.get(), kNoPeriodicWrites);

    for (int i = 0; i < 6; ++i)
        readBrick(*cache, i);
    cache->waitForKeepers();
    stats.writeNow();

    const std::map<std::string, zo::int64> values = readStats(statsFile);
    EXPECT_GE(values.at(cacheSeries("brickdisk_cache_evictions_total")), 3);
    EXPECT_LE(values.at(cacheSeries("brickdisk_cache_bytes")), settings.maxBytes);
}

TEST_F(ServeStatsTest, WithoutACacheOnlyTheStoreIsCounted)
{
    store->setFileData(brickFile(1), filled(kBrickBytes, 1));
    CServeStatsFile stats(statsFile, "mem://store/disk", counter.get(), nullptr, kNoPeriodicWrites);

    readBrick(*counter, 1);
    counter->listFolder(kBricks);
    writeBrick(*counter, 2, filled(10, 2));
    counter->beginDeleteFile(brickFile(2), nullptr)->wait();
    stats.writeNow();

    const std::map<std::string, zo::int64> values = readStats(statsFile);
    EXPECT_EQ(values.at(storeSeries("brickdisk_store_requests_total", "get")), 1);
    EXPECT_EQ(values.at(storeSeries("brickdisk_store_bytes_total", "get")), kBrickBytes);
    EXPECT_EQ(values.at(storeSeries("brickdisk_store_requests_total", "list")), 1);
    EXPECT_EQ(values.at(storeSeries("brickdisk_store_requests_total", "put")), 1);
    EXPECT_EQ(values.at(storeSeries("brickdisk_store_bytes_total", "put")), 10);
    EXPECT_EQ(values.at(storeSeries("brickdisk_store_requests_total", "delete")), 1);
    for (const auto& [series, value] : values)
        EXPECT_EQ(series.rfind("brickdisk_cache_", 0), std::string::npos) << series;
}

TEST_F(ServeStatsTest, TheLastWriteAtTheEndHoldsTheFinalCountsAndNoTemporaryFileStays)
{
    store->setFileData(brickFile(1), filled(kBrickBytes, 1));
    {
        CServeStatsFile stats(statsFile, "mem://store/disk", counter.get(), nullptr, kNoPeriodicWrites);
        readBrick(*counter, 1);
        readBrick(*counter, 1);
    }

    EXPECT_EQ(readStats(statsFile).at(storeSeries("brickdisk_store_requests_total", "get")), 2);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
}

// The text that monitoring reads, line for line: every metric's help and
// type before its values, the store's metrics before the cache's, and the
// store's values in the order of their kinds.
TEST_F(ServeStatsTest, TheStoreCountersKeepTheirTextByteForByte)
{
    store->setFileData(brickFile(1), filled(kBrickBytes, 1));
    readBrick(*counter, 1);
    counter->listFolder(kBricks);
    writeBrick(*counter, 2, filled(10, 2));
    counter->beginDeleteFile(brickFile(2), nullptr)->wait();

    const std::string text = brick::formatServeStats("mem://store/disk", counter.get(), nullptr);

    const std::string series = "{disk=\"mem://store/disk\",kind=";
    EXPECT_EQ(text,
              "# HELP brickdisk_store_requests_total Requests made to the disk's store, by kind.\n"
              "# TYPE brickdisk_store_requests_total counter\n"
              "brickdisk_store_requests_total" +
                  series + "\"get\"} 1\n" + "brickdisk_store_requests_total" + series + "\"put\"} 1\n" +
                  "brickdisk_store_requests_total" + series + "\"copy\"} 0\n" + "brickdisk_store_requests_total" +
                  series + "\"move\"} 0\n" + "brickdisk_store_requests_total" + series + "\"delete\"} 1\n" +
                  "brickdisk_store_requests_total" + series + "\"list\"} 1\n" + "brickdisk_store_requests_total" +
                  series + "\"info\"} 0\n" + "brickdisk_store_requests_total" + series + "\"folder\"} 0\n" +
                  "# HELP brickdisk_store_bytes_total Bytes read from (get) and written to (put) the disk's "
                  "store.\n"
                  "# TYPE brickdisk_store_bytes_total counter\n"
                  "brickdisk_store_bytes_total" +
                  series + "\"get\"} 1000\n" + "brickdisk_store_bytes_total" + series + "\"put\"} 10\n");
}

TEST_F(ServeStatsTest, TheCacheCountersKeepTheirTextByteForByte)
{
    for (int i = 0; i < 2; ++i)
        store->setFileData(brickFile(i), filled(kBrickBytes, static_cast<zo::uint8>(i)));
    const P<CCachedStore> cache = openCache();
    readBrick(*cache, 0);
    readBrick(*cache, 1);
    readBrick(*cache, 1);
    writeBrick(*cache, 2, filled(10, 2));
    cache->drain();
    cache->waitForKeepers();

    const std::string text = brick::formatServeStats("mem://store/disk", nullptr, cache.get());

    const brick::CacheCounters counters = cache->getCounters();
    const auto metric = [](const char* name, const char* type, const char* help, zo::int64 value) {
        return std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n" + name +
            "{disk=\"mem://store/disk\"} " + std::to_string(value) + "\n";
    };
    EXPECT_EQ(
        text,
        metric("brickdisk_cache_hits_total", "counter",
               "Brick reads answered by the cache, from its folder or from memory.", counters.hits) +
            metric("brickdisk_cache_misses_total", "counter", "Brick reads that went to the store.", counters.misses) +
            metric("brickdisk_cache_bytes", "gauge", "Bytes of the files in the cache folder.", counters.cachedBytes) +
            metric("brickdisk_cache_dirty_files", "gauge",
                   "Brick files whose newest change the store does not hold yet.", counters.dirtyFiles) +
            metric("brickdisk_cache_dirty_bytes", "gauge", "Bytes of the dirty brick files.", counters.dirtyBytes) +
            metric("brickdisk_cache_upload_queue", "gauge", "Dirty brick files waiting for an uploader.",
                   counters.uploadQueue) +
            metric("brickdisk_cache_uploads_in_progress", "gauge", "Brick files being uploaded now.",
                   counters.uploading) +
            metric("brickdisk_cache_upload_errors_total", "counter", "Uploads into the store that failed.",
                   counters.uploadErrors) +
            metric("brickdisk_cache_upload_retries_total", "counter",
                   "Uploads of a brick file whose upload had failed before.", counters.uploadRetries) +
            metric("brickdisk_cache_evictions_total", "counter",
                   "Clean brick files evicted to keep the cache folder within its size.", counters.evictions));
    EXPECT_EQ(counters.hits, 1);
    EXPECT_EQ(counters.misses, 2);
}

TEST_F(ServeStatsTest, LabelValuesAreEscaped)
{
    const std::string text = brick::formatServeStats("/srv/a \"b\"\\c", counter.get(), nullptr);

    EXPECT_NE(text.find("{disk=\"/srv/a \\\"b\\\"\\\\c\",kind=\"get\"} 0\n"), std::string::npos) << text;
}

TEST_F(ServeStatsTest, AFileInAMissingFolderIsRefusedAtTheStartWithItsPath)
{
    const std::string missing = folder.path() + "/no/such/folder/stats.prom";

    const auto error = testsupport::errorOf<CFileSystemError>(
        [&] { CServeStatsFile stats(missing, "mem://store/disk", counter.get(), nullptr); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProblem(), CFileSystemError::NotFound);
    EXPECT_EQ(error->getProps().lookup("path").toUTF8(), missing);
}

TEST_F(ServeStatsTest, AFileThatCannotBeStoredIsRefusedAtTheStartWithItsPath)
{
    const std::filesystem::path inTheWay = std::filesystem::path(folder.path()) / "stats.prom";
    std::filesystem::create_directory(inTheWay);

    const auto error = testsupport::errorOf<CFileSystemError>(
        [&] { CServeStatsFile stats(inTheWay.string(), "mem://store/disk", counter.get(), nullptr); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProps().lookup("path").toUTF8(),
              (std::filesystem::canonical(folder.path()) / "stats.prom").string());
    EXPECT_TRUE(std::filesystem::is_directory(inTheWay));
}

// A link where the file should be could lead the server's writes anywhere:
// it is refused, and what it points to stays as it was.
TEST_F(ServeStatsTest, AFileThatIsALinkIsRefusedAtTheStart)
{
    const std::string target = folder.path() + "/elsewhere.prom";
    std::ofstream(target) << "kept\n";
    std::filesystem::create_symlink(target, statsFile);

    EXPECT_THROW(CServeStatsFile(statsFile, "mem://store/disk", counter.get(), nullptr), CFileSystemError);

    std::ifstream in(target);
    std::string line;
    std::getline(in, line);
    EXPECT_EQ(line, "kept");
    EXPECT_TRUE(std::filesystem::is_symlink(statsFile));
}

// The worker writes on its own, and a reader that reads the file meanwhile,
// again and again, always finds every series in it.
TEST_F(ServeStatsTest, TheWorkerWritesNewCountsAndReadersAlwaysFindAWholeSet)
{
    store->setFileData(brickFile(1), filled(kBrickBytes, 1));
    CServeStatsFile stats(statsFile, "mem://store/disk", counter.get(), nullptr, std::chrono::milliseconds(1));
    const std::string gets = storeSeries("brickdisk_store_requests_total", "get");
    const size_t seriesCount = readStats(statsFile).size();
    ASSERT_EQ(seriesCount, 10u);

    readBrick(*counter, 1);
    // What no working writer comes near, even on a busy machine.
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    std::map<std::string, zo::int64> values;
    do {
        values = readStats(statsFile);
        ASSERT_EQ(values.size(), seriesCount);
    } while (values.at(gets) == 0 && std::chrono::steady_clock::now() < giveUp);
    EXPECT_EQ(values.at(gets), 1);
}

} // namespace
