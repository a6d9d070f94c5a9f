#include "zo/Semaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using zo::CSemaphore;
using zo::P;

TEST(CSemaphore, AcquireTakesCountsUntilNoneAreLeft)
{
    P<CSemaphore> semaphore(new CSemaphore(2));
    EXPECT_EQ(semaphore->getCount(), 2u);
    EXPECT_TRUE(semaphore->acquire(0));
    EXPECT_TRUE(semaphore->acquire(-1));
    EXPECT_EQ(semaphore->getCount(), 0u);
    EXPECT_FALSE(semaphore->acquire(0));
}

TEST(CSemaphore, AcquireTimesOutWhenNothingIsPosted)
{
    P<CSemaphore> semaphore(new CSemaphore(0));
    EXPECT_FALSE(semaphore->acquire(20));
    EXPECT_EQ(semaphore->getCount(), 0u);
}

TEST(CSemaphore, PostAddsCounts)
{
    P<CSemaphore> semaphore(new CSemaphore());
    semaphore->post();
    semaphore->post(3);
    EXPECT_EQ(semaphore->getCount(), 4u);
}

TEST(CSemaphore, PostWakesWaiterOnAnotherThread)
{
    P<CSemaphore> semaphore(new CSemaphore(0));
    std::atomic<bool> acquired{false};
    std::thread waiter([&] { acquired = semaphore->acquire(-1); });
    semaphore->post();
    waiter.join();
    EXPECT_TRUE(acquired.load());
    EXPECT_EQ(semaphore->getCount(), 0u);
}

TEST(CSemaphore, PostOfSeveralWakesAsManyWaiters)
{
    P<CSemaphore> semaphore(new CSemaphore(0));
    std::atomic<int> acquired{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            if (semaphore->acquire(-1))
                ++acquired;
        });
    semaphore->post(3);
    for (auto& waiter : waiters)
        waiter.join();
    EXPECT_EQ(acquired.load(), 3);
    EXPECT_EQ(semaphore->getCount(), 0u);
}

TEST(CSemaphore, BoundsHoldersAcrossThreads)
{
    P<CSemaphore> slots(new CSemaphore(2));
    std::atomic<int> holders{0};
    std::atomic<int> mostHolders{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                ASSERT_TRUE(slots->acquire(-1));
                const int now = ++holders;
                int seen = mostHolders.load();
                while (now > seen && !mostHolders.compare_exchange_weak(seen, now)) {
                }
                --holders;
                slots->post();
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_LE(mostHolders.load(), 2);
    EXPECT_EQ(slots->getCount(), 2u);
}
