#include "brick/serving/BrickDiskBlockDevice.h"

#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskBlockDevice;
using testsupport::Bytes;
using testsupport::errorOf;
using testsupport::messageOf;
using zo::CError;
using zo::CFileSystemError;
using zo::CIOError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::IIOStream;
using zo::int64;
using zo::P;
using Kind = CBrickDiskBlockDevice::ExtentKind;
using Op = CMemoryFileSystem::Operation;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int kBrickCount = 12;
constexpr int64 kDiskSize = static_cast<int64>(kBrickCount) * kBrickSize;
const char* const kFolder = "/disks/a";
const char* const kPassword = "pw";

class BrickDiskBlockDeviceTest : public ::testing::Test {
protected:
    void SetUp() override { testsupport::createDisk(fs.get(), CURI(kFolder), kDiskSize, kPassword); }

    P<CBrickDiskBlockDevice> openDevice(int64 cacheBytes = 64 * kBrickSize,
                                        IIOStream::Access access = IIOStream::AccessReadWrite)
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, access);
        return P<CBrickDiskBlockDevice>(new CBrickDiskBlockDevice(disk.get(), cacheBytes));
    }

    // What a fresh opening of the disk reads, bypassing the device.
    Bytes storedBytes(int64 position, int size)
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, IIOStream::AccessRead);
        return testsupport::readAt(*disk, position, size);
    }

    Bytes readDevice(CBrickDiskBlockDevice& device, int64 position, int size)
    {
        Bytes bytes(size);
        device.read(bytes.getData(), position, size);
        return bytes;
    }

    bool brickFileExists(int64 index)
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(kFolder), kPassword, IIOStream::AccessRead);
        return fs->fileExists(testsupport::brickFileOf(*disk, CURI(kFolder), index));
    }

    P<CMemoryFileSystem> fs{new CMemoryFileSystem(2)};
};

TEST_F(BrickDiskBlockDeviceTest, ReadsWhatWasWrittenAcrossBrickBorders)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    const Bytes data = testsupport::patternBytes(3 * kBrickSize, 7);
    const int64 at = kBrickSize / 2;
    device->write(data.getData(), at, data.getUsed());

    EXPECT_EQ(readDevice(*device, at, data.getUsed()), data);
    EXPECT_EQ(readDevice(*device, 0, static_cast<int>(at)), testsupport::zeroBytes(static_cast<int>(at)));
}

TEST_F(BrickDiskBlockDeviceTest, FlushStoresEverythingWrittenBefore)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    const Bytes data = testsupport::patternBytes(5 * kBrickSize + 100, 3);
    device->write(data.getData(), 300, data.getUsed());
    device->flush();

    EXPECT_EQ(storedBytes(300, data.getUsed()), data);
}

TEST_F(BrickDiskBlockDeviceTest, EvictedBricksAreStoredAndReadBackBeforeAnyFlush)
{
    // The smallest cache holds 4 bricks; writing all 12 evicts most of them.
    const P<CBrickDiskBlockDevice> device = openDevice(0);
    const Bytes data = testsupport::patternBytes(static_cast<int>(kDiskSize), 11);
    for (int i = 0; i < kBrickCount; ++i)
        device->write(data.getData() + static_cast<int64>(i) * kBrickSize, static_cast<int64>(i) * kBrickSize,
                      kBrickSize);

    EXPECT_EQ(readDevice(*device, 0, static_cast<int>(kDiskSize)), data);
    EXPECT_GT(fs->getOperationCount(Op::StoreFile), 0);
    device->flush();
    EXPECT_EQ(storedBytes(0, static_cast<int>(kDiskSize)), data);
}

