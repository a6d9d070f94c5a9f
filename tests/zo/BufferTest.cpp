#include "zo/Buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <vector>

using zo::P;
using zo::TBuffer;
using zo::TConstBufferSlice;
using zo::TCryptBuffer;
using zo::uint8;

namespace {

void fillCounting(TBuffer<uint8>& buffer)
{
    std::iota(buffer.getData(), buffer.getData() + buffer.getUsed(), uint8(1));
}

// A crypt buffer that reports every block it gives back, looking at the
// block's bytes after the wipe and before the memory is freed.
class WipeObservingBuffer : public TCryptBuffer<uint8> {
public:
    using TCryptBuffer<uint8>::TCryptBuffer;

    struct FreedBlock {
        int capacity;
        bool allZero;
    };
    std::vector<FreedBlock> freed;

protected:
    void freeWipedData(uint8* data, int capacity) override
    {
        const bool allZero = std::all_of(data, data + capacity, [](uint8 b) { return b == 0; });
        freed.push_back({capacity, allZero});
        TCryptBuffer<uint8>::freeWipedData(data, capacity);
    }
};

// A plain buffer that records the blocks it gives back.
class FreeCountingBuffer : public TBuffer<uint8> {
public:
    using TBuffer<uint8>::TBuffer;
    int freedBlocks = 0;

protected:
    void deleteData(uint8* data, int capacity) override
    {
        ++freedBlocks;
        TBuffer<uint8>::deleteData(data, capacity);
    }
};

} // namespace

TEST(TBuffer, StartsEmpty)
{
    const TBuffer<uint8> buffer;
    EXPECT_EQ(buffer.getUsed(), 0);
    EXPECT_EQ(buffer.getCapacity(), 0);
    EXPECT_TRUE(buffer.isEmpty());
}

TEST(TBuffer, ConstructsWithUsedSizeAndCapacity)
{
    const TBuffer<uint8> sized(100, -1);
    EXPECT_EQ(sized.getUsed(), 100);
    EXPECT_EQ(sized.getCapacity(), 100);
    const TBuffer<uint8> roomy(10, 64);
    EXPECT_EQ(roomy.getUsed(), 10);
    EXPECT_EQ(roomy.getCapacity(), 64);
    const TBuffer<uint8> small(10, 4);
    EXPECT_EQ(small.getCapacity(), 10);
}

TEST(TBuffer, NegativeUsedSizeInConstructorGivesEmptyBuffer)
{
    const TBuffer<uint8> buffer(-5, -1);
    EXPECT_EQ(buffer.getUsed(), 0);
}

TEST(TBuffer, ConstructsOverExistingBytes)
{
    const uint8 bytes[] = {1, 2, 3, 4};
    const TBuffer<uint8> buffer(bytes, 4);
    ASSERT_EQ(buffer.getUsed(), 4);
    EXPECT_NE(buffer.getData(), bytes);
    EXPECT_EQ(std::memcmp(buffer.getData(), bytes, 4), 0);
}

TEST(TBuffer, SetUsedGrowthKeepsContents)
{
    TBuffer<uint8> buffer(16, -1);
    fillCounting(buffer);
    buffer.setUsed(100000);
    ASSERT_GE(buffer.getCapacity(), 100000);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(buffer[i], i + 1) << "at " << i;
}

TEST(TBuffer, ShrinkingUsedSizeKeepsCapacityAndBytes)
{
    TBuffer<uint8> buffer(8, -1);
    fillCounting(buffer);
    const uint8* data = buffer.getData();
    buffer.setUsed(2);
    EXPECT_EQ(buffer.getUsed(), 2);
    EXPECT_EQ(buffer.getCapacity(), 8);
    EXPECT_EQ(buffer.getData(), data);
    buffer.setUsed(8);
    EXPECT_EQ(buffer[7], 8);
}

TEST(TBuffer, NegativeUsedSizeClampsToZero)
{
    TBuffer<uint8> buffer(8, -1);
    buffer.setUsed(-3);
    EXPECT_EQ(buffer.getUsed(), 0);
}

TEST(TBuffer, FreePtrPointsPastUsedBytesWithRoomForMore)
{
    TBuffer<uint8> buffer(3, -1);
    fillCounting(buffer);
    uint8* free = buffer.getFreePtr(5);
    EXPECT_EQ(free, buffer.getData() + 3);
    EXPECT_GE(buffer.getCapacity(), 8);
    std::memset(free, 0xAB, 5);
    buffer.addUsed(5);
    ASSERT_EQ(buffer.getUsed(), 8);
    EXPECT_EQ(buffer[2], 3);
    EXPECT_EQ(buffer[7], 0xAB);
}

TEST(TBuffer, FreePtrGrowsCapacityInLargeSteps)
{
    TBuffer<uint8> buffer(1000, -1);
    fillCounting(buffer);
    buffer.getFreePtr(1);
    EXPECT_GE(buffer.getCapacity(), 1500);
}

TEST(TBuffer, AppendsAfterUsedBytes)
{
    TBuffer<uint8> buffer;
    const uint8 a[] = {1, 2};
    const uint8 b[] = {3};
    buffer.append(a, 2);
    buffer.append(b, 1);
    ASSERT_EQ(buffer.getUsed(), 3);
    EXPECT_EQ(buffer[0], 1);
    EXPECT_EQ(buffer[2], 3);
}

