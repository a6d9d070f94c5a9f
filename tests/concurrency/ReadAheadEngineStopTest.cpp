// Many threads read through the read-ahead engine while it is stopped: a
// reader in order, readers that note runs of reads, the engine's loaders and
// threads of the owner's own that load claimed bricks. Every one of them
// must end, the reader with the "called after stop" error, and nothing may
// be loaded once stop has returned.
#include "brick/serving/BrickDiskBlockDevice.h"
#include "brick/streams/ParallelReadAheadManager.h"

#include "support/DiskTestHelpers.h"
#include "zo/Error.h"
#include "zo/MemoryFileSystem.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

using brick::CBrickDisk;
using brick::CBrickDiskBlockDevice;
using brick::CParallelReadAheadManager;
using testsupport::Bytes;
using zo::CError;
using zo::CURI;
using zo::int64;
using zo::P;
using zo::TBuffer;
using zo::uint8;

constexpr int64 kBrickCount = 1000000;
constexpr int kLoaders = 4;
constexpr int kOwnLoaders = 2;
constexpr int kRunReaders = 8;
// Bricks the reader in order consumes before stop is signalled.
constexpr int64 kConsumedBeforeStop = 300;

P<TBuffer<uint8>> brickData(int64 brickIndex)
{
    P<TBuffer<uint8>> data(new TBuffer<uint8>(8));
    std::memcpy(data->getData(), &brickIndex, sizeof brickIndex);
    return data;
}

int64 brickIndexIn(const TBuffer<uint8>& data)
{
    int64 brickIndex = 0;
    std::memcpy(&brickIndex, data.getData(), sizeof brickIndex);
    return brickIndex;
}

bool waitUntil(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

TEST(ReadAheadEngineStop, EveryThreadReadingThroughTheEngineEndsWhenItStops)
{
    const P<CParallelReadAheadManager> engine(new CParallelReadAheadManager(kBrickCount, 6, 8));
    CParallelReadAheadManager* const raw = engine.get();
    std::atomic<int64> loads{0};
    const auto load = [raw, &loads](int64 brickIndex) {
        ++loads;
        raw->storeReadAheadResult(brickIndex, brickData(brickIndex).get(), nullptr);
    };
    engine->startLoaders(kLoaders, [&load](int, int64 brickIndex) { load(brickIndex); });

    std::atomic<int64> consumed{0};
    std::atomic<int> wrongBricks{0};
    std::atomic<int> stopErrors{0};
    std::atomic<int> otherErrors{0};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        try {
            for (int64 index = 0;; ++index) {
                if (brickIndexIn(*engine->getBrickData(index)) != index)
                    ++wrongBricks;
                ++consumed;
            }
        } catch (const CError& error) {
            if (error.getMessage() == "CParallelReadAheadManager::getBrickData called after stop has been signalled.")
                ++stopErrors;
            else
                ++otherErrors;
        }
    });
    for (int reader = 0; reader < kRunReaders; ++reader) {
        threads.emplace_back([&, reader] {
            // One read for every brick the reader in order consumes, so that
            // the queue, which loaders serve first, cannot starve it.
            int64 index = static_cast<int64>(reader + 1) * 100000;
            for (int64 seen = -1; !engine->isStopped();) {
                const int64 now = consumed.load();
                if (now == seen) {
                    std::this_thread::sleep_for(std::chrono::microseconds(100));
                    continue;
                }
                seen = now;
                engine->noteRead(index, index, [](int64 brickIndex) { return brickIndex % 3 != 0; });
                ++index;
            }
        });
    }
    for (int own = 0; own < kOwnLoaders; ++own) {
        threads.emplace_back([&] {
            for (int64 index = engine->nextBrickIndexForReadAhead(); index != -1;
                 index = engine->nextBrickIndexForReadAhead())
                load(index);
        });
    }

    const bool progressed = waitUntil([&] { return consumed.load() >= kConsumedBeforeStop; });
    engine->stop();
    const int64 loadsAtStop = loads.load();
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_TRUE(progressed);
    EXPECT_EQ(wrongBricks.load(), 0);
    EXPECT_EQ(stopErrors.load(), 1);
    EXPECT_EQ(otherErrors.load(), 0);
    // The engine's own loaders ended inside stop; the owner's threads may
    // have finished one load each after it.
    EXPECT_LE(loads.load(), loadsAtStop + kOwnLoaders);
    EXPECT_EQ(engine->nextBrickIndexForReadAhead(), -1);
}

// Readers go through separate regions of a block device in order, so that
// its engine loads bricks ahead of each, and the device goes as soon as they
// are done, with loads still queued or under way.
TEST(ReadAheadEngineStop, BlockDeviceGoesWhileItsEngineLoadsAhead)
{
    constexpr int kBrickSize = testsupport::kDiskTestBrickSize;
    constexpr int kReaders = 4;
    constexpr int kBricksPerReader = 16;
    constexpr int64 kDiskSize = static_cast<int64>(kReaders) * kBricksPerReader * kBrickSize;
    const P<zo::CMemoryFileSystem> fs(new zo::CMemoryFileSystem(2));
    testsupport::createDisk(fs.get(), CURI("/disk"), kDiskSize, "pw");
    const Bytes content = testsupport::patternBytes(static_cast<int>(kDiskSize), 9);
    {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI("/disk"), "pw");
        const P<CBrickDiskBlockDevice> device(new CBrickDiskBlockDevice(disk.get(), 16 * kBrickSize));
        device->write(content.getData(), 0, content.getUsed());
    }
    for (int round = 0; round < 10; ++round) {
        const P<CBrickDisk> disk = testsupport::openDisk(fs.get(), CURI("/disk"), "pw");
        P<CBrickDiskBlockDevice> device(new CBrickDiskBlockDevice(disk.get(), 16 * kBrickSize));
        std::atomic<int> mismatches{0};
        std::vector<std::thread> readers;
        for (int reader = 0; reader < kReaders; ++reader) {
            readers.emplace_back([&, reader] {
                Bytes bytes(kBrickSize);
                // Only the first half of each region: the engine is still
                // loading the bricks after it when the device goes.
                for (int brick = 0; brick < kBricksPerReader / 2; ++brick) {
                    const int64 offset = (static_cast<int64>(reader) * kBricksPerReader + brick) * kBrickSize;
                    device->read(bytes.getData(), offset, kBrickSize);
                    if (std::memcmp(bytes.getData(), content.getData() + offset, kBrickSize) != 0)
                        ++mismatches;
                }
            });
        }
        for (std::thread& reader : readers)
            reader.join();
        device = nullptr;
        EXPECT_EQ(mismatches.load(), 0) << "round " << round;
    }
}

} // namespace
