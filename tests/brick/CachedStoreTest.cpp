#include "brick/cache/CachedStore.h"

#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskHeader.h"
#include "brick/serving/BrickDiskBlockDevice.h"
#include "support/CacheTestDisk.h"
#include "support/DiskTestHelpers.h"
#include "support/HeldFileSystem.h"
#include "support/TempFolder.h"
#include "zo/BufferStream.h"
#include "zo/LocalFileSystem.h"
#include "zo/Log.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testsupport::cachetest;
using brick::CacheSettings;
using brick::CCachedStore;
using testsupport::Bytes;
using testsupport::errorOf;
using testsupport::HeldFileSystem;
using testsupport::messageOf;
using zo::CError;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using Operation = zo::CMemoryFileSystem::Operation;

const CURI kCacheFolder("/cache");

// Keeps the lines logged while it lives (from any thread), then puts the
// previous sink back.
class CapturedLog {
public:
    CapturedLog()
    {
        m_previous = zo::setLogSink([this](zo::LogLevel, const zo::String& line) {
            std::lock_guard lock(m_mutex);
            m_lines.push_back(line.toUTF8());
        });
    }
    ~CapturedLog() { zo::setLogSink(m_previous); }
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    // The lines that contain every one of `parts`.
    int countLines(const std::vector<std::string>& parts) const
    {
        std::lock_guard lock(m_mutex);
        int count = 0;
        for (const std::string& line : m_lines) {
            bool all = true;
            for (const std::string& part : parts)
                all = all && line.find(part) != std::string::npos;
            count += all ? 1 : 0;
        }
        return count;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_lines;
    zo::LogSink m_previous;
};

class CachedStoreTest : public CachedStoreFixture {
protected:
    // Uploads fail for good until clearFailures.
    void failUploads() { store->failOperation(Operation::StoreFile, 1, CFileSystemError::NoSpace, true, kBricks); }

    // Drops the cache once the disk's last storer has let it go (storers
    // release the file system just after the disk saw them end), as the end
    // of a process would.
    static void dropWhenReleased(P<CCachedStore>& cache)
    {
        while (cache->getRefCount() > 1)
            std::this_thread::yield();
        cache = P<CCachedStore>();
    }
};

TEST_F(CachedStoreTest, FetchesABrickOnceAndReadsItFromTheCacheAfterwards)
{
    store->setFileData(brickFile(1), filled(100, 7));
    const P<CCachedStore> cache = open();
    store->resetCounters();

    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(100, 7)));
    cache->waitForKeepers();
    EXPECT_TRUE(cache->isCached(brickFile(1)));
    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(100, 7)));
    EXPECT_EQ(store->getOperationCount(Operation::OpenStream), 1);
}

// The window of a listing: the dirty changes are looked at, the store is
// listed, and an upload of a dirty file may end before the dirty changes are
// looked at again, so that neither the store's listing nor the dirty changes
// after it name the file. The store holds the upload until it was listed;
// then the upload is let go and ends (the file clean) before the listing
// returns.
std::set<std::string> listWhileAnUploadEnds(CCachedStore& cache, HeldFileSystem& held)
{
    EXPECT_TRUE(held.waitUntilHeld()) << "No upload was held.";
    EXPECT_EQ(cache.getDirtyCount(), 1);
    held.afterNextListing([&] {
        held.letGo();
        cache.drain();
    });
    std::set<std::string> names;
    try {
        for (const zo::String& name : cache.listFolder(brickFile(1).getParent()))
            names.insert(name.toUTF8());
    } catch (...) {
        // The uploader must not stay held when the cache closes.
        held.letGo();
        throw;
    }
    EXPECT_EQ(cache.getDirtyCount(), 0) << "The upload did not end while the store was listed.";
    return names;
}

