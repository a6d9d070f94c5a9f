// Reading ahead of readers that go through a block device in order.
#include "brick/serving/BrickDiskBlockDevice.h"

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
using testsupport::Bytes;
using zo::CError;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using Op = CMemoryFileSystem::Operation;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int kBrickCount = 12;
constexpr int64 kDiskSize = static_cast<int64>(kBrickCount) * kBrickSize;
// A cache this large reads 8 bricks ahead.
constexpr int64 kCacheBytes = 64 * kBrickSize;
constexpr int kBricksReadAhead = 8;
const char* const kFolder = "/disks/a";
const char* const kPassword = "pw";

class BrickDiskBlockDeviceReadAheadTest : public ::testing::Test {
protected:
    // A disk whose every brick holds `content`, stored.
    void SetUp() override
    {
        testsupport::createDisk(fs.get(), CURI(kFolder), kDiskSize, kPassword);
        const P<CBrickDiskBlockDevice> writer = openDevice();
        writer->write(content.getData(), 0, content.getUsed());
        writer->flush();
    }

    P<CBrickDiskBlockDevice> openDevice()
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(kFolder), kPassword);
        return P<CBrickDiskBlockDevice>(new CBrickDiskBlockDevice(disk.get(), kCacheBytes));
    }

    Bytes readBricks(CBrickDiskBlockDevice& device, int first, int count)
    {
        Bytes bytes(count * kBrickSize);
        device.read(bytes.getData(), static_cast<int64>(first) * kBrickSize, bytes.getUsed());
        return bytes;
    }

    Bytes contentOfBricks(const Bytes& bytes, int first, int count)
    {
        return Bytes(bytes.getData() + static_cast<int64>(first) * kBrickSize, count * kBrickSize);
    }

    // Reads bricks 0, 1 and 2 one by one: a run in order, which makes the
    // device read bricks 3 to 10 ahead.
    void readFirstBricksInOrder(CBrickDiskBlockDevice& device)
    {
        for (int i = 0; i < 3; ++i)
            ASSERT_EQ(readBricks(device, i, 1), contentOfBricks(content, i, 1)) << "brick " << i;
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

    CURI brickFile(int64 index)
    {
        return testsupport::brickFileOf(
            *testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, IIOStream::AccessRead), CURI(kFolder), index);
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem(2)};
    const Bytes content = testsupport::patternBytes(static_cast<int>(kDiskSize), 21);
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
    EXPECT_EQ(readBricks(*device, 3, kBricksReadAhead), contentOfBricks(content, 3, kBricksReadAhead));
    const std::vector<std::string> log = testsupport::toStrings(fs->getOperationLog());
    const auto disk = testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, IIOStream::AccessRead);
    for (int64 index = 0; index < 3 + kBricksReadAhead; ++index) {
        const std::string file = testsupport::brickFileOf(*disk, CURI(kFolder), index).toString(true).toUTF8();
        EXPECT_EQ(std::count(log.begin(), log.end(), "openStream " + file), 1) << "brick " << index;
    }
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
    const P<CBrickDisk> stored = testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, IIOStream::AccessRead);
    EXPECT_EQ(testsupport::readWholeDisk(*stored), expected);
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

    EXPECT_EQ(readBricks(*device, 3, 2), contentOfBricks(content, 3, 2));
    Bytes buffer(kBrickSize);
    EXPECT_THROW(device->read(buffer.getData(), 5 * kBrickSize, kBrickSize), CError);

    // Once the file reads again, so does the brick: the failure was not kept.
    fs->clearFailures();
    EXPECT_EQ(readBricks(*device, 5, 1), contentOfBricks(content, 5, 1));
}

} // namespace
