#include "brick/streams/BrickDiskStreamWithCache.h"

#include "support/BrickTestHelpers.h"
#include "support/DiskStreamTestHelpers.h"
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
using brick::CBrickDiskStreamWithCache;
using testsupport::Bytes;
using zo::CError;
using zo::CFileSystemError;
using zo::CIOError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;

constexpr int kBrickSize = 4096;
// Eleven bricks, the last one short.
constexpr int64 kDiskSize = 10 * kBrickSize + 1234;
const CURI kFolder("/disk");

class BrickDiskStreamWithCacheTest : public ::testing::Test {
protected:
    BrickDiskStreamWithCacheTest() : fs(new CMemoryFileSystem(2))
    {
        testsupport::createStreamTestDisk(fs.get(), kFolder, kDiskSize, kBrickSize, 7, &content);
        disk = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessReadWrite);
        stream = new CBrickDiskStreamWithCache(disk.get());
    }

    Bytes expected(int64 offset, int64 count) const { return testsupport::sliceOf(content, offset, count); }

    Bytes readAt(zo::IInStream& from, int64 position, int count)
    {
        from.seek(position);
        Bytes got(count);
        from.read(got.getData(), count);
        return got;
    }

    // Stores the disk's changes and moves the disk's own brick object to the
    // last brick, so that a later load of any other brick opens its file.
    void moveDiskBrickAway()
    {
        disk->flushChanges();
        disk->seek(kDiskSize - 1);
        char byte = 0;
        disk->read(&byte, 1);
    }

    // How many brick files `operation` opened.
    int loadsDuring(const std::function<void()>& operation)
    {
        const int before = fs->getOperationCount(Op::OpenStream);
        operation();
        return fs->getOperationCount(Op::OpenStream) - before;
    }

    P<CMemoryFileSystem> fs;
    Bytes content;
    P<CBrickDisk> disk;
    P<CBrickDiskStreamWithCache> stream;
};

TEST_F(BrickDiskStreamWithCacheTest, StartsAtZeroWithTheDiskSizeAndFolder)
{
    disk->seek(1000);
    CBrickDiskStreamWithCache other(disk.get());
    EXPECT_EQ(other.getPosition(), 0);
    EXPECT_EQ(other.getLength(), kDiskSize);
    EXPECT_EQ(other.getURI(), kFolder);
}

TEST_F(BrickDiskStreamWithCacheTest, ReadingFrontToBackInRandomPiecesGivesTheDiskBytes)
{
    std::mt19937 random(12);
    const Bytes got = testsupport::readToEndInRandomPieces(*stream, random, 3 * kBrickSize);
    EXPECT_TRUE(testsupport::sameBytes(got, content));
    EXPECT_TRUE(stream->isEndOfStream());
}

TEST_F(BrickDiskStreamWithCacheTest, ReadsInsideACachedBrickLoadNothing)
{
    EXPECT_EQ(loadsDuring([&] { readAt(*stream, 2 * kBrickSize + 10, 5); }), 1);
    moveDiskBrickAway();
    EXPECT_EQ(loadsDuring([&] {
                  for (int offset = 0; offset < kBrickSize; offset += 500)
                      EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, 2 * kBrickSize + offset, 7),
                                                         expected(2 * kBrickSize + offset, 7)));
              }),
              0);
}

TEST_F(BrickDiskStreamWithCacheTest, SeekMovesOnlyTheStreamPosition)
{
    disk->seek(123);
    stream->seek(5000);
    EXPECT_EQ(stream->getPosition(), 5000);
    EXPECT_EQ(disk->getPosition(), 123);
}

TEST_F(BrickDiskStreamWithCacheTest, SeekOutsideTheLengthThrows)
{
    stream->seek(kDiskSize);
    testsupport::expectBareIOError([&] { stream->seek(kDiskSize + 1); }, CIOError::SeekOutOfRange);
    testsupport::expectBareIOError([&] { stream->seek(-1); }, CIOError::SeekOutOfRange);
    EXPECT_EQ(stream->getPosition(), kDiskSize);
}

