// Reference-counted objects: the root interface IBase, its implementation CBase
// and the owning pointers P<T> / PC<T>.
#pragma once

#include "zo/Export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <typeinfo>
#include <utility>

namespace zo {

using int64 = std::int64_t;
using uint64 = std::uint64_t;
using int32 = std::int32_t;
using uint32 = std::uint32_t;
using uint8 = std::uint8_t;

// Root of every counted object. addRef/release may be called from any thread.
class BRICKDISK_EXPORT IBase {
public:
    virtual ~IBase() = default;
    virtual void addRef() const = 0;
    // Drops one reference; the object is destroyed when the last one goes.
    virtual void release() const = 0;
    // True when this object may be used as an object of the type `type`.
    // Classes that want to be reachable by checked casts extend it.
    virtual bool checkCastAllowed(const std::type_info& type) const = 0;
};

// Implementation of IBase with an atomic intrusive count. A new object starts
// with no reference; the first P<> that takes it owns it. Copying an object
// never copies its count.
class BRICKDISK_EXPORT CBase : public virtual IBase {
public:
    CBase() = default;
    CBase(const CBase&) noexcept {}
    CBase& operator=(const CBase&) noexcept { return *this; }
    ~CBase() override = default;

    void addRef() const override { m_refCount.fetch_add(1, std::memory_order_relaxed); }
    void release() const override
    {
        if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
            onFinalRelease();
    }
    bool checkCastAllowed(const std::type_info& type) const override
    {
        return type == typeid(CBase) || type == typeid(IBase);
    }
    int getRefCount() const { return m_refCount.load(std::memory_order_relaxed); }

protected:
    // Called when the last reference goes; destroys the object. Pooled objects
    // override it to return themselves to their pool instead.
    virtual void onFinalRelease() const { delete this; }
    // Drops a reference that a constructor took on its own object to survive
    // callbacks made before it returns; never destroys the object, which the
    // creator's P<> then owns.
    void releaseWithoutDestroying() const { m_refCount.fetch_sub(1, std::memory_order_acq_rel); }

private:
    mutable std::atomic<int> m_refCount{0};
};

// Owning pointer to a counted object. Copying adds a reference, destruction
// releases one. A null P is valid.
template <class T>
class BRICKDISK_EXPORT P {
public:
    P() noexcept = default;
    P(std::nullptr_t) noexcept {}
    P(T* object) noexcept : m_ptr(object)
    {
        if (m_ptr)
            m_ptr->addRef();
    }
    P(const P& other) noexcept : P(other.m_ptr) {}
    P(P&& other) noexcept : m_ptr(std::exchange(other.m_ptr, nullptr)) {}
    // clang-format 14 splits "noexcept" from this converting constructor.
    // clang-format off
    template <class U>
    P(const P<U>& other) noexcept : P(other.get()) {}
    // clang-format on
    ~P()
    {
        if (m_ptr)
            m_ptr->release();
    }

    P& operator=(const P& other) noexcept
    {
        P(other).swap(*this);
        return *this;
    }
    P& operator=(P&& other) noexcept
    {
        P(std::move(other)).swap(*this);
        return *this;
    }
    P& operator=(T* object) noexcept
    {
        P(object).swap(*this);
        return *this;
    }
    P& operator=(std::nullptr_t) noexcept
    {
        reset();
        return *this;
    }

    void reset() noexcept { P().swap(*this); }
    void swap(P& other) noexcept { std::swap(m_ptr, other.m_ptr); }

    T* get() const noexcept { return m_ptr; }
    T* operator->() const noexcept { return m_ptr; }
    T& operator*() const noexcept { return *m_ptr; }
    explicit operator bool() const noexcept { return m_ptr != nullptr; }
    bool isNull() const noexcept { return m_ptr == nullptr; }

    friend bool operator==(const P& a, const P& b) noexcept { return a.m_ptr == b.m_ptr; }
    friend bool operator==(const P& a, std::nullptr_t) noexcept { return a.m_ptr == nullptr; }

private:
    T* m_ptr = nullptr;
};

// Owning pointer to a const counted object.
template <class T>
using PC = P<const T>;

// Checked cast of a counted pointer: null when the object is not a T.
template <class T, class U>
P<T> dynamicCast(const P<U>& p)
{
    return P<T>(dynamic_cast<T*>(p.get()));
}

} // namespace zo