TEST(TBuffer, AppendingNothingFromNullPointerLeavesBufferAlone)
{
    TBuffer<uint8> empty;
    empty.append(nullptr, 0);
    EXPECT_EQ(empty.getUsed(), 0);
    EXPECT_EQ(empty.getData(), nullptr);

    TBuffer<uint8> buffer(3);
    fillCounting(buffer);
    buffer.append(nullptr, 0);
    ASSERT_EQ(buffer.getUsed(), 3);
    EXPECT_EQ(buffer[2], 3);
}

TEST(TBuffer, ReserveNeverShrinks)
{
    TBuffer<uint8> buffer(0, 50);
    buffer.reserve(10);
    EXPECT_EQ(buffer.getCapacity(), 50);
}

TEST(TBuffer, CopyIsDeepAndIndependent)
{
    TBuffer<uint8> original(4, -1);
    fillCounting(original);
    TBuffer<uint8> copy(original);
    EXPECT_NE(copy.getData(), original.getData());
    EXPECT_TRUE(copy == original);
    copy[0] = 99;
    EXPECT_EQ(original[0], 1);
    EXPECT_TRUE(copy != original);
}

TEST(TBuffer, CopyStartsWithoutReferences)
{
    P<TBuffer<uint8>> original(new TBuffer<uint8>(4, -1));
    TBuffer<uint8>* copy = new TBuffer<uint8>(*original);
    EXPECT_EQ(copy->getRefCount(), 0);
    P<TBuffer<uint8>> holder(copy);
    EXPECT_EQ(copy->getRefCount(), 1);
}

TEST(TBuffer, AssignReplacesContents)
{
    TBuffer<uint8> source(5, -1);
    fillCounting(source);
    TBuffer<uint8> target(100, -1);
    target.assign(source);
    EXPECT_EQ(target.getUsed(), 5);
    EXPECT_TRUE(target == source);

    TBuffer<uint8> assigned;
    assigned = source;
    EXPECT_TRUE(assigned == source);
    const TBuffer<uint8>& self = assigned;
    assigned = self;
    EXPECT_TRUE(assigned == source);
}

TEST(TBuffer, EqualityComparesUsedBytesOnly)
{
    TBuffer<uint8> a(3, 100);
    TBuffer<uint8> b(3, -1);
    fillCounting(a);
    fillCounting(b);
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
    b.setUsed(2);
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(TBuffer<uint8>() == TBuffer<uint8>(0, 10));
}

TEST(TBuffer, FreeMemoryEmptiesBuffer)
{
    TBuffer<uint8> buffer(10, -1);
    buffer.freeMemory();
    EXPECT_EQ(buffer.getUsed(), 0);
    EXPECT_EQ(buffer.getCapacity(), 0);
    EXPECT_EQ(buffer.getData(), nullptr);
}

TEST(TBuffer, GivesOldBlockBackWhenGrowing)
{
    FreeCountingBuffer buffer(4, -1);
    fillCounting(buffer);
    buffer.setUsed(4000);
    EXPECT_EQ(buffer.freedBlocks, 1);
    buffer.setUsed(10);
    EXPECT_EQ(buffer.freedBlocks, 1);
}

TEST(TCryptBuffer, WipesWholeOldBlockWhenGrowing)
{
    WipeObservingBuffer key(32, -1);
    std::memset(key.getData(), 0x5A, 32);
    key.setUsed(4096);
    ASSERT_EQ(key.freed.size(), 1u);
    EXPECT_EQ(key.freed[0].capacity, 32);
    EXPECT_TRUE(key.freed[0].allZero);
    EXPECT_EQ(key[0], 0x5A) << "growth keeps the key bytes";
}

TEST(TCryptBuffer, WipesUnusedTailOfBlockToo)
{
    WipeObservingBuffer key(4, 64);
    std::memset(key.getData(), 0x77, 64);
    key.freeMemory();
    ASSERT_EQ(key.freed.size(), 1u);
    EXPECT_EQ(key.freed[0].capacity, 64);
    EXPECT_TRUE(key.freed[0].allZero);
}

TEST(TCryptBuffer, WipesOldBlockWhenAssignedLargerContents)
{
    WipeObservingBuffer key(16, -1);
    std::memset(key.getData(), 0x11, 16);
    TCryptBuffer<uint8> longer(48, -1);
    std::memset(longer.getData(), 0x22, 48);
    key.assign(longer);
    ASSERT_EQ(key.freed.size(), 1u);
    EXPECT_TRUE(key.freed[0].allZero);
    EXPECT_TRUE(key == longer);
}

TEST(TCryptBuffer, CopiesAreIndependentCryptBuffers)
{
    TCryptBuffer<uint8> key(8, -1);
    std::memset(key.getData(), 0x42, 8);
    TCryptBuffer<uint8> copy(key);
    EXPECT_TRUE(copy == key);
    EXPECT_NE(copy.getData(), key.getData());
    TCryptBuffer<uint8> assigned;
    assigned = key;
    EXPECT_TRUE(assigned == key);
}

TEST(TConstBufferSlice, ViewsBytesWithoutCopying)
{
    TBuffer<uint8> buffer(6, -1);
    fillCounting(buffer);
    const TConstBufferSlice<uint8> whole(buffer);
    EXPECT_EQ(whole.getData(), buffer.getData());
    EXPECT_EQ(whole.getSize(), 6);
    const TConstBufferSlice<uint8> part(buffer.getData() + 2, 3);
    EXPECT_EQ(part.getData()[0], 3);
    EXPECT_EQ(part.getSize(), 3);
    const TConstBufferSlice<uint8> none;
    EXPECT_EQ(none.getData(), nullptr);
    EXPECT_EQ(none.getSize(), 0);
}
