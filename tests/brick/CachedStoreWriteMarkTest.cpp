// A cache folder refuses a disk written without it since it last served it:
// the disk's write mark (CBrickDiskLock) is then neither the folder's own ID
// nor the mark the folder recorded.
#include "brick/cache/CacheFolder.h"
#include "brick/cache/CachedStore.h"
#include "brick/chain/BrickDiskLock.h"
#include "support/CacheTestDisk.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

using namespace testsupport::cachetest;
using brick::CBrickDiskLock;
using brick::CCachedStore;
using testsupport::errorOf;
using testsupport::messageOf;
using zo::CError;
using zo::CFileSystemError;
using zo::CURI;
using zo::P;
using Operation = zo::CMemoryFileSystem::Operation;

const CURI kOwner("/cache/owner");

class CachedStoreWriteMarkTest : public CachedStoreFixture {
protected:
    // Opens the cache as a server does: its writing lock of the disk writes
    // the folder's ID (none yet for a new folder) as the disk's write mark.
    // The lock is held until the next opening or release().
    P<CCachedStore> openServed(CBrickDiskLock::Mode mode = CBrickDiskLock::ForWriting)
    {
        lock = P<CBrickDiskLock>();
        lock =
            CBrickDiskLock::acquire(store.get(), kDisk, mode, brick::readCacheFolderId(cacheFs.get(), settings.folder));
        settings.diskMarkBefore = lock->getPreviousWriteMark();
        settings.diskMark = lock->getWriteMark();
        return open();
    }
    void release() { lock = P<CBrickDiskLock>(); }

    // Another program writes the disk without the cache.
    void writeElsewhere()
    {
        release();
        CBrickDiskLock::acquire(store.get(), kDisk, CBrickDiskLock::ForWriting);
    }

    std::string ownerRecord() { return read(*cacheFs, kOwner); }

    void setOwnerRecord(const std::string& text)
    {
        cacheFs->setFileData(
            kOwner,
            zo::TBuffer<zo::uint8>(reinterpret_cast<const zo::uint8*>(text.data()), static_cast<int>(text.size())));
    }

    // The owner record without its ID and mark, as caches wrote it before
    // they had them.
    std::string oldOwnerRecord()
    {
        std::istringstream lines(ownerRecord());
        std::string line, old;
        while (std::getline(lines, line))
            if (line.rfind("id ", 0) != 0 && line.rfind("mark ", 0) != 0)
                old += line + "\n";
        return old;
    }

    const CURI kCacheFolder{"/cache"};
    P<CBrickDiskLock> lock;
};

TEST_F(CachedStoreWriteMarkTest, ANewFolderGetsAnIdThatItsServersWriteAsTheDisksMark)
{
    P<CCachedStore> cache = openServed();
    const zo::String id = cache->getFolderId();
    EXPECT_EQ(id.toUTF8().size(), 32u);
    EXPECT_EQ(brick::readCacheFolderId(cacheFs.get(), kCacheFolder), id);
    // The first lock had no ID to write.
    EXPECT_NE(CBrickDiskLock::readWriteMark(store.get(), kDisk), id);
    cache = P<CCachedStore>();

    cache = openServed();

    EXPECT_EQ(cache->getFolderId(), id);
    EXPECT_EQ(CBrickDiskLock::readWriteMark(store.get(), kDisk), id);
    EXPECT_NE(ownerRecord().find("mark " + id.toUTF8() + "\n"), std::string::npos) << ownerRecord();
}

TEST_F(CachedStoreWriteMarkTest, AMissingFolderOrOneThatIsNoCacheFolderHasNoId)
{
    EXPECT_TRUE(brick::readCacheFolderId(cacheFs.get(), kCacheFolder).isEmpty());
    cacheFs->createFolder(kCacheFolder, 0700);
    setOwnerRecord("not an owner record\nid 0123456789abcdef0123456789abcdef\n");

    EXPECT_TRUE(brick::readCacheFolderId(cacheFs.get(), kCacheFolder).isEmpty());
}

TEST_F(CachedStoreWriteMarkTest, AcceptsADiskWrittenOnlyThroughTheFolderAcrossOpenings)
{
    P<CCachedStore> cache = openServed();
    write(*cache, brickFile(0), filled(100, 1));
    cache->drain();
    cache = P<CCachedStore>();

    for (int opening = 0; opening < 3; ++opening) {
        cache = openServed();
        EXPECT_EQ(read(*cache, brickFile(0)), text(filled(100, 1)));
        cache = P<CCachedStore>();
    }
}

TEST_F(CachedStoreWriteMarkTest, RefusesADiskWrittenByAnotherWriterSince)
{
    P<CCachedStore> cache = openServed();
    write(*cache, brickFile(0), filled(100, 1));
    cache->drain();
    cache = P<CCachedStore>();
    writeElsewhere();
    store->setFileData(brickFile(0), filled(100, 2));

    const auto error = errorOf<CError>([&] { openServed(); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error),
              "The disk changed elsewhere since this cache folder was used: it was written without this cache "
              "folder. Empty the cache folder with 'brickdisk cache drop '/cache'' before serving it.");
    EXPECT_EQ(error->getProps().lookup("cacheFolder").toUTF8(), "/cache");
    EXPECT_EQ(error->getProps().lookup("diskFolder").toUTF8(), "mem://store/disk");
}

