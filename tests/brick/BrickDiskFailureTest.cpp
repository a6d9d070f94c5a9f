#include "brick/chain/BrickDisk.h"

#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using testsupport::Bytes;
using testsupport::errorOf;
using testsupport::LogCapture;
using testsupport::messageOf;
using testsupport::readAt;
using testsupport::writeAt;
using zo::CError;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int64 kDiskSize = 8 * kBrickSize;
const char* const kFolder = "/disks/a";
const char* const kSaveFailed = "Error during background brick storing operation.";

// The indexes of the failed bricks, sorted: saves of different bricks end in
// any order, and errors are listed in the order they were found.
std::vector<int64> brickIndexesOf(const zo::TList<brick::CBrick::Error>& errors)
{
    std::vector<int64> indexes;
    for (const brick::CBrick::Error& error : errors)
        indexes.push_back(error.brickIndex);
    std::sort(indexes.begin(), indexes.end());
    return indexes;
}

CFileSystemError::Problem problemOf(const brick::CBrick::Error& error)
{
    return CFileSystemError::getProblem(error.error->getProps());
}

class BrickDiskFailureTest : public ::testing::Test {
protected:
    BrickDiskFailureTest() { testsupport::createDisk(fs.get(), CURI(kFolder), kDiskSize, "secret"); }

    P<CBrickDisk> open(const char* folder = kFolder, IIOStream::Access access = IIOStream::AccessReadWrite,
                       zo::IFileSystem* through = nullptr)
    {
        return testsupport::openDisk(through ? through : fs.get(), CURI(folder), "secret", access);
    }
    // Writes `bytes` at `position` of the disk in `folder` and saves them.
    void store(const char* folder, int64 position, const Bytes& bytes)
    {
        const P<CBrickDisk> disk = open(folder);
        writeAt(*disk, position, bytes);
        disk->flushChanges();
        ASSERT_TRUE(disk->getBackgroundErrorList().empty());
    }
    CURI brickFile(const P<CBrickDisk>& disk, const char* folder, int64 index)
    {
        return testsupport::brickFileOf(*disk, CURI(folder), index);
    }
    // Flips one byte in the middle of brick `index`'s file in `folder`.
    void damageBrick(const char* folder, int64 index)
    {
        const CURI file = brickFile(open(folder, IIOStream::AccessRead), folder, index);
        const P<Bytes> data = fs->getFileData(file);
        ASSERT_TRUE(data);
        (*data)[data->getUsed() / 2] ^= 0x40;
        fs->setFileData(file, *data);
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem(2)};
    LogCapture log;
};

// --- Background saves that fail ------------------------------------------------------

TEST_F(BrickDiskFailureTest, StoreThatFailsOnceIsRecordedAndNotThrownAtTheWriter)
{
    const P<CBrickDisk> disk = open();
    fs->setCompletionDelay(1, 5);
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::AccessDenied, false);
    const Bytes first = testsupport::patternBytes(100, 1);
    writeAt(*disk, 10, first);

    disk->flushChanges();

    const auto& errors = disk->getBackgroundErrorList();
    ASSERT_EQ(brickIndexesOf(errors), std::vector<int64>({0}));
    EXPECT_EQ(problemOf(errors.front()), CFileSystemError::AccessDenied);
    EXPECT_EQ(log.countContaining(kSaveFailed), 1);

    // The bytes stay in memory; the next save of the brick stores them.
    const Bytes second = testsupport::patternBytes(100, 2);
    writeAt(*disk, 500, second);
    disk->flushChanges();
    EXPECT_EQ(disk->getBackgroundErrorList().size(), 1u);
    const P<CBrickDisk> reader = open(kFolder, IIOStream::AccessRead);
    EXPECT_EQ(readAt(*reader, 10, 100), first);
    EXPECT_EQ(readAt(*reader, 500, 100), second);
}

TEST_F(BrickDiskFailureTest, StoresThatAlwaysFailAreRecordedForEveryBrick)
{
    const P<CBrickDisk> disk = open();
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, true);

    // The moves from brick to brick start saves that fail meanwhile.
    writeAt(*disk, kBrickSize / 2, testsupport::patternBytes(3 * kBrickSize, 3));
    disk->flushChanges();

    const auto& errors = disk->getBackgroundErrorList();
    EXPECT_EQ(brickIndexesOf(errors), std::vector<int64>({0, 1, 2, 3}));
    for (const auto& error : errors)
        EXPECT_EQ(problemOf(error), CFileSystemError::NoSpace);
    EXPECT_EQ(log.countContaining(kSaveFailed), 4);
}

TEST_F(BrickDiskFailureTest, ClosingADiskWhoseSavesFailDoesNotThrow)
{
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, true);
    {
        const P<CBrickDisk> disk = open();
        writeAt(*disk, 0, testsupport::patternBytes(2 * kBrickSize, 4));
    }

    EXPECT_EQ(log.countContaining(kSaveFailed), 2);
    fs->clearFailures();
    EXPECT_EQ(readAt(*open(kFolder, IIOStream::AccessRead), 0, 2 * kBrickSize), testsupport::zeroBytes(2 * kBrickSize));
}