TEST_F(BrickDiskBlockDeviceTest, RewritingABrickWhileItsStoreRunsKeepsTheNewestBytes)
{
    fs->setCompletionDelay(5, 20);
    const P<CBrickDiskBlockDevice> device = openDevice(0);
    for (unsigned round = 0; round < 4; ++round) {
        for (int i = 0; i < kBrickCount; ++i) {
            const Bytes bytes = testsupport::patternBytes(kBrickSize / 2, round * 100 + static_cast<unsigned>(i));
            device->write(bytes.getData(), static_cast<int64>(i) * kBrickSize + 10, bytes.getUsed());
        }
    }
    device->flush();
    for (int i = 0; i < kBrickCount; ++i)
        EXPECT_EQ(storedBytes(static_cast<int64>(i) * kBrickSize + 10, kBrickSize / 2),
                  testsupport::patternBytes(kBrickSize / 2, 300 + static_cast<unsigned>(i)))
            << "brick " << i;
}

TEST_F(BrickDiskBlockDeviceTest, WritesWhileAFlushStoresLeaveItsBytesAloneAndReachTheNextFlush)
{
    fs->setCompletionDelay(100, 150);
    const P<CBrickDiskBlockDevice> device = openDevice();
    const Bytes flushed = testsupport::patternBytes(4 * kBrickSize, 5);
    device->write(flushed.getData(), 0, flushed.getUsed());
    const int storesBefore = fs->getOperationCount(Op::StoreFile);

    std::thread flusher([&device] { device->flush(); });
    // Once the first store has begun, the flush has taken every brick it
    // stores; the cache still holds the same bricks, which change now.
    while (fs->getOperationCount(Op::StoreFile) == storesBefore)
        std::this_thread::yield();
    const Bytes change = testsupport::patternBytes(100, 6);
    Bytes later = flushed;
    for (int i = 0; i < 4; ++i) {
        const int64 at = static_cast<int64>(i) * kBrickSize + 50;
        device->write(change.getData(), at, change.getUsed());
        std::memcpy(later.getData() + at, change.getData(), static_cast<size_t>(change.getUsed()));
    }
    flusher.join();
    fs->setCompletionDelay(0, 0);

    EXPECT_EQ(storedBytes(0, flushed.getUsed()), flushed);
    EXPECT_EQ(readDevice(*device, 0, later.getUsed()), later);
    device->flush();
    EXPECT_EQ(storedBytes(0, later.getUsed()), later);
}

TEST_F(BrickDiskBlockDeviceTest, ABrickLoadedAgainAfterItWasStoredReadsItsNewBytes)
{
    const P<CBrickDiskBlockDevice> device = openDevice(0);
    const Bytes old = testsupport::patternBytes(kBrickSize, 1);
    device->write(old.getData(), 0, kBrickSize);
    device->flush();
    const Bytes whole = testsupport::patternBytes(kBrickSize, 2);
    for (int i = 1; i <= 5; ++i)
        device->write(whole.getData(), static_cast<int64>(i) * kBrickSize, kBrickSize);
    // Brick 0 is loaded, changed, then evicted by whole-brick writes that
    // load nothing, and stored.
    EXPECT_EQ(readDevice(*device, 0, 10), Bytes(old.getData(), 10));
    const Bytes change = testsupport::patternBytes(10, 3);
    device->write(change.getData(), 0, 10);
    for (int i = 6; i <= 10; ++i)
        device->write(whole.getData(), static_cast<int64>(i) * kBrickSize, kBrickSize);
    device->flush();

    EXPECT_EQ(readDevice(*device, 0, 10), change);
}

TEST_F(BrickDiskBlockDeviceTest, ZeroOfWholeBricksLeavesNoFilesAndZerosTheEdges)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    const Bytes data = testsupport::patternBytes(static_cast<int>(kDiskSize), 5);
    device->write(data.getData(), 0, data.getUsed());
    device->flush();

    // From the middle of brick 1 to the middle of brick 4: bricks 2 and 3 whole.
    const int64 from = kBrickSize + kBrickSize / 2;
    const int64 size = 3 * kBrickSize;
    device->zero(from, size);
    device->flush();

    EXPECT_TRUE(brickFileExists(1));
    EXPECT_FALSE(brickFileExists(2));
    EXPECT_FALSE(brickFileExists(3));
    EXPECT_TRUE(brickFileExists(4));
    Bytes expected = data;
    std::memset(expected.getData() + from, 0, static_cast<size_t>(size));
    EXPECT_EQ(storedBytes(0, static_cast<int>(kDiskSize)), expected);
    EXPECT_EQ(readDevice(*device, 0, static_cast<int>(kDiskSize)), expected);
}

