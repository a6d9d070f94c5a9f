// Locks of disks: readers share, a writer excludes everyone from its disk and
// writers from its child, and a file system that cannot lock still lets the
// disk be used.
#include "brick/chain/BrickDiskLock.h"
#include "brick/chain/BrickDisk.h"
#include "brick/format/BrickDiskError.h"
#include "support/DiskTestHelpers.h"
#include "support/TempFolder.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

using brick::CBrickDisk;
using brick::CBrickDiskError;
using brick::CBrickDiskLock;
using zo::CURI;
using zo::P;

namespace {

constexpr zo::int64 kDiskSize = 8 * testsupport::kDiskTestBrickSize;

class BrickDiskLockTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        testsupport::createDisk(fs.get(), CURI("/disk"), kDiskSize, "pw");
        CBrickDisk::createChild(fs.get(), CURI("/snapshot"), CURI("/disk"), CBrickDisk::linkedChild);
    }
    P<CBrickDiskLock> lock(const char* folder, CBrickDiskLock::Mode mode)
    {
        return CBrickDiskLock::acquire(fs.get(), CURI(folder), mode);
    }

    P<zo::CMemoryFileSystem> fs{new zo::CMemoryFileSystem()};
};

TEST_F(BrickDiskLockTest, ReadersShareADisk)
{
    const P<CBrickDiskLock> first = lock("/disk", CBrickDiskLock::ForReading);
    const P<CBrickDiskLock> second = lock("/disk", CBrickDiskLock::ForReading);
    EXPECT_TRUE(first->isHeld());
    EXPECT_TRUE(second->isHeld());
}

