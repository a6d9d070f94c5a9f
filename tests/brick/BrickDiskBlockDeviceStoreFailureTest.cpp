// What a block device does with a brick that it cannot store: it keeps the
// brick's bytes, reads return them, every flush reports the brick until a
// store of it succeeds, and nothing acknowledged is ever dropped.
#include "brick/serving/BrickDiskBlockDevice.h"

#include "brick/chain/BrickStoreQueue.h"
#include "support/BlockDeviceTestDisk.h"
#include "support/DiskTestHelpers.h"
#include "support/HeldFileSystem.h"
#include "support/SweepRounds.h"
#include "zo/MemoryFileSystem.h"
#include "zo/Signal.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskBlockDevice;
using brick::CBrickStoreQueue;
using testsupport::Bytes;
using testsupport::errorOf;
using testsupport::HeldFileSystem;
using testsupport::messageOf;
using zo::CError;
using zo::CFileSystemError;
using zo::CMemoryFileSystem;
using zo::CURI;
using zo::int64;
using zo::P;
using Op = CMemoryFileSystem::Operation;

// The smallest cache (4 bricks): most bricks written over the whole disk are
// stored when they are evicted, before any flush.
constexpr int64 kSmallestCache = 0;

class BrickDiskBlockDeviceStoreFailureTest : public testsupport::BlockDeviceTestDisk {
protected:
    // Writes `bytes` over the whole disk in pieces of one and a half bricks,
    // so that some bricks are written whole and others in two parts.
    static void writeWholeDisk(CBrickDiskBlockDevice& device, const Bytes& bytes)
    {
        const int64 piece = kBrickSize + kBrickSize / 2;
        for (int64 at = 0; at < kDiskSize; at += piece)
            device.write(bytes.getData() + at, at, std::min(piece, kDiskSize - at));
    }

    // Holds back the listener of the first failed store of brick 0 until
    // `listenerMayRun` is set; `failed` is set once it is held.
    static void holdListenerOfFirstFailureOfBrickZero(CBrickStoreQueue& queue, zo::CSignal& failed,
                                                      zo::CSignal& listenerMayRun)
    {
        queue.setFailureHook([&failed, &listenerMayRun](int64 index) {
            if (index != 0 || failed.isSet())
                return;
            failed.set();
            listenerMayRun.wait(-1);
        });
    }

    // Brick 0 written as `first`, evicted by bricks 1 to 4 (`other`) and its
    // store failed (the listener held, see above); then written as `second`,
    // evicted by bricks 5 to 8 and stored.
    static void storeBrickZeroAgainAfterAFailedStore(CBrickDiskBlockDevice& device, CBrickStoreQueue& queue,
                                                     zo::CMemoryFileSystem& fs, zo::CSignal& failed, const Bytes& first,
                                                     const Bytes& second, const Bytes& other)
    {
        const auto writeBrick = [&](int64 index, const Bytes& bytes) {
            device.write(bytes.getData(), index * kBrickSize, kBrickSize);
        };
        writeBrick(0, first);
        fs.failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, false);
        for (int64 index = 1; index <= 4; ++index)
            writeBrick(index, other);
        ASSERT_TRUE(failed.wait(-1));
        writeBrick(0, second);
        for (int64 index = 5; index <= 8; ++index)
            writeBrick(index, other);
        ASSERT_TRUE(queue.waitForStoresOf(0, -1));
        ASSERT_TRUE(queue.getUnstoredBricks().empty());
    }
};

