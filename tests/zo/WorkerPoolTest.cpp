// CWorkerPool: every job runs, the first error goes back to the caller after
// the rest have stopped, and destruction joins the workers.
#include "zo/WorkerPool.h"
#include "zo/Error.h"
#include "zo/Signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

using namespace zo;

namespace {

constexpr int waitMillis = 10000;

CFileSystemError failure(CFileSystemError::Problem problem, const char* message)
{
    return CFileSystemError(problem, CError(message));
}

TEST(WorkerPool, RunsEveryPostedJobOnce)
{
    std::vector<std::atomic<int>> runs(200);
    CWorkerPool pool(4);
    for (size_t i = 0; i < runs.size(); ++i)
        pool.post([&runs, i](int) { ++runs[i]; });
    pool.wait();
    for (size_t i = 0; i < runs.size(); ++i)
        EXPECT_EQ(runs[i], 1) << "job " << i;
    EXPECT_EQ(pool.waitForEndedJobs(0, 0), 200);
    EXPECT_FALSE(pool.isStopped());
}

TEST(WorkerPool, GivesEachJobTheNumberOfTheWorkerThatRunsIt)
{
    std::mutex mutex;
    std::set<std::thread::id> threads;
    std::vector<std::set<std::thread::id>> threadsOfWorker(3);
    bool outOfRange = false;
    CWorkerPool pool(3);
    EXPECT_EQ(pool.getWorkerCount(), 3);
    for (int i = 0; i < 100; ++i) {
        pool.post([&](int worker) {
            const std::lock_guard<std::mutex> lock(mutex);
            if (worker < 0 || worker >= 3) {
                outOfRange = true;
                return;
            }
            threadsOfWorker[static_cast<size_t>(worker)].insert(std::this_thread::get_id());
            threads.insert(std::this_thread::get_id());
        });
    }
    pool.wait();
    EXPECT_FALSE(outOfRange);
    EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
    // One number stands for one thread.
    for (const std::set<std::thread::id>& ids : threadsOfWorker)
        EXPECT_LE(ids.size(), 1U);
}

TEST(WorkerPool, WaitThrowsTheFirstErrorWithItsTypeAndDropsTheJobsNotStarted)
{
    std::atomic<int> laterRuns{0};
    CWorkerPool pool(1);
    pool.post([](int) { throw failure(CFileSystemError::NoSpace, "The first job failed."); });
    for (int i = 0; i < 20; ++i)
        pool.post([&](int) { ++laterRuns; });
    try {
        pool.wait();
        FAIL() << "wait() did not throw";
    } catch (const CFileSystemError& e) {
        EXPECT_EQ(e.getProblem(), CFileSystemError::NoSpace);
    }
    EXPECT_TRUE(pool.isStopped());
    EXPECT_EQ(laterRuns, 0);
    // The error stays the pool's outcome.
    EXPECT_THROW(pool.wait(), CFileSystemError);
}

TEST(WorkerPool, OnlyTheFirstErrorIsPassedBack)
{
    CWorkerPool pool(2);
    CSignal firstThrown;
    pool.post([&](int) {
        firstThrown.set();
        throw std::runtime_error("first");
    });
    pool.post([&](int) {
        firstThrown.wait(-1);
        // The deadline only keeps a broken pool from hanging the test.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMillis);
        while (!pool.isStopped() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
        throw std::runtime_error("second");
    });
    try {
        pool.wait();
        FAIL() << "wait() did not throw";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "first");
    }
}

TEST(WorkerPool, WaitLetsARunningJobEndBeforeItThrows)
{
    CSignal entered;
    CSignal mayReturn;
    std::atomic<bool> slowEnded{false};
    CWorkerPool pool(2);
    pool.post([&](int) {
        entered.set();
        mayReturn.wait(-1);
        slowEnded = true;
    });
    ASSERT_TRUE(entered.wait(waitMillis));
    pool.post([](int) { throw std::runtime_error("failed"); });
    EXPECT_EQ(pool.waitForEndedJobs(0, waitMillis), 1);
    EXPECT_TRUE(pool.isStopped());
    EXPECT_FALSE(pool.waitDone(0));
    mayReturn.set();
    EXPECT_THROW(pool.wait(), std::runtime_error);
    EXPECT_TRUE(slowEnded);
}

TEST(WorkerPool, StopDropsQueuedJobsAndLaterPosts)
{
    CSignal entered;
    CSignal mayReturn;
    std::atomic<int> runs{0};
    CWorkerPool pool(1);
    pool.post([&](int) {
        entered.set();
        mayReturn.wait(-1);
    });
    ASSERT_TRUE(entered.wait(waitMillis));
    pool.post([&](int) { ++runs; });
    pool.stop();
    pool.post([&](int) { ++runs; });
    mayReturn.set();
    EXPECT_NO_THROW(pool.wait());
    EXPECT_EQ(runs, 0);
    EXPECT_EQ(pool.waitForEndedJobs(0, 0), 1);
}

TEST(WorkerPool, DestructionWaitsForTheRunningJobAndDropsTheQueue)
{
    CSignal entered;
    CSignal mayReturn;
    std::atomic<bool> runningEnded{false};
    std::atomic<int> queuedRuns{0};
    auto pool = std::make_unique<CWorkerPool>(1);
    pool->post([&](int) {
        entered.set();
        mayReturn.wait(-1);
        runningEnded = true;
    });
    for (int i = 0; i < 5; ++i)
        pool->post([&](int) { ++queuedRuns; });
    ASSERT_TRUE(entered.wait(waitMillis));
    CSignal destroyed;
    std::thread destroyer([&] {
        pool.reset();
        destroyed.set();
    });
    // The destructor cannot end while the job runs.
    EXPECT_FALSE(destroyed.wait(50));
    mayReturn.set();
    destroyer.join();
    EXPECT_TRUE(runningEnded);
    EXPECT_EQ(queuedRuns, 0);
}

TEST(WorkerPool, DestructionAfterAFailureNeverThrows)
{
    auto pool = std::make_unique<CWorkerPool>(3);
    for (int i = 0; i < 10; ++i)
        pool->post([](int) { throw std::runtime_error("failed"); });
    EXPECT_TRUE(pool->waitDone(waitMillis));
    EXPECT_NO_THROW(pool.reset());
}

TEST(WorkerPool, JobsMayPostFurtherJobs)
{
    std::atomic<int> runs{0};
    CWorkerPool pool(2);
    pool.post([&](int) {
        ++runs;
        for (int i = 0; i < 10; ++i)
            pool.post([&](int) { ++runs; });
    });
    pool.wait();
    EXPECT_EQ(runs, 11);
}

} // namespace