TEST_F(BrickDiskLockTest, ASecondWriterIsRefusedWithTheDiskInUseErrorNamingTheDisk)
{
    const P<CBrickDiskLock> writer = lock("/disk", CBrickDiskLock::ForWriting);
    const auto error = testsupport::errorOf<CBrickDiskError>([&] { lock("/disk", CBrickDiskLock::ForWriting); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getErrorCode(), CBrickDiskError::DiskInUse);
    EXPECT_STREQ(error->what(), "The disk is in use by another process.");
    EXPECT_EQ(error->getDiskFolder().toString(true), "/disk");
    ASSERT_NE(error->getCause(), nullptr);
    EXPECT_EQ(zo::CFileSystemError::getProblem(error->getCause()->getProps()), zo::CFileSystemError::Locked);
}

TEST_F(BrickDiskLockTest, AWriterAndAReaderOfOneDiskExcludeEachOther)
{
    {
        const P<CBrickDiskLock> writer = lock("/disk", CBrickDiskLock::ForWriting);
        EXPECT_THROW(lock("/disk", CBrickDiskLock::ForReading), CBrickDiskError);
    }
    const P<CBrickDiskLock> reader = lock("/disk", CBrickDiskLock::ForReading);
    EXPECT_THROW(lock("/disk", CBrickDiskLock::ForWriting), CBrickDiskError);
}

TEST_F(BrickDiskLockTest, ASnapshotCanBeReadButNotWrittenWhileItsParentIsWritten)
{
    const P<CBrickDiskLock> writer = lock("/disk", CBrickDiskLock::ForWriting);
    EXPECT_TRUE(lock("/snapshot", CBrickDiskLock::ForReading)->isHeld());
    const auto error = testsupport::errorOf<CBrickDiskError>([&] { lock("/snapshot", CBrickDiskLock::ForWriting); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getDiskFolder().toString(true), "/snapshot");
}

TEST_F(BrickDiskLockTest, AParentCannotBeWrittenWhileItsSnapshotIsWritten)
{
    const P<CBrickDiskLock> writer = lock("/snapshot", CBrickDiskLock::ForWriting);
    const auto error = testsupport::errorOf<CBrickDiskError>([&] { lock("/disk", CBrickDiskLock::ForWriting); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getDiskFolder().toString(true), "/snapshot");
    // The refused writer keeps no lock of its own on the parent.
    EXPECT_TRUE(lock("/disk", CBrickDiskLock::ForReading)->isHeld());
}

TEST_F(BrickDiskLockTest, DroppingTheLockReleasesTheDiskAndItsChild)
{
    lock("/disk", CBrickDiskLock::ForWriting).reset();
    EXPECT_TRUE(lock("/disk", CBrickDiskLock::ForWriting)->isHeld());
    EXPECT_TRUE(lock("/snapshot", CBrickDiskLock::ForWriting)->isHeld());
}

TEST_F(BrickDiskLockTest, AFileSystemThatCannotLockGivesALockThatHoldsNothingAndAWarning)
{
    fs->failOperation(zo::CMemoryFileSystem::Operation::LockFolder, 1, zo::CFileSystemError::NotSupported, true);
    testsupport::LogCapture logCapture;
    const P<CBrickDiskLock> writer = lock("/disk", CBrickDiskLock::ForWriting);
    EXPECT_FALSE(writer->isHeld());
    EXPECT_EQ(logCapture.countContaining("cannot lock it"), 1);
    EXPECT_FALSE(lock("/disk", CBrickDiskLock::ForWriting)->isHeld());
}

TEST_F(BrickDiskLockTest, OtherFailuresOfTheFileSystemPassThrough)
{
    fs->failOperation(zo::CMemoryFileSystem::Operation::LockFolder, 1, zo::CFileSystemError::AccessDenied, false);
    const auto error = testsupport::errorOf<zo::CFileSystemError>([&] { lock("/disk", CBrickDiskLock::ForReading); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProblem(), zo::CFileSystemError::AccessDenied);
}

// Overwrites a copy of the disk's child link with bytes that are no link.
void damageChildLinkCopy(zo::CMemoryFileSystem& fs, const char* file)
{
    zo::TBuffer<zo::uint8> garbage(16);
    garbage.setUsed(16);
    std::memset(garbage.getData(), 0x5a, 16);
    ASSERT_TRUE(fs.getFileData(CURI(file)));
    fs.setFileData(CURI(file), garbage);
}

TEST_F(BrickDiskLockTest, AWriterStillLocksTheChildWhenOnlyOneCopyOfTheChildLinkIsDamaged)
{
    damageChildLinkCopy(*fs, "/disk/child.bricklnk");
    const P<CBrickDiskLock> writer = lock("/disk", CBrickDiskLock::ForWriting);
    EXPECT_TRUE(writer->isHeld());
    EXPECT_THROW(lock("/snapshot", CBrickDiskLock::ForWriting), CBrickDiskError);
}

TEST_F(BrickDiskLockTest, AWriterWhoseChildLinkCannotBeReadFailsAndKeepsNoLock)
{
    // Without the link the writer cannot keep the snapshot's writers out, so
    // it must not write at all.
    damageChildLinkCopy(*fs, "/disk/child.bricklnk");
    damageChildLinkCopy(*fs, "/disk/fallback/child.bricklnk");
    EXPECT_THROW(lock("/disk", CBrickDiskLock::ForWriting), zo::CError);
    EXPECT_TRUE(lock("/disk", CBrickDiskLock::ForReading)->isHeld());
    EXPECT_TRUE(lock("/snapshot", CBrickDiskLock::ForWriting)->isHeld());
}

TEST(BrickDiskLockLocal, WritingRemovesTheLeftoversOfInterruptedStoresInTheDiskAndItsChild)
{
    testsupport::TempFolder temp;
    const P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem());
    const CURI disk = temp.uri() << "disk";
    const CURI snapshot = temp.uri() << "snapshot";
    testsupport::createDisk(fs.get(), disk, kDiskSize, "pw");
    CBrickDisk::createChild(fs.get(), snapshot, disk, CBrickDisk::linkedChild);
    std::filesystem::create_directories(snapshot.toLocalPath() + "/bricks/e00");
    const std::string diskLeftover = disk.toLocalPath() + "/" + testsupport::storeLeftoverName("disk.brickdisk");
    const std::string childLeftover = snapshot.toLocalPath() + "/bricks/e00/" + testsupport::storeLeftoverName("d00");
    std::ofstream(diskLeftover) << "half";
    std::ofstream(childLeftover) << "half";

    EXPECT_EQ(CBrickDiskLock::acquire(fs.get(), disk, CBrickDiskLock::ForReading)->getRemovedTemporaryFileCount(), 0);
    EXPECT_TRUE(std::filesystem::exists(diskLeftover));

    const P<CBrickDiskLock> writer = CBrickDiskLock::acquire(fs.get(), disk, CBrickDiskLock::ForWriting);
    EXPECT_EQ(writer->getRemovedTemporaryFileCount(), 2);
    EXPECT_FALSE(std::filesystem::exists(diskLeftover));
    EXPECT_FALSE(std::filesystem::exists(childLeftover));
    const P<CBrickDisk> opened = testsupport::openDisk(fs.get(), disk, "pw");
    EXPECT_EQ(testsupport::readAt(*opened, 0, 16), testsupport::zeroBytes(16));
}

} // namespace
