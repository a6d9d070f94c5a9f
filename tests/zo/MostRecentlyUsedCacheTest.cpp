#include "zo/MostRecentlyUsedCache.h"
#include "zo/Buffer.h"

#include <gtest/gtest.h>

#include <vector>

using zo::P;

namespace {

class Value : public zo::CBase {
public:
    explicit Value(int n) : number(n) {}
    int number;
};

using Cache = zo::TMostRecentlyUsedCache<int64_t, Value>;

P<Value> value(int n)
{
    return P<Value>(new Value(n));
}

std::vector<int64_t> keysOf(const Cache::EvictionList& evicted)
{
    std::vector<int64_t> keys;
    for (const auto& [key, v] : evicted)
        keys.push_back(key);
    return keys;
}

// The keys in order of use, least recently used first, read by shrinking a
// cache with an eviction list to nothing.
std::vector<int64_t> keysLeastRecentFirst(Cache& cache, Cache::EvictionList& evicted)
{
    evicted.clear();
    cache.setCapacity(0);
    cache.trim();
    return keysOf(evicted);
}

} // namespace

TEST(TMostRecentlyUsedCache, StartsEmptyWithItsCapacity)
{
    P<Cache> cache(new Cache(10, true));
    EXPECT_EQ(cache->getCount(), 0);
    EXPECT_EQ(cache->getCapacity(), 10);
    EXPECT_FALSE(cache->lookup(1));
}

TEST(TMostRecentlyUsedCache, LookupFindsInsertedValue)
{
    P<Cache> cache(new Cache(4, true));
    P<Value> v = value(7);
    cache->insert(3, v);
    EXPECT_EQ(cache->lookup(3).get(), v.get());
    EXPECT_EQ(v->getRefCount(), 2);
    EXPECT_EQ(cache->getCount(), 1);
    EXPECT_FALSE(cache->lookup(4));
}

TEST(TMostRecentlyUsedCache, TakesOwnershipOfRawPointer)
{
    P<Cache> cache(new Cache(4, true));
    cache->insert(1, new Value(11));
    P<Value> found = cache->lookup(1);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->number, 11);
    EXPECT_EQ(found->getRefCount(), 2);
}

TEST(TMostRecentlyUsedCache, NewKeysGoToTheFront)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(10, true, &evicted));
    for (int64_t key : {1, 2, 3})
        cache->insert(key, value(0));
    EXPECT_EQ(keysLeastRecentFirst(*cache, evicted), (std::vector<int64_t>{1, 2, 3}));
}

TEST(TMostRecentlyUsedCache, LookupHitMovesEntryToTheFront)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(10, true, &evicted));
    for (int64_t key : {1, 2, 3})
        cache->insert(key, value(0));
    cache->lookup(1);
    EXPECT_EQ(keysLeastRecentFirst(*cache, evicted), (std::vector<int64_t>{2, 3, 1}));
}

TEST(TMostRecentlyUsedCache, LookupMissChangesNothing)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(10, true, &evicted));
    for (int64_t key : {1, 2})
        cache->insert(key, value(0));
    cache->lookup(9);
    EXPECT_EQ(cache->getCount(), 2);
    EXPECT_EQ(keysLeastRecentFirst(*cache, evicted), (std::vector<int64_t>{1, 2}));
}

TEST(TMostRecentlyUsedCache, ContainsLeavesOrderAlone)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(10, true, &evicted));
    for (int64_t key : {1, 2})
        cache->insert(key, value(0));
    EXPECT_TRUE(cache->contains(1));
    EXPECT_FALSE(cache->contains(5));
    EXPECT_EQ(keysLeastRecentFirst(*cache, evicted), (std::vector<int64_t>{1, 2}));
}

TEST(TMostRecentlyUsedCache, InsertingExistingKeyReplacesValueAndMovesToFront)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(3, true, &evicted));
    P<Value> old = value(1);
    cache->insert(1, old);
    cache->insert(2, value(2));
    cache->insert(1, value(100));
    EXPECT_EQ(old->getRefCount(), 1) << "the old value is released";
    EXPECT_EQ(cache->lookup(1)->number, 100);
    EXPECT_EQ(cache->getCount(), 2);
    EXPECT_TRUE(evicted.empty());
    EXPECT_EQ(keysLeastRecentFirst(*cache, evicted), (std::vector<int64_t>{2, 1}));
}

TEST(TMostRecentlyUsedCache, NewKeyBeyondCapacityEvictsLeastRecentlyUsed)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(3, true, &evicted));
    for (int64_t key : {1, 2, 3, 4})
        cache->insert(key, value(static_cast<int>(key)));
    EXPECT_EQ(cache->getCount(), 3);
    EXPECT_FALSE(cache->contains(1));
    ASSERT_EQ(evicted.size(), 1u);
    EXPECT_EQ(evicted.front().first, 1);
    EXPECT_EQ(evicted.front().second->number, 1);
}