TEST_F(BrickDiskBlockDeviceTest, ZeroOfAWholeBrickLoadsNothing)
{
    {
        const P<CBrickDiskBlockDevice> device = openDevice();
        const Bytes data = testsupport::patternBytes(kBrickSize, 9);
        device->write(data.getData(), kBrickSize, kBrickSize);
    }
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    device->zero(kBrickSize, kBrickSize);
    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), 0);
}

TEST_F(BrickDiskBlockDeviceTest, MapExtentsTellsHolesWrittenZerosAndData)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    const auto whole = device->mapExtents(0, kDiskSize);
    ASSERT_EQ(whole.size(), 1u);
    EXPECT_EQ(whole[0].offset, 0);
    EXPECT_EQ(whole[0].length, kDiskSize);
    EXPECT_EQ(whole[0].kind, Kind::Hole);

    const Bytes data = testsupport::patternBytes(2 * kBrickSize, 1);
    device->write(data.getData(), 2 * kBrickSize, data.getUsed());
    device->zero(4 * kBrickSize, kBrickSize);
    auto extents = device->mapExtents(100, kDiskSize);
    ASSERT_EQ(extents.size(), 4u);
    EXPECT_EQ(extents[0].offset, 100);
    EXPECT_EQ(extents[0].length, 2 * kBrickSize - 100);
    EXPECT_EQ(extents[0].kind, Kind::Hole);
    EXPECT_EQ(extents[1].offset, 2 * kBrickSize);
    EXPECT_EQ(extents[1].length, 2 * kBrickSize);
    EXPECT_EQ(extents[1].kind, Kind::Data);
    EXPECT_EQ(extents[2].kind, Kind::Zero);
    EXPECT_EQ(extents[3].offset, 5 * kBrickSize);
    EXPECT_EQ(extents[3].length, kDiskSize - 5 * kBrickSize);
    EXPECT_EQ(extents[3].kind, Kind::Hole);

    // Stored, the zeroed brick is no file: a hole again.
    device->flush();
    extents = device->mapExtents(0, kDiskSize);
    ASSERT_EQ(extents.size(), 3u);
    EXPECT_EQ(extents[1].kind, Kind::Data);
    EXPECT_EQ(extents[2].offset, 4 * kBrickSize);
    EXPECT_EQ(extents[2].kind, Kind::Hole);
}

TEST_F(BrickDiskBlockDeviceTest, MapExtentsSeesBricksOfParentDisks)
{
    {
        const P<CBrickDiskBlockDevice> device = openDevice();
        const Bytes data = testsupport::patternBytes(kBrickSize, 1);
        device->write(data.getData(), 3 * kBrickSize, kBrickSize);
    }
    const CURI snapshot("/disks/snap");
    CBrickDisk::createChild(fs.get(), snapshot, CURI(kFolder), CBrickDisk::linkedChild);
    const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), snapshot, kPassword, IIOStream::AccessRead);
    const P<CBrickDiskBlockDevice> device(new CBrickDiskBlockDevice(disk.get(), 0));

    const auto extents = device->mapExtents(0, kDiskSize);
    ASSERT_EQ(extents.size(), 3u);
    EXPECT_EQ(extents[1].offset, 3 * kBrickSize);
    EXPECT_EQ(extents[1].length, kBrickSize);
    EXPECT_EQ(extents[1].kind, Kind::Data);
}

