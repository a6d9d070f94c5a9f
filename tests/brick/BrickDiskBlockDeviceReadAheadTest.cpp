// Reading ahead of readers that go through a block device in order.
#include "brick/serving/BrickDiskBlockDevice.h"

#include "support/BlockDeviceTestDisk.h"
#include "support/BrickTestHelpers.h"
#include "support/DiskTestHelpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using brick::CBrickDiskBlockDevice;
using testsupport::Bytes;
using zo::CError;
using zo::CFileSystemError;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using Op = zo::CMemoryFileSystem::Operation;

constexpr int kBricksReadAhead = 8;

class BrickDiskBlockDeviceReadAheadTest : public testsupport::StoredBlockDeviceTestDisk {
protected:
    BrickDiskBlockDeviceReadAheadTest() : StoredBlockDeviceTestDisk(21) {}

    // Reads bricks 0, 1 and 2 one by one: a run in order, which makes the
    // device read bricks 3 to 10 ahead.
    void readFirstBricksInOrder(CBrickDiskBlockDevice& device)
    {
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(readBricks(device, i, 1), bricksOf(content, i, 1)) << "brick " << i;
    }
};

TEST_F(BrickDiskBlockDeviceReadAheadTest, ReadsInOrderLoadTheFollowingBricksAhead)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    readFirstBricksInOrder(*device);
    ASSERT_TRUE(waitForOpenedFiles(3 + kBricksReadAhead));

    // The bricks read ahead come from the cache, with the bytes stored:
    // each file was opened once. (Reading them in order may start the loads
    // of later bricks meanwhile.)
    EXPECT_EQ(readBricks(*device, 3, kBricksReadAhead), bricksOf(content, 3, kBricksReadAhead));
    const std::vector<int64> opens = opensPerBrick();
    for (int64 index = 0; index < 3 + kBricksReadAhead; ++index)
        EXPECT_EQ(opens[static_cast<size_t>(index)], 1) << "brick " << index;
}

TEST_F(BrickDiskBlockDeviceReadAheadTest, ReadingInSmallPiecesInOrderReadsAheadToo)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    const int piece = kBrickSize / 3;
    Bytes read(static_cast<int>(kDiskSize));
    const auto readPieces = [&](int64 from, int64 to) {
        for (int64 at = from; at < to; at += piece) {
            const int size = static_cast<int>(std::min<int64>(piece, to - at));
            device->read(read.getData() + at, at, size);
        }
    };
    readPieces(0, 3 * kBrickSize);
    ASSERT_TRUE(waitForOpenedFiles(3 + kBricksReadAhead));
    readPieces(3 * kBrickSize, kDiskSize);

    EXPECT_EQ(read, content);
    // Every brick was loaded once, by the reader or ahead of it.
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), kBrickCount);
}

TEST_F(BrickDiskBlockDeviceReadAheadTest, WritesToBricksReadAheadAreReadAndStored)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    readFirstBricksInOrder(*device);
    ASSERT_TRUE(waitForOpenedFiles(3 + kBricksReadAhead));

    const Bytes part = testsupport::patternBytes(kBrickSize / 2, 5);
    const Bytes whole = testsupport::patternBytes(kBrickSize, 6);
    device->write(part.getData(), 5 * kBrickSize + 100, part.getUsed());
    device->write(whole.getData(), 7 * kBrickSize, whole.getUsed());
    Bytes expected = testsupport::overlay(content, 5 * kBrickSize + 100, part);
    expected = testsupport::overlay(expected, 7 * kBrickSize, whole);

    EXPECT_EQ(readBricks(*device, 0, kBrickCount), expected);
    device->flush();
    EXPECT_EQ(testsupport::readWholeDisk(*openDisk(IIOStream::AccessRead)), expected);
}

TEST_F(BrickDiskBlockDeviceReadAheadTest, WritesRacingTheReadAheadOfTheirBrickWin)
{
    for (unsigned round = 0; round < 20; ++round) {
        const P<CBrickDiskBlockDevice> device = openDevice();
        readFirstBricksInOrder(*device);
        // Bricks 3 to 10 are being read ahead while they are written.
        Bytes expected = content;
        for (int i = 3; i < 3 + kBricksReadAhead; ++i) {
            const Bytes part = testsupport::patternBytes(kBrickSize / 4, round * 100 + static_cast<unsigned>(i));
            const int64 at = static_cast<int64>(i) * kBrickSize + kBrickSize / 2;
            device->write(part.getData(), at, part.getUsed());
            expected = testsupport::overlay(expected, at, part);
        }
        ASSERT_EQ(readBricks(*device, 0, kBrickCount), expected) << "round " << round;
    }
}

TEST_F(BrickDiskBlockDeviceReadAheadTest, ABrickThatFailsToLoadAheadFailsOnlyWhenTheReaderGetsThere)
{
    const CURI failing = brickFile(5);
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    fs->failStreamReads(failing, CFileSystemError::AccessDenied);
    readFirstBricksInOrder(*device);
    ASSERT_TRUE(waitForOpenedFiles(3 + kBricksReadAhead));

    EXPECT_EQ(readBricks(*device, 3, 2), bricksOf(content, 3, 2));
    Bytes buffer(kBrickSize);
    EXPECT_THROW(device->read(buffer.getData(), 5 * kBrickSize, kBrickSize), CError);

    // Once the file reads again, so does the brick: the failure was not kept.
    fs->clearFailures();
    EXPECT_EQ(readBricks(*device, 5, 1), bricksOf(content, 5, 1));
}

} // namespace
