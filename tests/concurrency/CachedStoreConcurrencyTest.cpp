// The cache in front of a store, with several threads at once: fetches of
// different brick files under way together, readers of one file sharing one
// fetch, and a store that is unreachable for a while and then comes back.
#include "brick/cache/CachedStore.h"

#include "support/CacheTestDisk.h"
#include "support/DiskTestHelpers.h"
#include "support/HeldFileSystem.h"
#include "zo/BufferStream.h"
#include "zo/ForwardingFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace testsupport::cachetest;
using brick::CacheSettings;
using brick::CCachedStore;
using testsupport::Bytes;
using testsupport::HeldFileSystem;
using zo::CError;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using Operation = zo::CMemoryFileSystem::Operation;

// Long enough for any machine; only a cache that never lets the awaited
// state come waits this long.
constexpr auto kGenerousWait = std::chrono::seconds(60);

// A store whose reads of brick files wait until `gathered` of them are under
// way at once; a read that waits kGenerousWait in vain is counted as
// stranded, and from then on every read goes through.
class GatheringStore : public zo::CForwardingFileSystem {
public:
    GatheringStore(zo::IFileSystem* inner, int gathered) : CForwardingFileSystem(inner), m_gathered(gathered) {}

    P<zo::IIOStream> openStream(const CURI& file, zo::IIOStream::Access access, const int& options) override
    {
        if (CCachedStore::isBrickFile(file)) {
            std::unique_lock lock(m_mutex);
            ++m_reads;
            ++m_inFlight;
            m_mostInFlight = std::max(m_mostInFlight, m_inFlight);
            m_changed.notify_all();
            if (!m_changed.wait_for(lock, kGenerousWait,
                                    [&] { return m_mostInFlight >= m_gathered || m_stranded > 0; }))
                ++m_stranded;
            --m_inFlight;
        }
        return CForwardingFileSystem::openStream(file, access, options);
    }
    int reads() const
    {
        std::lock_guard lock(m_mutex);
        return m_reads;
    }
    int mostInFlight() const
    {
        std::lock_guard lock(m_mutex);
        return m_mostInFlight;
    }
    int stranded() const
    {
        std::lock_guard lock(m_mutex);
        return m_stranded;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    const int m_gathered;
    int m_reads = 0;
    int m_inFlight = 0;
    int m_mostInFlight = 0;
    int m_stranded = 0;
};

class CachedStoreConcurrency : public CachedStoreFixture {};

TEST_F(CachedStoreConcurrency, FetchesDifferentBricksInParallel)
{
    constexpr int kReaders = 4;
    for (int i = 0; i < kReaders; ++i)
        store->setFileData(brickFile(i), filled(3000, static_cast<zo::uint8>(i + 1)));
    const P<GatheringStore> gathering(new GatheringStore(store.get(), kReaders));
    const P<CCachedStore> cache(new CCachedStore(gathering.get(), kDisk, cacheFs.get(), settings));

    std::vector<std::string> seen(kReaders);
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i)
        readers.emplace_back([&, i] { seen[static_cast<size_t>(i)] = read(*cache, brickFile(i)); });
    for (std::thread& reader : readers)
        reader.join();

    // Each fetch waited for the others: they were all under way at once.
    EXPECT_EQ(gathering->stranded(), 0);
    EXPECT_EQ(gathering->mostInFlight(), kReaders);
    EXPECT_EQ(gathering->reads(), kReaders);
    cache->waitForKeepers();
    for (int i = 0; i < kReaders; ++i) {
        EXPECT_EQ(seen[static_cast<size_t>(i)], text(filled(3000, static_cast<zo::uint8>(i + 1)))) << i;
        EXPECT_TRUE(cache->isCached(brickFile(i))) << i;
    }
}

