#include "brick/streams/BrickDiskStream.h"

#include "support/BrickTestHelpers.h"
#include "support/DiskStreamTestHelpers.h"
#include "support/DiskTestHelpers.h"
#include "support/TempFolder.h"
#include "zo/Error.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskStream;
using testsupport::Bytes;
using zo::CError;
using zo::CFileSystemError;
using zo::CIOError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;

constexpr int kBrickSize = 4096;
// Eleven bricks, the last one short.
constexpr int64 kDiskSize = 10 * kBrickSize + 1234;
const CURI kFolder("/disk");

class BrickDiskStreamTest : public ::testing::Test {
protected:
    BrickDiskStreamTest() : fs(new CMemoryFileSystem(2))
    {
        testsupport::createStreamTestDisk(fs.get(), kFolder, kDiskSize, kBrickSize, 7, &content);
        disk = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessReadWrite);
        stream = new CBrickDiskStream(disk.get());
    }

    Bytes expected(int64 offset, int64 count) const { return testsupport::sliceOf(content, offset, count); }

    P<CMemoryFileSystem> fs;
    Bytes content;
    P<CBrickDisk> disk;
    P<CBrickDiskStream> stream;
};

// Runs `operation` and gives the CIOError code it threw, -1 when it threw none.
int64 ioErrorCodeOf(const std::function<void()>& operation)
{
    try {
        operation();
    } catch (const CIOError& e) {
        return e.getCode();
    }
    return -1;
}

TEST_F(BrickDiskStreamTest, StartsAtTheDiskSizeAndFolderAndLeavesTheDiskPositionAlone)
{
    disk->seek(1000);
    CBrickDiskStream other(disk.get());
    EXPECT_EQ(other.getLength(), kDiskSize);
    EXPECT_EQ(other.getPosition(), 1000);
    EXPECT_EQ(other.getURI(), kFolder);
    EXPECT_EQ(disk->getPosition(), 1000);
}

TEST_F(BrickDiskStreamTest, ReadReturnsTheDiskBytesAndMovesTheDiskPosition)
{
    stream->seek(kBrickSize - 10);
    Bytes got(30);
    stream->read(got.getData(), 30);
    EXPECT_TRUE(testsupport::sameBytes(got, expected(kBrickSize - 10, 30)));
    EXPECT_EQ(stream->getPosition(), kBrickSize + 20);
    EXPECT_EQ(disk->getPosition(), kBrickSize + 20);
}

TEST_F(BrickDiskStreamTest, ReadingFrontToBackInRandomPiecesGivesTheDiskBytes)
{
    std::mt19937 random(11);
    const Bytes got = testsupport::readToEndInRandomPieces(*stream, random, 3 * kBrickSize);
    EXPECT_TRUE(testsupport::sameBytes(got, content));
    EXPECT_TRUE(stream->isEndOfStream());
}

TEST_F(BrickDiskStreamTest, ReadLaxAtTheEndReadsNothing)
{
    stream->seek(kDiskSize);
    char byte = 'x';
    EXPECT_EQ(stream->readLax(&byte, 1), 0);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(stream->getPosition(), kDiskSize);
}

TEST_F(BrickDiskStreamTest, ReadLaxBeyondTheEndGivesWhatRemains)
{
    stream->seek(kDiskSize - 100);
    Bytes got(500);
    EXPECT_EQ(stream->readLax(got.getData(), 500), 100);
    got.setUsed(100);
    EXPECT_TRUE(testsupport::sameBytes(got, expected(kDiskSize - 100, 100)));
    EXPECT_EQ(stream->getPosition(), kDiskSize);
}

TEST_F(BrickDiskStreamTest, ReadAvailableReadsLikeReadLax)
{
    stream->seek(kDiskSize - 50);
    Bytes got(80);
    EXPECT_EQ(stream->readAvailable(got.getData(), 80), 50);
    got.setUsed(50);
    EXPECT_TRUE(testsupport::sameBytes(got, expected(kDiskSize - 50, 50)));
}

TEST_F(BrickDiskStreamTest, ReadPastTheDiskEndCopiesTheRestThenThrowsTheDiskError)
{
    stream->seek(kDiskSize - 10);
    Bytes got(20);
    try {
        stream->read(got.getData(), 20);
        FAIL() << "no error thrown";
    } catch (const CIOError& e) {
        EXPECT_EQ(e.getCode(), CIOError::EndOfData);
        EXPECT_EQ(e.getProps().lookup("uri"), kFolder.toString(true));
    }
    got.setUsed(10);
    EXPECT_TRUE(testsupport::sameBytes(got, expected(kDiskSize - 10, 10)));
    EXPECT_EQ(stream->getPosition(), kDiskSize);
}

