#include "zo/Base.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using zo::P;

namespace {

class Counted : public zo::CBase {
public:
    explicit Counted(std::atomic<int>* destroyed) : m_destroyed(destroyed) {}
    ~Counted() override { ++*m_destroyed; }
    int payload = 42;

private:
    std::atomic<int>* m_destroyed;
};

} // namespace

TEST(CBaseConcurrency, ManyThreadsAddingAndReleasingKeepCountExact)
{
    std::atomic<int> destroyed{0};
    P<Counted> object(new Counted(&destroyed));
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                object->addRef();
                object->release();
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(object->getRefCount(), 1);
    EXPECT_EQ(destroyed.load(), 0);
    object.reset();
    EXPECT_EQ(destroyed.load(), 1);
}

TEST(CBaseConcurrency, CopiesOfPointersOnManyThreadsDestroyOnce)
{
    std::atomic<int> destroyed{0};
    for (int round = 0; round < 50; ++round) {
        P<Counted> object(new Counted(&destroyed));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([copy = object] {
                for (int i = 0; i < 100; ++i) {
                    P<Counted> local = copy;
                    EXPECT_EQ(local->payload, 42);
                }
            });
        object.reset();
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(destroyed.load(), round + 1);
    }
}

TEST(CBaseConcurrency, LastReleaseOnAnotherThreadSeesEarlierWrites)
{
    std::atomic<int> destroyed{0};
    P<Counted> object(new Counted(&destroyed));
    object->payload = 7;
    std::thread other([moved = std::move(object)]() mutable {
        EXPECT_EQ(moved->payload, 7);
        moved.reset();
    });
    other.join();
    EXPECT_EQ(destroyed.load(), 1);
}