TEST_F(BrickDiskFailureTest, FolderCreationThatFailsOnceIsRecorded)
{
    const P<CBrickDisk> disk = open();
    fs->failOperation(Op::CreateFolder, 1, CFileSystemError::AccessDenied, false);

    // A new disk has no brick folders yet, so its first store creates them.
    writeAt(*disk, 0, testsupport::patternBytes(10, 5));
    disk->flushChanges();

    const auto& errors = disk->getBackgroundErrorList();
    ASSERT_EQ(brickIndexesOf(errors), std::vector<int64>({0}));
    EXPECT_EQ(problemOf(errors.front()), CFileSystemError::AccessDenied);

    writeAt(*disk, kBrickSize, testsupport::patternBytes(10, 6));
    disk->flushChanges();
    EXPECT_EQ(disk->getBackgroundErrorList().size(), 1u);
    EXPECT_EQ(readAt(*open(kFolder, IIOStream::AccessRead), kBrickSize, 10), testsupport::patternBytes(10, 6));
}

TEST_F(BrickDiskFailureTest, FolderCreationThatAlwaysFailsIsRecordedForEveryBrick)
{
    const P<CBrickDisk> disk = open();
    fs->failOperation(Op::CreateFolder, 1, CFileSystemError::NoSpace, true);

    writeAt(*disk, 0, testsupport::patternBytes(2 * kBrickSize, 7));
    disk->flushChanges();

    const auto& errors = disk->getBackgroundErrorList();
    EXPECT_EQ(brickIndexesOf(errors), std::vector<int64>({0, 1}));
    for (const auto& error : errors)
        EXPECT_EQ(problemOf(error), CFileSystemError::NoSpace);
}

TEST_F(BrickDiskFailureTest, CopyIntoTheChildThatFailsOnceIsRetriedAfterCreatingTheChildFolders)
{
    const Bytes old = testsupport::patternBytes(kBrickSize, 8);
    store(kFolder, 0, old);
    CBrickDisk::createChild(fs.get(), CURI("/disks/child"), CURI(kFolder), CBrickDisk::linkedChild);
    const P<CBrickDisk> disk = open();
    fs->failOperation(Op::CopyFile, 1, CFileSystemError::AccessDenied, false);
    const Bytes fresh = testsupport::patternBytes(kBrickSize, 9);

    writeAt(*disk, 0, fresh);
    disk->flushChanges();

    EXPECT_TRUE(disk->getBackgroundErrorList().empty());
    EXPECT_EQ(readAt(*open("/disks/child", IIOStream::AccessRead), 0, kBrickSize), old);
    EXPECT_EQ(readAt(*open(kFolder, IIOStream::AccessRead), 0, kBrickSize), fresh);
}

TEST_F(BrickDiskFailureTest, CopyIntoTheChildThatAlwaysFailsIsRecordedAndLeavesBothDisksAsTheyWere)
{
    const Bytes old = testsupport::patternBytes(kBrickSize, 10);
    store(kFolder, 0, old);
    CBrickDisk::createChild(fs.get(), CURI("/disks/child"), CURI(kFolder), CBrickDisk::linkedChild);
    const P<CBrickDisk> disk = open();
    const P<Bytes> fileBefore = fs->getFileData(brickFile(disk, kFolder, 0));
    fs->failOperation(Op::CopyFile, 1, CFileSystemError::AccessDenied, true);

    writeAt(*disk, 0, testsupport::patternBytes(kBrickSize, 11));
    disk->flushChanges();

    const auto& errors = disk->getBackgroundErrorList();
    ASSERT_EQ(brickIndexesOf(errors), std::vector<int64>({0}));
    EXPECT_EQ(problemOf(errors.front()), CFileSystemError::AccessDenied);
    EXPECT_EQ(*fs->getFileData(brickFile(disk, kFolder, 0)), *fileBefore);
    EXPECT_EQ(readAt(*open("/disks/child", IIOStream::AccessRead), 0, kBrickSize), old);
}

TEST_F(BrickDiskFailureTest, SaveThatCannotStartIsRecordedAndNotThrown)
{
    const P<testsupport::SteppedFileSystem> stepped(new testsupport::SteppedFileSystem(fs.get(), false));
    stepped->throwOnStart(Op::StoreFile, 1, CFileSystemError::AccessDenied);
    const P<CBrickDisk> disk = open(kFolder, IIOStream::AccessReadWrite, stepped.get());

    writeAt(*disk, 0, testsupport::patternBytes(10, 12));
    disk->flushChanges();

    const auto& errors = disk->getBackgroundErrorList();
    ASSERT_EQ(brickIndexesOf(errors), std::vector<int64>({0}));
    EXPECT_EQ(problemOf(errors.front()), CFileSystemError::AccessDenied);
    EXPECT_EQ(log.countContaining("Error initiating background brick storing operation."), 1);
}