TEST_F(BrickDiskStreamTest, SeekToTheLengthIsAllowedButNotBeyondOrBelowZero)
{
    stream->seek(stream->getLength());
    EXPECT_EQ(stream->getPosition(), kDiskSize);
    testsupport::expectBareIOError([&] { stream->seek(kDiskSize + 1); }, CIOError::SeekOutOfRange);
    testsupport::expectBareIOError([&] { stream->seek(-1); }, CIOError::SeekOutOfRange);
    EXPECT_EQ(stream->getPosition(), kDiskSize);
}

TEST_F(BrickDiskStreamTest, SeekIsBoundedByTheVirtualLength)
{
    stream->setVirtualLength(5000);
    stream->seek(5000);
    testsupport::expectBareIOError([&] { stream->seek(5001); }, CIOError::SeekOutOfRange);
}

TEST_F(BrickDiskStreamTest, WriteEndingBeyondTheVirtualLengthRaisesIt)
{
    stream->setVirtualLength(1000);
    stream->seek(900);
    const Bytes bytes = testsupport::patternBytes(300, 3);
    stream->write(bytes.getData(), bytes.getUsed());
    EXPECT_EQ(stream->getLength(), 1200);
    EXPECT_EQ(stream->getPosition(), 1200);
}

TEST_F(BrickDiskStreamTest, WriteEndingInsideTheVirtualLengthLeavesIt)
{
    stream->seek(100);
    const Bytes bytes = testsupport::patternBytes(300, 3);
    stream->write(bytes.getData(), bytes.getUsed());
    EXPECT_EQ(stream->getLength(), kDiskSize);
    stream->seek(100);
    Bytes got(300);
    stream->read(got.getData(), 300);
    EXPECT_TRUE(testsupport::sameBytes(got, bytes));
}

TEST_F(BrickDiskStreamTest, WriteRefusedByTheDiskLeavesTheVirtualLength)
{
    stream->setVirtualLength(kDiskSize - 5);
    stream->seek(kDiskSize - 5);
    const Bytes bytes = testsupport::patternBytes(10, 3);
    EXPECT_EQ(ioErrorCodeOf([&] { stream->write(bytes.getData(), bytes.getUsed()); }), CIOError::EndOfData);
    EXPECT_EQ(stream->getLength(), kDiskSize - 5);
}

TEST_F(BrickDiskStreamTest, WriteKeepBufferWritesTheSlice)
{
    const Bytes bytes = testsupport::patternBytes(64, 9);
    stream->seek(kBrickSize - 32);
    stream->writeKeepBuffer(zo::TConstBufferSlice<zo::uint8>(bytes), nullptr);
    EXPECT_EQ(stream->getPosition(), kBrickSize + 32);
    disk->seek(kBrickSize - 32);
    Bytes got(64);
    disk->read(got.getData(), 64);
    EXPECT_TRUE(testsupport::sameBytes(got, bytes));
}

TEST_F(BrickDiskStreamTest, DiskErrorsPassThroughUnchanged)
{
    const P<CBrickDisk> readOnly = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessRead);
    CBrickDiskStream readOnlyStream(readOnly.get());
    char byte = 1;
    try {
        readOnlyStream.write(&byte, 1);
        FAIL() << "no error thrown";
    } catch (const CError& e) {
        EXPECT_EQ(e.getMessage(),
                  "Internal error: CBrickDisk::write was called, but the disk was not opened for writing.");
    }
}

TEST_F(BrickDiskStreamTest, SetVirtualLengthBelowThePositionMovesThePosition)
{
    stream->seek(3000);
    stream->setVirtualLength(2000);
    EXPECT_EQ(stream->getLength(), 2000);
    EXPECT_EQ(stream->getPosition(), 2000);
    EXPECT_EQ(disk->getSize(), kDiskSize);
}

TEST_F(BrickDiskStreamTest, SetVirtualLengthAboveThePositionKeepsThePosition)
{
    stream->seek(3000);
    stream->setVirtualLength(4000);
    EXPECT_EQ(stream->getPosition(), 3000);
    EXPECT_EQ(stream->getLength(), 4000);
}

