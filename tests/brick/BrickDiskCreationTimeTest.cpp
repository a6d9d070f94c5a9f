#include "brick/format/BrickDiskCreationTime.h"

#include "brick/chain/BrickDisk.h"
#include "objectstore/ObjectStoreFileSystem.h"
#include "support/DiskTestHelpers.h"
#include "support/MemoryObjectStore.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskAuxFileBase;
using brick::CBrickDiskCreationTime;
using zo::CURI;
using zo::P;

zo::int64 secondsNow()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

class BrickDiskCreationTimeTest : public ::testing::Test {
protected:
    void SetUp() override { fs->createFolder(CURI("/disk"), 0x1ff); }

    P<zo::CMemoryFileSystem> fs{new zo::CMemoryFileSystem()};
};

TEST_F(BrickDiskCreationTimeTest, StoredTimeIsLoadedBack)
{
    CBrickDiskCreationTime::store(fs.get(), CURI("/disk"), 1000000000);
    EXPECT_EQ(CBrickDiskCreationTime::load(fs.get(), CURI("/disk")), std::optional<zo::int64>(1000000000));
}

TEST_F(BrickDiskCreationTimeTest, RecordIsTheFileIDAndTheSecondsLittleEndianWithADigestAndAFallbackCopy)
{
    CBrickDiskCreationTime::store(fs.get(), CURI("/disk"), 0x0102030405060708);
    const P<zo::TBuffer<zo::uint8>> file = fs->getFileData(CURI("/disk/created.bricktime"));
    ASSERT_TRUE(file);
    ASSERT_EQ(file->getUsed(), 16 + 16);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(file->getData()), 8), "BRCKTIME");
    const zo::uint8 seconds[8] = {8, 7, 6, 5, 4, 3, 2, 1};
    EXPECT_TRUE(std::equal(seconds, seconds + 8, file->getData() + 8));
    const P<zo::TBuffer<zo::uint8>> fallback = fs->getFileData(CURI("/disk/fallback/created.bricktime"));
    ASSERT_TRUE(fallback);
    EXPECT_TRUE(std::equal(file->getData(), file->getData() + file->getUsed(), fallback->getData()));
}

TEST_F(BrickDiskCreationTimeTest, FolderWithoutTheRecordHasNoTime)
{
    EXPECT_FALSE(CBrickDiskCreationTime::load(fs.get(), CURI("/disk")).has_value());
}

TEST_F(BrickDiskCreationTimeTest, DamagedPrimaryCopyFallsBackToTheSecond)
{
    CBrickDiskCreationTime::store(fs.get(), CURI("/disk"), 1234567890);
    fs->getFileData(CURI("/disk/created.bricktime"))->getData()[9] ^= 0xff;
    EXPECT_EQ(CBrickDiskCreationTime::load(fs.get(), CURI("/disk")), std::optional<zo::int64>(1234567890));
}

TEST_F(BrickDiskCreationTimeTest, AnotherKindOfRecordIsRefused)
{
    const std::string other = "BRCKLINK and more bytes";
    CBrickDiskAuxFileBase::storeAuxFile(
        fs.get(), CURI("/disk"), CBrickDiskCreationTime::getFileName(),
        zo::TBuffer<zo::uint8>(reinterpret_cast<const zo::uint8*>(other.data()), static_cast<int>(other.size())));
    const auto error = testsupport::errorOf<zo::CError>([&] { CBrickDiskCreationTime::load(fs.get(), CURI("/disk")); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getMessage(), "brickdisk creation time file does not start with correct file ID.");
}

TEST_F(BrickDiskCreationTimeTest, NewDisksAndChildrenRecordWhenTheyWereMade)
{
    const zo::int64 before = secondsNow();
    testsupport::createDisk(fs.get(), CURI("/disks/parent"), 65536, "secret");
    CBrickDisk::createAuthenticated(fs.get(), CURI("/disks/other"), 65536, 1, "", "lz4", 4096,
                                    seal::Argon2idCost{1, 8, 1});
    // The parent's record says it is old; the child made now must not copy it.
    CBrickDiskCreationTime::store(fs.get(), CURI("/disks/parent"), 1000);
    CBrickDisk::createChild(fs.get(), CURI("/disks/child"), CURI("/disks/parent"), CBrickDisk::linkedChild);
    const zo::int64 after = secondsNow();

    for (const char* folder : {"/disks/other", "/disks/child"}) {
        SCOPED_TRACE(folder);
        const std::optional<zo::int64> created = CBrickDiskCreationTime::load(fs.get(), CURI(folder));
        ASSERT_TRUE(created.has_value());
        EXPECT_GE(*created, before);
        EXPECT_LE(*created, after);
    }
    EXPECT_EQ(CBrickDiskCreationTime::load(fs.get(), CURI("/disks/parent")), std::optional<zo::int64>(1000));
}

TEST(BrickDiskCreationTimeObjectStoreTest, DiskAndSnapshotInAnObjectStoreKeepTheirOwnTimes)
{
    const P<testsupport::CMemoryObjectStore> objects(new testsupport::CMemoryObjectStore());
    const P<zo::CObjectStoreFileSystem> fs(new zo::CObjectStoreFileSystem(objects.get(), "memory", 2));
    const CURI disk("memory://bucket/vm");
    const CURI snapshot("memory://bucket/vm-monday");
    const zo::int64 before = secondsNow();
    testsupport::createDisk(fs.get(), disk, 65536, "secret");
    CBrickDisk::createChild(fs.get(), snapshot, disk, CBrickDisk::linkedChild);
    const zo::int64 after = secondsNow();

    for (const CURI& folder : {disk, snapshot}) {
        const std::optional<zo::int64> created = CBrickDiskCreationTime::load(fs.get(), folder);
        ASSERT_TRUE(created.has_value()) << folder.toString(true).toUTF8();
        EXPECT_GE(*created, before);
        EXPECT_LE(*created, after);
    }
}

} // namespace
