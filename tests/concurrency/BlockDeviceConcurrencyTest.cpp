// Many threads read, write and zero one block device at once, with a cache
// small enough that bricks are evicted and stored while others load them,
// and a thread that flushes and maps extents meanwhile. Each writer owns
// every n-th slice of the disk (slices smaller than a brick, so threads share
// bricks), keeps a model of its slices and checks every read against it.
#include "brick/serving/BrickDiskBlockDevice.h"

#include "support/DiskTestHelpers.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskBlockDevice;
using testsupport::Bytes;
using zo::CURI;
using zo::int64;
using zo::P;

constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
constexpr int kBrickCount = 24;
constexpr int64 kDiskSize = static_cast<int64>(kBrickCount) * kBrickSize;
constexpr int kSliceSize = kBrickSize / 4;
constexpr int kSliceCount = static_cast<int>(kDiskSize / kSliceSize);
constexpr int kWriters = 4;
constexpr int kStepsPerWriter = 400;
const char* const kPassword = "pw";

// One writer's slices: s with s % kWriters == writer.
void runWriter(CBrickDiskBlockDevice& device, int writer, Bytes& model, std::atomic<int>& mismatches)
{
    std::mt19937 random(static_cast<unsigned>(writer) * 7919u);
    std::uniform_int_distribution<int> pickSlice(0, kSliceCount / kWriters - 1);
    std::uniform_int_distribution<int> pickAction(0, 9);
    Bytes bytes(kSliceSize);
    for (int step = 0; step < kStepsPerWriter; ++step) {
        const int slice = pickSlice(random) * kWriters + writer;
        const int64 offset = static_cast<int64>(slice) * kSliceSize;
        const int action = pickAction(random);
        if (action < 5) {
            const Bytes data = testsupport::patternBytes(kSliceSize, static_cast<unsigned>(random()));
            device.write(data.getData(), offset, kSliceSize);
            std::memcpy(model.getData() + offset, data.getData(), kSliceSize);
        } else if (action < 6) {
            device.zero(offset, kSliceSize);
            std::memset(model.getData() + offset, 0, kSliceSize);
        } else {
            device.read(bytes.getData(), offset, kSliceSize);
            if (std::memcmp(bytes.getData(), model.getData() + offset, kSliceSize) != 0)
                ++mismatches;
        }
    }
}

// Runs the writers against one device while `sideWork` runs in a loop on
// another thread; returns what the disk must hold afterwards.
template <class SideWork>
Bytes runWritersBeside(zo::IFileSystem* fs, const CURI& folder, SideWork&& sideWork, std::atomic<int>& mismatches)
{
    testsupport::createDisk(fs, folder, kDiskSize, kPassword);
    // Each writer's model holds the whole disk; only its own slices change.
    std::vector<Bytes> models(kWriters, testsupport::zeroBytes(static_cast<int>(kDiskSize)));
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs, folder, kPassword);
        const P<CBrickDiskBlockDevice> device(new CBrickDiskBlockDevice(disk.get(), 6 * kBrickSize));
        std::atomic<bool> writing{true};
        std::thread side([&] {
            for (int round = 0; writing; ++round)
                sideWork(*device, round);
        });
        std::vector<std::thread> writers;
        for (int w = 0; w < kWriters; ++w)
            writers.emplace_back([&, w] { runWriter(*device, w, models[static_cast<size_t>(w)], mismatches); });
        for (std::thread& thread : writers)
            thread.join();
        writing = false;
        side.join();
        device->flush();
    }
    Bytes expected = testsupport::zeroBytes(static_cast<int>(kDiskSize));
    for (int slice = 0; slice < kSliceCount; ++slice) {
        const int64 offset = static_cast<int64>(slice) * kSliceSize;
        std::memcpy(expected.getData() + offset, models[static_cast<size_t>(slice % kWriters)].getData() + offset,
                    kSliceSize);
    }
    return expected;
}

// Makes the snapshot "/disks/snap<number>" of the served disk in `folder`.
void takeSnapshot(CBrickDiskBlockDevice& device, zo::IFileSystem* fs, const CURI& folder, int number)
{
    device.pauseAndReplaceDisk([&](const P<CBrickDisk>&) {
        CBrickDisk::createChild(fs, CURI("/disks/snap" + std::to_string(number)), folder, CBrickDisk::linkedChild);
        return testsupport::openDisk(fs, folder, kPassword);
    });
}

// No writer read what it did not write, and the disk holds what they wrote.
void expectEveryByteKept(zo::IFileSystem* fs, const CURI& folder, const Bytes& expected,
                         const std::atomic<int>& mismatches)
{
    EXPECT_EQ(mismatches.load(), 0);
    const P<CBrickDisk> reopened = testsupport::openDisk(fs, folder, kPassword, zo::IIOStream::AccessRead);
    EXPECT_EQ(testsupport::readWholeDisk(*reopened), expected);
}

TEST(BlockDeviceConcurrency, ParallelWritersReadersAndFlushesKeepEveryByte)
{
    const P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem(3));
    fs->setCompletionDelay(0, 2);
    const CURI folder("/disks/a");
    std::atomic<int> mismatches{0};
    const Bytes expected = runWritersBeside(
        fs.get(), folder,
        [](CBrickDiskBlockDevice& device, int) {
            device.flush();
            device.mapExtents(0, kDiskSize);
        },
        mismatches);

    expectEveryByteKept(fs.get(), folder, expected, mismatches);
}

TEST(BlockDeviceConcurrency, SnapshotsTakenWhileThreadsWriteLoseNothing)
{
    const P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem(3));
    fs->setCompletionDelay(0, 2);
    const CURI folder("/disks/a");
    std::atomic<int> mismatches{0};
    int snapshots = 0;
    const Bytes expected = runWritersBeside(
        fs.get(), folder,
        [&](CBrickDiskBlockDevice& device, int round) {
            if (round >= 3)
                return std::this_thread::yield();
            takeSnapshot(device, fs.get(), folder, round);
            ++snapshots;
        },
        mismatches);

    EXPECT_GT(snapshots, 0);
    expectEveryByteKept(fs.get(), folder, expected, mismatches);
}

TEST(BlockDeviceConcurrency, ReadAheadForAReaderInOrderLosesNoWrite)
{
    const P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem(3));
    fs->setCompletionDelay(0, 2);
    const CURI folder("/disks/a");
    std::atomic<int> mismatches{0};
    // Reads the disk front to back, so that its bricks are read ahead while
    // the writers change them; now and then the disk is replaced meanwhile.
    const Bytes expected = runWritersBeside(
        fs.get(), folder,
        [&](CBrickDiskBlockDevice& device, int round) {
            Bytes piece(kBrickSize / 2);
            for (int64 at = 0; at < kDiskSize; at += piece.getUsed())
                device.read(piece.getData(), at, piece.getUsed());
            if (round < 2)
                takeSnapshot(device, fs.get(), folder, round);
        },
        mismatches);

    expectEveryByteKept(fs.get(), folder, expected, mismatches);
}

} // namespace