TEST_F(CachedStoreConcurrency, ReadersOfOneBrickShareOneFetch)
{
    constexpr int kReaders = 6;
    store->setFileData(brickFile(7), filled(4000, 7));
    const P<HeldFileSystem> held(new HeldFileSystem(store.get()));
    held->holdCallsThat(brickFileCalls(HeldFileSystem::Call::OpenForReading));
    const P<CCachedStore> cache(new CCachedStore(held.get(), kDisk, cacheFs.get(), settings));

    std::vector<std::string> seen(kReaders);
    std::vector<std::thread> readers;
    readers.emplace_back([&] { seen[0] = read(*cache, brickFile(7)); });
    EXPECT_TRUE(held->waitUntilHeld()) << "The fetch was not held.";
    for (int i = 1; i < kReaders; ++i)
        readers.emplace_back([&, i] { seen[static_cast<size_t>(i)] = read(*cache, brickFile(7)); });
    // Gives the later readers the time to meet the fetch under way; the
    // store holds every read of the brick until then, so a reader that
    // fetched again would be counted below. Without the pause the test only
    // checks less; it cannot fail wrongly.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    held->letGo();
    for (std::thread& reader : readers)
        reader.join();

    EXPECT_EQ(held->heldCalls(), 1);
    for (const std::string& bytes : seen)
        EXPECT_EQ(bytes, text(filled(4000, 7)));
}

TEST_F(CachedStoreConcurrency, StoreOutageKeepsCachedReadsAndWritesGoingUntilTheDirtyBoundThenCatchesUp)
{
    settings.maxDirtyFiles = 3;
    store->setFileData(brickFile(10), filled(500, 10));
    store->setFileData(brickFile(11), filled(500, 11));
    store->setFileData(brickFile(12), filled(500, 12));
    const P<CCachedStore> cache(new CCachedStore(store.get(), kDisk, cacheFs.get(), settings));
    EXPECT_EQ(read(*cache, brickFile(10)), text(filled(500, 10)));
    EXPECT_EQ(read(*cache, brickFile(11)), text(filled(500, 11)));

    // The store becomes unreachable: every operation on the disk's bricks
    // fails until it is healed.
    for (const Operation kind :
         {Operation::StoreFile, Operation::CreateFolder, Operation::MoveFile, Operation::DeleteFile,
          Operation::GetFileInfo, Operation::OpenStream, Operation::CreateFolderSync, Operation::FileExists,
          Operation::PathExists, Operation::DeleteFileSync, Operation::ListFolder, Operation::CopyFile})
        store->failOperation(kind, 1, CFileSystemError::Unclassified, true, kBricks);

    EXPECT_EQ(read(*cache, brickFile(10)), text(filled(500, 10)));
    EXPECT_TRUE(testsupport::errorOf<CError>([&] { read(*cache, brickFile(12)); }));
    write(*cache, brickFile(1), filled(300, 1));
    write(*cache, brickFile(2), filled(300, 2));
    cache->beginDeleteFile(brickFile(11), nullptr)->wait();
    EXPECT_EQ(cache->getDirtyCount(), 3);
    EXPECT_EQ(read(*cache, brickFile(1)), text(filled(300, 1)));
    EXPECT_FALSE(cache->fileExists(brickFile(11)));

    const Bytes fourth = filled(300, 4);
    const P<zo::IInStream> source(new zo::CBufferStream(&fourth));
    const P<zo::IFileSystemOp> waiting =
        cache->beginStoreFile(brickFile(4), fourth.getUsed(), source.get(), true, nullptr);
    const zo::uint64 failuresBefore = cache->getUploadFailureCount();
    waitUntil([&] { return cache->getUploadFailureCount() >= failuresBefore + 6; });
    // Uploads failed again and again meanwhile; the writer of a fourth file
    // still waits, while a dirty file may change further.
    EXPECT_FALSE(waiting->waitDone(0));
    EXPECT_EQ(cache->getDirtyCount(), 3);
    write(*cache, brickFile(1), filled(320, 21));
    EXPECT_EQ(read(*cache, brickFile(10)), text(filled(500, 10)));
    EXPECT_FALSE(store->getFileData(brickFile(1)));
    EXPECT_TRUE(store->getFileData(brickFile(11)));

    store->clearFailures();
    waiting->wait();
    drainEventually(*cache);

    EXPECT_EQ(cache->getDirtyCount(), 0);
    EXPECT_EQ(text(store->getFileData(brickFile(1))), text(filled(320, 21)));
    EXPECT_EQ(text(store->getFileData(brickFile(2))), text(filled(300, 2)));
    EXPECT_EQ(text(store->getFileData(brickFile(4))), text(fourth));
    EXPECT_FALSE(store->getFileData(brickFile(11)));
    EXPECT_EQ(text(store->getFileData(brickFile(10))), text(filled(500, 10)));
    EXPECT_EQ(read(*cache, brickFile(12)), text(filled(500, 12)));
}

} // namespace
