// A brick file fetched from the store: its readers get the bytes before the
// cache folder holds them, a keeper writes the file afterwards without a
// sync, a change of the brick meanwhile wins over the fetched bytes, and a
// folder that a crash left behind loses its clean files at the next opening.
#include "brick/cache/CachedStore.h"

#include "support/BrickTestHelpers.h"
#include "support/CacheTestDisk.h"
#include "support/DiskTestHelpers.h"
#include "support/TempFolder.h"
#include "zo/BufferStream.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

namespace {

using namespace testsupport::cachetest;
using brick::CCachedStore;
using testsupport::Bytes;
using testsupport::HeldFileSystem;
using testsupport::LogCapture;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using Operation = zo::CMemoryFileSystem::Operation;

const CURI kCacheFolder("/cache");

// Only a cache that never lets the awaited state come waits this long.
constexpr auto kGenerousWait = std::chrono::seconds(60);

// The file of the cache folder "/cache" that holds the store's `file`
// ("mem://store/x" is "/cache/files/mem/store/x").
CURI cachedFileOf(const CURI& file)
{
    const zo::String name = file.toString();
    return CURI("/cache/files/mem/" + name.Mid(name.find(L'/') + 2));
}

// Copies the folder `folder` of `from`, with everything below it, into `to`:
// what a crash at this moment leaves of it.
void copyTree(CMemoryFileSystem& from, CMemoryFileSystem& to, const CURI& folder)
{
    to.createFolder(folder, 0700);
    for (const zo::String& name : from.listFolder(folder)) {
        const CURI path = folder << name;
        if (from.folderExists(path))
            copyTree(from, to, path);
        else
            to.setFileData(path, *from.getFileData(path));
    }
}

class CachedStoreFetchTest : public CachedStoreFixture {
protected:
    // A cache over the held cache file system.
    P<CCachedStore> openHeld() { return P<CCachedStore>(new CCachedStore(store.get(), kDisk, held.get(), settings)); }

    const P<HeldFileSystem> held{new HeldFileSystem(cacheFs.get())};
};

TEST_F(CachedStoreFetchTest, ReaderGetsAFetchedBrickWhileItsCacheFileIsStillBeingWritten)
{
    store->setFileData(brickFile(1), filled(300, 1));
    const P<CCachedStore> cache = openHeld();
    held->holdCallsThat(HeldFileSystem::firstWritesOf({"1.brick"}));
    store->resetCounters();

    std::future<std::string> reading = std::async(std::launch::async, [&] { return read(*cache, brickFile(1)); });
    if (reading.wait_for(kGenerousWait) != std::future_status::ready) {
        held->letGo();
        FAIL() << "The reader waited for the cache file.";
    }
    ASSERT_TRUE(held->waitUntilHeldCalls(1));
    EXPECT_FALSE(cache->isCached(brickFile(1)));
    // A second reader meanwhile gets the same bytes without a second fetch.
    const std::string again = read(*cache, brickFile(1));
    held->letGo();

    EXPECT_EQ(reading.get(), text(filled(300, 1)));
    EXPECT_EQ(again, text(filled(300, 1)));
    cache->waitForKeepers();
    EXPECT_TRUE(cache->isCached(brickFile(1)));
    EXPECT_EQ(text(cacheFs->getFileData(cachedFileOf(brickFile(1)))), text(filled(300, 1)));
    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(300, 1)));
    EXPECT_EQ(store->getOperationCount(Operation::OpenStream), 1);
}

