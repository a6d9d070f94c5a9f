#include "zo/Base.h"

#include <gtest/gtest.h>

#include <utility>

using zo::CBase;
using zo::P;
using zo::PC;

namespace {

// Counts its live instances, so tests can see when the last release destroys.
class Tracked : public CBase {
public:
    explicit Tracked(int* alive) : m_alive(alive) { ++*m_alive; }
    Tracked(const Tracked& other) : CBase(other), m_alive(other.m_alive) { ++*m_alive; }
    Tracked& operator=(const Tracked&) = default;
    ~Tracked() override { --*m_alive; }
    int value = 0;

private:
    int* m_alive;
};

class Derived : public Tracked {
public:
    using Tracked::Tracked;
};

class Unrelated : public CBase {};

} // namespace

TEST(CBase, NewObjectStartsWithoutReferences)
{
    int alive = 0;
    auto* object = new Tracked(&alive);
    EXPECT_EQ(object->getRefCount(), 0);
    P<Tracked> owner(object);
    EXPECT_EQ(object->getRefCount(), 1);
}

TEST(CBase, LastReleaseDestroys)
{
    int alive = 0;
    auto* object = new Tracked(&alive);
    object->addRef();
    object->addRef();
    object->release();
    EXPECT_EQ(alive, 1);
    object->release();
    EXPECT_EQ(alive, 0);
}

TEST(CBase, CopyingAnObjectDoesNotCopyItsCount)
{
    int alive = 0;
    P<Tracked> original(new Tracked(&alive));
    P<Tracked> second = original;
    Tracked copy(*original);
    EXPECT_EQ(copy.getRefCount(), 0);
    copy = *original;
    EXPECT_EQ(copy.getRefCount(), 0);
    EXPECT_EQ(original->getRefCount(), 2);
}

TEST(CBase, CastCheckAcceptsBaseTypes)
{
    const CBase object;
    EXPECT_TRUE(object.checkCastAllowed(typeid(CBase)));
    EXPECT_TRUE(object.checkCastAllowed(typeid(zo::IBase)));
    EXPECT_FALSE(object.checkCastAllowed(typeid(Unrelated)));
}

TEST(P, NullPointerIsValidAndFalse)
{
    P<Tracked> empty;
    EXPECT_FALSE(empty);
    EXPECT_TRUE(empty.isNull());
    EXPECT_TRUE(empty == nullptr);
    EXPECT_EQ(empty.get(), nullptr);
    P<Tracked> fromNull(nullptr);
    EXPECT_TRUE(fromNull.isNull());
}

TEST(P, CopyAddsReferenceAndDestructionReleases)
{
    int alive = 0;
    P<Tracked> a(new Tracked(&alive));
    {
        P<Tracked> b = a;
        EXPECT_EQ(a->getRefCount(), 2);
        EXPECT_TRUE(a == b);
    }
    EXPECT_EQ(a->getRefCount(), 1);
    a.reset();
    EXPECT_EQ(alive, 0);
}

TEST(P, MoveTransfersWithoutCounting)
{
    int alive = 0;
    P<Tracked> a(new Tracked(&alive));
    Tracked* raw = a.get();
    P<Tracked> b(std::move(a));
    EXPECT_TRUE(a.isNull());
    EXPECT_EQ(b.get(), raw);
    EXPECT_EQ(raw->getRefCount(), 1);
    P<Tracked> c;
    c = std::move(b);
    EXPECT_EQ(raw->getRefCount(), 1);
    EXPECT_EQ(alive, 1);
}

TEST(P, AssignmentReleasesPreviousObject)
{
    int alive = 0;
    P<Tracked> p(new Tracked(&alive));
    p = new Tracked(&alive);
    EXPECT_EQ(alive, 1);
    P<Tracked> other(new Tracked(&alive));
    p = other;
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(other->getRefCount(), 2);
    p = nullptr;
    other = nullptr;
    EXPECT_EQ(alive, 0);
}

TEST(P, SelfAssignmentKeepsObject)
{
    int alive = 0;
    P<Tracked> p(new Tracked(&alive));
    const P<Tracked>& self = p;
    p = self;
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(p->getRefCount(), 1);
}

TEST(P, ConvertsToPointerOfBaseAndConst)
{
    int alive = 0;
    P<Derived> derived(new Derived(&alive));
    P<Tracked> base = derived;
    PC<Tracked> constant = derived;
    EXPECT_EQ(derived->getRefCount(), 3);
    EXPECT_EQ(constant.get(), base.get());
}

TEST(P, GivesAccessToObject)
{
    int alive = 0;
    P<Tracked> p(new Tracked(&alive));
    p->value = 5;
    EXPECT_EQ((*p).value, 5);
}

TEST(P, SwapExchangesObjects)
{
    int alive = 0;
    P<Tracked> a(new Tracked(&alive));
    P<Tracked> b;
    Tracked* raw = a.get();
    a.swap(b);
    EXPECT_TRUE(a.isNull());
    EXPECT_EQ(b.get(), raw);
}

TEST(DynamicCast, GivesObjectOfRightTypeOrNull)
{
    int alive = 0;
    P<Tracked> asBase(new Derived(&alive));
    P<Derived> asDerived = zo::dynamicCast<Derived>(asBase);
    EXPECT_EQ(asDerived.get(), asBase.get());
    EXPECT_EQ(asBase->getRefCount(), 2);
    P<Unrelated> other = zo::dynamicCast<Unrelated>(asBase);
    EXPECT_TRUE(other.isNull());
}
