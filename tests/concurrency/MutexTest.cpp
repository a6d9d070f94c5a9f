#include "zo/Mutex.h"
#include "zo/Signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using zo::CMutex;
using zo::CMutexLock;
using zo::CMutexUnlock;

namespace {

// Whether another thread can take `mutex` right now.
bool otherThreadCanLock(CMutex& mutex)
{
    bool locked = false;
    std::thread([&] {
        locked = mutex.tryLock();
        if (locked)
            mutex.unlock();
    }).join();
    return locked;
}

} // namespace

TEST(CMutex, SameThreadMayLockTwice)
{
    CMutex mutex;
    CMutexLock outer(mutex);
    {
        CMutexLock inner(&mutex);
        EXPECT_TRUE(mutex.tryLock());
        mutex.unlock();
    }
    EXPECT_FALSE(otherThreadCanLock(mutex)) << "still held by the outer lock";
}

TEST(CMutex, IsFreeOnlyAfterEveryLockIsUndone)
{
    CMutex mutex;
    mutex.lock();
    mutex.lock();
    mutex.unlock();
    EXPECT_FALSE(otherThreadCanLock(mutex));
    mutex.unlock();
    EXPECT_TRUE(otherThreadCanLock(mutex));
}

TEST(CMutex, LockScopeReleasesAtItsEnd)
{
    CMutex mutex;
    {
        CMutexLock lock(mutex);
        EXPECT_FALSE(otherThreadCanLock(mutex));
    }
    EXPECT_TRUE(otherThreadCanLock(mutex));
}

TEST(CMutex, KeepsCountersConsistentAcrossThreads)
{
    CMutex mutex;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                CMutexLock lock(mutex);
                ++counter;
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 80000);
}

TEST(CMutexUnlock, ReleasesHeldMutexForItsScopeAndRetakesIt)
{
    CMutex mutex;
    CMutexLock lock(mutex);
    {
        CMutexUnlock unlock(mutex);
        EXPECT_TRUE(otherThreadCanLock(mutex));
    }
    EXPECT_FALSE(otherThreadCanLock(mutex));
}

TEST(CMutexUnlock, LetsAnotherThreadChangeStateWhileWaiting)
{
    CMutex mutex;
    zo::P<zo::CSignal> changed(new zo::CSignal());
    int state = 0;
    CMutexLock lock(mutex);
    std::thread other([&] {
        CMutexLock otherLock(mutex);
        state = 1;
        changed->set();
    });
    {
        CMutexUnlock unlock(mutex);
        EXPECT_TRUE(changed->wait(-1));
    }
    EXPECT_EQ(state, 1);
    other.join();
}