TEST_F(CachedStoreTest, ListingNamesAFileWrittenBeforeItWhoseUploadEndsMeanwhile)
{
    store->setFileData(brickFile(2), filled(200, 2));
    const P<HeldFileSystem> held(new HeldFileSystem(store.get()));
    held->holdCallsThat(brickFileCalls(HeldFileSystem::Call::Store));
    const P<CCachedStore> cache(new CCachedStore(held.get(), kDisk, cacheFs.get(), settings));
    write(*cache, brickFile(1), filled(300, 1));

    const std::set<std::string> names = listWhileAnUploadEnds(*cache, *held);

    EXPECT_EQ(names, (std::set<std::string>{"1.brick", "2.brick"}));
    EXPECT_EQ(text(store->getFileData(brickFile(1))), text(filled(300, 1)));
}

TEST_F(CachedStoreTest, ListingLeavesOutAFileDeletedBeforeItWhoseDeletionIsUploadedMeanwhile)
{
    store->setFileData(brickFile(1), filled(300, 1));
    store->setFileData(brickFile(2), filled(200, 2));
    const P<HeldFileSystem> held(new HeldFileSystem(store.get()));
    held->holdCallsThat(brickFileCalls(HeldFileSystem::Call::Delete));
    const P<CCachedStore> cache(new CCachedStore(held.get(), kDisk, cacheFs.get(), settings));
    cache->beginDeleteFile(brickFile(1), nullptr)->wait();

    const std::set<std::string> names = listWhileAnUploadEnds(*cache, *held);

    EXPECT_EQ(names, (std::set<std::string>{"2.brick"}));
    EXPECT_FALSE(store->getFileData(brickFile(1)));
}

TEST_F(CachedStoreTest, MissingBrickIsNotFoundInTheCacheAsInTheStore)
{
    const P<CCachedStore> cache = open();

    EXPECT_FALSE(cache->fileExists(brickFile(9)));
    const auto error = errorOf<CFileSystemError>([&] { read(*cache, brickFile(9)); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProblem(), CFileSystemError::NotFound);
}

TEST_F(CachedStoreTest, AcknowledgesAWriteBeforeTheStoreHoldsItAndUploadsItAfter)
{
    failUploads();
    const P<CCachedStore> cache = open();

    write(*cache, brickFile(1), filled(300, 1));

    EXPECT_FALSE(store->getFileData(brickFile(1)));
    EXPECT_EQ(cache->getDirtyCount(), 1);
    EXPECT_TRUE(cache->fileExists(brickFile(1)));
    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(300, 1)));

    store->clearFailures();
    drainEventually(*cache);
    EXPECT_EQ(text(store->getFileData(brickFile(1))), text(filled(300, 1)));
    EXPECT_EQ(cache->getDirtyCount(), 0);
}

TEST_F(CachedStoreTest, WriterWaitsWhileTheDirtyBoundIsReached)
{
    settings.maxDirtyFiles = 2;
    failUploads();
    const P<CCachedStore> cache = open();
    write(*cache, brickFile(1), filled(10, 1));
    write(*cache, brickFile(2), filled(10, 2));
    const Bytes third = filled(10, 3);
    const P<zo::IInStream> source(new zo::CBufferStream(&third));
    store->resetCounters();

    const P<zo::IFileSystemOp> op = cache->beginStoreFile(brickFile(3), third.getUsed(), source.get(), true, nullptr);
    // Uploads have failed a few times since the store began.
    while (store->getOperationCount(Operation::StoreFile) < 4)
        std::this_thread::yield();
    EXPECT_FALSE(op->waitDone(0));
    EXPECT_EQ(cache->getDirtyCount(), 2);
    // A further change of a dirty file does not wait.
    write(*cache, brickFile(1), filled(10, 9));

    store->clearFailures();
    op->wait();
    drainEventually(*cache);
    EXPECT_EQ(text(store->getFileData(brickFile(1))), text(filled(10, 9)));
    EXPECT_EQ(text(store->getFileData(brickFile(3))), text(third));
}