TEST_F(CachedStoreFetchTest, WriteOfABrickWhileItsFetchedFileIsWrittenKeepsTheWrittenBytes)
{
    store->setFileData(brickFile(1), filled(300, 1));
    const P<CCachedStore> cache = openHeld();
    held->holdCallsThat(HeldFileSystem::firstWritesOf({"1.brick"}));
    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(300, 1)));
    ASSERT_TRUE(held->waitUntilHeldCalls(1));
    const Bytes written = filled(200, 2);
    const P<zo::IInStream> source(new zo::CBufferStream(&written));

    const P<zo::IFileSystemOp> writing =
        cache->beginStoreFile(brickFile(1), written.getUsed(), source.get(), true, nullptr);
    // The change waits for the keeper, which cannot end while held.
    EXPECT_FALSE(writing->waitDone(0));
    held->letGo();
    writing->wait();
    cache->waitForKeepers();

    EXPECT_EQ(read(*cache, brickFile(1)), text(written));
    EXPECT_EQ(text(cacheFs->getFileData(cachedFileOf(brickFile(1)))), text(written));
    EXPECT_EQ(cache->getCachedBytes(), 200);
    cache->drain();
    EXPECT_EQ(text(store->getFileData(brickFile(1))), text(written));
}

TEST_F(CachedStoreFetchTest, WriteOfABrickWhoseFetchedFileWaitsForAKeeperTakesTheFetchedBytesBack)
{
    store->setFileData(brickFile(1), filled(300, 1));
    store->setFileData(brickFile(8), filled(80, 8));
    store->setFileData(brickFile(9), filled(90, 9));
    const P<CCachedStore> cache = openHeld();
    // Both keepers busy with other files: the fetched brick 1 waits.
    held->holdCallsThat(HeldFileSystem::firstWritesOf({"8.brick", "9.brick"}));
    read(*cache, brickFile(8));
    read(*cache, brickFile(9));
    ASSERT_TRUE(held->waitUntilHeldCalls(2));
    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(300, 1)));

    write(*cache, brickFile(1), filled(200, 2));
    held->letGo();
    cache->waitForKeepers();

    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(200, 2)));
    EXPECT_EQ(text(cacheFs->getFileData(cachedFileOf(brickFile(1)))), text(filled(200, 2)));
    EXPECT_EQ(cache->getCachedBytes(), 200 + 80 + 90);
    cache->drain();
    EXPECT_EQ(text(store->getFileData(brickFile(1))), text(filled(200, 2)));
}

TEST_F(CachedStoreFetchTest, FetchedBrickBeyondTheWaitingBoundIsReturnedButNotKept)
{
    settings.maxWaitingFetchBytes = 150;
    store->setFileData(brickFile(1), filled(100, 1));
    store->setFileData(brickFile(2), filled(100, 2));
    const P<CCachedStore> cache = openHeld();
    held->holdCallsThat(HeldFileSystem::firstWritesOf({"1.brick"}));
    read(*cache, brickFile(1));
    ASSERT_TRUE(held->waitUntilHeldCalls(1));
    store->resetCounters();

    EXPECT_EQ(read(*cache, brickFile(2)), text(filled(100, 2)));
    held->letGo();
    cache->waitForKeepers();

    EXPECT_TRUE(cache->isCached(brickFile(1)));
    EXPECT_FALSE(cache->isCached(brickFile(2)));
    EXPECT_FALSE(cacheFs->getFileData(cachedFileOf(brickFile(2))));
    // Fetched again, and kept this time.
    EXPECT_EQ(read(*cache, brickFile(2)), text(filled(100, 2)));
    cache->waitForKeepers();
    EXPECT_TRUE(cache->isCached(brickFile(2)));
    EXPECT_EQ(store->getOperationCount(Operation::OpenStream), 2);
}

TEST_F(CachedStoreFetchTest, FailureWritingAFetchedFileIsLoggedAndReadsStayExact)
{
    store->setFileData(brickFile(1), filled(300, 1));
    cacheFs->failOperation(Operation::OpenStream, 1, CFileSystemError::NoSpace, false, kCacheFolder << "files");
    const LogCapture log;
    const P<CCachedStore> cache = open();

    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(300, 1)));
    cache->waitForKeepers();

    EXPECT_EQ(log.countContaining("Keeping a fetched brick file in the cache failed."), 1);
    EXPECT_FALSE(cache->isCached(brickFile(1)));
    EXPECT_EQ(cache->getCachedBytes(), 0);
    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(300, 1)));
    cache->waitForKeepers();
    EXPECT_TRUE(cache->isCached(brickFile(1)));
    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(300, 1)));
}

