// Byte buffers: TBuffer (growable, counted), TCryptBuffer (for key material,
// wiped when its memory is given back) and TConstBufferSlice (a read-only view).
#pragma once

#include "zo/Base.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string.h>
#include <type_traits>

namespace zo {

// A growable array of trivially copyable T with a used size and a capacity
// (both int32). Growing keeps the used contents; the contents of newly used
// elements are unspecified. Counted, so it can be shared through P<TBuffer>,
// and copyable by value. Not thread-safe.
template <class T = uint8>
class TBuffer : public CBase {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    TBuffer() = default;
    // `used` elements; capacity `capacity`, or `used` when -1 (or smaller).
    explicit TBuffer(int used, int capacity = -1)
    {
        reserve(capacity > used ? capacity : used);
        m_used = used;
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
    T* getFreePtr(int count)
    {
        reserve(m_used + count);
        return m_data + m_used;
    }
    void append(const T* data, int count)
    {
        std::memcpy(getFreePtr(count), data, sizeof(T) * static_cast<size_t>(count));
        m_used += count;
    }
    // Makes the capacity at least `capacity`; never shrinks.
    void reserve(int capacity)
    {
        if (capacity <= m_capacity)
            return;
        T* data = static_cast<T*>(std::malloc(sizeof(T) * static_cast<size_t>(capacity)));
        if (!data)
            throw std::bad_alloc();
        if (m_used > 0)
            std::memcpy(data, m_data, sizeof(T) * static_cast<size_t>(m_used));
        freeData(m_data, m_capacity);
        m_data = data;
        m_capacity = capacity;
    }

    friend bool operator==(const TBuffer& a, const TBuffer& b)
    {
        return a.m_used == b.m_used && (a.m_used == 0 || std::memcmp(a.m_data, b.m_data, sizeof(T) * static_cast<size_t>(a.m_used)) == 0);
    }

protected:
    // Gives memory back; TCryptBuffer wipes it first.
    virtual void deleteData(T* data, int capacity)
    {
        (void)capacity;
        std::free(data);
    }
    // Called by destructors, where virtual dispatch no longer reaches the
    // derived class: TCryptBuffer releases its memory in its own destructor.
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
// growth and on destruction, is wiped first with a wipe the compiler cannot
// remove.
template <class T = uint8>
class TCryptBuffer : public TBuffer<T> {
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
    ~TCryptBuffer() override
    {
        if (this->m_data)
            wipeAndFree(this->m_data, this->m_capacity);
        this->detachData();
    }

protected:
    void deleteData(T* data, int capacity) override { wipeAndFree(data, capacity); }

private:
    static void wipeAndFree(T* data, int capacity)
    {
        explicit_bzero(data, sizeof(T) * static_cast<size_t>(capacity));
        std::free(data);
    }
};

// A read-only view of `size` elements owned by someone else.
template <class T = uint8>
class TConstBufferSlice {
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