TEST_F(CachedStoreTest, AWriteThatTheCacheFolderRefusesFailsAndIsNotUploaded)
{
    cacheFs->failOperation(Operation::StoreFile, 1, CFileSystemError::NoSpace, true, kCacheFolder << "files");
    const P<CCachedStore> cache = open();

    const auto error = errorOf<CFileSystemError>([&] { write(*cache, brickFile(5), filled(30, 5)); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProblem(), CFileSystemError::NoSpace);
    EXPECT_EQ(cache->getDirtyCount(), 0);
    EXPECT_FALSE(cache->fileExists(brickFile(5)));
    cache->drain();
    EXPECT_FALSE(store->getFileData(brickFile(5)));
}

TEST_F(CachedStoreTest, WritesFilesThatAreNotBricksStraightToTheStore)
{
    failUploads();
    const P<CCachedStore> cache = open();

    write(*cache, kDisk << "note.txt", filled(10, 2));

    EXPECT_EQ(text(store->getFileData(kDisk << "note.txt")), text(filled(10, 2)));
    EXPECT_EQ(cache->getDirtyCount(), 0);
}

TEST_F(CachedStoreTest, WritesBricksOfAnotherDiskStraightToTheStore)
{
    failUploads();
    const P<CCachedStore> cache = open();
    const CURI childBrick("mem://store/child/bricks/a00/1.brick");
    store->createFolder(childBrick.getParent(), 0700);
    write(*cache, brickFile(1), filled(40, 5));

    cache->beginCopyFile(brickFile(1), childBrick, false, nullptr)->wait();

    // The snapshot's copy is in the store while the disk's own change waits.
    EXPECT_EQ(text(store->getFileData(childBrick)), text(filled(40, 5)));
    EXPECT_FALSE(cache->isCached(childBrick));
    EXPECT_FALSE(store->getFileData(brickFile(1)));
    EXPECT_EQ(cache->getDirtyCount(), 1);
}

TEST_F(CachedStoreTest, RefusesACacheFolderInUse)
{
    const P<CCachedStore> cache = open();

    const auto error = errorOf<CError>([&] { open(); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error), "The cache folder is in use by another server.");
}

TEST_F(CachedStoreTest, DeletesABrickInTheStoreAfterAcknowledgingIt)
{
    store->setFileData(brickFile(2), filled(50, 2));
    store->failOperation(Operation::DeleteFile, 1, CFileSystemError::NoSpace, true, kBricks);
    const P<CCachedStore> cache = open();

    cache->beginDeleteFile(brickFile(2), nullptr)->wait();

    EXPECT_FALSE(cache->fileExists(brickFile(2)));
    EXPECT_TRUE(store->getFileData(brickFile(2)));
    store->clearFailures();
    drainEventually(*cache);
    EXPECT_FALSE(store->getFileData(brickFile(2)));
}

TEST_F(CachedStoreTest, UploadsTheDirtyFilesOfAKilledProcessOnReopening)
{
    failUploads();
    {
        const P<CCachedStore> cache = open();
        for (int i = 0; i < 3; ++i)
            write(*cache, brickFile(i), filled(200 + i, static_cast<zo::uint8>(10 + i)));
        write(*cache, brickFile(1), filled(250, 99));
        // Dropped without draining: what a killed process leaves.
    }
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(store->getFileData(brickFile(i)));
    store->clearFailures();

    const P<CCachedStore> reopened = open();

    EXPECT_EQ(reopened->getDirtyCount(), 0);
    EXPECT_EQ(text(store->getFileData(brickFile(0))), text(filled(200, 10)));
    EXPECT_EQ(text(store->getFileData(brickFile(1))), text(filled(250, 99)));
    EXPECT_EQ(text(store->getFileData(brickFile(2))), text(filled(202, 12)));
}

TEST_F(CachedStoreTest, OpeningFailsWhileTheStoreRefusesTheDirtyFiles)
{
    failUploads();
    {
        const P<CCachedStore> cache = open();
        write(*cache, brickFile(0), filled(20, 1));
    }

    EXPECT_TRUE(errorOf<CError>([&] { open(); }));

    store->clearFailures();
    open();
    EXPECT_EQ(text(store->getFileData(brickFile(0))), text(filled(20, 1)));
}

TEST_F(CachedStoreTest, RefusesTheCacheFolderOfAnotherDisk)
{
    testsupport::createDisk(store.get(), CURI("mem://store/other"), 1 << 20, "secret");
    open();

    const auto error = errorOf<CError>([&] { open(CURI("mem://store/other")); });

    ASSERT_TRUE(error);
    EXPECT_NE(messageOf(*error).find("belongs to another disk, mem://store/disk."), std::string::npos)
        << messageOf(*error);
    EXPECT_NE(messageOf(*error).find("brickdisk cache drop '/cache'"), std::string::npos);
    EXPECT_EQ(error->getProps().lookup("cachedDisk").toUTF8(), "mem://store/disk");
}

TEST_F(CachedStoreTest, RefusesADiskWhoseHeaderChangedElsewhere)
{
    open();
    testsupport::createDisk(store.get(), CURI("mem://store/other"), 1 << 20, "secret");
    const CURI header = brick::CBrickDiskHeader::getHeaderURI(kDisk, 0);
    store->setFileData(header,
                       *store->getFileData(brick::CBrickDiskHeader::getHeaderURI(CURI("mem://store/other"), 0)));

    const auto error = errorOf<CError>([&] { open(); });

    ASSERT_TRUE(error);
    EXPECT_NE(messageOf(*error).find("changed elsewhere"), std::string::npos) << messageOf(*error);
}

TEST_F(CachedStoreTest, EvictionKeepsTheSizeButNeverDropsADirtyFile)
{
    settings.maxBytes = 250;
    failUploads();
    const P<CCachedStore> cache = open();

    for (int i = 0; i < 5; ++i)
        write(*cache, brickFile(i), filled(100, static_cast<zo::uint8>(i + 1)));

    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(cache->isCached(brickFile(i))) << i;
        EXPECT_EQ(read(*cache, brickFile(i)), text(filled(100, static_cast<zo::uint8>(i + 1))));
    }
    store->clearFailures();
    drainEventually(*cache);
    // A further fetch makes room: the clean files go, least recently used first.
    store->setFileData(brickFile(7), filled(100, 7));
    read(*cache, brickFile(7));
    cache->waitForKeepers();
    EXPECT_LE(cache->getCachedBytes(), 250);
    EXPECT_TRUE(cache->isCached(brickFile(7)));
    EXPECT_FALSE(cache->isCached(brickFile(0)));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(read(*cache, brickFile(i)), text(filled(100, static_cast<zo::uint8>(i + 1))));
}

