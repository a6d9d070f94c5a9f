#include "brick/streams/BrickDiskStreamWithParallelReadAhead.h"

#include "brick/format/BrickDataPreparer.h"
#include "support/BrickTestHelpers.h"
#include "support/DiskStreamTestHelpers.h"
#include "support/TempFolder.h"
#include "zo/Error.h"
#include "zo/LocalFileSystem.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskStreamWithParallelReadAhead;
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

class BrickDiskStreamWithParallelReadAheadTest : public ::testing::Test {
protected:
    BrickDiskStreamWithParallelReadAheadTest() : fs(new CMemoryFileSystem(2))
    {
        testsupport::createStreamTestDisk(fs.get(), kFolder, kDiskSize, kBrickSize, 7, &content);
        disk = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessRead);
    }

    P<CBrickDiskStreamWithParallelReadAhead> openStream(int threadCount)
    {
        return P<CBrickDiskStreamWithParallelReadAhead>(
            new CBrickDiskStreamWithParallelReadAhead(disk.get(), threadCount));
    }

    Bytes expected(int64 offset, int64 count) const { return testsupport::sliceOf(content, offset, count); }

    Bytes readAt(zo::IInStream& from, int64 position, int count)
    {
        from.seek(position);
        Bytes got(count);
        from.read(got.getData(), count);
        return got;
    }

    P<CMemoryFileSystem> fs;
    Bytes content;
    P<CBrickDisk> disk;
};

