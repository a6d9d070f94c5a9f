// brickdisk cache info|flush|drop on the cache folder of a disk: what it
// shows, how flush makes the store hold the changes a server left in the
// folder, and what drop and flush refuse. The folders are made by the cache
// itself in front of a disk in a local folder, as a server whose uploads
// failed leaves them.
#include "CliTestFixture.h"

#include "brick/cache/CachedStore.h"
#include "brick/chain/BrickDiskLock.h"
#include "zo/BufferStream.h"
#include "zo/Error.h"
#include "zo/ForwardingFileSystem.h"
#include "zo/LocalFileSystem.h"

#include <filesystem>
#include <thread>

#include <unistd.h>

namespace clitest {
namespace {

using zo::CURI;
using zo::P;

// A store that refuses every brick file: uploads from the cache fail.
class CFullStore : public zo::CForwardingFileSystem {
public:
    explicit CFullStore(zo::IFileSystem* inner) : CForwardingFileSystem(inner) {}

    P<zo::IFileSystemOp> beginStoreFile(const CURI& file, int size, zo::IInStream* source, bool overwrite,
                                        zo::IDoneListener* listener) override
    {
        if (brick::CCachedStore::isBrickFile(file))
            throw zo::CFileSystemError(zo::CFileSystemError::NoSpace, zo::CError("The store is full."));
        return CForwardingFileSystem::beginStoreFile(file, size, source, overwrite, listener);
    }
};

// "1 brick file", "2 brick files", as the commands count them.
std::string brickFileCount(int count)
{
    return std::to_string(count) + (count == 1 ? " brick file" : " brick files");
}

class CacheCommandTest : public CliTest {
protected:
    CacheCommandTest()
    {
        createDisk("disk", "256K");
        writeFile(path("image"), m_image);
        importImage("disk", "image");
        m_disk = std::filesystem::canonical(path("disk")).string();
        m_cache = std::filesystem::weakly_canonical(path("cache")).string();
    }

    // A cache over the disk in front of `store`; it holds the cache folder
    // for as long as it lives.
    P<brick::CCachedStore> openCache(zo::IFileSystem* store) const
    {
        brick::CacheSettings settings;
        settings.folder = CURI(zo::String(m_cache));
        settings.uploadJobs = 1;
        settings.retryDelayMillis = 60000;
        return P<brick::CCachedStore>(
            new brick::CCachedStore(store, CURI(zo::String(m_disk)), m_local.get(), settings));
    }

    // Moves every brick file of the disk into an open cache whose uploads
    // fail: the cache acknowledges them, the store lacks them. Returns the
    // cache (still open) and sets m_dirty to their number.
    P<brick::CCachedStore> openCacheWithDirtyBricks()
    {
        const P<zo::IFileSystem> full(new CFullStore(m_local.get()));
        P<brick::CCachedStore> cache = openCache(full.get());
        m_dirty = 0;
        for (const std::string& file : brickFiles("disk")) {
            const std::string relative = std::filesystem::relative(file, path("disk")).string();
            const std::string content = readFile(file);
            const zo::TBuffer<zo::uint8> bytes(reinterpret_cast<const zo::uint8*>(content.data()),
                                               static_cast<int>(content.size()));
            std::filesystem::remove(file);
            const P<zo::IInStream> source(new zo::CBufferStream(&bytes));
            cache
                ->beginStoreFile(CURI(zo::String(m_disk + "/" + relative)), bytes.getUsed(), source.get(), true,
                                 nullptr)
                ->wait();
            ++m_dirty;
        }
        // The stores' operations let the cache go just after they end; once
        // they have, the cache goes when the test drops it.
        while (cache->getRefCount() > 1)
            std::this_thread::yield();
        return cache;
    }

    // The same, with the cache closed afterwards as by the end of a server
    // whose uploads still failed.
    void leaveDirtyBricksInTheCache()
    {
        P<brick::CCachedStore> cache = openCacheWithDirtyBricks();
        ASSERT_GT(m_dirty, 0);
        ASSERT_EQ(cache->getDirtyCount(), m_dirty);
    }

