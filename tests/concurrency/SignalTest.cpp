#include "zo/Signal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using zo::CSignal;
using zo::P;

TEST(CSignal, StartsUnsetUnlessAskedOtherwise)
{
    P<CSignal> unset(new CSignal());
    EXPECT_FALSE(unset->isSet());
    EXPECT_FALSE(unset->wait(0));
    P<CSignal> set(new CSignal(true));
    EXPECT_TRUE(set->isSet());
    EXPECT_TRUE(set->wait(0));
}

TEST(CSignal, StaysSetUntilReset)
{
    P<CSignal> signal(new CSignal());
    signal->set();
    EXPECT_TRUE(signal->wait(0));
    EXPECT_TRUE(signal->wait(10));
    EXPECT_TRUE(signal->wait(-1));
    EXPECT_TRUE(signal->isSet());
    signal->reset();
    EXPECT_FALSE(signal->isSet());
    EXPECT_FALSE(signal->wait(0));
}

TEST(CSignal, WaitTimesOutWhenNobodySets)
{
    P<CSignal> signal(new CSignal());
    EXPECT_FALSE(signal->wait(20));
}

TEST(CSignal, WaitWakesWhenAnotherThreadSets)
{
    P<CSignal> signal(new CSignal());
    std::thread setter([signal] { signal->set(); });
    EXPECT_TRUE(signal->wait(-1));
    setter.join();
}

TEST(CSignal, SetWakesEveryWaiter)
{
    P<CSignal> signal(new CSignal());
    std::atomic<int> woken{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i)
        waiters.emplace_back([&] {
            if (signal->wait(-1))
                ++woken;
        });
    signal->set();
    for (auto& waiter : waiters)
        waiter.join();
    EXPECT_EQ(woken.load(), 4);
}

TEST(CSignal, ResetBeforeWaitMakesWaiterWaitForNextSet)
{
    P<CSignal> signal(new CSignal(true));
    P<CSignal> waiting(new CSignal());
    signal->reset();
    std::atomic<bool> returned{false};
    std::thread waiter([&] {
        waiting->set();
        returned = signal->wait(-1);
    });
    waiting->wait(-1);
    EXPECT_FALSE(signal->wait(10));
    signal->set();
    waiter.join();
    EXPECT_TRUE(returned.load());
}
