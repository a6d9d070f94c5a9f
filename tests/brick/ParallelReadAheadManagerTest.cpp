#include "brick/streams/ParallelReadAheadManager.h"

#include "zo/Error.h"
#include "zo/Props.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <typeinfo>
#include <vector>

using brick::CParallelReadAheadManager;
using zo::CError;
using zo::CInvalidArgError;
using zo::CIOError;
using zo::CProps;
using zo::int64;
using zo::P;
using zo::TBuffer;
using zo::uint8;

namespace {

using Data = P<TBuffer<uint8>>;

// How long a call that should return at once may take (generous, for loaded
// machines and sanitizers), and how long a call that should block is watched
// before it counts as waiting.
constexpr std::chrono::seconds kPatience(10);
constexpr std::chrono::milliseconds kSettle(50);

// Brick data that names its brick index and a tag, so that a test can tell a
// fresh delivery from one that should have been dropped.
Data makeBrickData(int64 brickIndex, uint8 tag = 0)
{
    Data data(new TBuffer<uint8>(9));
    for (int i = 0; i < 8; ++i)
        (*data)[i] = static_cast<uint8>(static_cast<zo::uint64>(brickIndex) >> (8 * i));
    (*data)[8] = tag;
    return data;
}

int64 brickIndexIn(const Data& data)
{
    zo::uint64 value = 0;
    for (int i = 0; i < 8; ++i)
        value |= static_cast<zo::uint64>((*data)[i]) << (8 * i);
    return static_cast<int64>(value);
}

uint8 tagIn(const Data& data)
{
    return (*data)[8];
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

// Runs one call on the manager on a thread of its own, for calls that block.
// Should the call still block when the object goes (an expectation failed),
// stop is signalled so that it returns; a call that does not return even then
// is left behind, so that a failing test fails instead of hanging.
template <class R>
class BackgroundCall {
public:
    BackgroundCall(P<CParallelReadAheadManager> manager, std::function<R(CParallelReadAheadManager&)> call)
        : m_manager(manager)
    {
        std::packaged_task<R()> task([manager, call] { return call(*manager); });
        m_future = task.get_future();
        m_thread = std::thread(std::move(task));
    }
    BackgroundCall(const BackgroundCall&) = delete;
    BackgroundCall& operator=(const BackgroundCall&) = delete;
    ~BackgroundCall()
    {
        if (!m_thread.joinable())
            return;
        if (!returnsWithin(std::chrono::milliseconds(0)))
            m_manager->signalStop();
        if (returnsWithin(kPatience))
            m_thread.join();
        else
            m_thread.detach();
    }

    // True when the call has not returned after kSettle.
    bool isBlocked() { return !returnsWithin(kSettle); }
    // True when the call returns within kPatience.
    bool returns() { return returnsWithin(kPatience); }
    // The call's result, or its exception; call only after returns(). The
    // thread is joined first, so that the result (an exception too) is
    // released on this thread only.
    R get()
    {
        m_thread.join();
        return m_future.get();
    }

private:
    bool returnsWithin(std::chrono::milliseconds time)
    {
        return !m_future.valid() || m_future.wait_for(time) == std::future_status::ready;
    }

    P<CParallelReadAheadManager> m_manager;
    std::future<R> m_future;
    std::thread m_thread;
};

BackgroundCall<int64> startClaim(const P<CParallelReadAheadManager>& manager)
{
    return {manager, [](CParallelReadAheadManager& m) { return m.nextBrickIndexForReadAhead(); }};
}

BackgroundCall<Data> startGet(const P<CParallelReadAheadManager>& manager, int64 brickIndex)
{
    return {manager, [brickIndex](CParallelReadAheadManager& m) { return m.getBrickData(brickIndex); }};
}

// A claim that must not block; -2 (with a failure) when it does.
int64 claim(const P<CParallelReadAheadManager>& manager)
{
    BackgroundCall<int64> call = startClaim(manager);
    if (!call.returns()) {
        ADD_FAILURE() << "nextBrickIndexForReadAhead blocked";
        return -2;
    }
    return call.get();
}

// A read of a delivered brick that must not block; null (with a failure) when
// it does.
Data consume(const P<CParallelReadAheadManager>& manager, int64 brickIndex)
{
    BackgroundCall<Data> call = startGet(manager, brickIndex);
    if (!call.returns()) {
        ADD_FAILURE() << "getBrickData(" << brickIndex << ") blocked";
        return nullptr;
    }
    return call.get();
}

void deliver(const P<CParallelReadAheadManager>& manager, int64 brickIndex, uint8 tag = 0)
{
    manager->storeReadAheadResult(brickIndex, makeBrickData(brickIndex, tag).get(), nullptr);
}

void expectBrick(const Data& data, int64 brickIndex, uint8 tag = 0)
{
    ASSERT_TRUE(data);
    EXPECT_EQ(brickIndexIn(data), brickIndex);
    EXPECT_EQ(tagIn(data), tag);
}

void expectCalledAfterStopError(const CError& error)
{
    EXPECT_EQ(typeid(error), typeid(CError));
    EXPECT_EQ(error.getMessage(), "CParallelReadAheadManager::getBrickData called after stop has been signalled.");
    EXPECT_TRUE(error.getDomain().isEmpty());
    EXPECT_EQ(error.getCode(), -1);
    EXPECT_TRUE(error.getProps().isEmpty());
    EXPECT_FALSE(error.getCause());
}

void expectInvalidIndexError(const std::function<void()>& call)
{
    try {
        call();
        ADD_FAILURE() << "no error thrown";
    } catch (const CInvalidArgError& error) {
        EXPECT_EQ(error.getWhere(), "CParallelReadAheadManager::seekToBrick");
        EXPECT_EQ(error.getMessage(), "brickIndex is invalid");
        EXPECT_EQ(error.getProps(), CProps().add("brickIndex", "-1"));
    }
}

P<CParallelReadAheadManager> makeManager(int64 brickCount, int slotCount)
{
    return P<CParallelReadAheadManager>(new CParallelReadAheadManager(brickCount, slotCount));
}

// Read threads as the stream runs them: each claims an index and delivers data
// that names the index and, as its tag, how many times the index has been
// claimed so far (1 for the first read). Indexes in `failFirstRead` get a
// CIOError instead on their first read.
class ReadThreads {
public:
    ReadThreads(const P<CParallelReadAheadManager>& manager, int threadCount, std::set<int64> failFirstRead = {})
        : m_state(std::make_shared<State>())
    {
        m_state->manager = manager;
        m_state->failFirstRead = std::move(failFirstRead);
        for (int i = 0; i < threadCount; ++i)
            m_threads.emplace_back([state = m_state] { run(*state); });
    }
    ReadThreads(const ReadThreads&) = delete;
    ReadThreads& operator=(const ReadThreads&) = delete;
    ~ReadThreads() { stopAndJoin(); }

    // The indexes claimed from the `first`-th claim on, in increasing order.
    std::vector<int64> claimsFrom(size_t first) const
    {
        std::lock_guard lock(m_state->mutex);
        std::vector<int64> claims(m_state->claims.begin() +
                                      static_cast<std::ptrdiff_t>(std::min(first, m_state->claims.size())),
                                  m_state->claims.end());
        std::sort(claims.begin(), claims.end());
        return claims;
    }
    // Waits until at least `count` claims were made; false when that takes too long.
    bool waitForClaims(size_t count) const
    {
        return waitUntil([this, count] {
            std::lock_guard lock(m_state->mutex);
            return m_state->claims.size() >= count;
        });
    }
    // Signals stop and waits for every thread to end; false when one does not
    // end in time (it is then left behind).
    bool stopAndJoin()
    {
        if (m_threads.empty())
            return true;
        m_state->manager->signalStop();
        const bool ended =
            waitUntil([this] { return m_state->endedThreads.load() == static_cast<int>(m_threads.size()); });
        for (auto& thread : m_threads)
            if (ended)
                thread.join();
            else
                thread.detach();
        m_threads.clear();
        return ended;
    }

private:
    struct State {
        P<CParallelReadAheadManager> manager;
        std::set<int64> failFirstRead;
        std::mutex mutex;
        std::vector<int64> claims;
        std::map<int64, int> readCounts;
        std::atomic<int> endedThreads{0};
    };

    static void run(State& state)
    {
        for (;;) {
            const int64 index = state.manager->nextBrickIndexForReadAhead();
            if (index == -1)
                break;
            int readCount = 0;
            {
                std::lock_guard lock(state.mutex);
                state.claims.push_back(index);
                readCount = ++state.readCounts[index];
            }
            if (readCount == 1 && state.failFirstRead.count(index) > 0) {
                const P<CError> error(
                    new CIOError(CIOError::ReadFailed, "Brick file unreadable.", CProps().add("brickIndex", index)));
                state.manager->storeReadAheadResult(index, nullptr, error.get());
            } else {
                deliver(state.manager, index, static_cast<uint8>(readCount));
            }
        }
        ++state.endedThreads;
    }

    std::shared_ptr<State> m_state;
    std::vector<std::thread> m_threads;
};

// Gives tests the restart operation that getBrickData uses.
class SeekableManager : public CParallelReadAheadManager {
public:
    using CParallelReadAheadManager::CParallelReadAheadManager;
    using CParallelReadAheadManager::seekToBrick;
};

} // namespace

TEST(ParallelReadAheadManager, HandsOutIndexesInIncreasingOrderFromZero)
{
    auto manager = makeManager(5, 5);
    for (int64 expected = 0; expected < 5; ++expected)
        EXPECT_EQ(claim(manager), expected);
}

TEST(ParallelReadAheadManager, WithNoBricksThreadsBlockUntilStopThenReceiveMinusOne)
{
    auto manager = makeManager(0, 2);
    BackgroundCall<int64> first = startClaim(manager);
    BackgroundCall<int64> second = startClaim(manager);
    BackgroundCall<int64> third = startClaim(manager);
    EXPECT_TRUE(first.isBlocked());
    EXPECT_TRUE(second.isBlocked());
    EXPECT_TRUE(third.isBlocked());

    manager->signalStop();
    ASSERT_TRUE(first.returns());
    ASSERT_TRUE(second.returns());
    ASSERT_TRUE(third.returns());
    EXPECT_EQ(first.get(), -1);
    EXPECT_EQ(second.get(), -1);
    EXPECT_EQ(third.get(), -1);
}

TEST(ParallelReadAheadManager, ThreadBlocksOnceEveryBrickIsHandedOutUntilStop)
{
    auto manager = makeManager(2, 4);
    EXPECT_EQ(claim(manager), 0);
    EXPECT_EQ(claim(manager), 1);
    BackgroundCall<int64> waiting = startClaim(manager);
    EXPECT_TRUE(waiting.isBlocked());

    manager->signalStop();
    ASSERT_TRUE(waiting.returns());
    EXPECT_EQ(waiting.get(), -1);
}

TEST(ParallelReadAheadManager, AfterStopEveryClaimReceivesMinusOneAndGivesItsSlotBack)
{
    auto manager = makeManager(10, 2);
    manager->signalStop();
    // More claims than slots: each must give its slot back or the third blocks.
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(claim(manager), -1);
}

TEST(ParallelReadAheadManager, AtMostSlotCountIndexesAreClaimedAndNotConsumed)
{
    auto manager = makeManager(100, 3);
    ReadThreads threads(manager, 5);
    ASSERT_TRUE(threads.waitForClaims(3));
    std::this_thread::sleep_for(kSettle);
    EXPECT_EQ(threads.claimsFrom(0), (std::vector<int64>{0, 1, 2}));

    expectBrick(consume(manager, 0), 0, 1);
    ASSERT_TRUE(threads.waitForClaims(4));
    std::this_thread::sleep_for(kSettle);
    EXPECT_EQ(threads.claimsFrom(0), (std::vector<int64>{0, 1, 2, 3}));

    expectBrick(consume(manager, 1), 1, 1);
    expectBrick(consume(manager, 2), 2, 1);
    ASSERT_TRUE(threads.waitForClaims(6));
    std::this_thread::sleep_for(kSettle);
    EXPECT_EQ(threads.claimsFrom(0), (std::vector<int64>{0, 1, 2, 3, 4, 5}));

    EXPECT_TRUE(threads.stopAndJoin());
}

TEST(ParallelReadAheadManager, ReaderAskingInOrderNeverRestartsTheReadAhead)
{
    auto manager = makeManager(10, 4);
    for (int64 index = 0; index < 4; ++index) {
        ASSERT_EQ(claim(manager), index);
        deliver(manager, index);
    }
    expectBrick(consume(manager, 0), 0);
    EXPECT_EQ(claim(manager), 4);
    deliver(manager, 4);
    // A restart would have dropped these results and made the reads block.
    for (int64 index = 1; index < 5; ++index)
        expectBrick(consume(manager, index), index);
    EXPECT_EQ(claim(manager), 5);
}

TEST(ParallelReadAheadManager, JumpDropsAllResultsGivesBackEverySlotAndContinuesAtTheNewIndex)
{
    auto manager = makeManager(100, 4);
    ReadThreads threads(manager, 6);
    for (int64 index = 0; index < 3; ++index)
        expectBrick(consume(manager, index), index, 1);
    ASSERT_TRUE(threads.waitForClaims(7));
    std::this_thread::sleep_for(kSettle);
    ASSERT_EQ(threads.claimsFrom(0), (std::vector<int64>{0, 1, 2, 3, 4, 5, 6}));

    expectBrick(consume(manager, 7), 7, 1);
    // Four slots came back from the dropped bricks 3 to 6, one more when 7
    // was consumed.
    ASSERT_TRUE(threads.waitForClaims(12));
    std::this_thread::sleep_for(kSettle);
    EXPECT_EQ(threads.claimsFrom(7), (std::vector<int64>{7, 8, 9, 10, 11}));

    // Brick 3 was read ahead before the jump; that result is gone, so it is read again.
    expectBrick(consume(manager, 3), 3, 2);
    EXPECT_TRUE(threads.stopAndJoin());
}

TEST(ParallelReadAheadManager, AskingAgainForTheIndexJustConsumedRestartsThere)
{
    auto manager = makeManager(10, 3);
    ReadThreads threads(manager, 3);
    ASSERT_TRUE(threads.waitForClaims(3));
    expectBrick(consume(manager, 0), 0, 1);
    expectBrick(consume(manager, 1), 1, 1);

    expectBrick(consume(manager, 1), 1, 2);
    // Brick 2, read ahead before the restart, is read once more after it.
    expectBrick(consume(manager, 2), 2, 2);
    EXPECT_TRUE(threads.stopAndJoin());
}

TEST(ParallelReadAheadManager, ThreadWaitingForWorkResumesAtTheIndexTheReaderJumpsTo)
{
    auto manager = makeManager(3, 4);
    for (int64 index = 0; index < 3; ++index) {
        ASSERT_EQ(claim(manager), index);
        deliver(manager, index);
    }
    BackgroundCall<int64> waiting = startClaim(manager);
    EXPECT_TRUE(waiting.isBlocked());

    BackgroundCall<Data> reader = startGet(manager, 1);
    ASSERT_TRUE(waiting.returns());
    EXPECT_EQ(waiting.get(), 1);
    EXPECT_TRUE(reader.isBlocked());
    deliver(manager, 1, 5);
    ASSERT_TRUE(reader.returns());
    expectBrick(reader.get(), 1, 5);
}

TEST(ParallelReadAheadManager, GetBrickDataWaitsForAClaimedBrickUntilItsResultIsStored)
{
    auto manager = makeManager(10, 2);
    ASSERT_EQ(claim(manager), 0);
    BackgroundCall<Data> reader = startGet(manager, 0);
    EXPECT_TRUE(reader.isBlocked());

    deliver(manager, 0);
    ASSERT_TRUE(reader.returns());
    expectBrick(reader.get(), 0);
}

TEST(ParallelReadAheadManager, GetBrickDataReturnsTheStoredBufferItself)
{
    auto manager = makeManager(10, 2);
    ASSERT_EQ(claim(manager), 0);
    Data stored = makeBrickData(0);
    manager->storeReadAheadResult(0, stored.get(), nullptr);
    EXPECT_EQ(consume(manager, 0).get(), stored.get());
}

TEST(ParallelReadAheadManager, StopFromAnotherThreadEndsTheWaitOfGetBrickDataWithCalledAfterStopError)
{
    auto manager = makeManager(10, 2);
    ASSERT_EQ(claim(manager), 0);
    BackgroundCall<Data> reader = startGet(manager, 0);
    EXPECT_TRUE(reader.isBlocked());

    manager->signalStop();
    ASSERT_TRUE(reader.returns());
    try {
        reader.get();
        ADD_FAILURE() << "no error thrown";
    } catch (const CError& error) {
        expectCalledAfterStopError(error);
    }
}

TEST(ParallelReadAheadManager, GetBrickDataAfterStopThrowsCalledAfterStopError)
{
    auto manager = makeManager(10, 2);
    ASSERT_EQ(claim(manager), 0);
    deliver(manager, 0);
    manager->signalStop();
    try {
        manager->getBrickData(0);
        ADD_FAILURE() << "no error thrown";
    } catch (const CError& error) {
        expectCalledAfterStopError(error);
    }
}

TEST(ParallelReadAheadManager, JumpAfterStopThrowsInternalErrorWithTheBrickIndex)
{
    auto manager = makeManager(10, 2);
    manager->signalStop();
    try {
        manager->getBrickData(5);
        ADD_FAILURE() << "no error thrown";
    } catch (const CError& error) {
        EXPECT_EQ(typeid(error), typeid(CError));
        EXPECT_EQ(error.getMessage(),
                  "Internal error: CParallelReadAheadManager::seekToBrick called after stop has been signalled");
        EXPECT_TRUE(error.getDomain().isEmpty());
        EXPECT_EQ(error.getCode(), -1);
        EXPECT_EQ(error.getProps(), CProps().add("brickIndex", "5"));
        EXPECT_FALSE(error.getCause());
    }
}

TEST(ParallelReadAheadManager, NegativeIndexIsInvalidAndLeavesTheReadAheadAlone)
{
    auto manager = makeManager(10, 2);
    ASSERT_EQ(claim(manager), 0);
    deliver(manager, 0);
    expectInvalidIndexError([&] { manager->getBrickData(-1); });
    expectBrick(consume(manager, 0), 0);
    EXPECT_EQ(claim(manager), 1);
}

TEST(ParallelReadAheadManager, NegativeIndexIsInvalidEvenAfterStop)
{
    P<SeekableManager> manager(new SeekableManager(10, 2));
    manager->signalStop();
    expectInvalidIndexError([&] { manager->seekToBrick(-1); });
    expectInvalidIndexError([&] { manager->getBrickData(-1); });
}

TEST(ParallelReadAheadManager, SeekToTheExpectedIndexKeepsTheResults)
{
    P<SeekableManager> manager(new SeekableManager(10, 2));
    ASSERT_EQ(claim(manager), 0);
    ASSERT_EQ(claim(manager), 1);
    deliver(manager, 0);
    deliver(manager, 1);
    manager->seekToBrick(0);
    expectBrick(consume(manager, 0), 0);
    expectBrick(consume(manager, 1), 1);
}

TEST(ParallelReadAheadManager, ResultForABrickDroppedByARestartIsDropped)
{
    P<SeekableManager> manager(new SeekableManager(10, 2));
    ASSERT_EQ(claim(manager), 0);
    ASSERT_EQ(claim(manager), 1);
    manager->seekToBrick(5);
    // Threads that were still reading bricks 0 and 1 deliver them late.
    EXPECT_NO_THROW(deliver(manager, 0));
    EXPECT_NO_THROW(deliver(manager, 1));
    EXPECT_EQ(claim(manager), 5);
    EXPECT_EQ(claim(manager), 6);

    // Had the late results been kept, the next restart would hand back more
    // slots than exist.
    manager->seekToBrick(0);
    EXPECT_EQ(claim(manager), 0);
    EXPECT_EQ(claim(manager), 1);
    BackgroundCall<int64> thirdClaim = startClaim(manager);
    EXPECT_TRUE(thirdClaim.isBlocked());
}

TEST(ParallelReadAheadManager, ResultForABrickNeverClaimedIsDropped)
{
    auto manager = makeManager(10, 2);
    deliver(manager, 0, 1);
    BackgroundCall<Data> reader = startGet(manager, 0);
    EXPECT_TRUE(reader.isBlocked());
    ASSERT_EQ(claim(manager), 0);
    deliver(manager, 0, 2);
    ASSERT_TRUE(reader.returns());
    expectBrick(reader.get(), 0, 2);
}

TEST(ParallelReadAheadManager, SecondResultForABrickIsDropped)
{
    auto manager = makeManager(10, 2);
    ASSERT_EQ(claim(manager), 0);
    deliver(manager, 0, 1);
    deliver(manager, 0, 2);
    expectBrick(consume(manager, 0), 0, 1);
}

TEST(ParallelReadAheadManager, ResultStoredAfterStopIsDropped)
{
    auto manager = makeManager(10, 2);
    ASSERT_EQ(claim(manager), 0);
    manager->signalStop();
    EXPECT_NO_THROW(deliver(manager, 0));
    try {
        manager->getBrickData(0);
        ADD_FAILURE() << "no error thrown";
    } catch (const CError& error) {
        expectCalledAfterStopError(error);
    }
}

TEST(ParallelReadAheadManager, StoredErrorIsThrownWithItsOwnType)
{
    auto manager = makeManager(10, 2);
    ASSERT_EQ(claim(manager), 0);
    const P<CError> readFailure(
        new CIOError(CIOError::ReadFailed, "Brick file unreadable.", CProps().add("uri", "/d/b")));
    manager->storeReadAheadResult(0, nullptr, readFailure.get());
    try {
        manager->getBrickData(0);
        ADD_FAILURE() << "no error thrown";
    } catch (const CIOError& error) {
        EXPECT_EQ(typeid(error), typeid(CIOError));
        EXPECT_EQ(error.getIOCode(), CIOError::ReadFailed);
        EXPECT_EQ(error.getMessage(), "Brick file unreadable.");
        EXPECT_EQ(error.getProps(), CProps().add("uri", "/d/b"));
    }
}

TEST(ParallelReadAheadManager, FailedBrickIsConsumedOnceAndTheReadAheadGoesOn)
{
    auto manager = makeManager(10, 2);
    ReadThreads threads(manager, 2, {0});
    BackgroundCall<Data> failing = startGet(manager, 0);
    ASSERT_TRUE(failing.returns());
    try {
        failing.get();
        ADD_FAILURE() << "no error thrown";
    } catch (const CIOError& error) {
        EXPECT_EQ(error.getProps().lookup("brickIndex"), "0");
    }
    // The next brick follows without a restart: it is still on its first read.
    expectBrick(consume(manager, 1), 1, 1);
    // Asking for the failed brick again reads it once more.
    expectBrick(consume(manager, 0), 0, 2);
    EXPECT_TRUE(threads.stopAndJoin());
}

// ---- Runs of reads and loader threads --------------------------------------

namespace {

P<CParallelReadAheadManager> makeRunManager(int64 brickCount, int64 runBricksAhead)
{
    return P<CParallelReadAheadManager>(new CParallelReadAheadManager(brickCount, 0, runBricksAhead));
}

bool anyBrick(int64)
{
    return true;
}

// Reads bricks first ... last one read at a time, in order.
void readInOrder(CParallelReadAheadManager& manager, int64 first, int64 last,
                 const CParallelReadAheadManager::NeedsLoad& needsLoad = anyBrick)
{
    for (int64 index = first; index <= last; ++index)
        manager.noteRead(index, index, needsLoad);
}

} // namespace

TEST(ParallelReadAheadManager, RunContinuedTwiceQueuesTheBricksAfterIt)
{
    auto manager = makeRunManager(20, 4);
    readInOrder(*manager, 0, 1);
    BackgroundCall<int64> early = startClaim(manager);
    EXPECT_TRUE(early.isBlocked());

    manager->noteRead(2, 2, anyBrick);
    ASSERT_TRUE(early.returns());
    EXPECT_EQ(early.get(), 3);
    EXPECT_EQ(claim(manager), 4);
    EXPECT_EQ(claim(manager), 5);
    EXPECT_EQ(claim(manager), 6);
    BackgroundCall<int64> beyond = startClaim(manager);
    EXPECT_TRUE(beyond.isBlocked());
}

TEST(ParallelReadAheadManager, ScatteredReadsQueueNothing)
{
    auto manager = makeRunManager(100, 4);
    for (const int64 index : {0, 50, 20, 80, 35, 65})
        manager->noteRead(index, index, anyBrick);
    BackgroundCall<int64> loader = startClaim(manager);
    EXPECT_TRUE(loader.isBlocked());
}

TEST(ParallelReadAheadManager, RunQueuesEachBrickOnceAndOnlyTheBricksTheReaderLacks)
{
    auto manager = makeRunManager(20, 4);
    const auto lacksOddBricks = [](int64 index) { return index % 2 == 0; };
    readInOrder(*manager, 0, 2, lacksOddBricks);
    // The same run goes on: bricks 4 and 6 are queued already, 8 is new.
    manager->noteRead(3, 4, lacksOddBricks);
    EXPECT_EQ(claim(manager), 4);
    EXPECT_EQ(claim(manager), 6);
    EXPECT_EQ(claim(manager), 8);
    BackgroundCall<int64> beyond = startClaim(manager);
    EXPECT_TRUE(beyond.isBlocked());
}

TEST(ParallelReadAheadManager, FullQueueDropsItsOldestBricks)
{
    // Runs of 16 bricks ahead queue 32 bricks at most.
    auto manager = makeRunManager(1000, 16);
    readInOrder(*manager, 0, 2);
    readInOrder(*manager, 500, 502);
    readInOrder(*manager, 600, 602);
    // Bricks 3 to 18 gave way to the two later runs.
    for (int64 expected = 503; expected < 519; ++expected)
        EXPECT_EQ(claim(manager), expected);
    for (int64 expected = 603; expected < 619; ++expected)
        EXPECT_EQ(claim(manager), expected);
}

TEST(ParallelReadAheadManager, LoadersLoadQueuedBricksThenEndAtStop)
{
    auto manager = makeRunManager(20, 4);
    std::mutex mutex;
    std::multiset<int64> loaded;
    std::set<int> workers;
    manager->startLoaders(2, [&](int worker, int64 index) {
        std::lock_guard lock(mutex);
        loaded.insert(index);
        workers.insert(worker);
    });
    readInOrder(*manager, 0, 2);
    const auto loadedCount = [&] {
        std::lock_guard lock(mutex);
        return loaded.size();
    };
    ASSERT_TRUE(waitUntil([&] { return loadedCount() == 4; }));

    manager->stop();
    readInOrder(*manager, 3, 10);
    std::lock_guard lock(mutex);
    EXPECT_EQ(loaded, (std::multiset<int64>{3, 4, 5, 6}));
    for (const int worker : workers)
        EXPECT_TRUE(worker == 0 || worker == 1) << worker;
    EXPECT_EQ(manager->nextBrickIndexForReadAhead(), -1);
}

TEST(ParallelReadAheadManager, LoadersDeliverBricksToTheReaderInOrder)
{
    P<CParallelReadAheadManager> manager(new CParallelReadAheadManager(6, 2));
    CParallelReadAheadManager* engine = manager.get();
    manager->startLoaders(
        3, [engine](int, int64 index) { engine->storeReadAheadResult(index, makeBrickData(index).get(), nullptr); });
    for (int64 index = 0; index < 6; ++index)
        expectBrick(consume(manager, index), index);
    manager->stop();
    try {
        manager->getBrickData(6);
        ADD_FAILURE() << "no error thrown";
    } catch (const CError& error) {
        expectCalledAfterStopError(error);
    }
}
