// The cache in front of a store, with several threads at once: a store that
// is unreachable for a while and then comes back.
#include "brick/cache/CachedStore.h"

#include "support/DiskTestHelpers.h"
#include "zo/BufferStream.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CacheSettings;
using brick::CCachedStore;
using testsupport::Bytes;
using zo::CError;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using Operation = zo::CMemoryFileSystem::Operation;

const CURI kDisk("mem://store/disk");
const CURI kBricks("mem://store/disk/bricks");

// Long enough for any machine; only a cache that never lets the awaited
// state come waits this long.
constexpr auto kGenerousWait = std::chrono::seconds(60);

CURI brickFile(int index)
{
    return kDisk << "bricks"
                 << "a00" << zo::String(std::to_string(index) + ".brick");
}

Bytes filled(int size, zo::uint8 value)
{
    Bytes bytes(size);
    std::memset(bytes.getData(), value, static_cast<size_t>(size));
    return bytes;
}

std::string text(const Bytes& bytes)
{
    return std::string(reinterpret_cast<const char*>(bytes.getData()), static_cast<size_t>(bytes.getUsed()));
}

std::string text(const P<zo::TBuffer<zo::uint8>>& bytes)
{
    return bytes ? text(*bytes) : std::string("<none>");
}

void write(zo::IFileSystem& fs, const CURI& file, const Bytes& bytes)
{
    const P<zo::IInStream> source(new zo::CBufferStream(&bytes));
    fs.beginStoreFile(file, bytes.getUsed(), source.get(), true, nullptr)->wait();
}

std::string read(zo::IFileSystem& fs, const CURI& file)
{
    const P<zo::IIOStream> stream = fs.openStream(file, zo::IIOStream::AccessRead, 0);
    Bytes bytes(static_cast<int>(stream->getLength()));
    stream->read(bytes.getData(), bytes.getUsed());
    return text(bytes);
}

class CachedStoreConcurrency : public ::testing::Test {
protected:
    CachedStoreConcurrency()
    {
        testsupport::createDisk(store.get(), kDisk, 1 << 20, "secret");
        settings.folder = CURI("/cache");
        settings.uploadJobs = 2;
        settings.retryDelayMillis = 1;
    }

    // Waits until `done` holds; a minute without it fails the test.
    template <class F>
    static void waitUntil(F&& done)
    {
        const auto deadline = std::chrono::steady_clock::now() + kGenerousWait;
        while (!done()) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "The awaited state never came.";
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    // Drains, tolerating the failures of uploads that were under way when
    // the store came back.
    static void drainEventually(CCachedStore& cache)
    {
        for (int attempt = 0;; ++attempt) {
            try {
                cache.drain();
                return;
            } catch (const CError&) {
                if (attempt > 100)
                    throw;
            }
        }
    }

    P<CMemoryFileSystem> store{new CMemoryFileSystem()};
    P<CMemoryFileSystem> cacheFs{new CMemoryFileSystem()};
    CacheSettings settings;
};

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
