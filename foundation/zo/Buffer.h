// Byte buffers: TBuffer (growable, counted), TCryptBuffer (for key material,
// wiped when its memory is given back) and TConstBufferSlice (a read-only view).
#pragma once

#include "zo/Base.h"
#include "zo/Export.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <string.h>
#include <type_traits>

namespace zo {

// True when all `size` bytes at `data` are zero (and for no bytes at all).
inline bool isAllZero(const uint8* data, size_t size)
{
    // The first byte is zero and every byte equals the one after it.
    return size == 0 || (data[0] == 0 && std::memcmp(data, data + 1, size - 1) == 0);
}

// A growable array of trivially copyable T with a used size and a capacity
// (both int32). Growing keeps the used contents; the contents of newly used
// elements are unspecified. Counted, so it can be shared through P<TBuffer>,
// and copyable by value. Not thread-safe.
template <class T = uint8>
class BRICKDISK_EXPORT TBuffer : public CBase {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    TBuffer() = default;
    // `used` elements; capacity `capacity`, or `used` when -1 (or smaller).
    explicit TBuffer(int used, int capacity = -1)
    {
        reserve(capacity > used ? capacity : used);
        m_used = used < 0 ? 0 : used;
    }
    TBuffer(const T* data, int count)
    {
        reserve(count);
        if (count > 0)
            std::memcpy(m_data, data, sizeof(T) * static_cast<size_t>(count));
        m_used = count;
    }
    TBuffer(const TBuffer& other) : CBase(other) { assign(other); }
    TBuffer& operator=(const TBuffer& other)
    {
        if (this != &other)
            assign(other);
        return *this;
    }
    ~TBuffer() override { freeData(m_data, m_capacity); }

    void assign(const TBuffer& other) { assign(other.m_data, other.m_used); }
    void assign(const T* data, int count)
    {
        m_used = 0;
        reserve(count);
        if (count > 0)
            std::memmove(m_data, data, sizeof(T) * static_cast<size_t>(count));
        m_used = count;
    }

    T* getData() { return m_data; }
    const T* getData() const { return m_data; }
    T& operator[](int i) { return m_data[i]; }
    const T& operator[](int i) const { return m_data[i]; }

    int getUsed() const { return m_used; }
    int getCapacity() const { return m_capacity; }
    bool isEmpty() const { return m_used == 0; }
    // Sets the used size, growing the capacity as needed.
    void setUsed(int used)
    {
        reserve(used);
        m_used = used < 0 ? 0 : used;
    }
    void addUsed(int count) { setUsed(m_used + count); }
    void clear() { m_used = 0; }
    // Pointer to the first unused element, after making room for `count` more.
    // Room is made in steps of at least half the capacity, so that appending
    // piece by piece costs amortized constant time per element.
    T* getFreePtr(int count)
    {
        const int64 needed = static_cast<int64>(m_used) + (count < 0 ? 0 : count);
        if (needed > m_capacity) {
            const int64 stepped = static_cast<int64>(m_capacity) + m_capacity / 2;
            reserve(static_cast<int>(std::min<int64>(std::max(needed, stepped), std::numeric_limits<int>::max())));
        }
        return m_data + m_used;
    }
    void append(const T* data, int count)
    {
        if (count <= 0)
            return;
        std::memcpy(getFreePtr(count), data, sizeof(T) * static_cast<size_t>(count));
        m_used += count;
    }
    // Makes the capacity at least `capacity`, keeping the used contents;
    // never shrinks. Throws std::bad_alloc when memory runs out.
    void reserve(int capacity)
    {
        if (capacity <= 0 || capacity <= m_capacity)
            return;
        const size_t bytes = sizeof(T) * static_cast<size_t>(capacity);
        T* data = static_cast<T*>(std::malloc(bytes));
        if (!data)
            throw std::bad_alloc();
        const size_t usedBytes = sizeof(T) * static_cast<size_t>(m_used);
        if (m_data && usedBytes > 0 && usedBytes <= bytes)
            std::memcpy(data, m_data, usedBytes);
        freeData(m_data, m_capacity);
        m_data = data;
        m_capacity = capacity;
    }
    // Gives the memory back at once (TCryptBuffer wipes it); used size and
    // capacity become 0.
    void freeMemory()
    {
        T* data = m_data;
        const int capacity = m_capacity;
        detachData();
        freeData(data, capacity);
    }

    // Equal when the used elements are equal; capacity does not count.
    friend bool operator==(const TBuffer& a, const TBuffer& b)
    {
        return a.m_used == b.m_used &&
            (a.m_used == 0 || std::memcmp(a.m_data, b.m_data, sizeof(T) * static_cast<size_t>(a.m_used)) == 0);
    }

protected:
    // Gives a block of `capacity` elements back to the heap; every block the
    // buffer lets go of passes through here (TCryptBuffer wipes it first).
    virtual void deleteData(T* data, int capacity)
    {
        (void)capacity;
        std::free(data);
    }
    // Hands a non-null block to deleteData. Destructors call it too, where
    // virtual dispatch no longer reaches a derived class: TCryptBuffer
    // therefore gives its memory back in its own destructor.
    void freeData(T* data, int capacity)
    {
        if (data)
            deleteData(data, capacity);
    }
    void detachData()
    {
        m_data = nullptr;
        m_capacity = 0;
        m_used = 0;
    }

    T* m_data = nullptr;
    int m_used = 0;
    int m_capacity = 0;
};

// A TBuffer for secret material: every block of memory it gives back, on
// growth, on freeMemory and on destruction, is wiped first with a wipe the
// compiler cannot remove.
template <class T = uint8>
class BRICKDISK_EXPORT TCryptBuffer : public TBuffer<T> {
public:
    using TBuffer<T>::TBuffer;
    TCryptBuffer() = default;
    TCryptBuffer(const TCryptBuffer& other) : TBuffer<T>() { this->assign(other); }
    TCryptBuffer& operator=(const TCryptBuffer& other)
    {
        if (this != &other)
            this->assign(other);
        return *this;
    }
    ~TCryptBuffer() override { this->freeMemory(); }

protected:
    // Wipes the whole block (used or not), then hands it to freeWipedData.
    void deleteData(T* data, int capacity) override
    {
        explicit_bzero(data, sizeof(T) * static_cast<size_t>(capacity));
        freeWipedData(data, capacity);
    }
    // Gives an already wiped block back to the heap.
    virtual void freeWipedData(T* data, int capacity) { TBuffer<T>::deleteData(data, capacity); }
};

// A read-only view of `size` elements owned by someone else.
template <class T = uint8>
class BRICKDISK_EXPORT TConstBufferSlice {
public:
    TConstBufferSlice() = default;
    TConstBufferSlice(const T* data, int size) : m_data(data), m_size(size) {}
    TConstBufferSlice(const TBuffer<T>& buffer) : m_data(buffer.getData()), m_size(buffer.getUsed()) {}
    const T* getData() const { return m_data; }
    int getSize() const { return m_size; }

private:
    const T* m_data = nullptr;
    int m_size = 0;
};

} // namespace zo
