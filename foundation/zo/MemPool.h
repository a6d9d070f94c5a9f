// Pools of reusable counted objects. TRecyclePool hands out items and takes
// them back when their last reference goes, so a steady stream of check-outs
// allocates nothing; CMemPool is such a pool of byte buffers (CMemPoolBuffer).
#pragma once

#include "zo/Base.h"
#include "zo/Buffer.h"
#include "zo/Export.h"

#include <mutex>
#include <vector>

namespace zo {

template <class T>
class TRecyclePool;

// Base of the items of a TRecyclePool<T>: T derives from TRecyclable<T, Base>,
// where Base is the counted class that T extends (CBase or a class derived
// from it). While checked out, an item holds a counted reference to its pool,
// so the pool lives as long as any of its items is in use. When the item's last
// reference goes it goes back to that pool; an item that never came from a
// pool (a copy, say) is destroyed as usual. Copying an item copies its Base
// part only: the copy belongs to no pool.
template <class T, class Base = CBase>
class BRICKDISK_EXPORT TRecyclable : public Base {
public:
    using Base::Base;
    TRecyclable() = default;
    TRecyclable(const TRecyclable& other) : Base(other) {}
    TRecyclable& operator=(const TRecyclable& other)
    {
        Base::operator=(other);
        return *this;
    }

protected:
    void onFinalRelease() const override
    {
        auto* self = const_cast<TRecyclable*>(this);
        P<TRecyclePool<T>> pool = std::move(self->m_pool);
        if (!pool) {
            delete this;
            return;
        }
        // When `pool` holds the pool's last reference, releasing it below
        // destroys the pool and this item with it: nothing may touch `this`
        // after the hand-back.
        pool->recycleItem(static_cast<T*>(self));
    }

private:
    friend class TRecyclePool<T>;

    P<TRecyclePool<T>> m_pool;
};

// A pool of T items (T derives from TRecyclable<T, ...>). checkOutItem never
// waits: when no item is free, the pool makes new ones. Items returned by
// their last release are kept for the next check-out; the pool destroys the
// free items when it is destroyed, which cannot happen while items are
// checked out. A pool must be held by a P<> (it is counted, and its items
// hold references to it). All operations may be called from any thread.
template <class T>
class BRICKDISK_EXPORT TRecyclePool : public CBase {
public:
    TRecyclePool(const TRecyclePool&) = delete;
    TRecyclePool& operator=(const TRecyclePool&) = delete;
    ~TRecyclePool() override
    {
        for (T* item : m_free)
            delete item;
    }

    // A free item, prepared for use by prepareForCheckOut. When none is free,
    // `growBy` new items are made first. The item returns to this pool when
    // the last reference to it goes, on whichever thread that happens.
    // Throws std::bad_alloc when new items cannot be made.
    P<T> checkOutItem()
    {
        T* item = nullptr;
        {
            std::lock_guard lock(m_mutex);
            if (m_free.empty())
                addItemsLocked(m_growBy);
            item = m_free.back();
            m_free.pop_back();
        }
        item->m_pool = P<TRecyclePool<T>>(this);
        prepareForCheckOut(*item);
        return P<T>(item);
    }

    // Items made so far (free or checked out).
    int getItemCount() const
    {
        std::lock_guard lock(m_mutex);
        return m_itemCount;
    }
    // Items waiting in the pool.
    int getFreeCount() const
    {
        std::lock_guard lock(m_mutex);
        return static_cast<int>(m_free.size());
    }

protected:
    // `growBy`: items made at once when a check-out finds none free (values
    // below 1 count as 1).
    explicit TRecyclePool(int growBy) : m_growBy(growBy < 1 ? 1 : growBy) {}

    // Makes one new item (with no references).
    virtual T* createItem() = 0;
    // Brings an item into its fresh state before it is handed out.
    virtual void prepareForCheckOut(T& item) { (void)item; }

    // Makes `count` free items; derived constructors call it for the items
    // that exist from the start.
    void addItems(int count)
    {
        std::lock_guard lock(m_mutex);
        addItemsLocked(count);
    }

private:
    template <class, class>
    friend class TRecyclable;

    void addItemsLocked(int count)
    {
        if (count < 1)
            return;
        // Room for every item, so that handing one back never allocates (it
        // happens inside a release, where a failure could not be reported).
        m_free.reserve(static_cast<size_t>(m_itemCount) + static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            m_free.push_back(createItem());
            ++m_itemCount;
        }
    }

    void recycleItem(T* item) noexcept
    {
        std::lock_guard lock(m_mutex);
        m_free.push_back(item);
    }

    mutable std::mutex m_mutex;
    std::vector<T*> m_free;
    int m_itemCount = 0;
    const int m_growBy;
};

// A byte buffer that belongs to a CMemPool: when its last reference goes it
// returns to the pool, keeping its capacity.
class BRICKDISK_EXPORT CMemPoolBuffer : public TRecyclable<CMemPoolBuffer, TBuffer<uint8>> {
public:
    using TRecyclable::TRecyclable;
};

// A pool of byte buffers of one capacity. A checked-out buffer has a used size
// of 0 and at least the pool's capacity (more when an earlier user grew it).
// Thread-safe: buffers may be checked out and released on any thread.
class BRICKDISK_EXPORT CMemPool : public TRecyclePool<CMemPoolBuffer> {
public:
    // initialCount: buffers made at once (values below 0 count as 0).
    // bufferCapacity: the capacity in bytes that every new buffer gets.
    // growBy: buffers made at once when a check-out finds every buffer in use
    //         (values below 1 count as 1); checking out never waits.
    // Throws std::bad_alloc when the first buffers cannot be made.
    CMemPool(int initialCount, int bufferCapacity, int growBy);

    int getBufferCapacity() const { return m_bufferCapacity; }

protected:
    CMemPoolBuffer* createItem() override;
    void prepareForCheckOut(CMemPoolBuffer& buffer) override;

private:
    const int m_bufferCapacity;
};

} // namespace zo