TEST_F(BrickDiskStreamWithCacheTest, ReadPastTheLengthCopiesWhatRemainsThenThrows)
{
    testsupport::expectReadPastTheEndCopiesWhatRemains(*stream, kFolder, content);
}

TEST_F(BrickDiskStreamWithCacheTest, ReadOfNothingDoesNothingEvenAtTheEnd)
{
    stream->seek(kDiskSize);
    char byte = 'x';
    stream->read(&byte, 0);
    stream->read(&byte, -5);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(stream->getPosition(), kDiskSize);
}

TEST_F(BrickDiskStreamWithCacheTest, ReadLaxGivesWhatRemains)
{
    stream->seek(kDiskSize - 100);
    Bytes got(300);
    EXPECT_EQ(stream->readLax(got.getData(), 300), 100);
    got.setUsed(100);
    EXPECT_TRUE(testsupport::sameBytes(got, expected(kDiskSize - 100, 100)));
    EXPECT_EQ(stream->readLax(got.getData(), 300), 0);
    EXPECT_EQ(stream->readAvailable(got.getData(), 300), 0);
}

TEST_F(BrickDiskStreamWithCacheTest, EndOfStreamFollowsThePosition)
{
    EXPECT_FALSE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 0);
    stream->seek(kDiskSize);
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_EQ(stream->isEndOfStream_NonBlocking(), 1);
    EXPECT_TRUE(stream->waitReadable(-1));
}

TEST_F(BrickDiskStreamWithCacheTest, WriteIntoACachedBrickIsVisibleInTheCacheAndOnTheDisk)
{
    readAt(*stream, 3 * kBrickSize, 10);
    const Bytes bytes = testsupport::patternBytes(100, 41);
    stream->seek(3 * kBrickSize + 50);
    stream->write(bytes.getData(), bytes.getUsed());
    EXPECT_EQ(stream->getPosition(), 3 * kBrickSize + 150);
    moveDiskBrickAway();
    EXPECT_EQ(
        loadsDuring([&] { EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, 3 * kBrickSize + 50, 100), bytes)); }), 0);
    disk->seek(3 * kBrickSize + 50);
    Bytes onDisk(100);
    disk->read(onDisk.getData(), 100);
    EXPECT_TRUE(testsupport::sameBytes(onDisk, bytes));
}

TEST_F(BrickDiskStreamWithCacheTest, WriteIntoAnUncachedBrickLeavesTheWholeBrickCached)
{
    const Bytes bytes = testsupport::patternBytes(10, 42);
    stream->seek(6 * kBrickSize + 2000);
    stream->write(bytes.getData(), bytes.getUsed());
    moveDiskBrickAway();

    Bytes want = expected(6 * kBrickSize, kBrickSize);
    std::memcpy(want.getData() + 2000, bytes.getData(), 10);
    EXPECT_EQ(
        loadsDuring([&] { EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, 6 * kBrickSize, kBrickSize), want)); }),
        0);
}

TEST_F(BrickDiskStreamWithCacheTest, WriteAcrossBricksReachesTheDiskAtOnce)
{
    const Bytes bytes = testsupport::patternBytes(3 * kBrickSize, 43);
    stream->seek(kBrickSize / 2);
    stream->write(bytes.getData(), bytes.getUsed());
    stream->flush();
    const P<CBrickDisk> reopened = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessRead);
    reopened->seek(kBrickSize / 2);
    Bytes onDisk(bytes.getUsed());
    reopened->read(onDisk.getData(), onDisk.getUsed());
    EXPECT_TRUE(testsupport::sameBytes(onDisk, bytes));
    EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, kBrickSize / 2, bytes.getUsed()), bytes));
}

TEST_F(BrickDiskStreamWithCacheTest, WriteBeyondTheLengthRaisesIt)
{
    stream->setVirtualLength(1000);
    stream->seek(900);
    const Bytes bytes = testsupport::patternBytes(300, 44);
    stream->write(bytes.getData(), bytes.getUsed());
    EXPECT_EQ(stream->getLength(), 1200);
    stream->seek(1200);
    EXPECT_EQ(stream->getPosition(), 1200);
    EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, 900, 300), bytes));
}