TEST_F(BrickDiskStreamTest, SetVirtualLengthBelowZeroFailsAsASeek)
{
    testsupport::expectBareIOError([&] { stream->setVirtualLength(-1); }, CIOError::SeekOutOfRange);
    EXPECT_EQ(stream->getLength(), kDiskSize);
}

TEST_F(BrickDiskStreamTest, ReadLaxStopsAtTheVirtualLength)
{
    stream->setVirtualLength(1000);
    stream->seek(990);
    Bytes got(100);
    EXPECT_EQ(stream->readLax(got.getData(), 100), 10);
    EXPECT_TRUE(stream->isEndOfStream());
}

TEST_F(BrickDiskStreamTest, VirtualLengthAboveTheDiskSizeLeavesTheEndToTheDisk)
{
    stream->setVirtualLength(kDiskSize + 100);
    EXPECT_EQ(stream->getLength(), kDiskSize + 100);
    EXPECT_EQ(ioErrorCodeOf([&] { stream->seek(kDiskSize + 50); }), CIOError::SeekOutOfRange);

    stream->seek(kDiskSize - 5);
    Bytes got(10);
    EXPECT_EQ(ioErrorCodeOf([&] { stream->readLax(got.getData(), 10); }), CIOError::EndOfData);
    got.setUsed(5);
    EXPECT_TRUE(testsupport::sameBytes(got, expected(kDiskSize - 5, 5)));
    EXPECT_EQ(stream->getPosition(), kDiskSize);
}

TEST_F(BrickDiskStreamTest, EndOfStreamFollowsThePosition)
{
    EXPECT_FALSE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 0);
    stream->seek(kDiskSize);
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 1);
}

TEST_F(BrickDiskStreamTest, WaitReadableIsTrueAtOnce)
{
    EXPECT_TRUE(stream->waitReadable(0));
    EXPECT_TRUE(stream->waitReadable(-1));
}

TEST_F(BrickDiskStreamTest, LockRangeIsNeverSupported)
{
    try {
        stream->lockRange(0, 10, zo::IStreamBase::ExclusiveLock);
        FAIL() << "no error thrown";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::NotSupported);
        EXPECT_EQ(e.getMessage(), "Brick disk stream does not support lockRange.");
    }
}

TEST_F(BrickDiskStreamTest, SetLengthIsNotSupported)
{
    testsupport::expectBareIOError([&] { stream->setLength(100); }, CIOError::SetLengthNotSupported);
    EXPECT_EQ(stream->getLength(), kDiskSize);
}

TEST_F(BrickDiskStreamTest, FlushStoresTheChangedBricks)
{
    const Bytes bytes = testsupport::patternBytes(100, 21);
    stream->seek(3 * kBrickSize);
    stream->write(bytes.getData(), bytes.getUsed());
    const CURI brickFile = testsupport::brickFileOf(*disk, 3);
    const P<Bytes> before = fs->getFileData(brickFile);
    stream->flush();
    const P<Bytes> after = fs->getFileData(brickFile);
    ASSERT_TRUE(after);
    EXPECT_FALSE(testsupport::sameBytes(*before, *after));

    const P<CBrickDisk> reopened = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessRead);
    reopened->seek(3 * kBrickSize);
    Bytes got(100);
    reopened->read(got.getData(), 100);
    EXPECT_TRUE(testsupport::sameBytes(got, bytes));
}

