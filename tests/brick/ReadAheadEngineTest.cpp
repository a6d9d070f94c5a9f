// The export stream and the block device read ahead through the same engine:
// both load bricks ahead of a reader going through the disk in order, and
// each brick is loaded once however many readers want it.
#include "brick/serving/BrickDiskBlockDevice.h"
#include "brick/streams/BrickDiskStreamWithParallelReadAhead.h"

#include "support/BlockDeviceTestDisk.h"
#include "support/BrickTestHelpers.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskBlockDevice;
using brick::CBrickDiskStreamWithParallelReadAhead;
using testsupport::Bytes;
using zo::IIOStream;
using zo::int64;
using zo::P;

class ReadAheadEngineTest : public testsupport::StoredBlockDeviceTestDisk {
protected:
    ReadAheadEngineTest() : StoredBlockDeviceTestDisk(33) {}
};

TEST_F(ReadAheadEngineTest, ExportStreamLoadsBricksAheadOfItsReader)
{
    const P<CBrickDisk> disk = openDisk(IIOStream::AccessRead);
    fs->resetCounters();
    const P<CBrickDiskStreamWithParallelReadAhead> stream(new CBrickDiskStreamWithParallelReadAhead(disk.get(), 2, 4));
    Bytes read(static_cast<int>(kDiskSize));
    stream->read(read.getData(), kBrickSize);
    // Brick 0, and 4 bricks ahead of the reader, who is past brick 0.
    ASSERT_TRUE(waitForOpenedFiles(5));

    stream->read(read.getData() + kBrickSize, static_cast<int>(kDiskSize) - kBrickSize);
    EXPECT_EQ(read, content);
    EXPECT_EQ(opensPerBrick(), std::vector<int64>(kBrickCount, 1));
}

TEST_F(ReadAheadEngineTest, BlockDeviceLoadsBricksAheadOfARunOfReads)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    Bytes read(static_cast<int>(kDiskSize));
    for (int64 index = 0; index < 3; ++index)
        device->read(read.getData() + index * kBrickSize, index * kBrickSize, kBrickSize);
    // Bricks 0 to 2, and the 8 after the run.
    ASSERT_TRUE(waitForOpenedFiles(11));

    device->read(read.getData() + 3 * kBrickSize, 3 * kBrickSize, kDiskSize - 3 * kBrickSize);
    EXPECT_EQ(read, content);
    EXPECT_EQ(opensPerBrick(), std::vector<int64>(kBrickCount, 1));
}

TEST_F(ReadAheadEngineTest, BricksTwoReadersOfTheBlockDeviceWantAreLoadedOnce)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    std::vector<Bytes> reads(2, Bytes(static_cast<int>(kDiskSize)));
    std::vector<std::thread> readers;
    for (Bytes& read : reads) {
        readers.emplace_back([&device, &read] {
            for (int64 index = 0; index < kBrickCount; ++index)
                device->read(read.getData() + index * kBrickSize, index * kBrickSize, kBrickSize);
        });
    }
    for (std::thread& reader : readers)
        reader.join();

    EXPECT_EQ(reads[0], content);
    EXPECT_EQ(reads[1], content);
    // Both runs wanted the same bricks ahead, and the readers themselves
    // wanted every brick: each was loaded by one of them, once.
    EXPECT_EQ(opensPerBrick(), std::vector<int64>(kBrickCount, 1));
}

} // namespace