TEST_F(BrickDiskBlockDeviceStoreFailureTest, AFailedStoreKeepsTheBrickForReadsAndTheNextFlushStoresIt)
{
    const P<CBrickDiskBlockDevice> device = openDevice(64 * kBrickSize);
    const Bytes data = testsupport::patternBytes(kBrickSize, 1);
    device->write(data.getData(), 0, kBrickSize);
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, false);

    const auto error = errorOf<CError>([&] { device->flush(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(messageOf(*error), "Storing changed bricks failed.");
    EXPECT_EQ(error->getProps().lookup("unstoredBricks"), "1");
    EXPECT_EQ(error->getProps().lookup("brickIndex"), "0");
    ASSERT_NE(error->getCause(), nullptr);
    EXPECT_EQ(device->getUnstoredBricks(), std::vector<int64>{0});
    EXPECT_EQ(readDevice(*device, 0, kBrickSize), data);
    EXPECT_EQ(storedBytes(0, kBrickSize), testsupport::zeroBytes(kBrickSize));

    // Nothing was written again: the flush stores the kept brick by itself.
    EXPECT_NO_THROW(device->flush());
    EXPECT_TRUE(device->getUnstoredBricks().empty());
    EXPECT_EQ(storedBytes(0, kBrickSize), data);
}

TEST_F(BrickDiskBlockDeviceStoreFailureTest, EveryFlushReportsTheBrickUntilItIsStored)
{
    const P<CBrickDiskBlockDevice> device = openDevice(64 * kBrickSize);
    const Bytes data = testsupport::patternBytes(2 * kBrickSize, 2);
    device->write(data.getData(), 0, data.getUsed());
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, true, CURI(kFolder) << CURI(zo::String("bricks")));

    EXPECT_THROW(device->flush(), CError);
    EXPECT_THROW(device->flush(), CError);
    EXPECT_EQ(device->getUnstoredBricks(), (std::vector<int64>{0, 1}));
    EXPECT_EQ(readDevice(*device, 0, data.getUsed()), data);

    fs->clearFailures();
    EXPECT_NO_THROW(device->flush());
    EXPECT_EQ(storedBytes(0, data.getUsed()), data);
}

// A disk on a file system that fills up: bricks evicted from the cache fail
// to store, yet every written byte reads back, and once space is free again
// the next flush stores all of them.
TEST_F(BrickDiskBlockDeviceStoreFailureTest, BricksEvictedWhileTheFileSystemIsFullAreKeptUntilStored)
{
    const P<CBrickDiskBlockDevice> device = openDevice(kSmallestCache);
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, true);
    const Bytes data = testsupport::patternBytes(static_cast<int>(kDiskSize), 3);
    writeWholeDisk(*device, data);

    const auto error = errorOf<CError>([&] { device->flush(); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getProps().lookup("unstoredBricks"), zo::toDecimalString(kBrickCount));
    EXPECT_EQ(readDevice(*device, 0, static_cast<int>(kDiskSize)), data);

    fs->clearFailures();
    device->flush();
    EXPECT_TRUE(device->getUnstoredBricks().empty());
    EXPECT_EQ(storedBytes(0, static_cast<int>(kDiskSize)), data);
}

TEST_F(BrickDiskBlockDeviceStoreFailureTest, ANewerWriteOfAnUnstoredBrickIsWhatGetsStored)
{
    const P<CBrickDiskBlockDevice> device = openDevice(64 * kBrickSize);
    const Bytes first = testsupport::patternBytes(kBrickSize, 4);
    const Bytes second = testsupport::patternBytes(kBrickSize, 5);
    device->write(first.getData(), 0, kBrickSize);
    fs->failOperation(Op::StoreFile, 1, CFileSystemError::NoSpace, false);
    EXPECT_THROW(device->flush(), CError);

    device->write(second.getData(), 0, kBrickSize / 2);
    device->flush();
    const Bytes expected = testsupport::overlay(first, 0, Bytes(second.getData(), kBrickSize / 2));
    EXPECT_EQ(storedBytes(0, kBrickSize), expected);
    EXPECT_EQ(readDevice(*device, 0, kBrickSize), expected);
}

// A brick whose store failed, stored again before the failed store's
// listener ran, while a reader loads it from its file: the late listener
// leaves the brick alone, and the read, the flush and the disk all hold the
// newer bytes.
TEST_F(BrickDiskBlockDeviceStoreFailureTest, LateListenerOfAFailedStoreLeavesALoadingBrickAlone)
{
    const Bytes first = testsupport::patternBytes(kBrickSize, 8);
    const Bytes second = testsupport::patternBytes(kBrickSize, 9);
    const Bytes other = testsupport::patternBytes(kBrickSize, 10);
    zo::CSignal failed;
    zo::CSignal listenerMayRun;
    const P<HeldFileSystem> held(new HeldFileSystem(fs.get()));
    const P<CBrickDisk> disk = testsupport::openDisk(held.get(), CURI(kFolder), kPassword);
    CBrickStoreQueue* queue = disk->getStoreQueue();
    // Named now: a brick object made later would wait for the held store.
    std::vector<CURI> files;
    for (int64 index = 0; index <= 9; ++index)
        files.push_back(testsupport::brickFileOf(*disk, CURI(kFolder), index));
    // The failed store's listener waits until the test lets it run.
    holdListenerOfFirstFailureOfBrickZero(*queue, failed, listenerMayRun);
    const P<CBrickDiskBlockDevice> device(new CBrickDiskBlockDevice(disk.get(), kSmallestCache));
    // Should a step fail, nothing stays held for the device's last flush.
    struct LetEverythingGo {
        zo::CSignal& listener;
        HeldFileSystem& fs;
        ~LetEverythingGo()
        {
            listener.set();
            fs.letGo();
        }
    } letEverythingGo{listenerMayRun, *held};
    const auto writeBrick = [&](int64 index, const Bytes& bytes) {
        device->write(bytes.getData(), index * kBrickSize, kBrickSize);
    };

    storeBrickZeroAgainAfterAFailedStore(*device, *queue, *fs, failed, first, second, other);
    if (HasFatalFailure())
        return;

    // A reader loads brick 0 from its file and is held there, while the
    // failed store's listener marks the brick changed.
    held->holdCallsThat(HeldFileSystem::callsOn(HeldFileSystem::Call::OpenForReading, files[0]));
    Bytes read;
    std::thread reader([&] { read = readDevice(*device, 0, kBrickSize); });
    ASSERT_TRUE(held->waitUntilHeld());
    listenerMayRun.set();
    ASSERT_TRUE(queue->waitForAll(-1));

    // The flush hands over the bricks that hold their bytes (9, and 7 and 8
    // written before) and is seen to do so before the load may go on.
    writeBrick(9, other);
    held->signalCallsThat([&files](HeldFileSystem::Call call, const CURI& path) {
        const bool opening =
            call == HeldFileSystem::Call::OpenForReading || call == HeldFileSystem::Call::OpenForWriting;
        return opening && (path == files[7] || path == files[8] || path == files[9]);
    });
    P<CError> flushError;
    std::thread flusher([&] {
        try {
            device->flush();
        } catch (const CError& e) {
            flushError = e.clone();
        }
    });
    const bool flushHandedOver = held->waitUntilSignalled();
    held->letGo();
    reader.join();
    flusher.join();
    queue->setFailureHook({});

    EXPECT_TRUE(flushHandedOver);
    EXPECT_FALSE(flushError) << (flushError ? flushError->toString().toUTF8() : std::string());
    EXPECT_EQ(read, second);
    EXPECT_TRUE(device->getUnstoredBricks().empty());
    EXPECT_EQ(readDevice(*device, 0, kBrickSize), second);
    EXPECT_EQ(storedBytes(0, kBrickSize), second);
    for (int64 index = 1; index <= 9; ++index)
        EXPECT_EQ(storedBytes(index * kBrickSize, kBrickSize), other) << "brick " << index;
}

// A brick whose store failed, stored again and evicted before the failed
// store's listener ran: the late listener must not bring the older bytes
// back, or the next flush would store them over the newer ones.
TEST_F(BrickDiskBlockDeviceStoreFailureTest, LateListenerOfAFailedStoreNeverBringsBackOlderBytes)
{
    const Bytes first = testsupport::patternBytes(kBrickSize, 11);
    const Bytes second = testsupport::patternBytes(kBrickSize, 12);
    const Bytes other = testsupport::patternBytes(kBrickSize, 13);
    zo::CSignal failed;
    zo::CSignal listenerMayRun;
    const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI(kFolder), kPassword);
    CBrickStoreQueue* queue = disk->getStoreQueue();
    holdListenerOfFirstFailureOfBrickZero(*queue, failed, listenerMayRun);
    const P<CBrickDiskBlockDevice> device(new CBrickDiskBlockDevice(disk.get(), kSmallestCache));
    struct LetTheListenerGo {
        zo::CSignal& listener;
        ~LetTheListenerGo() { listener.set(); }
    } letTheListenerGo{listenerMayRun};

    storeBrickZeroAgainAfterAFailedStore(*device, *queue, *fs, failed, first, second, other);
    if (HasFatalFailure())
        return;

    listenerMayRun.set();
    ASSERT_TRUE(queue->waitForAll(-1));
    device->flush();
    queue->setFailureHook({});

    EXPECT_EQ(readDevice(*device, 0, kBrickSize), second);
    EXPECT_EQ(storedBytes(0, kBrickSize), second);
}