TEST_F(BrickDiskStreamTest, FlushThrowsASaveThatFailedSinceTheLastFlushOnce)
{
    const Bytes bytes = testsupport::patternBytes(100, 23);
    stream->seek(4 * kBrickSize);
    stream->write(bytes.getData(), bytes.getUsed());
    fs->failOperation(CMemoryFileSystem::Operation::StoreFile, 1, CFileSystemError::NoSpace, false);

    const auto error = testsupport::errorOf<CError>([&] { stream->flush(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(testsupport::messageOf(*error), "Storing changed bricks failed.");
    ASSERT_NE(error->getCause(), nullptr);
    EXPECT_EQ(CFileSystemError::getProblem(error->getCause()->getProps()), CFileSystemError::NoSpace);
    const auto props = testsupport::propsOf(*error);
    EXPECT_NE(std::find(props.begin(), props.end(), std::make_pair(std::string("brickIndex"), std::string("4"))),
              props.end());

    // Reported once; a write stored since leaves the next flush quiet.
    stream->write(bytes.getData(), bytes.getUsed());
    EXPECT_NO_THROW(stream->flush());
}

TEST_F(BrickDiskStreamTest, CreateWriteBarrierFlushesAndIsPassed)
{
    const Bytes bytes = testsupport::patternBytes(100, 22);
    stream->seek(2 * kBrickSize);
    stream->write(bytes.getData(), bytes.getUsed());
    const CURI brickFile = testsupport::brickFileOf(*disk, 2);
    const P<Bytes> before = fs->getFileData(brickFile);
    const P<zo::IWriteBarrier> barrier = stream->createWriteBarrier(nullptr);
    ASSERT_TRUE(barrier);
    EXPECT_TRUE(barrier->isPassed());
    EXPECT_FALSE(testsupport::sameBytes(*before, *fs->getFileData(brickFile)));
}

TEST_F(BrickDiskStreamTest, CopiesShareTheDiskPosition)
{
    CBrickDiskStream copy(*stream);
    copy.seek(777);
    EXPECT_EQ(stream->getPosition(), 777);
    EXPECT_EQ(copy.getLength(), kDiskSize);
    EXPECT_EQ(copy.getURI(), kFolder);
}

TEST_F(BrickDiskStreamTest, CloseReleasesTheDiskWithoutFlushing)
{
    const int references = disk->getRefCount();
    const Bytes bytes = testsupport::patternBytes(100, 23);
    stream->seek(5 * kBrickSize);
    stream->write(bytes.getData(), bytes.getUsed());
    const CURI brickFile = testsupport::brickFileOf(*disk, 5);
    const P<Bytes> before = fs->getFileData(brickFile);
    stream->close();
    EXPECT_EQ(disk->getRefCount(), references - 1);
    fs->waitUntilIdle();
    EXPECT_TRUE(testsupport::sameBytes(*before, *fs->getFileData(brickFile)));
}

TEST_F(BrickDiskStreamTest, DestructionReleasesTheDisk)
{
    const int references = disk->getRefCount();
    stream = nullptr;
    EXPECT_EQ(disk->getRefCount(), references - 1);
}

TEST_F(BrickDiskStreamTest, AClosedStreamAnswersOnlyGetURICloseAndLockRange)
{
    stream->close();
    EXPECT_EQ(stream->getURI(), kFolder);
    stream->close();
    EXPECT_THROW(stream->lockRange(0, 1, zo::IStreamBase::SharedLock), CFileSystemError);

    char byte = 0;
    const Bytes bytes = testsupport::patternBytes(4, 1);
    const std::vector<std::function<void()>> operations = {
        [&] { stream->getLength(); },
        [&] { stream->getPosition(); },
        [&] { stream->seek(0); },
        [&] { stream->read(&byte, 1); },
        [&] { stream->readLax(&byte, 1); },
        [&] { stream->readAvailable(&byte, 1); },
        [&] { stream->waitReadable(0); },
        [&] { stream->isEndOfStream(); },
        [&] { stream->isEndOfStream_NonBlocking(); },
        [&] { stream->write(bytes.getData(), 4); },
        [&] { stream->writeKeepBuffer(zo::TConstBufferSlice<zo::uint8>(bytes)); },
        [&] { stream->createWriteBarrier(nullptr); },
        [&] { stream->flush(); },
        [&] { stream->setLength(0); },
        [&] { stream->setVirtualLength(0); },
    };
    for (const auto& operation : operations)
        testsupport::expectBareIOError(operation, CIOError::StreamClosed);
}

TEST_F(BrickDiskStreamTest, ADamagedBrickFailsOnlyWhenTheReaderReachesIt)
{
    testsupport::LogCapture log;
    testsupport::damageFile(*fs, testsupport::brickFileOf(*disk, 4));
    Bytes got(4 * kBrickSize);
    stream->read(got.getData(), 4 * kBrickSize);
    EXPECT_TRUE(testsupport::sameBytes(got, expected(0, 4 * kBrickSize)));
    EXPECT_THROW(stream->read(got.getData(), 1), CError);
    EXPECT_EQ(log.countContaining("brickIndex:4). Letting through."), 1);
}

TEST(BrickDiskStreamOnLocalFilesTest, ReadsBackWhatWasWrittenThroughIt)
{
    Bytes written, read;
    testsupport::roundTripOnLocalFiles(
        kDiskSize, kBrickSize, 1000, 31, [](CBrickDisk* disk) { return P<IIOStream>(new CBrickDiskStream(disk)); },
        written, read);
    EXPECT_TRUE(testsupport::sameBytes(read, written));
}

} // namespace