// --- Bricks that cannot be read ------------------------------------------------------

TEST_F(BrickDiskFailureTest, DamagedBrickFileFailsOnlyThatBricksReads)
{
    const Bytes bytes = testsupport::patternBytes(4 * kBrickSize, 13);
    store(kFolder, 0, bytes);
    damageBrick(kFolder, 2);
    const P<CBrickDisk> disk = open(kFolder, IIOStream::AccessRead);

    const auto error = errorOf<CError>([&] { readAt(*disk, 2 * kBrickSize + 10, 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error), "Brick file is corrupted.");
    EXPECT_EQ(error->getProps().lookup("action"), "CBrickDataPreparer::unprepareData");
    EXPECT_EQ(log.countContaining("Error loading brick payload (diskFolder:/disks/a, brickIndex:2). Letting through."),
              1);
    for (int index : {0, 1, 3})
        EXPECT_EQ(readAt(*disk, index * kBrickSize, kBrickSize),
                  Bytes(bytes.getData() + index * kBrickSize, kBrickSize))
            << "brick " << index;
    // The brick is tried again, and fails again, on the next read.
    EXPECT_THROW(readAt(*disk, 2 * kBrickSize, 1), CError);
}

TEST_F(BrickDiskFailureTest, ReadIntoADamagedBrickKeepsTheBytesBeforeItInThePosition)
{
    const Bytes bytes = testsupport::patternBytes(4 * kBrickSize, 14);
    store(kFolder, 0, bytes);
    damageBrick(kFolder, 2);
    const P<CBrickDisk> disk = open(kFolder, IIOStream::AccessRead);
    Bytes buffer(kBrickSize);
    disk->seek(kBrickSize + kBrickSize / 2);

    EXPECT_THROW(disk->read(buffer.getData(), kBrickSize), CError);

    EXPECT_EQ(disk->getPosition(), 2 * kBrickSize);
    EXPECT_EQ(Bytes(buffer.getData(), kBrickSize / 2),
              Bytes(bytes.getData() + kBrickSize + kBrickSize / 2, kBrickSize / 2));
}

TEST_F(BrickDiskFailureTest, DamagedBrickCanBeOverwrittenWhole)
{
    store(kFolder, 0, testsupport::patternBytes(4 * kBrickSize, 15));
    damageBrick(kFolder, 2);
    const P<CBrickDisk> disk = open();
    const Bytes replacement = testsupport::patternBytes(kBrickSize, 16);

    writeAt(*disk, 2 * kBrickSize, replacement);
    disk->flushChanges();

    EXPECT_TRUE(disk->getBackgroundErrorList().empty());
    EXPECT_EQ(readAt(*open(kFolder, IIOStream::AccessRead), 2 * kBrickSize, kBrickSize), replacement);
}

TEST_F(BrickDiskFailureTest, DamagedBrickOfAParentFailsTheChildsReadOfIt)
{
    store(kFolder, 0, testsupport::patternBytes(4 * kBrickSize, 17));
    CBrickDisk::createChild(fs.get(), CURI("/disks/child"), CURI(kFolder), CBrickDisk::linkedChild);
    damageBrick(kFolder, 1);
    const P<CBrickDisk> child = open("/disks/child", IIOStream::AccessRead);

    const auto error = errorOf<CError>([&] { readAt(*child, kBrickSize, 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error), "Brick file is corrupted.");
    EXPECT_NO_THROW(readAt(*child, 0, kBrickSize));
}

TEST_F(BrickDiskFailureTest, BrickFileThatCannotBeOpenedFailsTheRead)
{
    store(kFolder, 0, testsupport::patternBytes(kBrickSize, 18));
    const P<CBrickDisk> disk = open(kFolder, IIOStream::AccessRead);
    fs->failOperation(Op::OpenStream, 1, CFileSystemError::AccessDenied, false);

    const auto error = errorOf<CFileSystemError>([&] { readAt(*disk, 0, 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProblem(), CFileSystemError::AccessDenied);
    EXPECT_EQ(readAt(*disk, 0, 10), testsupport::patternBytes(10, 18));
}

TEST_F(BrickDiskFailureTest, BrickFileThatCannotBeReadFailsTheRead)
{
    store(kFolder, 0, testsupport::patternBytes(kBrickSize, 19));
    const P<CBrickDisk> disk = open(kFolder, IIOStream::AccessRead);
    fs->failStreamReads(CURI("/disks/a/bricks"), CFileSystemError::AccessDenied);

    const auto error = errorOf<CFileSystemError>([&] { readAt(*disk, 0, 10); });

    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProblem(), CFileSystemError::AccessDenied);
    EXPECT_EQ(disk->getPosition(), 0);
}

} // namespace