TEST_F(BrickDiskStreamWithParallelReadAheadTest, StartsAtZeroWithTheDiskSizeAndFolder)
{
    const auto stream = openStream(2);
    EXPECT_EQ(stream->getPosition(), 0);
    EXPECT_EQ(stream->getLength(), kDiskSize);
    EXPECT_EQ(stream->getURI(), kFolder);
    EXPECT_FALSE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 0);
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, ReadingFrontToBackInRandomPiecesGivesTheDiskBytes)
{
    const auto stream = openStream(2);
    std::mt19937 random(13);
    EXPECT_TRUE(testsupport::sameBytes(testsupport::readToEndInRandomPieces(*stream, random, 3 * kBrickSize), content));
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 1);
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, OneThreadReadsTheDiskBrickByBrick)
{
    const auto stream = openStream(1);
    std::mt19937 random(14);
    EXPECT_TRUE(testsupport::sameBytes(testsupport::readToEndInRandomPieces(*stream, random, kBrickSize / 3), content));
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, ReadingLeavesTheDiskPositionAlone)
{
    disk->seek(123);
    const auto stream = openStream(2);
    readAt(*stream, 5000, 20000);
    EXPECT_EQ(disk->getPosition(), 123);
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, NeverWrittenBricksReadAsZeros)
{
    testsupport::createStreamTestDisk(fs.get(), "/empty", kDiskSize, kBrickSize, 0, nullptr);
    const P<CBrickDisk> empty = testsupport::openStreamTestDisk(fs.get(), "/empty", IIOStream::AccessRead);
    CBrickDiskStreamWithParallelReadAhead stream(empty.get(), 2);
    std::mt19937 random(15);
    EXPECT_TRUE(testsupport::sameBytes(testsupport::readToEndInRandomPieces(stream, random, 10000),
                                       testsupport::zeroBytes(static_cast<int>(kDiskSize))));
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, ReadLaxAtTheEndReturnsZero)
{
    const auto stream = openStream(2);
    stream->seek(kDiskSize);
    char byte = 'x';
    EXPECT_EQ(stream->readLax(&byte, 1), 0);
    EXPECT_EQ(stream->readAvailable(&byte, 1), 0);
    EXPECT_EQ(byte, 'x');
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, ReadLaxOfNothingReturnsZero)
{
    const auto stream = openStream(2);
    char byte = 'x';
    EXPECT_EQ(stream->readLax(&byte, 0), 0);
    EXPECT_EQ(stream->readLax(&byte, -3), 0);
    EXPECT_EQ(stream->getPosition(), 0);
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, ReadLaxBeyondTheEndGivesWhatRemains)
{
    const auto stream = openStream(2);
    stream->seek(kDiskSize - 300);
    Bytes got(1000);
    EXPECT_EQ(stream->readLax(got.getData(), 1000), 300);
    got.setUsed(300);
    EXPECT_TRUE(testsupport::sameBytes(got, expected(kDiskSize - 300, 300)));
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, ReadPastTheEndCopiesWhatRemainsThenThrows)
{
    testsupport::expectReadPastTheEndCopiesWhatRemains(*openStream(2), kFolder, content);
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, SeekingBackToZeroReadsTheSameBytesAgain)
{
    const auto stream = openStream(3);
    EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, 0, 5 * kBrickSize + 17), expected(0, 5 * kBrickSize + 17)));
    EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, 0, static_cast<int>(kDiskSize)), content));
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, SeekingWithinTheCurrentBrickReadsFromIt)
{
    const auto stream = openStream(2);
    EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, 3 * kBrickSize + 100, 50), expected(3 * kBrickSize + 100, 50)));
    EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, 3 * kBrickSize + 10, 50), expected(3 * kBrickSize + 10, 50)));
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, SeekOutsideTheLengthThrowsWithTheURI)
{
    const auto stream = openStream(1);
    stream->seek(kDiskSize);
    for (const int64 position : {kDiskSize + 1, int64{-1}}) {
        try {
            stream->seek(position);
            ADD_FAILURE() << "no error thrown for " << position;
        } catch (const CIOError& e) {
            EXPECT_EQ(e.getCode(), CIOError::SeekOutOfRange);
            EXPECT_TRUE(e.getMessage().isEmpty());
            ASSERT_EQ(e.getProps().getCount(), 1u);
            EXPECT_EQ(e.getProps().lookup("uri"), kFolder.toString(true));
        }
    }
    EXPECT_EQ(stream->getPosition(), kDiskSize);
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, WaitReadableIsTrueAtOnce)
{
    const auto stream = openStream(1);
    EXPECT_TRUE(stream->waitReadable(0));
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, LockRangeIsNeverSupported)
{
    const auto stream = openStream(1);
    try {
        stream->lockRange(0, 10, zo::IStreamBase::SharedLock);
        FAIL() << "no error thrown";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::NotSupported);
        EXPECT_EQ(e.getMessage(), "Brick disk stream does not support lockRange.");
    }
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, AClosedStreamStillAnswersItsLengthButNotItsPosition)
{
    const auto stream = openStream(2);
    readAt(*stream, 0, 10);
    stream->close();
    stream->close();
    EXPECT_EQ(stream->getLength(), kDiskSize);
    EXPECT_TRUE(stream->waitReadable(-1));
    EXPECT_EQ(stream->getURI(), kFolder);
    EXPECT_THROW(stream->lockRange(0, 1, zo::IStreamBase::SharedLock), CFileSystemError);

    char byte = 0;
    const std::vector<std::function<void()>> operations = {
        [&] { stream->getPosition(); },
        [&] { stream->seek(0); },
        [&] { stream->read(&byte, 1); },
        [&] { stream->readLax(&byte, 1); },
        [&] { stream->readAvailable(&byte, 1); },
        [&] { stream->isEndOfStream(); },
        [&] { stream->isEndOfStream_NonBlocking(); },
    };
    for (const auto& operation : operations)
        testsupport::expectBareIOError(operation, CIOError::StreamClosed);
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, CloseEndsTheThreadsAndReleasesTheDisk)
{
    const int diskReferences = disk->getRefCount();
    // Every brick object, the disk's own and each thread's, holds the file system.
    const int fsReferences = fs->getRefCount();
    const auto stream = openStream(3);
    EXPECT_EQ(disk->getRefCount(), diskReferences + 1);
    EXPECT_EQ(fs->getRefCount(), fsReferences + 3);
    stream->close();
    EXPECT_EQ(disk->getRefCount(), diskReferences);
    EXPECT_EQ(fs->getRefCount(), fsReferences);
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, DestructionEndsTheThreads)
{
    const int fsReferences = fs->getRefCount();
    {
        const auto stream = openStream(4);
        readAt(*stream, 0, 100);
    }
    EXPECT_EQ(fs->getRefCount(), fsReferences);
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, CopiesShareTheReadAheadButKeepTheirOwnPositions)
{
    const auto stream = openStream(2);
    readAt(*stream, 0, 10);
    CBrickDiskStreamWithParallelReadAhead copy(*stream);
    EXPECT_EQ(copy.getPosition(), 10);
    EXPECT_TRUE(testsupport::sameBytes(readAt(copy, 20, 30), expected(20, 30)));
    EXPECT_EQ(stream->getPosition(), 10);

    copy.close();
    try {
        readAt(*stream, 4 * kBrickSize, kBrickSize);
        FAIL() << "no error thrown";
    } catch (const CError& e) {
        EXPECT_EQ(e.getMessage(),
                  "Internal error: CParallelReadAheadManager::seekToBrick called after stop has been signalled");
    }
}