TEST_F(BrickDiskStreamWithCacheTest, FailedDiskWriteKeepsTheCachedCopyAndThePosition)
{
    const P<CBrickDisk> readOnly = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessRead);
    CBrickDiskStreamWithCache readOnlyStream(readOnly.get());
    readAt(readOnlyStream, 0, 1);
    const Bytes bytes = testsupport::patternBytes(8, 45);
    readOnlyStream.seek(16);
    EXPECT_THROW(readOnlyStream.write(bytes.getData(), bytes.getUsed()), CError);
    EXPECT_EQ(readOnlyStream.getPosition(), 16);
    EXPECT_TRUE(testsupport::sameBytes(readAt(readOnlyStream, 16, 8), bytes));
}

TEST_F(BrickDiskStreamWithCacheTest, FailedLoadLeavesTheBrickUncached)
{
    testsupport::LogCapture log;
    const CURI brickFile = testsupport::brickFileOf(*disk, 4);
    const P<Bytes> good = fs->getFileData(brickFile);
    testsupport::damageFile(*fs, brickFile);
    EXPECT_THROW(readAt(*stream, 4 * kBrickSize, 1), CError);
    fs->setFileData(brickFile, *good);
    EXPECT_TRUE(
        testsupport::sameBytes(readAt(*stream, 4 * kBrickSize, kBrickSize), expected(4 * kBrickSize, kBrickSize)));
}

TEST_F(BrickDiskStreamWithCacheTest, ADamagedBrickFailsOnlyWhenTheReaderReachesIt)
{
    testsupport::LogCapture log;
    testsupport::damageFile(*fs, testsupport::brickFileOf(*disk, 4));
    Bytes got(4 * kBrickSize);
    stream->read(got.getData(), 4 * kBrickSize);
    EXPECT_TRUE(testsupport::sameBytes(got, expected(0, 4 * kBrickSize)));
    EXPECT_THROW(stream->read(got.getData(), 1), CError);
    EXPECT_EQ(stream->getPosition(), 4 * kBrickSize);
    EXPECT_EQ(log.countContaining("brickIndex:4). Letting through."), 1);
}

TEST_F(BrickDiskStreamWithCacheTest, SetVirtualLengthMovesAPositionBeyondItAndSetsTheInnerLength)
{
    readAt(*stream, 5 * kBrickSize, 10);
    EXPECT_EQ(disk->getPosition(), 6 * kBrickSize);
    stream->setVirtualLength(3000);
    EXPECT_EQ(stream->getLength(), 3000);
    EXPECT_EQ(stream->getPosition(), 3000);
    // The inner stream moved the disk to its new virtual length.
    EXPECT_EQ(disk->getPosition(), 3000);
    testsupport::expectBareIOError([&] { stream->seek(3001); }, CIOError::SeekOutOfRange);
}

TEST_F(BrickDiskStreamWithCacheTest, SetVirtualLengthAboveThePositionKeepsIt)
{
    stream->seek(100);
    stream->setVirtualLength(200);
    EXPECT_EQ(stream->getPosition(), 100);
    EXPECT_EQ(stream->getLength(), 200);
    Bytes got(500);
    EXPECT_EQ(stream->readLax(got.getData(), 500), 100);
}

TEST_F(BrickDiskStreamWithCacheTest, LockRangeIsNeverSupported)
{
    try {
        stream->lockRange(0, 10, zo::IStreamBase::SharedLock);
        FAIL() << "no error thrown";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::NotSupported);
        EXPECT_EQ(e.getMessage(), "Brick disk stream does not support lockRange.");
    }
}

TEST_F(BrickDiskStreamWithCacheTest, SetLengthIsNotSupported)
{
    testsupport::expectBareIOError([&] { stream->setLength(10); }, CIOError::SetLengthNotSupported);
}

