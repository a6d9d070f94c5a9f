// The export stream and the block device read ahead through the same engine:
// both load bricks ahead of a reader going through the disk in order, and
// each brick is loaded once however many readers want it.
#include "brick/serving/BrickDiskBlockDevice.h"
#include "brick/streams/BrickDiskStreamWithParallelReadAhead.h"

#include "support/BrickTestHelpers.h"
#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskBlockDevice;
using brick::CBrickDiskStreamWithParallelReadAhead;
using testsupport::Bytes;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using Op = CMemoryFileSystem::Operation;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int kBrickCount = 12;
constexpr int64 kDiskSize = static_cast<int64>(kBrickCount) * kBrickSize;
// A cache this large holds the whole disk and reads 8 bricks ahead.
constexpr int64 kCacheBytes = 64 * kBrickSize;
const char* const kFolder = "/disks/a";
const char* const kPassword = "pw";

class ReadAheadEngineTest : public ::testing::Test {
protected:
    // A disk whose every brick is stored, each with other bytes.
    void SetUp() override
    {
        testsupport::createDisk(fs.get(), CURI(kFolder), kDiskSize, kPassword);
        const P<CBrickDiskBlockDevice> writer = openDevice();
        writer->write(content.getData(), 0, content.getUsed());
        writer->flush();
    }

    P<CBrickDisk> openDisk(IIOStream::Access access = IIOStream::AccessReadWrite)
    {
        return testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, access);
    }

    P<CBrickDiskBlockDevice> openDevice()
    {
        return P<CBrickDiskBlockDevice>(new CBrickDiskBlockDevice(openDisk().get(), kCacheBytes));
    }

    // Waits until `count` brick files have been opened since the counters
    // were reset; false when that does not happen within a generous time.
    bool waitForOpenedFiles(int count)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (fs->getOperationCount(Op::OpenStream) < count) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    // How often each brick file was opened since the counters were reset.
    std::vector<int64> opensPerBrick()
    {
        const std::vector<std::string> log = testsupport::toStrings(fs->getOperationLog());
        const P<CBrickDisk> disk = openDisk(IIOStream::AccessRead);
        std::vector<int64> opens;
        for (int64 index = 0; index < kBrickCount; ++index) {
            const std::string file = testsupport::brickFileOf(*disk, CURI(kFolder), index).toString(true).toUTF8();
            opens.push_back(std::count(log.begin(), log.end(), "openStream " + file));
        }
        return opens;
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem(2)};
    const Bytes content = testsupport::patternBytes(static_cast<int>(kDiskSize), 33);
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