TEST_F(CachedStoreTest, ManyFilesCycleThroughASmallCacheWithoutEvictingADirtyFileOrTheHotOne)
{
    settings.maxBytes = 1000;
    // The store refuses these three for good, so they stay dirty.
    for (int i = 0; i < 3; ++i)
        store->failOperation(Operation::StoreFile, 1, CFileSystemError::NoSpace, true, brickFile(i));
    const int hot = 50;
    store->setFileData(brickFile(hot), filled(100, 50));
    const P<CCachedStore> cache = open();
    for (int i = 0; i < 3; ++i)
        write(*cache, brickFile(i), filled(150, static_cast<zo::uint8>(i + 1)));
    read(*cache, brickFile(hot));
    cache->waitForKeepers();

    for (int round = 0; round < 200; ++round) {
        const int cycling = 100 + round;
        store->setFileData(brickFile(cycling), filled(100, static_cast<zo::uint8>(round)));
        ASSERT_EQ(read(*cache, brickFile(cycling)), text(filled(100, static_cast<zo::uint8>(round))));
        ASSERT_EQ(read(*cache, brickFile(hot)), text(filled(100, 50)));
        if (round % 50 == 49)
            write(*cache, brickFile(round % 3), filled(150, static_cast<zo::uint8>(round)));
        cache->waitForKeepers();

        ASSERT_LE(cache->getCachedBytes(), 1000) << round;
        ASSERT_TRUE(cache->isCached(brickFile(cycling))) << round;
        ASSERT_TRUE(cache->isCached(brickFile(hot))) << round;
        if (round >= 6) {
            ASSERT_FALSE(cache->isCached(brickFile(cycling - 6))) << round;
        }
        for (int i = 0; i < 3; ++i)
            ASSERT_TRUE(cache->isCached(brickFile(i))) << round << " " << i;
    }

    EXPECT_EQ(cache->getDirtyCount(), 3);
    EXPECT_EQ(read(*cache, brickFile(0)), text(filled(150, 99)));
    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(150, 199)));
    EXPECT_EQ(read(*cache, brickFile(2)), text(filled(150, 149)));
    EXPECT_FALSE(store->getFileData(brickFile(0)));
}