TEST_F(BrickDiskStreamWithCacheTest, CreateWriteBarrierFlushesTheDisk)
{
    const Bytes bytes = testsupport::patternBytes(100, 46);
    stream->seek(2 * kBrickSize);
    stream->writeKeepBuffer(zo::TConstBufferSlice<zo::uint8>(bytes), nullptr);
    const CURI brickFile = testsupport::brickFileOf(*disk, 2);
    const P<Bytes> before = fs->getFileData(brickFile);
    const P<zo::IWriteBarrier> barrier = stream->createWriteBarrier(nullptr);
    EXPECT_TRUE(barrier->isPassed());
    EXPECT_FALSE(testsupport::sameBytes(*before, *fs->getFileData(brickFile)));
}

TEST_F(BrickDiskStreamWithCacheTest, CopiesKeepTheirOwnPositionsAndShareTheCache)
{
    CBrickDiskStreamWithCache copy(*stream);
    readAt(*stream, 7 * kBrickSize, 1);
    copy.seek(100);
    EXPECT_EQ(stream->getPosition(), 7 * kBrickSize + 1);
    EXPECT_EQ(copy.getPosition(), 100);

    const Bytes bytes = testsupport::patternBytes(20, 47);
    copy.seek(7 * kBrickSize + 30);
    copy.write(bytes.getData(), bytes.getUsed());
    moveDiskBrickAway();
    EXPECT_EQ(
        loadsDuring([&] { EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, 7 * kBrickSize + 30, 20), bytes)); }), 0);
}

TEST_F(BrickDiskStreamWithCacheTest, AfterCloseCachedBricksStillReadAndTheRestNeedsTheDisk)
{
    const int references = disk->getRefCount();
    readAt(*stream, 0, 1);
    stream->close();
    EXPECT_EQ(disk->getRefCount(), references - 1);
    stream->close();

    EXPECT_EQ(stream->getLength(), kDiskSize);
    EXPECT_EQ(stream->getURI(), kFolder);
    EXPECT_TRUE(testsupport::sameBytes(readAt(*stream, 100, 50), expected(100, 50)));
    EXPECT_EQ(stream->getPosition(), 150);

    char byte = 0;
    testsupport::expectBareIOError([&] { readAt(*stream, 5 * kBrickSize, 1); }, CIOError::StreamClosed);
    testsupport::expectBareIOError([&] { stream->write(&byte, 1); }, CIOError::StreamClosed);
    testsupport::expectBareIOError([&] { stream->flush(); }, CIOError::StreamClosed);
    EXPECT_THROW(stream->lockRange(0, 1, zo::IStreamBase::SharedLock), CFileSystemError);
}

TEST_F(BrickDiskStreamWithCacheTest, ReadsAndWritesAtRandomMatchAPlainCopy)
{
    std::mt19937 random(77);
    Bytes model = content;
    for (int step = 0; step < 400; ++step) {
        const int64 position = std::uniform_int_distribution<int64>(0, kDiskSize - 1)(random);
        const int count = static_cast<int>(
            std::min<int64>(std::uniform_int_distribution<int>(1, 2 * kBrickSize)(random), kDiskSize - position));
        if (random() % 3 == 0) {
            const Bytes bytes = testsupport::patternBytes(count, static_cast<unsigned>(step));
            stream->seek(position);
            stream->write(bytes.getData(), count);
            std::memcpy(model.getData() + position, bytes.getData(), static_cast<size_t>(count));
        } else {
            ASSERT_TRUE(
                testsupport::sameBytes(readAt(*stream, position, count), testsupport::sliceOf(model, position, count)))
                << "step " << step;
        }
    }
    stream->flush();
    const P<CBrickDisk> reopened = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessRead);
    Bytes onDisk(static_cast<int>(kDiskSize));
    reopened->read(onDisk.getData(), onDisk.getUsed());
    EXPECT_TRUE(testsupport::sameBytes(onDisk, model));
}

// ---- Cache capacity and recency ---------------------------------------------
//
// These disks are never written: every brick reads as zeros, and every load
// of a brick opens (tries to open) its file once.

