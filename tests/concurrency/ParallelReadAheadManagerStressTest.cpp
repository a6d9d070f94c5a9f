#include "brick/streams/ParallelReadAheadManager.h"

#include "zo/Error.h"
#include "zo/MemPool.h"
#include "zo/Props.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

using brick::CParallelReadAheadManager;
using zo::CError;
using zo::CIOError;
using zo::CMemPool;
using zo::CMemPoolBuffer;
using zo::CProps;
using zo::int64;
using zo::P;
using zo::TBuffer;
using zo::uint8;

namespace {

constexpr int kBrickBytes = 256;
constexpr std::chrono::seconds kPatience(10);

// Bricks whose reading always fails, so that errors travel the same way as data.
bool isFailingBrick(int64 brickIndex)
{
    return brickIndex % 41 == 17;
}

uint8 expectedByte(int64 brickIndex, int offset)
{
    return static_cast<uint8>(brickIndex * 131 + offset * 7 + (brickIndex >> 8));
}

void fillBrick(TBuffer<uint8>& buffer, int64 brickIndex)
{
    buffer.setUsed(kBrickBytes);
    for (int offset = 0; offset < kBrickBytes; ++offset)
        buffer[offset] = expectedByte(brickIndex, offset);
}

bool holdsBrick(const TBuffer<uint8>& buffer, int64 brickIndex)
{
    if (buffer.getUsed() != kBrickBytes)
        return false;
    for (int offset = 0; offset < kBrickBytes; ++offset)
        if (buffer[offset] != expectedByte(brickIndex, offset))
            return false;
    return true;
}

bool waitUntil(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Read threads as the stream runs them, taking their buffers from a pool and
// pausing a random while (up to `maxDelayMicros`) for every brick they read.
class ReadThreads {
public:
    ReadThreads(const P<CParallelReadAheadManager>& manager, const P<CMemPool>& pool, int threadCount,
                int maxDelayMicros)
        : m_manager(manager)
    {
        for (int i = 0; i < threadCount; ++i)
            m_threads.emplace_back([this, manager, pool, maxDelayMicros, seed = 1000 + i] {
                run(*manager, *pool, maxDelayMicros, static_cast<unsigned>(seed));
            });
    }
    ReadThreads(const ReadThreads&) = delete;
    ReadThreads& operator=(const ReadThreads&) = delete;
    // Signals stop first, so that a test that failed half-way ends too.
    ~ReadThreads()
    {
        m_manager->signalStop();
        join();
    }

    bool haveEnded() const { return m_ended.load() == static_cast<int>(m_threads.size()); }
    void join()
    {
        for (auto& thread : m_threads)
            if (thread.joinable())
                thread.join();
    }

private:
    void run(CParallelReadAheadManager& manager, CMemPool& pool, int maxDelayMicros, unsigned seed)
    {
        std::mt19937 random(seed);
        std::uniform_int_distribution<int> delay(0, maxDelayMicros);
        for (;;) {
            const int64 index = manager.nextBrickIndexForReadAhead();
            if (index == -1)
                break;
            std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
            if (isFailingBrick(index)) {
                const P<CError> error(
                    new CIOError(CIOError::ReadFailed, "Brick file unreadable.", CProps().add("brickIndex", index)));
                manager.storeReadAheadResult(index, nullptr, error.get());
            } else {
                P<CMemPoolBuffer> buffer = pool.checkOutItem();
                fillBrick(*buffer, index);
                manager.storeReadAheadResult(index, buffer.get(), nullptr);
            }
        }
        ++m_ended;
    }

    P<CParallelReadAheadManager> m_manager;
    std::vector<std::thread> m_threads;
    std::atomic<int> m_ended{0};
};

} // namespace

TEST(ParallelReadAheadManagerStress, ReaderWithRandomJumpsAlwaysGetsTheBrickItAskedFor)
{
    constexpr int64 kBrickCount = 300;
    constexpr int kThreadCount = 8;
    constexpr int kSlotCount = 8;
    constexpr int kReads = 10000;
    P<CParallelReadAheadManager> manager(new CParallelReadAheadManager(kBrickCount, kSlotCount));
    P<CMemPool> pool(new CMemPool(kThreadCount + 2, kBrickBytes, 1));
    ReadThreads threads(manager, pool, kThreadCount, 200);

    std::mt19937 random(42);
    std::uniform_int_distribution<int> percent(0, 99);
    std::uniform_int_distribution<int64> anyBrick(0, kBrickCount - 1);
    int wrongBricks = 0;
    int wrongErrors = 0;
    int failedReads = 0;
    int jumps = 0;
    int64 index = 0;
    for (int read = 0; read < kReads; ++read) {
        const int choice = percent(random);
        if (choice < 3) {
            index = anyBrick(random);
            ++jumps;
        } else if (choice < 4 && index > 0) {
            --index; // the brick just consumed, once more
            ++jumps;
        } else if (index == kBrickCount) {
            index = 0;
        }
        try {
            P<TBuffer<uint8>> data = manager->getBrickData(index);
            if (!data || !holdsBrick(*data, index))
                ++wrongBricks;
            if (isFailingBrick(index))
                ++wrongErrors;
        } catch (const CIOError& error) {
            ++failedReads;
            if (!isFailingBrick(index) || error.getProps().lookup("brickIndex") != zo::toDecimalString(index))
                ++wrongErrors;
        }
        ++index;
    }
    EXPECT_EQ(wrongBricks, 0);
    EXPECT_EQ(wrongErrors, 0);
    EXPECT_GT(failedReads, 0);
    EXPECT_GT(jumps, 0);

    manager->signalStop();
    ASSERT_TRUE(waitUntil([&] { return threads.haveEnded(); }));
    threads.join();
    // Every buffer is back in the pool: the manager let go of all results.
    EXPECT_EQ(pool->getFreeCount(), pool->getItemCount());
    // A buffer is held by a read thread, by a result (at most one per slot) or
    // by the reader.
    EXPECT_LE(pool->getItemCount(), kThreadCount + kSlotCount + 1);
}

TEST(ParallelReadAheadManagerStress, StopWhileEveryoneIsBusyEndsEveryThread)
{
    constexpr int64 kBrickCount = 100000;
    constexpr int kThreadCount = 8;
    P<CParallelReadAheadManager> manager(new CParallelReadAheadManager(kBrickCount, 4));
    P<CMemPool> pool(new CMemPool(kThreadCount + 2, kBrickBytes, 1));
    ReadThreads threads(manager, pool, kThreadCount, 300);

    std::atomic<int> bricksRead{0};
    std::atomic<bool> readerEnded{false};
    std::string readerError;
    std::thread reader([&] {
        std::mt19937 random(7);
        std::uniform_int_distribution<int> percent(0, 99);
        std::uniform_int_distribution<int64> nearBrick(0, 500);
        int64 index = 0;
        try {
            for (;;) {
                if (percent(random) < 5)
                    index = nearBrick(random);
                try {
                    manager->getBrickData(index);
                } catch (const CIOError&) {
                    // a failing brick's own error; stop errors are plain CErrors
                }
                ++index;
                ++bricksRead;
            }
        } catch (const CError& error) {
            readerError = error.what();
        }
        readerEnded = true;
    });

    EXPECT_TRUE(waitUntil([&] { return bricksRead.load() >= 200; }));
    manager->signalStop();
    EXPECT_TRUE(waitUntil([&] { return readerEnded.load() && threads.haveEnded(); }));
    reader.join();
    threads.join();
    EXPECT_TRUE(readerError == "CParallelReadAheadManager::getBrickData called after stop has been signalled." ||
                readerError ==
                    "Internal error: CParallelReadAheadManager::seekToBrick called after stop has been signalled")
        << readerError;
    EXPECT_EQ(pool->getFreeCount(), pool->getItemCount());
}