// The fault sweep: the Nth store of a brick file, or the Nth creation of a
// folder of the brick tree, fails (no space, or an unclassified I/O error;
// once, or from then on). A client writes the whole disk, flushes,
// writes part of it again, flushes, and the server stops (a last flush). For
// every N, each byte either reads back as written from the device and, after
// the stop, from the disk, or the flushes and the stop reported its brick as
// not stored.
TEST_F(BrickDiskBlockDeviceStoreFailureTest, FailingTheNthStoreNeverLosesAnAcknowledgedByteSilently)
{
    const Bytes first = testsupport::patternBytes(static_cast<int>(kDiskSize), 6);
    const Bytes again = testsupport::patternBytes(4 * kBrickSize, 7);
    const int64 againAt = 3 * kBrickSize + kBrickSize / 3;
    const Bytes expected = testsupport::overlay(first, againAt, again);

    // Operations made without failures: the sweep covers each of them.
    std::map<Op, int> countsWithoutFailure;
    {
        const P<CBrickDiskBlockDevice> device = openDevice(kSmallestCache);
        fs->resetCounters();
        writeWholeDisk(*device, first);
        device->flush();
        device->write(again.getData(), againAt, again.getUsed());
        device->flush();
        for (const Op kind : {Op::StoreFile, Op::CreateFolder})
            countsWithoutFailure[kind] = fs->getOperationCount(kind);
    }
    ASSERT_GT(countsWithoutFailure[Op::StoreFile], kBrickCount);
    ASSERT_GT(countsWithoutFailure[Op::CreateFolder], 0);

    for (const auto& [kind, count] : countsWithoutFailure) {
        for (const CFileSystemError::Problem problem : {CFileSystemError::NoSpace, CFileSystemError::Unclassified}) {
            for (const bool persistent : {false, true}) {
                for (int nth = 1; nth <= count; nth += testsupport::sweepStep()) {
                    SCOPED_TRACE(std::string(CMemoryFileSystem::getOperationName(kind)) + " " + std::to_string(nth) +
                                 (persistent ? " and after" : " once") + ", problem " + std::to_string(problem));
                    fs = P<CMemoryFileSystem>(new CMemoryFileSystem(2));
                    createTestDisk();
                    std::set<int64> reported;
                    bool stopReportedFailure = false;
                    {
                        const P<CBrickDiskBlockDevice> device = openDevice(kSmallestCache);
                        fs->failOperation(kind, nth, problem, persistent);
                        const auto flushNoting = [&] {
                            try {
                                device->flush();
                                return true;
                            } catch (const CError&) {
                                for (const int64 index : device->getUnstoredBricks())
                                    reported.insert(index);
                                return false;
                            }
                        };
                        writeWholeDisk(*device, first);
                        const bool firstFlushed = flushNoting();
                        device->write(again.getData(), againAt, again.getUsed());
                        const bool secondFlushed = flushNoting();
                        EXPECT_EQ(readDevice(*device, 0, static_cast<int>(kDiskSize)), expected);
                        // The stop: a last flush, as a server makes before it ends.
                        stopReportedFailure = !flushNoting();
                        if (!persistent) {
                            // A single failure is retried by the next flush.
                            EXPECT_FALSE(stopReportedFailure);
                        } else if (!firstFlushed || !secondFlushed) {
                            EXPECT_TRUE(stopReportedFailure);
                        }
                    }
                    for (int64 index = 0; index < kBrickCount; ++index) {
                        if (storedBytes(index * kBrickSize, kBrickSize) ==
                            bricksOf(expected, static_cast<int>(index), 1))
                            continue;
                        EXPECT_TRUE(stopReportedFailure && reported.count(index) != 0)
                            << "brick " << index << " is not stored and no flush said so";
                    }
                }
            }
        }
    }
}

} // namespace