TEST_F(CachedStoreTest, KeepsAFileDirtyWhileItsUploadFailsAndRetriesIt)
{
    store->failOperation(Operation::StoreFile, 1, CFileSystemError::NoSpace, false, kBricks);
    store->failOperation(Operation::StoreFile, 2, CFileSystemError::NoSpace, false, kBricks);
    const P<CCachedStore> cache = open();

    write(*cache, brickFile(3), filled(64, 3));
    drainEventually(*cache);

    EXPECT_EQ(text(store->getFileData(brickFile(3))), text(filled(64, 3)));
    EXPECT_GE(store->getOperationCount(Operation::StoreFile), 3);
}

TEST_F(CachedStoreTest, AFileTheStoreRefusesStaysDirtyIsLoggedCountedAndFailsDrainWhileOthersUpload)
{
    store->failOperation(Operation::StoreFile, 1, CFileSystemError::AccessDenied, true, brickFile(2));
    const CapturedLog log;
    const P<CCachedStore> cache = open();

    for (int i = 1; i <= 3; ++i)
        write(*cache, brickFile(i), filled(80, static_cast<zo::uint8>(i)));
    const auto error = errorOf<CError>([&] { cache->drain(); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error), "Uploading a changed brick file from the cache into the store failed.");
    ASSERT_TRUE(error->getCause());
    EXPECT_EQ(CFileSystemError::getProblem(error->getCause()->getProps()), CFileSystemError::AccessDenied);
    // The others go on, and the refused file is tried again and again.
    waitUntil([&] { return cache->getDirtyCount() == 1 && cache->getUploadFailureCount() >= 3; });
    EXPECT_EQ(text(store->getFileData(brickFile(1))), text(filled(80, 1)));
    EXPECT_EQ(text(store->getFileData(brickFile(3))), text(filled(80, 3)));
    EXPECT_FALSE(store->getFileData(brickFile(2)));
    EXPECT_TRUE(cache->isCached(brickFile(2)));
    EXPECT_EQ(read(*cache, brickFile(2)), text(filled(80, 2)));
    // Logged once for the run of failures, not at every retry.
    EXPECT_EQ(log.countLines({"Uploading a brick file from the cache failed", "2.brick"}), 1);
    EXPECT_EQ(log.countLines({"Uploading a brick file from the cache failed"}), 1);
    EXPECT_TRUE(errorOf<CError>([&] { cache->drain(); }));
    EXPECT_EQ(cache->getDirtyCount(), 1);
}

TEST_F(CachedStoreTest, IgnoresADamagedJournalRecord)
{
    failUploads();
    {
        const P<CCachedStore> cache = open();
        write(*cache, brickFile(4), filled(64, 4));
    }
    const zo::TList<zo::String> records = cacheFs->listFolder(kCacheFolder << "journal");
    ASSERT_EQ(records.size(), 1u);
    const CURI record = kCacheFolder << "journal" << records.front();
    const P<zo::TBuffer<zo::uint8>> whole = cacheFs->getFileData(record);
    cacheFs->setFileData(record, Bytes(whole->getData(), whole->getUsed() - 10));
    store->clearFailures();

    const P<CCachedStore> reopened = open();

    EXPECT_EQ(reopened->getDirtyCount(), 0);
    EXPECT_FALSE(store->getFileData(brickFile(4)));
    EXPECT_TRUE(cacheFs->listFolder(kCacheFolder << "journal").empty());
}