TEST_F(BrickDiskBlockDeviceTest, ReadOnlyDeviceRefusesWritesAndZeros)
{
    const P<CBrickDiskBlockDevice> device = openDevice(0, IIOStream::AccessRead);
    EXPECT_FALSE(device->isWritable());
    const Bytes data = testsupport::patternBytes(10, 1);
    auto error = errorOf<CIOError>([&] { device->write(data.getData(), 0, data.getUsed()); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getIOCode(), CIOError::ReadOnly);
    error = errorOf<CIOError>([&] { device->zero(0, kBrickSize); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getIOCode(), CIOError::ReadOnly);
}

TEST_F(BrickDiskBlockDeviceTest, RangesPastTheEndAreRefusedBeforeAnyByteMoves)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    const Bytes data = testsupport::patternBytes(2 * kBrickSize, 1);
    auto error = errorOf<CIOError>([&] { device->write(data.getData(), kDiskSize - kBrickSize, data.getUsed()); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getIOCode(), CIOError::WriteBeyondSize);
    EXPECT_EQ(readDevice(*device, kDiskSize - kBrickSize, kBrickSize), testsupport::zeroBytes(kBrickSize));

    Bytes buffer(2 * kBrickSize);
    error = errorOf<CIOError>([&] { device->read(buffer.getData(), kDiskSize - kBrickSize, buffer.getUsed()); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getIOCode(), CIOError::EndOfData);
    error = errorOf<CIOError>([&] { device->mapExtents(kDiskSize, 1); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getIOCode(), CIOError::EndOfData);
}

TEST_F(BrickDiskBlockDeviceTest, FailedLoadIsThrownAndTheBrickIsLoadedAgainLater)
{
    {
        const P<CBrickDiskBlockDevice> device = openDevice();
        const Bytes data = testsupport::patternBytes(kBrickSize, 4);
        device->write(data.getData(), 0, kBrickSize);
    }
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->failStreamReads(CURI("/disks/a/bricks"), CFileSystemError::AccessDenied);
    Bytes buffer(10);
    EXPECT_THROW(device->read(buffer.getData(), 0, 10), CError);
    EXPECT_THROW(device->write(buffer.getData(), 5, 10), CError);

    fs->clearFailures();
    EXPECT_EQ(readDevice(*device, 0, kBrickSize), testsupport::patternBytes(kBrickSize, 4));
}

TEST_F(BrickDiskBlockDeviceTest, ManyThreadsAskingForOneBrickLoadItOnce)
{
    {
        const P<CBrickDiskBlockDevice> device = openDevice();
        const Bytes data = testsupport::patternBytes(kBrickSize, 8);
        device->write(data.getData(), 5 * kBrickSize, kBrickSize);
    }
    fs->setCompletionDelay(0, 0);
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    std::vector<std::thread> threads;
    std::vector<Bytes> results(8, Bytes(100));
    for (size_t t = 0; t < results.size(); ++t)
        threads.emplace_back([&, t] { device->read(results[t].getData(), 5 * kBrickSize + 50, 100); });
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(fs->getOperationCount(Op::OpenStream), 1);
    const Bytes expected = testsupport::patternBytes(kBrickSize, 8);
    for (const Bytes& result : results)
        EXPECT_EQ(0, std::memcmp(result.getData(), expected.getData() + 50, 100));
}

TEST_F(BrickDiskBlockDeviceTest, ReplacingTheDiskForASnapshotFreezesWhatWasWrittenBefore)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    const Bytes before = testsupport::patternBytes(2 * kBrickSize, 1);
    device->write(before.getData(), kBrickSize, before.getUsed());
    const CURI snapshot("/disks/snap");
    device->pauseAndReplaceDisk([&](const P<CBrickDisk>& current) {
        CBrickDisk::createChild(fs.get(), snapshot, current->getDiskFolder(), CBrickDisk::linkedChild);
        return testsupport::openDisk(fs.get(), CURI(kFolder), kPassword);
    });
    const Bytes after = testsupport::patternBytes(3 * kBrickSize, 2);
    device->write(after.getData(), 0, after.getUsed());
    device->flush();

    const P<CBrickDisk> frozen = testsupport::openDisk(fs.get(), snapshot, kPassword, IIOStream::AccessRead);
    EXPECT_EQ(testsupport::readAt(*frozen, kBrickSize, before.getUsed()), before);
    EXPECT_EQ(testsupport::readAt(*frozen, 0, kBrickSize), testsupport::zeroBytes(kBrickSize));
    EXPECT_EQ(storedBytes(0, after.getUsed()), after);
}

TEST_F(BrickDiskBlockDeviceTest, RewritingTheBytesTheDiskHoldsStoresNothing)
{
    const Bytes data = testsupport::patternBytes(static_cast<int>(kDiskSize), 8);
    {
        const P<CBrickDiskBlockDevice> device = openDevice();
        device->write(data.getData(), 0, kDiskSize);
    }
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    // Whole bricks, which are not loaded before they are written, and parts
    // of bricks, which are.
    device->write(data.getData(), 0, 6 * kBrickSize);
    device->write(data.getData() + 6 * kBrickSize + 100, 6 * kBrickSize + 100, 3 * kBrickSize);
    device->flush();
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 0);
    EXPECT_EQ(fs->getOperationCount(Op::DeleteFile), 0);
    EXPECT_EQ(storedBytes(0, static_cast<int>(kDiskSize)), data);
}

TEST_F(BrickDiskBlockDeviceTest, ZerosWrittenWhereNothingIsStoredStoreNothing)
{
    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    device->zero(0, 3 * kBrickSize);
    const Bytes zeros = testsupport::zeroBytes(kBrickSize);
    device->write(zeros.getData(), 5 * kBrickSize, kBrickSize);
    device->flush();
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 0);
    EXPECT_EQ(fs->getOperationCount(Op::DeleteFile), 0);
    EXPECT_EQ(fs->getOperationCount(Op::CopyFile), 0);
}

TEST_F(BrickDiskBlockDeviceTest, RewritingTheBytesTheDiskHoldsCopiesNothingIntoItsSnapshot)
{
    const Bytes data = testsupport::patternBytes(4 * kBrickSize, 9);
    openDevice()->write(data.getData(), 0, data.getUsed());
    const CURI snapshot("/disks/snap");
    CBrickDisk::createChild(fs.get(), snapshot, CURI(kFolder), CBrickDisk::linkedChild);
    const std::vector<std::string> snapshotFiles = testsupport::filesBelow(fs.get(), snapshot);

    // A new device: nothing of the disk is in its cache.
    const P<CBrickDiskBlockDevice> device = openDevice();
    device->write(data.getData(), 0, data.getUsed());
    // One brick really changes: only it goes into the snapshot.
    const Bytes changed = testsupport::patternBytes(kBrickSize, 10);
    device->write(changed.getData(), 2 * kBrickSize, kBrickSize);
    device->flush();

    std::vector<std::string> expectedFiles = snapshotFiles;
    const P<CBrickDisk> frozen = testsupport::openDisk(fs.get(), snapshot, kPassword, IIOStream::AccessRead);
    const std::string prefix = snapshot.toString(true).toUTF8() + "/";
    expectedFiles.push_back(
        testsupport::brickFileOf(*frozen, snapshot, 2).toString(true).toUTF8().substr(prefix.size()));
    std::sort(expectedFiles.begin(), expectedFiles.end());
    EXPECT_EQ(testsupport::filesBelow(fs.get(), snapshot), expectedFiles);
    EXPECT_EQ(testsupport::readAt(*frozen, 0, data.getUsed()), data);
}

TEST_F(BrickDiskBlockDeviceTest, AStoredFileDamagedBehindAMatchingDigestIsStoredAgain)
{
    const Bytes data = testsupport::patternBytes(kBrickSize, 11);
    {
        const P<CBrickDiskBlockDevice> device = openDevice();
        device->write(data.getData(), 0, kBrickSize);
    }
    const CURI file =
        testsupport::brickFileOf(*testsupport::openDisk(fs.get(), CURI(kFolder), kPassword), CURI(kFolder), 0);
    P<zo::TBuffer<zo::uint8>> bytes = fs->getFileData(file);
    ASSERT_TRUE(bytes);
    // The head, with the digest of the plain bytes, stays intact.
    bytes->getData()[bytes->getUsed() - 1] ^= 0x5a;
    fs->setFileData(file, *bytes);

    const P<CBrickDiskBlockDevice> device = openDevice();
    fs->resetCounters();
    device->write(data.getData(), 0, kBrickSize);
    device->flush();
    EXPECT_EQ(fs->getOperationCount(Op::StoreFile), 1);
    EXPECT_EQ(storedBytes(0, kBrickSize), data);
}

} // namespace