TEST(TMostRecentlyUsedCache, ReadingCapacityPlusOneKeysEvictsTheFirst)
{
    const int capacity = 10;
    P<Cache> cache(new Cache(capacity, true));
    for (int64_t key = 0; key <= capacity; ++key)
        cache->insert(key, value(0));
    EXPECT_FALSE(cache->lookup(0));
    EXPECT_TRUE(cache->contains(1));
    EXPECT_EQ(cache->getCount(), capacity);
}

TEST(TMostRecentlyUsedCache, RecentlyLookedUpEntrySurvivesEviction)
{
    const int capacity = 10;
    P<Cache> cache(new Cache(capacity, true));
    for (int64_t key = 0; key < capacity; ++key)
        cache->insert(key, value(0));
    ASSERT_TRUE(cache->lookup(0));
    cache->insert(capacity, value(0));
    EXPECT_TRUE(cache->contains(0));
    EXPECT_FALSE(cache->contains(1));
}

TEST(TMostRecentlyUsedCache, EvictedValueIsReleasedWithoutEvictionList)
{
    P<Cache> cache(new Cache(1, true));
    P<Value> first = value(1);
    cache->insert(1, first);
    EXPECT_EQ(first->getRefCount(), 2);
    cache->insert(2, value(2));
    EXPECT_EQ(first->getRefCount(), 1);
}

TEST(TMostRecentlyUsedCache, EvictionListHoldsEvictedValues)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(1, true, &evicted));
    P<Value> first = value(1);
    cache->insert(1, first);
    cache->insert(2, value(2));
    EXPECT_EQ(first->getRefCount(), 2);
    EXPECT_EQ(evicted.front().second.get(), first.get());
}

TEST(TMostRecentlyUsedCache, WithoutAutoTrimGrowsUntilTrimmed)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(2, false, &evicted));
    for (int64_t key : {1, 2, 3, 4})
        cache->insert(key, value(0));
    EXPECT_EQ(cache->getCount(), 4);
    cache->trim();
    EXPECT_EQ(cache->getCount(), 2);
    EXPECT_EQ(keysOf(evicted), (std::vector<int64_t>{1, 2}));
}

TEST(TMostRecentlyUsedCache, SetCapacityTrimsWhenAutoTrimIsOn)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(5, true, &evicted));
    for (int64_t key : {1, 2, 3, 4, 5})
        cache->insert(key, value(0));
    cache->setCapacity(2);
    EXPECT_EQ(cache->getCapacity(), 2);
    EXPECT_EQ(cache->getCount(), 2);
    EXPECT_EQ(keysOf(evicted), (std::vector<int64_t>{1, 2, 3}));
}

TEST(TMostRecentlyUsedCache, NegativeCapacityKeepsNothing)
{
    P<Cache> cache(new Cache(-1, true));
    cache->insert(1, value(0));
    EXPECT_EQ(cache->getCount(), 0);
}

TEST(TMostRecentlyUsedCache, RemoveForgetsOneKeyWithoutEvictionList)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(5, true, &evicted));
    for (int64_t key : {1, 2, 3})
        cache->insert(key, value(0));
    EXPECT_TRUE(cache->remove(2));
    EXPECT_FALSE(cache->remove(2));
    EXPECT_EQ(cache->getCount(), 2);
    EXPECT_TRUE(evicted.empty());
    EXPECT_EQ(keysLeastRecentFirst(*cache, evicted), (std::vector<int64_t>{1, 3}));
}

TEST(TMostRecentlyUsedCache, ClearReleasesEverything)
{
    Cache::EvictionList evicted;
    P<Cache> cache(new Cache(5, true, &evicted));
    P<Value> v = value(0);
    cache->insert(1, v);
    cache->insert(2, value(0));
    cache->clear();
    EXPECT_EQ(cache->getCount(), 0);
    EXPECT_EQ(v->getRefCount(), 1);
    EXPECT_TRUE(evicted.empty());
    cache->insert(3, value(0));
    EXPECT_EQ(cache->getCount(), 1);
}

TEST(TMostRecentlyUsedCache, HoldsBuffersUnderSixtyFourBitKeys)
{
    zo::TMostRecentlyUsedCache<int64_t, zo::TBuffer<zo::uint8>> cache(2, true);
    const int64_t farKey = int64_t(1) << 40;
    cache.insert(farKey, new zo::TBuffer<zo::uint8>(16, -1));
    ASSERT_TRUE(cache.lookup(farKey));
    EXPECT_EQ(cache.lookup(farKey)->getUsed(), 16);
}