TEST_F(CachedStoreTest, DiskWrittenOverTheCacheReadsTheSameFromTheStoreAfterAKill)
{
    failUploads();
    const int size = 5 * testsupport::kDiskTestBrickSize + 123;
    Bytes written(size);
    for (int i = 0; i < size; ++i)
        written.getData()[i] = static_cast<zo::uint8>(i * 7 + i / 1000);
    P<CCachedStore> cache = open();
    {
        const P<brick::CBrickDisk> disk = testsupport::openDisk(cache.get(), kDisk, "secret");
        testsupport::writeAt(*disk, 1000, written);
        disk->flushChanges();
        EXPECT_GT(cache->getDirtyCount(), 0);
    }
    dropWhenReleased(cache);
    store->clearFailures();

    open();

    const P<brick::CBrickDisk> fromStore =
        testsupport::openDisk(store.get(), kDisk, "secret", zo::IIOStream::AccessRead);
    EXPECT_EQ(text(testsupport::readAt(*fromStore, 1000, size)), text(written));
}

TEST_F(CachedStoreTest, SnapshotTakenOverTheCacheKeepsItsBytesInTheStore)
{
    const int size = 3 * testsupport::kDiskTestBrickSize;
    const Bytes before = filled(size, 0x11);
    const Bytes after = filled(size, 0x22);
    const CURI snapshot("mem://store/snapshot");
    P<CCachedStore> cache = open();
    {
        const P<brick::CBrickDisk> disk = testsupport::openDisk(cache.get(), kDisk, "secret");
        testsupport::writeAt(*disk, 0, before);
        disk->flushChanges();
    }
    cache->drain();
    testsupport::createLinkedChild(cache.get(), snapshot, kDisk, "secret");
    failUploads();
    {
        const P<brick::CBrickDisk> disk = testsupport::openDisk(cache.get(), kDisk, "secret");
        disk->setAllowWritingWithParentDisk(true);
        testsupport::writeAt(*disk, 0, after);
        disk->flushChanges();
    }
    dropWhenReleased(cache);
    store->clearFailures();

    open();

    const P<brick::CBrickDisk> fromStore =
        testsupport::openDisk(store.get(), kDisk, "secret", zo::IIOStream::AccessRead);
    EXPECT_EQ(text(testsupport::readAt(*fromStore, 0, size)), text(after));
    const P<brick::CBrickDisk> snapshotFromStore =
        testsupport::openDisk(store.get(), snapshot, "secret", zo::IIOStream::AccessRead);
    EXPECT_EQ(text(testsupport::readAt(*snapshotFromStore, 0, size)), text(before));
}

TEST_F(CachedStoreTest, ZeroOfWholeBricksOfAServedDiskDeletesTheirFilesInTheStoreOnceTheSnapshotHasCopies)
{
    const int brickSize = testsupport::kDiskTestBrickSize;
    const Bytes before = filled(6 * brickSize, 0x5a);
    const CURI snapshot("mem://store/snapshot");
    const P<CCachedStore> cache = open();
    {
        const P<brick::CBrickDisk> disk = testsupport::openDisk(cache.get(), kDisk, "secret");
        testsupport::writeAt(*disk, 0, before);
        disk->flushChanges();
    }
    cache->drain();
    testsupport::createLinkedChild(cache.get(), snapshot, kDisk, "secret");
    {
        const P<brick::CBrickDisk> disk = testsupport::openDisk(cache.get(), kDisk, "secret");
        disk->setAllowWritingWithParentDisk(true);
        const P<brick::CBrickDiskBlockDevice> device(new brick::CBrickDiskBlockDevice(disk.get(), 16 * brickSize));
        // Whole bricks 1 to 4, and parts of 0 and 5.
        device->zero(brickSize - 10, 4 * brickSize + 20);
        device->flush();
    }
    cache->drain();

    const P<brick::CBrickDisk> fromStore =
        testsupport::openDisk(store.get(), kDisk, "secret", zo::IIOStream::AccessRead);
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(static_cast<bool>(store->getFileData(testsupport::brickFileOf(*fromStore, kDisk, i))),
                  i == 0 || i == 5)
            << i;
    Bytes expected = filled(6 * brickSize, 0x5a);
    std::memset(expected.getData() + brickSize - 10, 0, static_cast<size_t>(4 * brickSize + 20));
    EXPECT_EQ(text(testsupport::readAt(*fromStore, 0, 6 * brickSize)), text(expected));
    // The snapshot got the old bricks before the disk dropped them.
    const P<brick::CBrickDisk> snapshotFromStore =
        testsupport::openDisk(store.get(), snapshot, "secret", zo::IIOStream::AccessRead);
    for (int i = 1; i < 5; ++i)
        EXPECT_TRUE(store->getFileData(testsupport::brickFileOf(*snapshotFromStore, snapshot, i))) << i;
    EXPECT_EQ(text(testsupport::readAt(*snapshotFromStore, 0, 6 * brickSize)), text(before));
}