TEST_F(BrickDiskStreamWithParallelReadAheadTest, ShortBrickDataIsAnInternalError)
{
    // A brick whose stored payload holds only 100 bytes.
    testsupport::createStreamTestDisk(fs.get(), "/short", kDiskSize, kBrickSize, 0, nullptr);
    {
        const P<CBrickDisk> writer = testsupport::openStreamTestDisk(fs.get(), "/short", IIOStream::AccessReadWrite);
        const Bytes plain = testsupport::patternBytes(100, 3);
        Bytes prepared;
        writer->createDataPreparer()->prepareData(plain, prepared);
        writer->seek(kBrickSize);
        writer->writePreparedBrickData(testsupport::countedCopy(prepared).get(), nullptr);
        writer->flushChanges();
    }
    const P<CBrickDisk> shortDisk = testsupport::openStreamTestDisk(fs.get(), "/short", IIOStream::AccessRead);
    CBrickDiskStreamWithParallelReadAhead stream(shortDisk.get(), 2);
    stream.seek(kBrickSize + 200);
    Bytes got(10);
    try {
        stream.readLax(got.getData(), 10);
        FAIL() << "no error thrown";
    } catch (const CError& e) {
        EXPECT_EQ(
            e.getMessage(),
            "Internal error in CBrickDiskStreamWithParallelReadAhead::readLax: brick data smaller than expected.");
        EXPECT_EQ(e.getCode(), -1);
        std::vector<std::string> names;
        for (const auto& [name, value] : e.getProps())
            names.push_back(name.toUTF8());
        EXPECT_EQ(names, (std::vector<std::string>{"uri", "position", "length", "offsetInBrick", "brickDataSize"}));
        EXPECT_EQ(e.getProps().lookup("uri"), "/short");
        EXPECT_EQ(e.getProps().lookup("position"), std::to_string(kBrickSize + 200));
        EXPECT_EQ(e.getProps().lookup("length"), std::to_string(kDiskSize));
        EXPECT_EQ(e.getProps().lookup("offsetInBrick"), "200");
        EXPECT_EQ(e.getProps().lookup("brickDataSize"), "100");
    }
}

TEST(BrickDiskStreamWithParallelReadAheadOnLocalFilesTest, ReadsTheBytesWrittenToTheDisk)
{
    const testsupport::TempFolder temp;
    const P<zo::CLocalFileSystem> fs(new zo::CLocalFileSystem(2));
    fs->setSyncEnabled(false);
    const CURI folder = temp.uri() << "disk";
    Bytes content;
    testsupport::createStreamTestDisk(fs.get(), folder, kDiskSize, kBrickSize, 33, &content);
    const P<CBrickDisk> disk = testsupport::openStreamTestDisk(fs.get(), folder, IIOStream::AccessRead);
    CBrickDiskStreamWithParallelReadAhead reader(disk.get(), 3);
    std::mt19937 random(7);
    EXPECT_TRUE(testsupport::sameBytes(testsupport::readToEndInRandomPieces(reader, random, 5000), content));
}

} // namespace