    const std::string m_image = makeImage(256 * 1024, 7);
    std::string m_disk;
    std::string m_cache;
    int m_dirty = 0;
    P<zo::IFileSystem> m_local{new zo::CLocalFileSystem(2)};
};

TEST_F(CacheCommandTest, InfoShowsTheDiskItsDirtyBricksAndThatNoServerHoldsIt)
{
    leaveDirtyBricksInTheCache();

    const RunResult result = run({"cache", "info", path("cache")});

    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("disk: " + m_disk + "\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("dirty: " + brickFileCount(m_dirty)), std::string::npos) << result.out;
    EXPECT_EQ(countOf(result.out, m_disk + "/bricks/"), static_cast<size_t>(m_dirty)) << result.out;
    EXPECT_NE(result.out.find("in use: no\n"), std::string::npos) << result.out;
}

TEST_F(CacheCommandTest, InfoAsJsonNamesTheDirtyFilesAndTheServerThatHoldsTheFolder)
{
    const P<brick::CCachedStore> cache = openCacheWithDirtyBricks();

    const RunResult result = run({"cache", "info", path("cache"), "--json"});

    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("\"disk\": \"" + m_disk + "\""), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\"dirtyFiles\": " + std::to_string(m_dirty)), std::string::npos) << result.out;
    EXPECT_EQ(countOf(result.out, "\"change\": \"store\""), static_cast<size_t>(m_dirty)) << result.out;
    EXPECT_NE(result.out.find("\"inUse\": true"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("\"holder\": \"process " + std::to_string(::getpid())), std::string::npos) << result.out;
}

TEST_F(CacheCommandTest, FlushUploadsTheDirtyBricksSoTheStoreHoldsTheAcknowledgedWrites)
{
    leaveDirtyBricksInTheCache();
    EXPECT_TRUE(exportImage("disk") != m_image);

    const RunResult result = run({"cache", "flush", path("cache")});

    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("uploaded " + brickFileCount(m_dirty)), std::string::npos) << result.out;
    EXPECT_EQ(countOf(result.out, "uploaded " + m_disk + "/bricks/"), static_cast<size_t>(m_dirty)) << result.out;
    EXPECT_TRUE(exportImage("disk") == m_image);
    const RunResult info = run({"cache", "info", path("cache")});
    EXPECT_NE(info.out.find("dirty: 0 brick files"), std::string::npos) << info.out;
}

TEST_F(CacheCommandTest, FlushIsRefusedWhileTheDiskIsInUse)
{
    leaveDirtyBricksInTheCache();
    const P<brick::CBrickDiskLock> lock =
        brick::CBrickDiskLock::acquire(m_local.get(), CURI(zo::String(m_disk)), brick::CBrickDiskLock::ForWriting);

    const RunResult result = run({"cache", "flush", path("cache")});

    EXPECT_EQ(result.exitStatus, 1) << result.err;
    EXPECT_NE(result.err.find("The disk is in use by another process."), std::string::npos) << result.err;
    EXPECT_NE(run({"cache", "info", path("cache")}).out.find("dirty: " + brickFileCount(m_dirty)), std::string::npos);
}

TEST_F(CacheCommandTest, FlushAndDropAreRefusedWhileAServerHoldsTheFolder)
{
    const P<brick::CCachedStore> cache = openCacheWithDirtyBricks();

    const RunResult flush = run({"cache", "flush", path("cache")});
    const RunResult drop = run({"cache", "drop", path("cache"), "--discard-dirty"});

    EXPECT_EQ(flush.exitStatus, 1) << flush.err;
    EXPECT_NE(flush.err.find("The cache folder is in use by a server"), std::string::npos) << flush.err;
    EXPECT_EQ(drop.exitStatus, 1) << drop.err;
    EXPECT_NE(drop.err.find("The cache folder is in use by a server"), std::string::npos) << drop.err;
    EXPECT_TRUE(std::filesystem::exists(m_cache + "/owner"));
    EXPECT_EQ(cache->getDirtyCount(), m_dirty);
}

TEST_F(CacheCommandTest, DropRefusesAFolderWithDirtyBricksAndNamesFlush)
{
    leaveDirtyBricksInTheCache();

    const RunResult result = run({"cache", "drop", path("cache")});

    EXPECT_EQ(result.exitStatus, 1) << result.err;
    EXPECT_NE(result.err.find("brickdisk cache flush " + m_cache), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("--discard-dirty"), std::string::npos) << result.err;
    EXPECT_TRUE(std::filesystem::exists(m_cache + "/owner"));
}

TEST_F(CacheCommandTest, DropWithDiscardDirtyDeletesTheFolderAndSaysWhatWasThrownAway)
{
    leaveDirtyBricksInTheCache();

    const RunResult result = run({"cache", "drop", path("cache"), "--discard-dirty"});

    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_NE(result.out.find("throwing away the acknowledged changes of " + brickFileCount(m_dirty)),
              std::string::npos)
        << result.out;
    EXPECT_FALSE(std::filesystem::exists(m_cache));
}

TEST_F(CacheCommandTest, DropOfAFlushedCacheDeletesIt)
{
    leaveDirtyBricksInTheCache();
    ASSERT_EQ(run({"cache", "flush", path("cache")}).exitStatus, 0);

    const RunResult result = run({"cache", "drop", path("cache")});

    ASSERT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out.find("throwing away"), std::string::npos) << result.out;
    EXPECT_FALSE(std::filesystem::exists(m_cache));
    EXPECT_TRUE(exportImage("disk") == m_image);
}

TEST_F(CacheCommandTest, AFolderThatIsNoCacheIsLeftAsItIs)
{
    std::filesystem::create_directories(path("other"));
    writeFile(path("other/keep.txt"), "mine");

    for (const char* action : {"info", "flush", "drop"}) {
        const RunResult result = run({"cache", action, path("other")});
        EXPECT_EQ(result.exitStatus, 1) << action << ": " << result.err;
        EXPECT_NE(result.err.find("The folder is not a cache folder"), std::string::npos) << result.err;
    }
    EXPECT_EQ(readFile(path("other/keep.txt")), "mine");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("other")), {}), 1);
    const RunResult missing = run({"cache", "info", path("nothing")});
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_NE(missing.err.find("The cache folder does not exist."), std::string::npos) << missing.err;
}

TEST_F(CacheCommandTest, CacheWithoutAnActionIsAUsageError)
{
    const RunResult result = run({"cache", path("cache")});

    EXPECT_EQ(result.exitStatus, 2) << result.err;
}

} // namespace
} // namespace clitest