TEST_F(CachedStoreTest, LocalCacheFolderKeepsCleanAndDirtyFilesAcrossOpenings)
{
    const testsupport::TempFolder temp;
    const P<zo::IFileSystem> local(new zo::CLocalFileSystem());
    settings.folder = temp.uri() << "cache";
    store->setFileData(brickFile(1), filled(70, 1));
    failUploads();
    {
        const P<CCachedStore> cache(new CCachedStore(store.get(), kDisk, local.get(), settings));
        EXPECT_EQ(read(*cache, brickFile(1)), text(filled(70, 1)));
        write(*cache, brickFile(2), filled(80, 2));
    }
    store->clearFailures();
    store->resetCounters();

    const P<CCachedStore> reopened(new CCachedStore(store.get(), kDisk, local.get(), settings));

    EXPECT_EQ(text(store->getFileData(brickFile(2))), text(filled(80, 2)));
    EXPECT_TRUE(reopened->isCached(brickFile(1)));
    EXPECT_TRUE(reopened->isCached(brickFile(2)));
    EXPECT_EQ(reopened->getCachedBytes(), 150);
    EXPECT_EQ(read(*reopened, brickFile(1)), text(filled(70, 1)));
    EXPECT_EQ(store->getOperationCount(Operation::OpenStream), 1); // the header, for the owner check
}

TEST_F(CachedStoreTest, WritersReadersAndUploadersAtOnceLeaveTheLastWriteOfEachFileInTheStore)
{
    settings.maxBytes = 2000;
    settings.maxDirtyFiles = 3;
    settings.uploadJobs = 3;
    store->setCompletionDelay(0, 2);
    const P<CCachedStore> cache = open();
    constexpr int kThreads = 4;
    constexpr int kFilesEach = 2;
    std::vector<std::string> last(kThreads * kFilesEach);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 60; ++round) {
                const int own = t * kFilesEach + round % kFilesEach;
                if (round % 7 == 6) {
                    cache->beginDeleteFile(brickFile(own), nullptr)->wait();
                    last[static_cast<size_t>(own)].clear();
                } else {
                    const Bytes bytes = filled(100 + round, static_cast<zo::uint8>(round + t));
                    write(*cache, brickFile(own), bytes);
                    last[static_cast<size_t>(own)] = text(bytes);
                }
                const int other = (own + kFilesEach) % (kThreads * kFilesEach);
                try {
                    read(*cache, brickFile(other));
                } catch (const CFileSystemError& e) {
                    EXPECT_EQ(e.getProblem(), CFileSystemError::NotFound);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    drainEventually(*cache);

    for (int i = 0; i < kThreads * kFilesEach; ++i) {
        const std::string& expected = last[static_cast<size_t>(i)];
        EXPECT_EQ(text(store->getFileData(brickFile(i))), expected.empty() ? "<none>" : expected) << i;
    }
}

} // namespace
