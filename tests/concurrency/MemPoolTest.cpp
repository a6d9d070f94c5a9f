#include "zo/MemPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

using zo::CMemPool;
using zo::CMemPoolBuffer;
using zo::P;

namespace {

// A queue that hands buffers from one thread to another.
class BufferQueue {
public:
    void push(P<CMemPoolBuffer> buffer)
    {
        {
            std::lock_guard lock(m_mutex);
            m_items.push_back(std::move(buffer));
        }
        m_changed.notify_one();
    }
    // Null once the producer has closed the queue and it is empty.
    P<CMemPoolBuffer> pop()
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return !m_items.empty() || m_closed; });
        if (m_items.empty())
            return P<CMemPoolBuffer>();
        P<CMemPoolBuffer> buffer = std::move(m_items.front());
        m_items.pop_front();
        return buffer;
    }
    void close()
    {
        {
            std::lock_guard lock(m_mutex);
            m_closed = true;
        }
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<P<CMemPoolBuffer>> m_items;
    bool m_closed = false;
};

// Counts how many buffers and pools exist, so tests can see that everything
// made is destroyed exactly once.
struct Census {
    std::atomic<int> buffers{0};
    std::atomic<int> pools{0};
};

class CensusBuffer : public CMemPoolBuffer {
public:
    CensusBuffer(Census& census, int capacity) : CMemPoolBuffer(0, capacity), m_census(census) { ++m_census.buffers; }
    ~CensusBuffer() override { --m_census.buffers; }

private:
    Census& m_census;
};

class CensusPool : public CMemPool {
public:
    CensusPool(Census& census, int initialCount, int capacity, int growBy)
        : CMemPool(0, capacity, growBy), m_census(census)
    {
        ++m_census.pools;
        addItems(initialCount);
    }
    ~CensusPool() override { --m_census.pools; }

protected:
    CMemPoolBuffer* createItem() override { return new CensusBuffer(m_census, getBufferCapacity()); }

private:
    Census& m_census;
};

} // namespace

TEST(CMemPoolConcurrency, CheckOutsOnManyThreadsNeverShareABuffer)
{
    P<CMemPool> pool(new CMemPool(2, 256, 1));
    std::vector<std::thread> threads;
    std::atomic<int> damaged{0};
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&, t] {
            const auto mark = static_cast<zo::uint8>(t + 1);
            for (int i = 0; i < 500; ++i) {
                P<CMemPoolBuffer> buffer = pool->checkOutItem();
                if (buffer->getUsed() != 0)
                    ++damaged;
                buffer->setUsed(256);
                std::fill(buffer->getData(), buffer->getData() + 256, mark);
                std::this_thread::yield();
                if (!std::all_of(buffer->getData(), buffer->getData() + 256, [&](zo::uint8 b) { return b == mark; }))
                    ++damaged;
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(damaged.load(), 0);
    EXPECT_LE(pool->getItemCount(), 6);
    EXPECT_EQ(pool->getFreeCount(), pool->getItemCount());
}

TEST(CMemPoolConcurrency, BuffersReleasedOnAnotherThreadReturnToPool)
{
    P<CMemPool> pool(new CMemPool(4, 64, 1));
    BufferQueue queue;
    std::thread consumer([&] {
        while (P<CMemPoolBuffer> buffer = queue.pop())
            buffer.reset();
    });
    for (int i = 0; i < 1000; ++i) {
        P<CMemPoolBuffer> buffer = pool->checkOutItem();
        buffer->setUsed(8);
        queue.push(std::move(buffer));
    }
    queue.close();
    consumer.join();
    EXPECT_EQ(pool->getFreeCount(), pool->getItemCount());
}

TEST(CMemPoolConcurrency, PoolDroppedByOwnerWhileThreadsHoldBuffersGoesWithLastBuffer)
{
    Census census;
    for (int round = 0; round < 20; ++round) {
        P<CMemPool> pool(new CensusPool(census, 4, 64, 2));
        std::vector<std::thread> holders;
        for (int t = 0; t < 4; ++t)
            holders.emplace_back([buffer = pool->checkOutItem()]() mutable {
                buffer->setUsed(64);
                std::this_thread::yield();
                buffer.reset();
            });
        pool.reset();
        for (auto& holder : holders)
            holder.join();
        EXPECT_EQ(census.pools.load(), 0);
        EXPECT_EQ(census.buffers.load(), 0);
    }
}