TEST_F(CachedStoreWriteMarkTest, RefusesADiskWrittenByAnotherWriterSinceWithoutUploadingTheFoldersChanges)
{
    openServed();
    release();
    store->failOperation(Operation::StoreFile, 1, CFileSystemError::NoSpace, true, kBricks);
    {
        const P<CCachedStore> cache = openServed();
        write(*cache, brickFile(0), filled(100, 1));
        // Dropped with the change not uploaded: what a killed server leaves.
    }
    store->clearFailures();
    writeElsewhere();

    const auto error = errorOf<CError>([&] { openServed(); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error),
              "The disk changed elsewhere since this cache folder was used: it was written without this cache "
              "folder. Empty the cache folder with 'brickdisk cache drop '/cache' --discard-dirty' before serving "
              "it, which gives up the changes the cache holds for the store.");
    EXPECT_FALSE(store->getFileData(brickFile(0)));
}

TEST_F(CachedStoreWriteMarkTest, AcceptsTheFoldersIdLeftByAServerKilledBeforeItsCacheRecordedTheMark)
{
    openServed();
    release();
    // A server's lock wrote the folder's ID; the server was killed before
    // its cache opened.
    CBrickDiskLock::acquire(store.get(), kDisk, CBrickDiskLock::ForWriting,
                            brick::readCacheFolderId(cacheFs.get(), kCacheFolder));

    EXPECT_NO_THROW(openServed());
}

TEST_F(CachedStoreWriteMarkTest, AcceptsTheMarkItRecordedThoughItIsNotItsId)
{
    const std::string id = openServed()->getFolderId().toUTF8();
    release();
    // The last opening recorded a mark of another writer's kind: the one the
    // lock of a folder without an ID wrote.
    setOwnerRecord(oldOwnerRecord() + "id " + id + "\nmark recorded-mark\n");
    lock = CBrickDiskLock::acquire(store.get(), kDisk, CBrickDiskLock::ForWriting, "recorded-mark");
    release();

    EXPECT_NO_THROW(openServed());
}

TEST_F(CachedStoreWriteMarkTest, AReadOnlyOpeningChecksTheMarkTheDiskHolds)
{
    openServed();
    EXPECT_NO_THROW(openServed(CBrickDiskLock::ForReading));
    writeElsewhere();

    const auto error = errorOf<CError>([&] { openServed(CBrickDiskLock::ForReading); });
    ASSERT_TRUE(error);
    EXPECT_NE(messageOf(*error).find("written without this cache folder"), std::string::npos) << messageOf(*error);
}

TEST_F(CachedStoreWriteMarkTest, AnOwnerRecordWithoutIdIsAcceptedOnceAndUpgraded)
{
    openServed();
    release();
    setOwnerRecord(oldOwnerRecord());
    EXPECT_TRUE(brick::readCacheFolderId(cacheFs.get(), kCacheFolder).isEmpty());
    writeElsewhere();

    P<CCachedStore> cache = openServed();

    const zo::String id = cache->getFolderId();
    EXPECT_FALSE(id.isEmpty());
    EXPECT_EQ(brick::readCacheFolderId(cacheFs.get(), kCacheFolder), id);
    EXPECT_NE(ownerRecord().find("mark " + lock->getWriteMark().toUTF8() + "\n"), std::string::npos) << ownerRecord();
    cache = P<CCachedStore>();
    writeElsewhere();
    const auto error = errorOf<CError>([&] { openServed(); });
    ASSERT_TRUE(error);
    EXPECT_NE(messageOf(*error).find("written without this cache folder"), std::string::npos) << messageOf(*error);
}

TEST_F(CachedStoreWriteMarkTest, TwoFoldersUsedInTurnForOneDiskRefuseEachOther)
{
    openServed();
    settings.folder = CURI("/other-cache");
    openServed();
    openServed();
    settings.folder = kCacheFolder;

    const auto error = errorOf<CError>([&] { openServed(); });

    ASSERT_TRUE(error);
    EXPECT_NE(messageOf(*error).find("written without this cache folder"), std::string::npos) << messageOf(*error);
}

TEST_F(CachedStoreWriteMarkTest, ARefusedOpeningLeavesTheOwnerRecordAsItWas)
{
    openServed();
    const std::string before = ownerRecord();
    writeElsewhere();

    const auto error = errorOf<CError>([&] { openServed(); });

    ASSERT_TRUE(error);
    EXPECT_NE(messageOf(*error).find("written without this cache folder"), std::string::npos) << messageOf(*error);
    EXPECT_EQ(ownerRecord(), before);
}

} // namespace