class BrickDiskStreamCacheCapacityTest : public ::testing::Test {
protected:
    BrickDiskStreamCacheCapacityTest() : fs(new CMemoryFileSystem(2)) {}

    void openEmptyDisk(int brickSize, int brickCount)
    {
        testsupport::createStreamTestDisk(fs.get(), kFolder, static_cast<int64>(brickSize) * brickCount, brickSize, 0,
                                          nullptr);
        disk = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessRead);
        stream = new CBrickDiskStreamWithCache(disk.get());
        brickBytes = brickSize;
    }

    // Reads one byte of `brickIndex` and tells whether that loaded the brick.
    bool touchLoads(int64 brickIndex)
    {
        const int before = fs->getOperationCount(Op::OpenStream);
        stream->seek(brickIndex * brickBytes + 1);
        char byte = 1;
        stream->read(&byte, 1);
        EXPECT_EQ(byte, 0);
        return fs->getOperationCount(Op::OpenStream) != before;
    }

    // Reads bricks 0 ... capacity in order, then checks that brick 1 is still
    // cached and brick 0 was evicted.
    void expectCapacity(int brickSize, int capacity)
    {
        openEmptyDisk(brickSize, capacity + 2);
        for (int64 index = 0; index <= capacity; ++index)
            EXPECT_TRUE(touchLoads(index)) << "brick " << index;
        EXPECT_FALSE(touchLoads(1));
        EXPECT_TRUE(touchLoads(0));
    }

    P<CMemoryFileSystem> fs;
    P<CBrickDisk> disk;
    P<CBrickDiskStreamWithCache> stream;
    int brickBytes = 0;
};

TEST_F(BrickDiskStreamCacheCapacityTest, FourMiBBricksGiveTheMinimumOfTen)
{
    expectCapacity(4 << 20, 10);
}

TEST_F(BrickDiskStreamCacheCapacityTest, OneMiBBricksGiveThirtyTwo)
{
    expectCapacity(1 << 20, 32);
}

TEST_F(BrickDiskStreamCacheCapacityTest, SixtyFourKiBBricksGiveFiveHundredTwelve)
{
    expectCapacity(64 << 10, 512);
}

TEST_F(BrickDiskStreamCacheCapacityTest, AReadKeepsABrickFromBeingEvicted)
{
    openEmptyDisk(4 << 20, 12);
    for (int64 index = 0; index < 10; ++index)
        touchLoads(index);
    EXPECT_FALSE(touchLoads(0));
    EXPECT_TRUE(touchLoads(10));
    // Brick 1 was the least recently used one, not brick 0.
    EXPECT_FALSE(touchLoads(0));
    EXPECT_TRUE(touchLoads(1));
}

TEST_F(BrickDiskStreamCacheCapacityTest, AWriteHitKeepsABrickFromBeingEvicted)
{
    testsupport::createStreamTestDisk(fs.get(), kFolder, 12LL * (4 << 20), 4 << 20, 0, nullptr);
    disk = testsupport::openStreamTestDisk(fs.get(), kFolder, IIOStream::AccessReadWrite);
    stream = new CBrickDiskStreamWithCache(disk.get());
    brickBytes = 4 << 20;
    for (int64 index = 0; index < 10; ++index)
        touchLoads(index);
    stream->seek(0);
    const char zero = 0;
    stream->write(&zero, 1);
    EXPECT_TRUE(touchLoads(10));
    EXPECT_FALSE(touchLoads(0));
    EXPECT_TRUE(touchLoads(1));
}

TEST(BrickDiskStreamWithCacheOnLocalFilesTest, ReadsBackWhatWasWrittenThroughIt)
{
    Bytes written, read;
    testsupport::roundTripOnLocalFiles(
        kDiskSize, kBrickSize, 3000, 32,
        [](CBrickDisk* disk) { return P<IIOStream>(new CBrickDiskStreamWithCache(disk)); }, written, read);
    EXPECT_TRUE(testsupport::sameBytes(read, written));
}

} // namespace
