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
#include <string>

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

std::string text(const P<zo::TBuffer<zo::uint8>>& bytes)
{
    return bytes ? std::string(reinterpret_cast<const char*>(bytes->getData()), static_cast<size_t>(bytes->getUsed()))
                 : std::string("<none>");
}

void setText(zo::CMemoryFileSystem& fs, const CURI& file, const std::string& text)
{
    fs.setFileData(
        file, zo::TBuffer<zo::uint8>(reinterpret_cast<const zo::uint8*>(text.data()), static_cast<int>(text.size())));
}

// The write marks of a disk in a store, named by its address.
class BrickDiskWriteMarkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        testsupport::createDisk(fs.get(), kDisk, kDiskSize, "pw");
        CBrickDisk::createChild(fs.get(), kSnapshot, kDisk, CBrickDisk::linkedChild);
    }
    zo::String markInStore(const CURI& disk) { return CBrickDiskLock::readWriteMark(fs.get(), disk); }

    const CURI kDisk{"mem://store/disk"};
    const CURI kSnapshot{"mem://store/snapshot"};
    P<zo::CMemoryFileSystem> fs{new zo::CMemoryFileSystem()};
};

TEST_F(BrickDiskWriteMarkTest, AWriterReplacesTheMarkWithANewRandomOneEachTime)
{
    EXPECT_TRUE(markInStore(kDisk).isEmpty());

    zo::String first;
    {
        const P<CBrickDiskLock> writer = CBrickDiskLock::acquire(fs.get(), kDisk, CBrickDiskLock::ForWriting);
        EXPECT_TRUE(writer->getPreviousWriteMark().isEmpty());
        first = writer->getWriteMark();
        EXPECT_EQ(first.toUTF8().size(), 32u);
        EXPECT_EQ(markInStore(kDisk), first);
        EXPECT_EQ(text(fs->getFileData(kDisk << "write.brickmark")), first.toUTF8() + "\n");
    }
    const P<CBrickDiskLock> second = CBrickDiskLock::acquire(fs.get(), kDisk, CBrickDiskLock::ForWriting);

    EXPECT_EQ(second->getPreviousWriteMark(), first);
    EXPECT_NE(second->getWriteMark(), first);
    EXPECT_EQ(markInStore(kDisk), second->getWriteMark());
}

TEST_F(BrickDiskWriteMarkTest, AWriterWritesTheMarkItIsGiven)
{
    CBrickDiskLock::acquire(fs.get(), kDisk, CBrickDiskLock::ForWriting);
    const zo::String before = markInStore(kDisk);

    const P<CBrickDiskLock> writer =
        CBrickDiskLock::acquire(fs.get(), kDisk, CBrickDiskLock::ForWriting, "0123456789abcdef0123456789abcdef");

    EXPECT_EQ(writer->getPreviousWriteMark(), before);
    EXPECT_EQ(writer->getWriteMark().toUTF8(), "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(markInStore(kDisk).toUTF8(), "0123456789abcdef0123456789abcdef");
}

TEST_F(BrickDiskWriteMarkTest, AReaderLeavesTheMarkAndTellsIt)
{
    CBrickDiskLock::acquire(fs.get(), kDisk, CBrickDiskLock::ForWriting, "mark-1");

    const P<CBrickDiskLock> reader = CBrickDiskLock::acquire(fs.get(), kDisk, CBrickDiskLock::ForReading, "mark-2");

    EXPECT_EQ(reader->getPreviousWriteMark().toUTF8(), "mark-1");
    EXPECT_EQ(reader->getWriteMark().toUTF8(), "mark-1");
    EXPECT_EQ(markInStore(kDisk).toUTF8(), "mark-1");
}

TEST_F(BrickDiskWriteMarkTest, AWriterThatOnlyChecksTheDiskIsFreeLeavesTheMark)
{
    CBrickDiskLock::acquire(fs.get(), kDisk, CBrickDiskLock::ForWriting, "mark-1");

    const P<CBrickDiskLock> writer =
        CBrickDiskLock::acquireKeepingWriteMark(fs.get(), kDisk, CBrickDiskLock::ForWriting);

    EXPECT_TRUE(writer->isHeld());
    EXPECT_EQ(writer->getPreviousWriteMark().toUTF8(), "mark-1");
    EXPECT_EQ(writer->getWriteMark().toUTF8(), "mark-1");
    EXPECT_EQ(markInStore(kDisk).toUTF8(), "mark-1");
}

TEST_F(BrickDiskWriteMarkTest, AWriterOfAParentLeavesTheMarkOfItsChild)
{
    CBrickDiskLock::acquire(fs.get(), kSnapshot, CBrickDiskLock::ForWriting, "child-mark");

    CBrickDiskLock::acquire(fs.get(), kDisk, CBrickDiskLock::ForWriting);

    EXPECT_EQ(markInStore(kSnapshot).toUTF8(), "child-mark");
}

TEST_F(BrickDiskWriteMarkTest, AFolderWithoutADiskGetsNoMark)
{
    const CURI empty("mem://store/new");
    fs->createFolder(empty, 0777);

    CBrickDiskLock::acquire(fs.get(), empty, CBrickDiskLock::ForWriting);

    EXPECT_FALSE(fs->fileExists(empty << "write.brickmark"));
}

TEST_F(BrickDiskWriteMarkTest, ARecordThatIsNoMarkReadsAsUnreadable)
{
    setText(*fs, kDisk << "write.brickmark", "two words\n");

    EXPECT_EQ(CBrickDiskLock::acquire(fs.get(), kDisk, CBrickDiskLock::ForReading)->getPreviousWriteMark().toUTF8(),
              "unreadable");
}

TEST_F(BrickDiskWriteMarkTest, AMarkWithWhiteSpaceIsRefused)
{
    EXPECT_TRUE(testsupport::errorOf<zo::CInvalidArgError>(
        [&] { CBrickDiskLock::acquire(fs.get(), kDisk, CBrickDiskLock::ForWriting, "two words"); }));
    EXPECT_TRUE(markInStore(kDisk).isEmpty());
}

TEST(BrickDiskLockLocal, AWriterLeavesNoMarkInALocalFolder)
{
    testsupport::TempFolder temp;
    const P<zo::IFileSystem> fs(new zo::CLocalFileSystem(2));
    const CURI disk = temp.uri() << "disk";
    testsupport::createDisk(fs.get(), disk, kDiskSize, "pw");

    const P<CBrickDiskLock> writer = CBrickDiskLock::acquire(fs.get(), disk, CBrickDiskLock::ForWriting);

    EXPECT_TRUE(writer->getWriteMark().isEmpty());
    EXPECT_FALSE(std::filesystem::exists(disk.toLocalPath() + "/write.brickmark"));
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
