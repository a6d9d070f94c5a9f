// A cache folder looked at without opening it: the disk it belongs to, what
// it caches and the acknowledged changes its store lacks, read while the
// cache that wrote it may still be open.
#include "brick/cache/CacheFolder.h"

#include "brick/cache/CachedStore.h"
#include "support/CacheTestDisk.h"
#include "support/DiskTestHelpers.h"
#include "zo/BufferStream.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

using namespace testsupport::cachetest;
using brick::CacheFolderContents;
using brick::CacheSettings;
using brick::CCachedStore;
using testsupport::Bytes;
using testsupport::errorOf;
using testsupport::messageOf;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::P;
using Operation = zo::CMemoryFileSystem::Operation;

const CURI kCacheFolder("/cache");

class CacheFolderTest : public ::testing::Test {
protected:
    CacheFolderTest()
    {
        testsupport::createDisk(store.get(), kDisk, 1 << 20, "secret");
        settings.folder = kCacheFolder;
        settings.uploadJobs = 1;
        settings.retryDelayMillis = 60000;
    }

    P<CCachedStore> open() { return P<CCachedStore>(new CCachedStore(store.get(), kDisk, cacheFs.get(), settings)); }

    static void write(zo::IFileSystem& fs, const CURI& file, const Bytes& bytes)
    {
        const P<zo::IInStream> source(new zo::CBufferStream(&bytes));
        fs.beginStoreFile(file, bytes.getUsed(), source.get(), true, nullptr)->wait();
    }

    P<CMemoryFileSystem> store{new CMemoryFileSystem()};
    P<CMemoryFileSystem> cacheFs{new CMemoryFileSystem()};
    CacheSettings settings;
};

TEST_F(CacheFolderTest, ShowsTheDiskTheCachedFilesAndTheChangesTheStoreLacks)
{
    store->setFileData(brickFile(1), filled(300, 1));
    store->setFileData(brickFile(2), filled(400, 2));
    store->failOperation(Operation::StoreFile, 1, CFileSystemError::NoSpace, true, kBricks);
    store->failOperation(Operation::DeleteFile, 1, CFileSystemError::NoSpace, true, kBricks);
    const P<CCachedStore> cache = open();
    cache->openStream(brickFile(1), zo::IIOStream::AccessRead, 0);
    write(*cache, brickFile(3), filled(500, 3));
    write(*cache, brickFile(1), filled(350, 4));
    cache->beginDeleteFile(brickFile(2), nullptr)->wait();

    const CacheFolderContents contents = brick::readCacheFolder(cacheFs.get(), kCacheFolder);

    EXPECT_EQ(contents.disk.toUTF8(), "mem://store/disk");
    EXPECT_EQ(contents.cachedFiles, 2);
    EXPECT_EQ(contents.cachedBytes, 850);
    ASSERT_EQ(contents.dirty.size(), 3u);
    EXPECT_EQ(contents.dirty[0].file.toUTF8(), brickFile(1).toString().toUTF8());
    EXPECT_FALSE(contents.dirty[0].deletion);
    EXPECT_EQ(contents.dirty[0].bytes, 350);
    EXPECT_EQ(contents.dirty[1].file.toUTF8(), brickFile(2).toString().toUTF8());
    EXPECT_TRUE(contents.dirty[1].deletion);
    EXPECT_EQ(contents.dirty[1].bytes, 0);
    EXPECT_EQ(contents.dirty[2].file.toUTF8(), brickFile(3).toString().toUTF8());
    EXPECT_EQ(contents.dirty[2].bytes, 500);
}

TEST_F(CacheFolderTest, LeavesOutADamagedRecordAndTheUploadedChanges)
{
    {
        const P<CCachedStore> cache = open();
        write(*cache, brickFile(1), filled(100, 1));
        cache->drain();
    }
    cacheFs->setFileData(kCacheFolder << "journal"
                                      << "0123456789abcdef0123456789abcdef.rec",
                         filled(40, 'x'));

    const CacheFolderContents contents = brick::readCacheFolder(cacheFs.get(), kCacheFolder);

    EXPECT_TRUE(contents.dirty.empty());
    EXPECT_EQ(contents.cachedFiles, 1);
}

TEST_F(CacheFolderTest, AFolderWithoutAnOwnerRecordIsNoCacheFolder)
{
    cacheFs->createFolder(CURI("/other"), 0700);
    cacheFs->setFileData(CURI("/other/file"), filled(10, 1));

    const auto notCache = errorOf<zo::CError>([&] { brick::readCacheFolder(cacheFs.get(), CURI("/other")); });
    const auto missing = errorOf<zo::CError>([&] { brick::readCacheFolder(cacheFs.get(), CURI("/missing")); });

    ASSERT_TRUE(notCache);
    EXPECT_EQ(messageOf(*notCache), "The folder is not a cache folder: it has no owner record of a cache.");
    EXPECT_EQ(notCache->getProps().lookup("cacheFolder").toUTF8(), "/other");
    ASSERT_TRUE(missing);
    EXPECT_EQ(messageOf(*missing), "The cache folder does not exist.");
}

} // namespace
