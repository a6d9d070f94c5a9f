// CWorkerPool under load: jobs posted from several threads at once all run
// exactly once, and a failure amid many running jobs stops the pool cleanly:
// every job either ran to its end or never started.
#include "zo/WorkerPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

using zo::CWorkerPool;

namespace {

TEST(WorkerPoolStress, JobsPostedFromSeveralThreadsAllRunOnce)
{
    constexpr int posters = 4;
    constexpr int jobsPerPoster = 500;
    std::vector<std::atomic<int>> runs(posters * jobsPerPoster);
    CWorkerPool pool(4);
    std::vector<std::thread> threads;
    for (int p = 0; p < posters; ++p) {
        threads.emplace_back([&, p] {
            for (int j = 0; j < jobsPerPoster; ++j)
                pool.post([&runs, index = p * jobsPerPoster + j](int) { ++runs[static_cast<size_t>(index)]; });
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    pool.wait();
    for (size_t i = 0; i < runs.size(); ++i)
        ASSERT_EQ(runs[i], 1) << "job " << i;
    EXPECT_EQ(pool.waitForEndedJobs(0, 0), posters * jobsPerPoster);
}

TEST(WorkerPoolStress, AFailureAmidRunningJobsLeavesNoJobHalfDone)
{
    constexpr int jobs = 2000;
    constexpr int failing = 700;
    std::vector<std::atomic<int>> started(jobs);
    std::vector<std::atomic<int>> ended(jobs);
    CWorkerPool pool(8);
    for (int i = 0; i < jobs; ++i) {
        pool.post([&, i](int) {
            ++started[static_cast<size_t>(i)];
            if (i == failing)
                throw std::runtime_error("job failed");
            std::this_thread::yield();
            ++ended[static_cast<size_t>(i)];
        });
    }
    EXPECT_THROW(pool.wait(), std::runtime_error);
    int startedCount = 0;
    for (int i = 0; i < jobs; ++i) {
        const auto index = static_cast<size_t>(i);
        ASSERT_LE(started[index], 1) << "job " << i;
        if (i != failing) {
            ASSERT_EQ(started[index], ended[index]) << "job " << i;
        }
        startedCount += started[index];
    }
    EXPECT_EQ(started[failing], 1);
    // Every job that started has ended by the time wait() threw.
    EXPECT_EQ(pool.waitForEndedJobs(0, 0), startedCount);
}

} // namespace
