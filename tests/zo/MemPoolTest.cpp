#include "zo/MemPool.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using zo::CMemPool;
using zo::CMemPoolBuffer;
using zo::P;

namespace {

// A pool whose buffers count themselves, so tests can see what is destroyed.
class CensusBuffer : public CMemPoolBuffer {
public:
    CensusBuffer(int& census, int capacity) : CMemPoolBuffer(0, capacity), m_census(census) { ++m_census; }
    ~CensusBuffer() override { --m_census; }

private:
    int& m_census;
};

class CensusPool : public CMemPool {
public:
    CensusPool(int& buffers, int& pools, int initialCount, int capacity)
        : CMemPool(0, capacity, 1), m_buffers(buffers), m_pools(pools)
    {
        ++m_pools;
        addItems(initialCount);
    }
    ~CensusPool() override { --m_pools; }

protected:
    CMemPoolBuffer* createItem() override { return new CensusBuffer(m_buffers, getBufferCapacity()); }

private:
    int& m_buffers;
    int& m_pools;
};

} // namespace

TEST(CMemPool, MakesInitialBuffersOfGivenCapacity)
{
    P<CMemPool> pool(new CMemPool(3, 4096, 1));
    EXPECT_EQ(pool->getItemCount(), 3);
    EXPECT_EQ(pool->getFreeCount(), 3);
    EXPECT_EQ(pool->getBufferCapacity(), 4096);
    P<CMemPoolBuffer> buffer = pool->checkOutItem();
    EXPECT_EQ(buffer->getCapacity(), 4096);
    EXPECT_EQ(buffer->getUsed(), 0);
    EXPECT_EQ(pool->getFreeCount(), 2);
}

TEST(CMemPool, BufferReturnsOnLastRelease)
{
    P<CMemPool> pool(new CMemPool(1, 64, 1));
    P<CMemPoolBuffer> buffer = pool->checkOutItem();
    P<CMemPoolBuffer> second = buffer;
    EXPECT_EQ(pool->getFreeCount(), 0);
    buffer.reset();
    EXPECT_EQ(pool->getFreeCount(), 0);
    second.reset();
    EXPECT_EQ(pool->getFreeCount(), 1);
    EXPECT_EQ(pool->getItemCount(), 1);
}

TEST(CMemPool, ReturnedBufferIsReusedWithUsedSizeZero)
{
    P<CMemPool> pool(new CMemPool(1, 64, 1));
    CMemPoolBuffer* first = nullptr;
    {
        P<CMemPoolBuffer> buffer = pool->checkOutItem();
        first = buffer.get();
        buffer->setUsed(10);
        std::memset(buffer->getData(), 7, 10);
    }
    P<CMemPoolBuffer> again = pool->checkOutItem();
    EXPECT_EQ(again.get(), first);
    EXPECT_EQ(again->getUsed(), 0);
    EXPECT_EQ(again->getRefCount(), 1);
}

TEST(CMemPool, ReturnedBufferKeepsGrownCapacity)
{
    P<CMemPool> pool(new CMemPool(1, 64, 1));
    {
        P<CMemPoolBuffer> buffer = pool->checkOutItem();
        buffer->setUsed(1000);
    }
    P<CMemPoolBuffer> again = pool->checkOutItem();
    EXPECT_GE(again->getCapacity(), 1000);
}

TEST(CMemPool, CheckOutWhenAllAreInUseMakesGrowByMore)
{
    P<CMemPool> pool(new CMemPool(2, 32, 3));
    std::vector<P<CMemPoolBuffer>> out;
    out.push_back(pool->checkOutItem());
    out.push_back(pool->checkOutItem());
    EXPECT_EQ(pool->getFreeCount(), 0);
    out.push_back(pool->checkOutItem());
    EXPECT_EQ(pool->getItemCount(), 5);
    EXPECT_EQ(pool->getFreeCount(), 2);
    EXPECT_EQ(out.back()->getCapacity(), 32);
}

TEST(CMemPool, NeverBlocksEvenWithoutInitialBuffersOrGrowth)
{
    P<CMemPool> pool(new CMemPool(0, 16, 0));
    std::vector<P<CMemPoolBuffer>> out;
    for (int i = 0; i < 5; ++i)
        out.push_back(pool->checkOutItem());
    EXPECT_EQ(pool->getItemCount(), 5);
    for (size_t i = 0; i < out.size(); ++i)
        for (size_t j = i + 1; j < out.size(); ++j)
            EXPECT_NE(out[i].get(), out[j].get());
    out.clear();
    EXPECT_EQ(pool->getFreeCount(), 5);
}

TEST(CMemPool, CheckedOutBufferKeepsPoolAlive)
{
    P<CMemPool> pool(new CMemPool(1, 16, 1));
    P<CMemPoolBuffer> buffer = pool->checkOutItem();
    EXPECT_EQ(pool->getRefCount(), 2);
    buffer.reset();
    EXPECT_EQ(pool->getRefCount(), 1);
}

TEST(CMemPool, BufferReturnedAfterPoolWasDroppedDestroysBoth)
{
    int buffers = 0;
    int pools = 0;
    P<CMemPool> pool(new CensusPool(buffers, pools, 2, 16));
    EXPECT_EQ(buffers, 2);
    P<CMemPoolBuffer> buffer = pool->checkOutItem();
    buffer->setUsed(16);
    pool.reset();
    EXPECT_EQ(pools, 1) << "the checked-out buffer holds the pool";
    EXPECT_EQ(buffer->getUsed(), 16);
    buffer.reset();
    EXPECT_EQ(pools, 0);
    EXPECT_EQ(buffers, 0);
}

TEST(CMemPool, DestroysFreeBuffersWithThePool)
{
    int buffers = 0;
    int pools = 0;
    {
        P<CMemPool> pool(new CensusPool(buffers, pools, 3, 16));
        pool->checkOutItem();
        EXPECT_EQ(buffers, 3);
    }
    EXPECT_EQ(pools, 0);
    EXPECT_EQ(buffers, 0);
}

TEST(CMemPool, BufferWorksAsCountedByteBuffer)
{
    P<CMemPool> pool(new CMemPool(1, 8, 1));
    P<zo::TBuffer<zo::uint8>> asBuffer = pool->checkOutItem();
    asBuffer->setUsed(3);
    asBuffer.reset();
    EXPECT_EQ(pool->getFreeCount(), 1);
}

TEST(CMemPool, CopyOfPooledBufferBelongsToNoPool)
{
    P<CMemPool> pool(new CMemPool(1, 8, 1));
    P<CMemPoolBuffer> buffer = pool->checkOutItem();
    buffer->setUsed(4);
    std::memset(buffer->getData(), 3, 4);
    P<CMemPoolBuffer> copy(new CMemPoolBuffer(*buffer));
    EXPECT_TRUE(*copy == *buffer);
    copy.reset();
    EXPECT_EQ(pool->getFreeCount(), 0);
    EXPECT_EQ(pool->getItemCount(), 1);
}