TEST_F(CachedStoreFetchTest, FolderLeftByACrashLosesItsCleanFilesAndKeepsItsDirtyOnes)
{
    store->setFileData(brickFile(1), filled(300, 1));
    store->setFileData(brickFile(2), filled(200, 2));
    store->failOperation(Operation::StoreFile, 1, CFileSystemError::NoSpace, true, kBricks);
    const P<CMemoryFileSystem> leftBehind(new CMemoryFileSystem());
    {
        const P<CCachedStore> cache = open();
        read(*cache, brickFile(1));
        read(*cache, brickFile(2));
        write(*cache, brickFile(3), filled(100, 3));
        cache->waitForKeepers();
        ASSERT_TRUE(cache->isCached(brickFile(1)));
        copyTree(*cacheFs, *leftBehind, kCacheFolder);
    }
    // The unsynced write of brick 1 did not reach the disk whole.
    leftBehind->setFileData(cachedFileOf(brickFile(1)), filled(300, 0xee));
    store->clearFailures();
    store->resetCounters();
    const LogCapture log;

    const P<CCachedStore> reopened(new CCachedStore(store.get(), kDisk, leftBehind.get(), settings));

    EXPECT_EQ(log.countContaining("was not closed cleanly: dropped 2 cached brick files"), 1);
    EXPECT_FALSE(reopened->isCached(brickFile(1)));
    EXPECT_FALSE(reopened->isCached(brickFile(2)));
    EXPECT_TRUE(reopened->isCached(brickFile(3)));
    EXPECT_EQ(text(store->getFileData(brickFile(3))), text(filled(100, 3)));
    EXPECT_EQ(read(*reopened, brickFile(1)), text(filled(300, 1)));
    EXPECT_EQ(read(*reopened, brickFile(2)), text(filled(200, 2)));
    EXPECT_EQ(read(*reopened, brickFile(3)), text(filled(100, 3)));
}

TEST_F(CachedStoreFetchTest, CleanCloseKeepsTheFetchedFilesForTheNextOpening)
{
    const testsupport::TempFolder temp;
    const P<zo::IFileSystem> local(new zo::CLocalFileSystem());
    settings.folder = temp.uri() << "cache";
    store->setFileData(brickFile(1), filled(300, 1));
    {
        const P<CCachedStore> cache(new CCachedStore(store.get(), kDisk, local.get(), settings));
        EXPECT_TRUE(local->fileExists(settings.folder << "in-use"));
        EXPECT_EQ(read(*cache, brickFile(1)), text(filled(300, 1)));
    }
    EXPECT_FALSE(local->fileExists(settings.folder << "in-use"));
    store->resetCounters();

    const P<CCachedStore> reopened(new CCachedStore(store.get(), kDisk, local.get(), settings));

    EXPECT_TRUE(reopened->isCached(brickFile(1)));
    EXPECT_EQ(read(*reopened, brickFile(1)), text(filled(300, 1)));
    EXPECT_EQ(store->getOperationCount(Operation::OpenStream), 1); // the header, for the owner check
}

TEST_F(CachedStoreFetchTest, CacheFolderThatCannotBeSyncedAtTheCloseLosesItsCleanFilesAtTheNextOpening)
{
    store->setFileData(brickFile(1), filled(300, 1));
    {
        const P<CCachedStore> cache = open();
        read(*cache, brickFile(1));
    }
    // The memory file system cannot sync the folder as a whole.
    EXPECT_TRUE(cacheFs->fileExists(kCacheFolder << "in-use"));

    const P<CCachedStore> reopened = open();

    EXPECT_FALSE(reopened->isCached(brickFile(1)));
    EXPECT_FALSE(cacheFs->getFileData(cachedFileOf(brickFile(1))));
    EXPECT_EQ(read(*reopened, brickFile(1)), text(filled(300, 1)));
}

} // namespace
